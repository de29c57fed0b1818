/* kv-call: calls a method on the platform bus and prints each reply as one JSON line.
 *
 *   kv-call URI JSON [--subscribe] [--count N] [--timeout S] [--ignore-errors]
 *
 * Without --subscribe it waits for the first reply. With --subscribe it asks for a subscription
 * (adding "subscribe": true to an object payload that does not say) and prints replies until the
 * last one, N replies (--count), S seconds (--timeout), or SIGINT/SIGTERM. The exit statuses are
 * in the help text below.
 *
 * --timeout bounds the whole run: a single call carries it as its deadline for the first reply,
 * and a timer on the loop ends a subscription's run. Connecting happens inside the loop too (the
 * call waits for it), so a bus that accepts the connection and never answers is bounded alike. */
#include <glib-unix.h>
#include <glib.h>
#include <json-c/json.h>
#include <kelvra/kelvra.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
    KVHandle* handle;
    GMainLoop* loop;
    long received;
    gboolean ended;      /* the call has ended (last reply) */
    gboolean errorReply; /* a reply said "returnValue": false */
    int status;
} State;

/* Longer timeouts are this long (about 49 days): the call's deadline is 32-bit milliseconds. */
#define KV_MAX_TIMEOUT_SECONDS 4294967.0

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
    if (!KVIsConnected(state->handle)) {
        fprintf(stderr, "kv-call: no answer from the bus within %g s\n", state->options->timeout);
    } else if (state->received == 0) {
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

/* --timeout in milliseconds, rounded up; 0 without one. */
static uint32_t TimeoutMs(double seconds) {
    if (seconds > KV_MAX_TIMEOUT_SECONDS) {
        seconds = KV_MAX_TIMEOUT_SECONDS;
    }
    const double ms = seconds * 1e3;
    if (ms >= 4294967295.0) {
        return UINT32_MAX;
    }
    const uint32_t whole = (uint32_t)ms;
    return (double)whole < ms ? whole + 1 : whole;
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
    State state = {&options,          NULL, g_main_loop_new(NULL, FALSE), 0, FALSE, FALSE,
                   KV_EXIT_INCOMPLETE};
    KVHandle* handle = NULL;
    KVError error;
    KVErrorInit(&error);
    char* payload =
        options.subscribe ? SubscribePayload(options.payload) : g_strdup(options.payload);
    KVMessageToken token = 0;
    const uint32_t timeoutMs = TimeoutMs(options.timeout);
    const bool registered = KVRegister(NULL, &handle, &error);
    state.handle = handle;
    if (!registered || !KVGmainAttach(handle, NULL, &error) ||
        !KVCallWithTimeout(handle, options.uri, payload, options.subscribe ? 0 : timeoutMs, OnReply,
                           &state, &token, &error)) {
        fprintf(stderr, "kv-call: %s\n", error.message);
        state.status = KV_EXIT_USAGE;
    } else {
        if (timeoutMs > 0 && options.subscribe) {
            g_timeout_add(timeoutMs, OnTimeout, &state);
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
    if (handle != NULL) {
        KVUnregister(handle, NULL);
    }
    KVErrorFree(&error);
    g_free(payload);
    g_main_loop_unref(state.loop);
    return state.status;
}
