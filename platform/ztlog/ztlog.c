/* ztlog: named log contexts with per-context thresholds, written to stderr, syslog or a hook. */
#define _GNU_SOURCE
/* The code location of a line is the caller's (CODE_FUNC from the line), never ztlog's own. */
#define SD_JOURNAL_SUPPRESS_LOCATION
#include "ztlog/ztlog.h"

#include <ctype.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

/* The public part (threshold) must stay first. */
typedef struct ZtLogContextImpl {
    ZtLogContext pub;
    struct ZtLogContextImpl* next;
    char name[];
} ZtLogContextImpl;

typedef struct ZtLogRule {
    char* prefix;
    int level;
} ZtLogRule;

static pthread_once_t gInitOnce = PTHREAD_ONCE_INIT;
static pthread_mutex_t gContextsLock = PTHREAD_MUTEX_INITIALIZER; /* Protects gContexts. */
static ZtLogContextImpl* gContexts;
static ZtLogContextImpl* gDefaultContext;
/* The rules of ZTLOG_LEVELS and of ZtLogSetLevel: set before any context exists, then changed
 * under gContextsLock only. */
static ZtLogRule* gRules;
static size_t gRuleCount;
static int gDefaultLevel = kZtLogWarning; /* Read-only after initialisation. */
/* Where lines go when no hook takes them. Read and written atomically: it may change at any time.
 */
enum { kOutputStderr = 0, kOutputSyslog = 1, kOutputJournal = 2 };
static int gOutput;

/* Held for reading while a hook runs, for writing while the hook changes. */
static pthread_rwlock_t gHookLock = PTHREAD_RWLOCK_INITIALIZER;
static ZtLogOutputHook gHook; /* Protected by gHookLock. */
static void* gHookUser;       /* Protected by gHookLock. */

static const char* const kLevelNames[8] = {"emerg",   "alert",  "crit", "err",
                                           "warning", "notice", "info", "debug"};

const char* ZtLogLevelName(int level) {
    return (level >= 0 && level <= 7) ? kLevelNames[level] : "?";
}

int ZtLogParseLevel(const char* text) {
    static const struct {
        const char* name;
        int level;
    } kAliases[] = {{"emergency", 0}, {"critical", 2}, {"error", 3}, {"warn", 4}};
    if (text == NULL) {
        return -1;
    }
    if (isdigit((unsigned char)text[0]) && text[1] == '\0') {
        int level = text[0] - '0';
        return level <= 7 ? level : -1;
    }
    for (int i = 0; i < 8; ++i) {
        if (strcasecmp(text, kLevelNames[i]) == 0) {
            return i;
        }
    }
    for (size_t i = 0; i < sizeof kAliases / sizeof kAliases[0]; ++i) {
        if (strcasecmp(text, kAliases[i].name) == 0) {
            return kAliases[i].level;
        }
    }
    return -1;
}

/* True when name is prefix itself or lies under it ("A.B" is under "A", "AB" is not). */
static int IsUnder(const char* name, const char* prefix) {
    size_t len = strlen(prefix);
    return strncmp(name, prefix, len) == 0 && (name[len] == '\0' || name[len] == '.');
}

/* Adds the rule "prefix=level"; returns 0, or -1 when memory runs out. */
static int AddRule(const char* prefix, int level) {
    if (strcmp(prefix, "*") == 0) {
        gDefaultLevel = level;
        return 0;
    }
    ZtLogRule* rules = realloc(gRules, (gRuleCount + 1) * sizeof *rules);
    char* copy = strdup(prefix);
    if (rules == NULL || copy == NULL) {
        free(copy);
        if (rules != NULL) {
            gRules = rules;
        }
        return -1;
    }
    gRules = rules;
    gRules[gRuleCount].prefix = copy;
    gRules[gRuleCount].level = level;
    ++gRuleCount;
    return 0;
}

/* Drops every rule for prefix and for the contexts under it. Called under gContextsLock. */
static void DropRulesUnderLocked(const char* prefix) {
    size_t kept = 0;
    for (size_t i = 0; i < gRuleCount; ++i) {
        if (IsUnder(gRules[i].prefix, prefix)) {
            free(gRules[i].prefix);
        } else {
            gRules[kept++] = gRules[i];
        }
    }
    gRuleCount = kept;
}

