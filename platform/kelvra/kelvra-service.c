/* Service side: methods, requests, replies and subscriptions. */
#include <json-c/json.h>
#include <string.h>

#include "kelvra-private.h"

/* Why a request is closed without a last reply from the service. */
typedef enum KVCloseReason {
    KV_CLOSE_ANSWERED,  /* the last reply went out */
    KV_CLOSE_CANCELLED, /* the client cancelled */
    KV_CLOSE_GONE       /* the client left the bus */
} KVCloseReason;

static gboolean SendFirstReply(KVHandle* handle, KVMessage* request, const char* payload,
                               gboolean more, KVError* error) {
    GDBusMessage* reply = g_dbus_message_new_method_reply(request->call);
    g_dbus_message_set_body(reply, g_variant_new("(sb)", payload, more));
    gboolean sent = KvSend(handle, reply, NULL, error) != 0;
    g_object_unref(reply);
    g_object_unref(request->call);
    request->call = NULL;
    return sent;
}

static gboolean SendLaterReply(KVHandle* handle, KVMessage* request, const char* payload,
                               gboolean more, KVError* error) {
    GDBusMessage* signal = g_dbus_message_new_signal(KV_CONTROL_PATH, KV_CLIENT_INTERFACE, "Reply");
    g_dbus_message_set_destination(signal, request->sender);
    g_dbus_message_set_body(signal, g_variant_new("(tsb)", (guint64)request->token, payload, more));
    gboolean sent = KvSend(handle, signal, NULL, error) != 0;
    g_object_unref(signal);
    return sent;
}

/* Answers a call that never becomes a request. */
static void SendImmediateError(KVHandle* handle, GDBusMessage* call, int code, const char* text) {
    char* payload = KvErrorPayload(code, text);
    GDBusMessage* reply = g_dbus_message_new_method_reply(call);
    g_dbus_message_set_body(reply, g_variant_new("(sb)", payload, FALSE));
    KvSend(handle, reply, NULL, NULL);
    g_object_unref(reply);
    g_free(payload);
}

static void CloseRequest(KVHandle* handle, KVMessage* request, KVCloseReason reason) {
    if (request->state == KV_REQUEST_CLOSED) {
        return;
    }
    request->state = KV_REQUEST_CLOSED;
    g_hash_table_remove(handle->requests, request->key);
    if (reason == KV_CLOSE_CANCELLED && request->call != NULL) {
        /* Nobody waits for it, but the bus keeps the call open until it is answered. */
        char* payload = KvErrorPayload(KV_ERROR_CLOSED, "Cancelled");
        SendFirstReply(handle, request, payload, FALSE, NULL);
        g_free(payload);
    }
    if (!request->subscribed) {
        return;
    }
    request->subscribed = FALSE;
    KvWatchRemove(handle, request->sender);
    if (reason != KV_CLOSE_ANSWERED && request->cancelFunc != NULL) {
        request->cancelFunc(handle, request, request->cancelData);
    }
    KVMessageUnref(request);
}

/* Validates a request argument of KVReply and friends. */
static gboolean CheckRequest(KVHandle* handle, KVMessage* request, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return FALSE;
    }
    if (request == NULL || request->kind != KV_MESSAGE_REQUEST || request->handle != handle) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Not a request of this handle");
        return FALSE;
    }
    if (handle->unregistered || request->state == KV_REQUEST_CLOSED) {
        KvErrorSet(error, KV_ERROR_CLOSED,
                   "The request was answered, cancelled, or its client left the bus");
        return FALSE;
    }
    return TRUE;
}

static gboolean ReplyCommon(KVHandle* handle, KVMessage* request, const char* payload,
                            gboolean last, KVError* error) {
    if (!CheckRequest(handle, request, error)) {
        return FALSE;
    }
    if (!KvCheckPayload(payload, error)) {
        return FALSE;
    }
    gboolean more = request->subscribed && !last;
    gboolean sent = request->call != NULL ? SendFirstReply(handle, request, payload, more, error)
                                          : SendLaterReply(handle, request, payload, more, error);
    if (!more) {
        CloseRequest(handle, request, KV_CLOSE_ANSWERED);
    }
    return sent;
}

