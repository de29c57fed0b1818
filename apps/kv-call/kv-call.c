/* kv-call: calls a method on the platform bus and prints each reply as one JSON line.
 *
 *   kv-call URI JSON [--subscribe] [--count N] [--timeout S]
 *
 * Without --subscribe it waits for the first reply. With --subscribe it asks for a subscription
 * (adding "subscribe": true to an object payload that does not say) and prints replies until the
 * last one, N replies (--count), S seconds (--timeout), or SIGINT/SIGTERM. Exit status: 0 when the
 * replies asked for came, 1 for bad arguments or a bus failure, 2 when the timeout or a signal
 * ended the wait before them. */
#include <errno.h>
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
    if (!KVRegister(NULL, &handle, &error) || !KVGmainAttach(handle, NULL, &error) ||
        !KVCall(handle, options.uri, payload, OnReply, &state, &token, &error)) {
        fprintf(stderr, "kv-call: %s\n", error.message);
        state.status = 1;
    } else {
        if (options.timeout > 0) {
            g_timeout_add((guint)(options.timeout * 1000.0 + 0.5), OnStop, &state);
        }
        g_unix_signal_add(SIGINT, OnStop, &state);
        g_unix_signal_add(SIGTERM, OnStop, &state);
        g_main_loop_run(state.loop);
        if (!state.ended) {
            KVCallCancel(handle, token, NULL);
        }
    }
    if (handle != NULL) {
        KVUnregister(handle, NULL);
    }
    KVErrorFree(&error);
    g_free(payload);
    g_main_loop_unref(state.loop);
    return state.status;
}