static void ParseLevels(const char* spec) {
    char* copy = strdup(spec);
    if (copy == NULL) {
        return;
    }
    char* save = NULL;
    for (char* item = strtok_r(copy, ",", &save); item != NULL; item = strtok_r(NULL, ",", &save)) {
        while (isspace((unsigned char)*item)) {
            ++item;
        }
        char* eq = strchr(item, '=');
        if (eq == NULL || eq == item) {
            fprintf(stderr, "ztlog: ignoring ZTLOG_LEVELS entry <%s>: expected context=level\n",
                    item);
            continue;
        }
        *eq = '\0';
        char* end = eq - 1;
        while (end > item && isspace((unsigned char)*end)) {
            *end-- = '\0';
        }
        char* value = eq + 1;
        while (isspace((unsigned char)*value)) {
            ++value;
        }
        size_t len = strlen(value);
        while (len > 0 && isspace((unsigned char)value[len - 1])) {
            value[--len] = '\0';
        }
        int level = ZtLogParseLevel(value);
        if (level < 0) {
            fprintf(stderr, "ztlog: ignoring ZTLOG_LEVELS entry <%s=%s>: unknown level\n", item,
                    value);
            continue;
        }
        AddRule(item, level);
    }
    free(copy);
}

/* The threshold of the longest rule that is the name itself or a dotted prefix of it. */
static int LevelForName(const char* name) {
    size_t bestLen = 0;
    int level = gDefaultLevel;
    for (size_t i = 0; i < gRuleCount; ++i) {
        size_t len = strlen(gRules[i].prefix);
        if (len > bestLen && IsUnder(name, gRules[i].prefix)) {
            bestLen = len;
            level = gRules[i].level;
        }
    }
    return level;
}

static ZtLogContextImpl* FindLocked(const char* name) {
    for (ZtLogContextImpl* c = gContexts; c != NULL; c = c->next) {
        if (strcmp(c->name, name) == 0) {
            return c;
        }
    }
    return NULL;
}

static ZtLogContextImpl* CreateLocked(const char* name) {
    size_t len = strlen(name);
    ZtLogContextImpl* c = malloc(sizeof *c + len + 1);
    if (c == NULL) {
        return NULL;
    }
    memcpy(c->name, name, len + 1);
    __atomic_store_n(&c->pub.threshold, LevelForName(name), __ATOMIC_RELAXED);
    c->next = gContexts;
    gContexts = c;
    return c;
}

static int SetOutput(const char* name) {
    static const char* const kOutputs[] = {"stderr", "syslog", "journal"};
    for (int i = 0; i < 3; ++i) {
        if (strcmp(name, kOutputs[i]) == 0) {
            __atomic_store_n(&gOutput, i, __ATOMIC_RELAXED);
            return 0;
        }
    }
    return -1;
}

static void Init(void) {
    const char* levels = getenv("ZTLOG_LEVELS");
    if (levels != NULL) {
        ParseLevels(levels);
    }
    const char* output = getenv("ZTLOG_OUTPUT");
    if (output != NULL && SetOutput(output) != 0) {
        fprintf(stderr, "ztlog: ignoring ZTLOG_OUTPUT <%s>: expected stderr, syslog or journal\n",
                output);
    }
    pthread_mutex_lock(&gContextsLock);
    gDefaultContext = CreateLocked("default");
    pthread_mutex_unlock(&gContextsLock);
}

int ZtLogGetContext(const char* name, ZtLogContext** ctx) {
    pthread_once(&gInitOnce, Init);
    if (ctx == NULL) {
        return -1;
    }
    if (name == NULL) {
        *ctx = &gDefaultContext->pub;
        return -1;
    }
    pthread_mutex_lock(&gContextsLock);
    ZtLogContextImpl* c = FindLocked(name);
    if (c == NULL) {
        c = CreateLocked(name);
    }
    pthread_mutex_unlock(&gContextsLock);
    if (c == NULL) {
        *ctx = &gDefaultContext->pub;
        return -1;
    }
    *ctx = &c->pub;
    return 0;
}

int ZtLogFindContext(const char* name, ZtLogContext** ctx) {
    pthread_once(&gInitOnce, Init);
    if (name == NULL || ctx == NULL) {
        return -1;
    }
    pthread_mutex_lock(&gContextsLock);
    ZtLogContextImpl* c = FindLocked(name);
    pthread_mutex_unlock(&gContextsLock);
    if (c == NULL) {
        return -1;
    }
    *ctx = &c->pub;
    return 0;
}

void ZtLogForEachContext(void (*fn)(const char* name, int threshold, void* user), void* user) {
    pthread_once(&gInitOnce, Init);
    if (fn == NULL) {
        return;
    }
    pthread_mutex_lock(&gContextsLock);
    for (const ZtLogContextImpl* c = gContexts; c != NULL; c = c->next) {
        fn(c->name, __atomic_load_n(&c->pub.threshold, __ATOMIC_RELAXED), user);
    }
    pthread_mutex_unlock(&gContextsLock);
}