bool KVReply(KVHandle* handle, KVMessage* request, const char* payload, KVError* error) {
    return ReplyCommon(handle, request, payload, FALSE, error);
}

bool KVReplyLast(KVHandle* handle, KVMessage* request, const char* payload, KVError* error) {
    return ReplyCommon(handle, request, payload, TRUE, error);
}

bool KVSubscriptionAdd(KVHandle* handle, KVMessage* request, KVCancelFunc cancelFunc,
                       void* userData, KVError* error) {
    if (!CheckRequest(handle, request, error)) {
        return false;
    }
    if (request->subscribed) {
        KvErrorSet(error, KV_ERROR_EXISTS, "The request is already a subscription");
        return false;
    }
    request->subscribed = TRUE;
    request->cancelFunc = cancelFunc;
    request->cancelData = userData;
    KVMessageRef(request);
    /* A client that leaves the bus cancels its subscriptions. */
    KvWatchAdd(handle, request->sender);
    return true;
}

bool KVRegisterMethod(KVHandle* handle, const char* method, KVMethodFunc func, void* userData,
                      KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    char* path = NULL;
    char* member = NULL;
    if (method == NULL || func == NULL || !KvSplitMethod(method, &path, &member)) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Malformed method \"%s\" or NULL function",
                   method != NULL ? method : "(null)");
        return false;
    }
    g_free(path);
    g_free(member);
    if (handle->serviceName == NULL) {
        KvErrorSet(error, KV_ERROR_NOT_A_SERVICE, "An anonymous handle has no methods");
        return false;
    }
    if (g_hash_table_contains(handle->methods, method)) {
        KvErrorSet(error, KV_ERROR_EXISTS, "The method \"%s\" is already registered", method);
        return false;
    }
    KVMethod* entry = g_new0(KVMethod, 1);
    entry->func = func;
    entry->userData = userData;
    g_hash_table_insert(handle->methods, g_strdup(method), entry);
    return true;
}

/* The payload must be a JSON object; "subscribe": true asks for a subscription. */
static gboolean ParseRequestPayload(const char* payload, gboolean* subscribe) {
    enum json_tokener_error parseError;
    json_object* object = json_tokener_parse_verbose(payload, &parseError);
    if (object == NULL || !json_object_is_type(object, json_type_object)) {
        json_object_put(object);
        return FALSE;
    }
    json_object* value = NULL;
    *subscribe = json_object_object_get_ex(object, "subscribe", &value) &&
                 json_object_is_type(value, json_type_boolean) && json_object_get_boolean(value);
    json_object_put(object);
    return TRUE;
}

void KvServiceOnCall(KVHandle* handle, GDBusMessage* call) {
    GVariant* body = g_dbus_message_get_body(call);
    const char* sender = g_dbus_message_get_sender(call);
    if (body == NULL || !g_variant_is_of_type(body, G_VARIANT_TYPE("(st)")) || sender == NULL) {
        GDBusMessage* reply = g_dbus_message_new_method_error(
            call, "org.freedesktop.DBus.Error.InvalidArgs",
            "A kelvra call carries a JSON payload and a token (st)");
        KvSend(handle, reply, NULL, NULL);
        g_object_unref(reply);
        return;
    }
    const char* payload;
    guint64 token;
    g_variant_get(body, "(&st)", &payload, &token);
    char* method = KvMethodKey(g_dbus_message_get_path(call), g_dbus_message_get_member(call));
    KVMethod* entry = method != NULL ? g_hash_table_lookup(handle->methods, method) : NULL;
    char* key = g_strdup_printf("%s/%llu", sender, (unsigned long long)token);
    gboolean subscribe = FALSE;
    if (strlen(payload) > KV_MAX_PAYLOAD_SIZE) {
        SendImmediateError(handle, call, KV_ERROR_PAYLOAD_TOO_LARGE,
                           "The payload is longer than the bus allows");
    } else if (entry == NULL) {
        char* text = g_strdup_printf("Unknown method \"%s\"", method != NULL ? method : "");
        SendImmediateError(handle, call, KV_ERROR_NO_METHOD, text);
        g_free(text);
    } else if (!ParseRequestPayload(payload, &subscribe)) {
        SendImmediateError(handle, call, KV_ERROR_BAD_PAYLOAD, "The payload is not a JSON object");
    } else if (g_hash_table_contains(handle->requests, key)) {
        SendImmediateError(handle, call, KV_ERROR_EXISTS, "A call with this token is open");
    } else {
        KVMessage* request = KvMessageNew(handle, KV_MESSAGE_REQUEST, g_strdup(payload));
        request->method = method;
        request->sender = g_strdup(sender);
        request->token = token;
        request->key = key;
        request->call = g_object_ref(call);
        request->subscribe = subscribe;
        request->state = KV_REQUEST_OPEN;
        g_hash_table_insert(handle->requests, request->key, request);
        method = NULL;
        key = NULL;
        gboolean handled = entry->func(handle, request, entry->userData);
        if (!handled && !handle->unregistered && request->state == KV_REQUEST_OPEN &&
            request->call != NULL) {
            char* failure = KvErrorPayload(KV_ERROR_METHOD_FAILED, "The method failed");
            KVReplyLast(handle, request, failure, NULL);
            g_free(failure);
        }
        KVMessageUnref(request);
    }
    g_free(method);
    g_free(key);
}

