/* kv-call: calls a method on the platform bus and prints each reply as one JSON line.
 *
 *   kv-call URI JSON [--subscribe] [--count N] [--timeout S]
 *
 * Without --subscribe it waits for the first reply. With --subscribe it asks for a subscription
 * (adding "subscribe": true to an object payload that does not say) and prints replies until the
 * last one, N replies (--count), S seconds (--timeout), or SIGINT/SIGTERM. Exit status: 0 when the
 * replies asked for came, 1 for bad arguments or a bus failure, 2 when the timeout or a signal
 * ended the wait before them.
 *
 * --timeout bounds the whole run, connecting included: a bus that accepts the connection and
 * never answers holds KVRegister for ever, so a watchdog thread ends the process at the deadline
 * with a one-line message on standard error. */
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
    long count;     /* 0: not limited */
    double timeout; /* seconds; 0: none */
} Options;

typedef struct State {
    const Options* options;
    GMainLoop* loop;
    long received;
    gboolean ended; /* the call has ended (last reply) */
    int status;
} State;

/* Where the main thread is, as the watchdog sees it. */
typedef enum Phase {
    PHASE_CONNECTING, /* registering, attaching or sending the call: nothing can stop it */
    PHASE_WAITING,    /* in the loop, which the watchdog stops at the deadline */
    PHASE_CLOSING,    /* cancelling and unregistering, with status decided */
    PHASE_DONE
} Phase;

/* How long the tidy-up after the deadline may take before the watchdog ends the process. */
#define KV_CLOSING_GRACE_SECONDS 2
/* Longer timeouts are this long (about three years), which time_t holds on every target. */
#define KV_MAX_TIMEOUT_SECONDS 1e8

/* The --timeout watchdog: a thread of its own, started before connecting and joined at the end.
 */
typedef struct Watchdog {
    pthread_mutex_t lock;   /* Protects phase and status. */
    pthread_cond_t changed; /* Signalled when phase changes. */
    Phase phase;
    int status;               /* PHASE_CLOSING: the exit status main will return */
    struct timespec deadline; /* CLOCK_MONOTONIC */
    double seconds;
    State* state;
    pthread_t thread;
} Watchdog;

static void Usage(void) {
    fprintf(stderr, "usage: kv-call URI JSON [--subscribe] [--count N] [--timeout S]\n");
}

static gboolean ParseArgs(int argc, char** argv, Options* options) {
    memset(options, 0, sizeof *options);
    int positional = 0;
    for (int i = 1; i < argc; ++i) {
        char* end = NULL;
        if (strcmp(argv[i], "--subscribe") == 0) {
            options->subscribe = TRUE;
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            errno = 0;
            options->count = strtol(argv[++i], &end, 10);
            if (errno != 0 || *end != '\0' || options->count < 1) {
                return FALSE;
            }
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc) {
            errno = 0;
            options->timeout = strtod(argv[++i], &end);
            if (errno != 0 || *end != '\0' || !(options->timeout > 0)) {
                return FALSE;
            }
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            return FALSE;
        } else if (positional == 0) {
            options->uri = argv[i];
            ++positional;
        } else if (positional == 1) {
            options->payload = argv[i];
            ++positional;
        } else {
            return FALSE;
        }
    }
    return positional == 2;
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

static bool OnReply(KVHandle* handle, KVMessage* reply, void* data) {
    (void)handle;
    State* state = data;
    PrintLine(KVMessageGetPayload(reply));
    ++state->received;
    state->ended = KVMessageIsLastReply(reply);
    if (state->ended || !state->options->subscribe ||
        (state->options->count > 0 && state->received >= state->options->count)) {
        state->status = 0;
        g_main_loop_quit(state->loop);
    }
    return true;
}

/* Timeout or signal: a subscription without --count ends normally, anything else too early. */
static gboolean OnStop(gpointer data) {
    State* state = data;
    state->status = (state->options->subscribe && state->options->count == 0) ? 0 : 2;
    g_main_loop_quit(state->loop);
    return G_SOURCE_REMOVE;
}

/* The deadline in the loop: as OnStop, and says so when the replies asked for did not come. */
static gboolean OnTimeout(gpointer data) {
    State* state = data;
    OnStop(state);
    if (state->status != 0) {
        fprintf(stderr, "kv-call: no reply within %g s\n", state->options->timeout);
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
        if (WaitPhaseChange(watchdog, phase, &watchdog->deadline)) {
            continue;
        }
        if (phase == PHASE_CONNECTING) {
            Abandon("kv-call: no answer from the bus within %g s\n", watchdog->seconds, 2);
        }
        if (phase == PHASE_WAITING) {
            /* The loop ends the wait on its own thread; GLib sources may be added from any. */
            g_idle_add(OnTimeout, watchdog->state);
        }
        struct timespec grace = watchdog->deadline;
        AddSeconds(&grace, KV_CLOSING_GRACE_SECONDS);
        while (watchdog->phase != PHASE_DONE &&
               WaitPhaseChange(watchdog, watchdog->phase, &grace)) {
        }
        if (watchdog->phase != PHASE_DONE) {
            Abandon("kv-call: the bus did not let go within %g s\n", watchdog->seconds,
                    watchdog->phase == PHASE_CLOSING ? watchdog->status : 2);
        }
    }
    pthread_mutex_unlock(&watchdog->lock);
    return NULL;
}

static void WatchdogSetPhase(Watchdog* watchdog, Phase phase, int status) {
    if (watchdog == NULL) {
        return;
    }
    pthread_mutex_lock(&watchdog->lock);
    watchdog->phase = phase;
    watchdog->status = status;
    pthread_cond_signal(&watchdog->changed);
    pthread_mutex_unlock(&watchdog->lock);
}

/* Starts the watchdog for a run of seconds from now; exits when it cannot. */
static Watchdog* WatchdogStart(double seconds, State* state) {
    Watchdog* watchdog = g_new0(Watchdog, 1);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_mutex_init(&watchdog->lock, NULL);
    pthread_cond_init(&watchdog->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    watchdog->phase = PHASE_CONNECTING;
    watchdog->seconds = seconds;
    watchdog->state = state;
    clock_gettime(CLOCK_MONOTONIC, &watchdog->deadline);
    AddSeconds(&watchdog->deadline, seconds);
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
    if (!ParseArgs(argc, argv, &options)) {
        Usage();
        return 1;
    }
    State state = {&options, g_main_loop_new(NULL, FALSE), 0, FALSE, 2};
    KVHandle* handle = NULL;
    KVError error;
    KVErrorInit(&error);
    char* payload =
        options.subscribe ? SubscribePayload(options.payload) : g_strdup(options.payload);
    KVMessageToken token = 0;
    Watchdog* watchdog = options.timeout > 0 ? WatchdogStart(options.timeout, &state) : NULL;
    if (!KVRegister(NULL, &handle, &error) || !KVGmainAttach(handle, NULL, &error) ||
        !KVCall(handle, options.uri, payload, OnReply, &state, &token, &error)) {
        fprintf(stderr, "kv-call: %s\n", error.message);
        state.status = 1;
    } else {
        WatchdogSetPhase(watchdog, PHASE_WAITING, 0);
        g_unix_signal_add(SIGINT, OnStop, &state);
        g_unix_signal_add(SIGTERM, OnStop, &state);
        g_main_loop_run(state.loop);
        if (!state.ended) {
            KVCallCancel(handle, token, NULL);
        }
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