int ZtLogSetLevel(const char* name, int level) {
    pthread_once(&gInitOnce, Init);
    if (name == NULL || level < 0 || level > 7 || strcmp(name, "*") == 0) {
        return -1;
    }
    pthread_mutex_lock(&gContextsLock);
    /* The new rule replaces every rule at or under name, so that contexts made later under it
     * start at this level too. */
    DropRulesUnderLocked(name);
    int result = AddRule(name, level);
    if (result == 0 && FindLocked(name) == NULL && CreateLocked(name) == NULL) {
        result = -1;
    }
    for (ZtLogContextImpl* c = gContexts; c != NULL; c = c->next) {
        if (IsUnder(c->name, name)) {
            __atomic_store_n(&c->pub.threshold, level, __ATOMIC_RELAXED);
        }
    }
    pthread_mutex_unlock(&gContextsLock);
    return result;
}

void ZtLogSetSyslogOutput(int enable) {
    pthread_once(&gInitOnce, Init);
    __atomic_store_n(&gOutput, enable != 0 ? kOutputSyslog : kOutputStderr, __ATOMIC_RELAXED);
}

int ZtLogSetOutput(const char* name) {
    pthread_once(&gInitOnce, Init);
    return name != NULL ? SetOutput(name) : -1;
}

void ZtLogSetOutputHook(ZtLogOutputHook hook, void* user) {
    pthread_rwlock_wrlock(&gHookLock);
    gHook = hook;
    gHookUser = user;
    pthread_rwlock_unlock(&gHookLock);
}

static ZtLogContextImpl* Resolve(ZtLogContext* ctx) {
    pthread_once(&gInitOnce, Init);
    return ctx != NULL ? (ZtLogContextImpl*)ctx : gDefaultContext;
}

static int Enabled(const ZtLogContextImpl* c, int level) {
    return c != NULL && level <= __atomic_load_n(&c->pub.threshold, __ATOMIC_RELAXED);
}

/* The function a framework line names, if any: "ERROR in NAME: ..." or the tracing lines
 * "NAME: Entering", "NAME: OBJECT: Leaving". Returns its length (0: none) and sets *name. */
static size_t FunctionOfLine(const char* message, const char** name) {
    static const char kErrorIn[] = "ERROR in ";
    const char* start = message;
    if (strncmp(message, kErrorIn, sizeof kErrorIn - 1) == 0) {
        start = message + sizeof kErrorIn - 1;
    } else {
        size_t len = strlen(message);
        if (!(len > 10 && (strcmp(message + len - 10, ": Entering") == 0 ||
                           strcmp(message + len - 9, ": Leaving") == 0))) {
            return 0;
        }
    }
    /* The name ends at the first colon that does not belong to "::". */
    const char* end = start;
    while (*end != '\0' && !(end[0] == ':' && end[1] != ':' && (end == start || end[-1] != ':'))) {
        if (isspace((unsigned char)*end)) {
            return 0;
        }
        ++end;
    }
    if (*end != ':' || end == start) {
        return 0;
    }
    *name = start;
    return (size_t)(end - start);
}

/* Sends one line to the journal with its priority, context, thread and, when the line names
 * one, function as fields of their own. Returns 0, or -1 when the journal did not take it. */
static int EmitJournal(const ZtLogContextImpl* c, int level, const char* message, long tid) {
    char* fields[5] = {NULL, NULL, NULL, NULL, NULL};
    int count = 0;
    const char* function = NULL;
    size_t functionLen = FunctionOfLine(message, &function);
    int ok =
        asprintf(&fields[count++], "MESSAGE=%s", message) >= 0 &&
        asprintf(&fields[count++], "PRIORITY=%d", level < 0 || level > 7 ? LOG_ERR : level) >= 0 &&
        asprintf(&fields[count++], "ZTLOG_CONTEXT=%s", c->name) >= 0 &&
        asprintf(&fields[count++], "TID=%ld", tid) >= 0 &&
        (functionLen == 0 ||
         asprintf(&fields[count++], "CODE_FUNC=%.*s", (int)functionLen, function) >= 0);
    int result = -1;
    if (ok) {
        struct iovec iov[5];
        for (int i = 0; i < count; ++i) {
            iov[i].iov_base = fields[i];
            iov[i].iov_len = strlen(fields[i]);
        }
        result = sd_journal_sendv(iov, count) < 0 ? -1 : 0;
    } else {
        fields[count - 1] = NULL; /* asprintf leaves it undefined on failure. */
    }
    for (int i = 0; i < count; ++i) {
        free(fields[i]);
    }
    return result;
}

static void EmitStderr(const ZtLogContextImpl* c, int level, const char* message, long tid);