void KvServiceOnCancel(KVHandle* handle, GDBusMessage* call) {
    GVariant* body = g_dbus_message_get_body(call);
    const char* sender = g_dbus_message_get_sender(call);
    if (g_strcmp0(g_dbus_message_get_member(call), "Cancel") != 0 || body == NULL ||
        !g_variant_is_of_type(body, G_VARIANT_TYPE("(t)")) || sender == NULL) {
        return;
    }
    guint64 token;
    g_variant_get(body, "(t)", &token);
    char* key = g_strdup_printf("%s/%llu", sender, (unsigned long long)token);
    KVMessage* request = g_hash_table_lookup(handle->requests, key);
    g_free(key);
    if (request != NULL) {
        KVMessageRef(request);
        CloseRequest(handle, request, KV_CLOSE_CANCELLED);
        KVMessageUnref(request);
    }
}

/* Every open request (of sender, or of anybody), each with a reference of the caller's. */
static GPtrArray* TakeRequests(KVHandle* handle, const char* sender) {
    GPtrArray* requests = g_ptr_array_new();
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->requests);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        KVMessage* request = value;
        if (sender == NULL || strcmp(request->sender, sender) == 0) {
            g_ptr_array_add(requests, KVMessageRef(request));
        }
    }
    return requests;
}

void KvServiceOnClientGone(KVHandle* handle, const char* sender) {
    GPtrArray* requests = TakeRequests(handle, sender);
    for (guint i = 0; i < requests->len; ++i) {
        if (!handle->unregistered) {
            CloseRequest(handle, requests->pdata[i], KV_CLOSE_GONE);
        }
        KVMessageUnref(requests->pdata[i]);
    }
    g_ptr_array_free(requests, TRUE);
}

void KvServiceOnBusLost(KVHandle* handle) {
    KvServiceOnClientGone(handle, NULL);
}

void KvServiceShutdown(KVHandle* handle) {
    GPtrArray* requests = TakeRequests(handle, NULL);
    for (guint i = 0; i < requests->len; ++i) {
        KVMessage* request = requests->pdata[i];
        request->state = KV_REQUEST_CLOSED;
        g_hash_table_remove(handle->requests, request->key);
        if (request->subscribed) {
            request->subscribed = FALSE;
            KVMessageUnref(request);
        }
        KVMessageUnref(request);
    }
    g_ptr_array_free(requests, TRUE);
}

void KvRequestFinalize(KVMessage* request) {
    KVHandle* handle = request->handle;
    if (request->state == KV_REQUEST_OPEN) {
        /* Released unanswered: answer for the service, so that the client does not wait. */
        g_hash_table_remove(handle->requests, request->key);
        if (!handle->unregistered && request->call != NULL) {
            char* payload = KvErrorPayload(KV_ERROR_NO_REPLY, "The service did not reply");
            SendFirstReply(handle, request, payload, FALSE, NULL);
            g_free(payload);
        }
    }
    if (request->call != NULL) {
        g_object_unref(request->call);
    }
    g_free(request->method);
    g_free(request->sender);
    g_free(request->key);
}
