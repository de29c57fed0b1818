/* kv-call: calls a method on the platform bus and prints each reply as one JSON line.
 *
 *   kv-call URI JSON [--subscribe] [--count N] [--timeout S] [--ignore-errors]
 *
 * Without --subscribe it waits for the first reply. With --subscribe it asks for a subscription
 * (adding "subscribe": true to an object payload that does not say) and prints replies until the
 * last one, N replies (--count), S seconds (--timeout), or SIGINT/SIGTERM. The exit statuses are
 * in the help text below.
 *
 * --timeout bounds the whole run. The call itself carries the remaining time as its deadline for
 * the first reply, and a timer on the loop ends a subscription's run. Connecting has no such
 * bound: a bus that accepts the connection and never answers holds KVRegister for ever, so a
 * watchdog thread ends the process when connecting outlasts the deadline, with a one-line
 * message on standard error. */
#include <errno.h>
#include <glib-unix.h>
#include <glib.h>
#include <json-c/json.h>
#include <kelvra/kelvra.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

typedef struct Options {
    const char* uri;
    const char* payload;
    gboolean subscribe;
    gboolean ignoreErrors; /* an error reply does not change the exit status */
    long count;            /* 0: not limited */
    double timeout;        /* seconds; 0: none */
} Options;

/* Exit statuses. */
enum {
    KV_EXIT_OK = 0,
    KV_EXIT_USAGE = 1,       /* bad arguments, or the bus cannot be used */
    KV_EXIT_INCOMPLETE = 2,  /* the timeout or a signal ended the wait too early */
    KV_EXIT_ERROR_REPLY = 3, /* a reply was an error */
};

typedef struct State {
    const Options* options;
    GMainLoop* loop;
    long received;
    gboolean ended;      /* the call has ended (last reply) */
    gboolean errorReply; /* a reply said "returnValue": false */
    int status;
} State;

/* Where the main thread is, as the watchdog sees it. */
typedef enum Phase {
    PHASE_CONNECTING, /* registering, attaching or sending the call: nothing can stop it */
    PHASE_WAITING,    /* in the loop, which the watchdog stops at the deadline */
    PHASE_CLOSING,    /* cancelling and unregistering, with status decided */
    PHASE_DONE
} Phase;

/* How long the loop may overrun the deadline, and the tidy-up take past it, before the watchdog
 * ends the process. */
#define KV_CLOSING_GRACE_SECONDS 2
/* Longer timeouts are this long (about 49 days): the call's deadline is 32-bit milliseconds. */
#define KV_MAX_TIMEOUT_SECONDS 4294967.0

/* The --timeout watchdog: a thread of its own, started before connecting and joined at the end.
 */
typedef struct Watchdog {
    pthread_mutex_t lock;   /* Protects phase and status. */
    pthread_cond_t changed; /* Signalled when phase changes. */
    Phase phase;
    int status;                   /* PHASE_CLOSING: the exit status main will return */
    struct timespec deadline;     /* CLOCK_MONOTONIC */
    struct timespec backstop;     /* PHASE_WAITING: the deadline and the grace */
    struct timespec closingLimit; /* PHASE_CLOSING: when the watchdog gives up on it */
    double seconds;
    pthread_t thread;
} Watchdog;

