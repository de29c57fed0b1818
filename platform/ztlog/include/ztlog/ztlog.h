/*
 * ztlog: the platform logging library.
 *
 * Log contexts are looked up by name and live for the whole process. A context's first member is
 * its current threshold: a message is written when its level is at or below the threshold. Levels
 * have syslog's meanings: 0 emergency, 1 alert, 2 critical, 3 error, 4 warning, 5 notice, 6 info,
 * 7 debug.
 *
 * Thresholds come from the environment on first use: ZTLOG_LEVELS is a comma list of
 * "context=level" entries (level by number or by syslog name). A context takes the setting of its
 * longest dotted prefix ("VOK=4,VOK.MessageMover.Msg.Write=7"); "*=level" sets the default for
 * unmatched contexts, which is otherwise warning (4). ZTLOG_OUTPUT=syslog sends lines to syslog
 * instead of standard error, ZTLOG_OUTPUT=journal to the systemd journal.
 *
 * Every function is thread-safe. Each line is written whole, with one write, as
 * "TIMESTAMP LEVEL [CONTEXT] (tid N) MESSAGE" (UTC, microseconds; N is the kernel thread id);
 * syslog receives "[CONTEXT] (tid N) MESSAGE" at the line's level as its priority. The journal
 * receives MESSAGE, PRIORITY (the level), ZTLOG_CONTEXT, TID and, for lines that name a function
 * ("ERROR in NAME: ..." and the tracing lines "NAME: ... Entering" / "Leaving"), CODE_FUNC; a line
 * the journal refuses goes to standard error (where no journal runs at all, libsystemd drops lines
 * without an error).
 */
#ifndef ZTLOG_ZTLOG_H
#define ZTLOG_ZTLOG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    kZtLogEmergency = 0,
    kZtLogAlert = 1,
    kZtLogCritical = 2,
    kZtLogError = 3,
    kZtLogWarning = 4,
    kZtLogNotice = 5,
    kZtLogInfo = 6,
    kZtLogDebug = 7
};

/* A named log context. Only the first member is part of the interface: the current threshold,
 * which callers may read (atomically, relaxed) to skip formatting of messages that would be
 * dropped. Contexts are never freed. */
typedef struct ZtLogContext {
    /* The current threshold; see above. */
    int32_t threshold;
} ZtLogContext;

/* Finds or creates the context called name and stores it in *ctx. Returns 0 on success, -1 when
 * name or ctx is NULL or memory runs out (then *ctx, if ctx is given, is the default context). */
int ZtLogGetContext(const char* name, ZtLogContext** ctx);

/* Finds the context called name without creating it: returns 0 and stores it in *ctx, or -1
 * (and leaves *ctx alone) when no such context exists or an argument is NULL. */
int ZtLogFindContext(const char* name, ZtLogContext** ctx);

/* Calls fn once for every context that exists, with its name and current threshold, newest
 * first. fn runs under the library's context lock: it must not create or look up contexts. */
void ZtLogForEachContext(void (*fn)(const char* name, int threshold, void* user), void* user);

/* Writes one message at level when level <= the context's threshold. A NULL context logs through
 * the default context "default". A trailing newline in the formatted text is dropped; the text is
 * written as one line. */
void ZtLogVPrint(ZtLogContext* ctx, int level, const char* format, va_list args);
void ZtLogPrint(ZtLogContext* ctx, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Writes len bytes of data as a hex dump, one line per 16 bytes: offset, hex bytes and their
 * printable characters. format is reserved and must be 0. */
void ZtLogDumpData(ZtLogContext* ctx, int level, const void* data, size_t len, int format);

/* Sets the threshold of the context called name (creating it if needed) and of every context
 * under it ("VOK" covers "VOK.Shell" and "VOK.MessageMover.Msg.Write", not "VOKX"), those that
 * exist and those made later, as a ZTLOG_LEVELS entry would; earlier settings of contexts under
 * name are replaced. Returns 0, or -1 for a NULL name, "*", a level outside 0..7 or no memory. */
int ZtLogSetLevel(const char* name, int level);

/* Parses a level given by number ("0".."7") or by syslog name, in any case ("emerg", "alert",
 * "crit", "err", "warning", "notice", "info", "debug", and "emergency", "critical", "error",
 * "warn"). Returns the level 0..7, or -1 for NULL or anything else. */
int ZtLogParseLevel(const char* text);

/* Sends lines to syslog (enable non-zero) or to standard error from now on, whatever ZTLOG_OUTPUT
 * said: a daemon may switch once it has detached from its terminal. */
void ZtLogSetSyslogOutput(int enable);

/* Sends lines to "stderr", "syslog" or "journal" from now on, whatever ZTLOG_OUTPUT said. Returns
 * 0, or -1 for another name (the output is then unchanged). */
int ZtLogSetOutput(const char* name);

/* Receives every line instead of the normal output: the level, the context name and the message
 * text without timestamp or trailing newline. */
typedef void (*ZtLogOutputHook)(void* user, int level, const char* contextName,
                                const char* message);

/* Installs hook (NULL restores the normal output). When this returns, no call of the previous
 * hook is still running. A hook may log (it is then called again) but must not call
 * ZtLogSetOutputHook. */
void ZtLogSetOutputHook(ZtLogOutputHook hook, void* user);

/* Returns the syslog name of a level ("crit", "debug", ...) or "?" outside 0..7. */
const char* ZtLogLevelName(int level);

#ifdef __cplusplus
}
#endif

#endif /* ZTLOG_ZTLOG_H */