/* Emits one finished message (no trailing newline) of context c. */
static void Emit(const ZtLogContextImpl* c, int level, const char* message) {
    pthread_rwlock_rdlock(&gHookLock);
    if (gHook != NULL) {
        gHook(gHookUser, level, c->name, message);
        pthread_rwlock_unlock(&gHookLock);
        return;
    }
    pthread_rwlock_unlock(&gHookLock);

    long tid = (long)syscall(SYS_gettid);
    switch (__atomic_load_n(&gOutput, __ATOMIC_RELAXED)) {
        case kOutputSyslog:
            /* syslog adds its own timestamp and takes the level as the priority. */
            syslog(level < 0 || level > 7 ? LOG_ERR : level, "[%s] (tid %ld) %s", c->name, tid,
                   message);
            return;
        case kOutputJournal:
            if (EmitJournal(c, level, message, tid) == 0) {
                return;
            }
            break; /* No journal to take it: the line goes to standard error. */
        default:
            break;
    }
    EmitStderr(c, level, message, tid);
}

static void EmitStderr(const ZtLogContextImpl* c, int level, const char* message, long tid) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tm;
    gmtime_r(&now.tv_sec, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &tm);

    char stackLine[1024];
    char* line = stackLine;
    const char* fmt = "%s.%06ldZ %s [%s] (tid %ld) %s\n";
    int len = snprintf(stackLine, sizeof stackLine, fmt, stamp, (long)(now.tv_nsec / 1000),
                       ZtLogLevelName(level), c->name, tid, message);
    if (len < 0) {
        return;
    }
    if ((size_t)len >= sizeof stackLine) {
        line = malloc((size_t)len + 1);
        if (line == NULL) {
            line = stackLine;
            len = (int)sizeof stackLine - 1;
            stackLine[len - 1] = '\n';
        } else {
            snprintf(line, (size_t)len + 1, fmt, stamp, (long)(now.tv_nsec / 1000),
                     ZtLogLevelName(level), c->name, tid, message);
        }
    }
    /* One write per line, so lines of different threads never interleave. */
    size_t off = 0;
    while (off < (size_t)len) {
        ssize_t n = write(STDERR_FILENO, line + off, (size_t)len - off);
        if (n <= 0) {
            break;
        }
        off += (size_t)n;
    }
    if (line != stackLine) {
        free(line);
    }
}

void ZtLogVPrint(ZtLogContext* ctx, int level, const char* format, va_list args) {
    ZtLogContextImpl* c = Resolve(ctx);
    if (!Enabled(c, level) || format == NULL) {
        return;
    }
    char stackBuf[512];
    char* text = stackBuf;
    va_list copy;
    va_copy(copy, args);
    int len = vsnprintf(stackBuf, sizeof stackBuf, format, copy);
    va_end(copy);
    if (len < 0) {
        return;
    }
    if ((size_t)len >= sizeof stackBuf) {
        text = malloc((size_t)len + 1);
        if (text == NULL) {
            text = stackBuf;
            len = (int)sizeof stackBuf - 1;
        } else {
            vsnprintf(text, (size_t)len + 1, format, args);
        }
    }
    while (len > 0 && text[len - 1] == '\n') {
        text[--len] = '\0';
    }
    Emit(c, level, text);
    if (text != stackBuf) {
        free(text);
    }
}

void ZtLogPrint(ZtLogContext* ctx, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    ZtLogVPrint(ctx, level, format, args);
    va_end(args);
}

void ZtLogDumpData(ZtLogContext* ctx, int level, const void* data, size_t len, int format) {
    (void)format;
    ZtLogContextImpl* c = Resolve(ctx);
    if (!Enabled(c, level) || (data == NULL && len > 0)) {
        return;
    }
    const unsigned char* bytes = data;
    for (size_t off = 0; off < len; off += 16) {
        /* "00000000: 00 01 ... 0f  |0123456789abcdef|" */
        char line[128];
        int pos = snprintf(line, sizeof line, "%08lx:", (unsigned long)off);
        for (size_t i = 0; i < 16; ++i) {
            if (off + i < len) {
                pos += snprintf(line + pos, sizeof line - (size_t)pos, " %02x", bytes[off + i]);
            } else {
                pos += snprintf(line + pos, sizeof line - (size_t)pos, "   ");
            }
        }
        pos += snprintf(line + pos, sizeof line - (size_t)pos, "  |");
        for (size_t i = 0; i < 16 && off + i < len; ++i) {
            unsigned char ch = bytes[off + i];
            line[pos++] = (ch >= 0x20 && ch < 0x7f) ? (char)ch : '.';
        }
        line[pos++] = '|';
        line[pos] = '\0';
        Emit(c, level, line);
    }
}