static void Help(void) {
    printf(
        "usage: kv-call [OPTIONS] URI JSON\n"
        "Calls a method of a service on the platform bus and prints each reply as one JSON line.\n"
        "\n"
        "  URI              kelvra://SERVICE/CATEGORY/METHOD\n"
        "  JSON             the payload, a JSON object\n"
        "  --subscribe      ask for a subscription and print replies until the last one\n"
        "  --count N        with --subscribe: stop after N replies\n"
        "  --timeout S      give up after S seconds (fractions allowed): on connecting and the\n"
        "                   first reply, and with --subscribe on the whole run\n"
        "  --ignore-errors  exit with 0 even when a reply is an error (\"returnValue\": false)\n"
        "  --help           show this help and exit\n"
        "  --version        show the version and exit\n"
        "\n"
        "The bus: KELVRA_BUS_ADDRESS, else DBUS_SESSION_BUS_ADDRESS, else the system bus.\n"
        "\n"
        "Exit status: 0 when the replies asked for came and none was an error; 1 for bad\n"
        "arguments or when the bus cannot be used; 2 when the timeout or a signal ended the wait\n"
        "before them; 3 when a reply was an error (\"returnValue\": false), unless\n"
        "--ignore-errors. Errors are one line on standard error.\n");
}

/* One line on standard error saying what is wrong with the arguments. */
static gboolean BadArgs(const char* format, const char* what) {
    fprintf(stderr, "kv-call: ");
    fprintf(stderr, format, what);
    fprintf(stderr, " (see kv-call --help)\n");
    return FALSE;
}

/* False after saying on standard error what is wrong; *exitNow set for --help and --version. */
static gboolean ParseArgs(int argc, char** argv, Options* options, gboolean* exitNow) {
    memset(options, 0, sizeof *options);
    *exitNow = FALSE;
    int positional = 0;
    for (int i = 1; i < argc; ++i) {
        char* end = NULL;
        if (strcmp(argv[i], "--help") == 0) {
            Help();
            *exitNow = TRUE;
            return TRUE;
        } else if (strcmp(argv[i], "--version") == 0) {
            printf("kv-call (vok) %s\n", KV_CALL_VERSION);
            *exitNow = TRUE;
            return TRUE;
        } else if (strcmp(argv[i], "--subscribe") == 0) {
            options->subscribe = TRUE;
        } else if (strcmp(argv[i], "--ignore-errors") == 0) {
            options->ignoreErrors = TRUE;
        } else if (strcmp(argv[i], "--count") == 0) {
            if (i + 1 == argc) {
                return BadArgs("%s needs a number", argv[i]);
            }
            errno = 0;
            options->count = strtol(argv[++i], &end, 10);
            if (errno != 0 || *end != '\0' || options->count < 1) {
                return BadArgs("--count needs a whole number of at least 1, not \"%s\"", argv[i]);
            }
        } else if (strcmp(argv[i], "--timeout") == 0) {
            if (i + 1 == argc) {
                return BadArgs("%s needs a number", argv[i]);
            }
            errno = 0;
            options->timeout = strtod(argv[++i], &end);
            if (errno != 0 || *end != '\0' || !(options->timeout > 0)) {
                return BadArgs("--timeout needs a number of seconds above 0, not \"%s\"", argv[i]);
            }
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            return BadArgs("unknown option %s", argv[i]);
        } else if (positional == 0) {
            options->uri = argv[i];
            ++positional;
        } else if (positional == 1) {
            options->payload = argv[i];
            ++positional;
        } else {
            return BadArgs("one argument too many: \"%s\"", argv[i]);
        }
    }
    if (positional < 2) {
        return BadArgs("%s", positional == 0 ? "needs a URI and a JSON payload"
                                             : "needs a JSON payload after the URI");
    }
    return TRUE;
}

/* The payload with "subscribe": true when it is an object that does not say; else as given. */
static char* SubscribePayload(const char* payload) {
    json_object* object = json_tokener_parse(payload);
    char* result;
    if (object != NULL && json_object_is_type(object, json_type_object) &&
        !json_object_object_get_ex(object, "subscribe", NULL)) {
        json_object_object_add(object, "subscribe", json_object_new_boolean(1));
        result = g_strdup(json_object_to_json_string_ext(
            object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    } else {
        result = g_strdup(payload);
    }
    json_object_put(object);
    return result;
}

static void PrintLine(const char* payload) {
    json_object* value = json_tokener_parse(payload);
    if (value != NULL) {
        printf("%s\n", json_object_to_json_string_ext(
                           value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
        json_object_put(value);
    } else {
        /* Not JSON: printed as it came, on one line. */
        char* line = g_strdup(payload);
        g_strdelimit(line, "\r\n", ' ');
        printf("%s\n", line);
        g_free(line);
    }
    fflush(stdout);
}

/* Says on standard error why the run ended before the replies asked for came. */
static void SayIncomplete(const State* state) {
    if (state->received == 0) {
        fprintf(stderr, "kv-call: no reply within %g s\n", state->options->timeout);
    } else {
        fprintf(stderr, "kv-call: %ld of %ld replies within %g s\n", state->received,
                state->options->count, state->options->timeout);
    }
}

/* The errorCode of an error reply ("returnValue": false), or -1 when the reply is not one. Its
 * errorText, when it has one, goes to *text (to be g_free'd). */
static int ErrorOfReply(const char* payload, char** text) {
    json_object* reply = json_tokener_parse(payload);
    json_object* value = NULL;
    int code = -1;
    *text = NULL;
    if (reply != NULL && json_object_is_type(reply, json_type_object) &&
        json_object_object_get_ex(reply, "returnValue", &value) &&
        json_object_is_type(value, json_type_boolean) && !json_object_get_boolean(value)) {
        code =
            json_object_object_get_ex(reply, "errorCode", &value) ? json_object_get_int(value) : 0;
        if (json_object_object_get_ex(reply, "errorText", &value)) {
            *text = g_strdup(json_object_get_string(value));
        }
    }
    json_object_put(reply);
    return code;
}

static bool OnReply(KVHandle* handle, KVMessage* reply, void* data) {
    (void)handle;
    State* state = data;
    const char* payload = KVMessageGetPayload(reply);
    char* text = NULL;
    int code = ErrorOfReply(payload, &text);
    state->ended = KVMessageIsLastReply(reply);
    if (code == KV_ERROR_TIMEOUT && state->received == 0 && state->ended) {
        /* The call's own deadline: no reply came from the service. */
        g_free(text);
        state->status = KV_EXIT_INCOMPLETE;
        SayIncomplete(state);
        g_main_loop_quit(state->loop);
        return true;
    }
    PrintLine(payload);
    ++state->received;
    if (code >= 0 && !state->options->ignoreErrors) {
        char* line = g_strdup(text != NULL ? text : "");
        g_strdelimit(line, "\r\n", ' ');
        fprintf(stderr, "kv-call: the reply is an error: %s (errorCode %d)\n", line, code);
        g_free(line);
        state->errorReply = TRUE;
    }
    g_free(text);
    if (state->ended || !state->options->subscribe ||
        (state->options->count > 0 && state->received >= state->options->count)) {
        state->status = KV_EXIT_OK;
        g_main_loop_quit(state->loop);
    }
    return true;
}

/* Ends the wait (a signal, or the run's timer): a subscription without --count that had a reply
 * ends normally, anything else too early. */
static gboolean OnStop(gpointer data) {
    State* state = data;
    state->status = (state->options->subscribe && state->options->count == 0 && state->received > 0)
                        ? KV_EXIT_OK
                        : KV_EXIT_INCOMPLETE;
    g_main_loop_quit(state->loop);
    return G_SOURCE_REMOVE;
}

static gboolean OnSignal(gpointer data) {
    State* state = data;
    OnStop(state);
    if (state->status != KV_EXIT_OK) {
        fprintf(stderr, "kv-call: stopped by a signal before the replies came\n");
    }
    return G_SOURCE_REMOVE;
}

/* The end of a subscription's run: as OnStop, and says so when the replies asked for did not
 * come. */
static gboolean OnTimeout(gpointer data) {
    State* state = data;
    OnStop(state);
    if (state->status != KV_EXIT_OK) {
        SayIncomplete(state);
    }
    return G_SOURCE_REMOVE;
}

/* One line on standard error in one write, then the process ends: the main thread may be stuck
 * anywhere, so nothing it holds is touched. */
static void Abandon(const char* format, double seconds, int status) {
    char line[128];
    int length = snprintf(line, sizeof line, format, seconds);
    if (length > 0) {
        ssize_t written = write(STDERR_FILENO, line, (size_t)length);
        (void)written;
    }
    _exit(status);
}

static void AddSeconds(struct timespec* time, double seconds) {
    if (seconds > KV_MAX_TIMEOUT_SECONDS) {
        seconds = KV_MAX_TIMEOUT_SECONDS;
    }
    double whole = (double)(time_t)seconds;
    time->tv_sec += (time_t)whole;
    time->tv_nsec += (long)((seconds - whole) * 1e9);
    if (time->tv_nsec >= 1000000000L) {
        time->tv_sec += 1;
        time->tv_nsec -= 1000000000L;
    }
}

/* Waits until phase leaves from or the deadline passes; lock held. True when it left. */
static gboolean WaitPhaseChange(Watchdog* watchdog, Phase from, const struct timespec* deadline) {
    while (watchdog->phase == from) {
        if (pthread_cond_timedwait(&watchdog->changed, &watchdog->lock, deadline) == ETIMEDOUT) {
            return watchdog->phase != from;
        }
    }
    return TRUE;
}

static void* WatchdogMain(void* data) {
    Watchdog* watchdog = data;
    pthread_mutex_lock(&watchdog->lock);
    while (watchdog->phase != PHASE_DONE) {
        Phase phase = watchdog->phase;
        /* While waiting, the loop ends the run by itself (the call's deadline, the run's timer):
         * the watchdog steps in only when the loop does not. */
        const struct timespec* limit = phase == PHASE_CONNECTING ? &watchdog->deadline
                                       : phase == PHASE_WAITING  ? &watchdog->backstop
                                                                 : &watchdog->closingLimit;
        if (WaitPhaseChange(watchdog, phase, limit)) {
            continue;
        }
        if (phase == PHASE_CONNECTING) {
            Abandon("kv-call: no answer from the bus within %g s\n", watchdog->seconds,
                    KV_EXIT_INCOMPLETE);
        }
        if (phase == PHASE_WAITING) {
            Abandon("kv-call: no reply within %g s\n", watchdog->seconds, KV_EXIT_INCOMPLETE);
        }
        Abandon("kv-call: the bus did not let go within %g s\n", watchdog->seconds,
                watchdog->status);
    }
    pthread_mutex_unlock(&watchdog->lock);
    return NULL;
}

static int CompareTimes(const struct timespec* a, const struct timespec* b) {
    if (a->tv_sec != b->tv_sec) {
        return a->tv_sec < b->tv_sec ? -1 : 1;
    }
    return a->tv_nsec < b->tv_nsec ? -1 : a->tv_nsec > b->tv_nsec;
}

static void WatchdogSetPhase(Watchdog* watchdog, Phase phase, int status) {
    if (watchdog == NULL) {
        return;
    }
    pthread_mutex_lock(&watchdog->lock);
    if (phase == PHASE_CLOSING) {
        /* The grace runs from the deadline, or from now when that has passed. */
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        watchdog->closingLimit =
            CompareTimes(&now, &watchdog->deadline) > 0 ? now : watchdog->deadline;
        AddSeconds(&watchdog->closingLimit, KV_CLOSING_GRACE_SECONDS);
    }
    watchdog->phase = phase;
    watchdog->status = status;
    pthread_cond_signal(&watchdog->changed);
    pthread_mutex_unlock(&watchdog->lock);
}

/* Milliseconds from now until the watchdog's deadline, rounded up, at least 1. */
static uint32_t RemainingMs(const Watchdog* watchdog) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double ms = (double)(watchdog->deadline.tv_sec - now.tv_sec) * 1e3 +
                (double)(watchdog->deadline.tv_nsec - now.tv_nsec) / 1e6;
    if (ms < 1) {
        return 1;
    }
    if (ms >= 4294967295.0) {
        return UINT32_MAX;
    }
    uint32_t whole = (uint32_t)ms;
    return (double)whole < ms ? whole + 1 : whole;
}

/* Starts the watchdog for a run of seconds from now; exits when it cannot. */
static Watchdog* WatchdogStart(double seconds) {
    Watchdog* watchdog = g_new0(Watchdog, 1);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_mutex_init(&watchdog->lock, NULL);
    pthread_cond_init(&watchdog->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    watchdog->phase = PHASE_CONNECTING;
    watchdog->seconds = seconds;
    clock_gettime(CLOCK_MONOTONIC, &watchdog->deadline);
    AddSeconds(&watchdog->deadline, seconds);
    watchdog->backstop = watchdog->deadline;
    AddSeconds(&watchdog->backstop, KV_CLOSING_GRACE_SECONDS);
    int error = pthread_create(&watchdog->thread, NULL, WatchdogMain, watchdog);
    if (error != 0) {
        fprintf(stderr, "kv-call: cannot start the timeout watchdog: %s\n", strerror(error));
        exit(1);
    }
    return watchdog;
}

static void WatchdogStop(Watchdog* watchdog) {
    if (watchdog == NULL) {
        return;
    }
    WatchdogSetPhase(watchdog, PHASE_DONE, 0);
    pthread_join(watchdog->thread, NULL);
    pthread_cond_destroy(&watchdog->changed);
    pthread_mutex_destroy(&watchdog->lock);
    g_free(watchdog);
}

int main(int argc, char** argv) {
    Options options;
    gboolean exitNow;
    if (!ParseArgs(argc, argv, &options, &exitNow)) {
        return KV_EXIT_USAGE;
    }
    if (exitNow) {
        return fflush(stdout) == 0 ? KV_EXIT_OK : KV_EXIT_USAGE;
    }
    State state = {&options, g_main_loop_new(NULL, FALSE), 0, FALSE, FALSE, KV_EXIT_INCOMPLETE};
    KVHandle* handle = NULL;
    KVError error;
    KVErrorInit(&error);
    char* payload =
        options.subscribe ? SubscribePayload(options.payload) : g_strdup(options.payload);
    KVMessageToken token = 0;
    Watchdog* watchdog = options.timeout > 0 ? WatchdogStart(options.timeout) : NULL;
    if (!KVRegister(NULL, &handle, &error) || !KVGmainAttach(handle, NULL, &error) ||
        !KVCallWithTimeout(handle, options.uri, payload,
                           watchdog != NULL ? RemainingMs(watchdog) : 0, OnReply, &state, &token,
                           &error)) {
        fprintf(stderr, "kv-call: %s\n", error.message);
        state.status = KV_EXIT_USAGE;
    } else {
        WatchdogSetPhase(watchdog, PHASE_WAITING, 0);
        if (watchdog != NULL && options.subscribe) {
            g_timeout_add(RemainingMs(watchdog), OnTimeout, &state);
        }
        g_unix_signal_add(SIGINT, OnSignal, &state);
        g_unix_signal_add(SIGTERM, OnSignal, &state);
        g_main_loop_run(state.loop);
        if (!state.ended) {
            KVCallCancel(handle, token, NULL);
        }
    }
    if (state.status == KV_EXIT_OK && state.errorReply) {
        state.status = KV_EXIT_ERROR_REPLY;
    }
    WatchdogSetPhase(watchdog, PHASE_CLOSING, state.status);
    if (handle != NULL) {
        KVUnregister(handle, NULL);
    }
    WatchdogStop(watchdog);
    KVErrorFree(&error);
    g_free(payload);
    g_main_loop_unref(state.loop);
    return state.status;
}
