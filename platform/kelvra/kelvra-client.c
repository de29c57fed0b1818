/* Client side: calls, their replies, cancels, and the service-status subscription. */
#include <json-c/json.h>
#include <string.h>

#include "kelvra-private.h"

static void StopTimeout(KVCallRecord* call) {
    if (call->timeout != NULL) {
        g_source_destroy(call->timeout);
        g_source_unref(call->timeout);
        call->timeout = NULL;
    }
}

void KvCallRecordFree(KVCallRecord* call) {
    StopTimeout(call);
    g_free(call->name);
    g_free(call->owner);
    g_free(call);
}

/* Forgets a call and what it awaits or watches. */
static void RemoveCall(KVHandle* handle, KVCallRecord* call) {
    if (call->serial != 0) {
        KvForgetSerial(handle, call->serial);
    }
    if (call->kind == KV_CALL_STATUS) {
        KvWatchRemove(handle, call->name);
    } else if (call->owner != NULL) {
        KvWatchRemove(handle, call->owner);
    }
    g_hash_table_remove(handle->calls, &call->token);
}

/* Calls the reply function with payload (taken). A last reply ends the call first, so that the
 * function sees it ended. */
static void Deliver(KVHandle* handle, KVCallRecord* call, char* payload, gboolean last) {
    KVReplyFunc func = call->func;
    void* userData = call->userData;
    KVMessage* reply = KvMessageNew(handle, KV_MESSAGE_REPLY, payload);
    reply->last = last;
    /* The deadline bounds the wait for the first reply only. */
    StopTimeout(call);
    if (last) {
        RemoveCall(handle, call);
    }
    func(handle, reply, userData);
    KVMessageUnref(reply);
}

static void DeliverError(KVHandle* handle, KVCallRecord* call, int code, const char* text) {
    Deliver(handle, call, KvErrorPayload(code, text), TRUE);
}

static int CodeOfBusError(const char* name) {
    static const struct {
        const char* name;
        int code;
    } kCodes[] = {
        {"org.freedesktop.DBus.Error.ServiceUnknown", KV_ERROR_NO_SERVICE},
        {"org.freedesktop.DBus.Error.NameHasNoOwner", KV_ERROR_NO_SERVICE},
        {"org.freedesktop.DBus.Error.UnknownMethod", KV_ERROR_NO_METHOD},
        {"org.freedesktop.DBus.Error.UnknownObject", KV_ERROR_NO_METHOD},
        {"org.freedesktop.DBus.Error.UnknownInterface", KV_ERROR_NO_METHOD},
        {"org.freedesktop.DBus.Error.NoReply", KV_ERROR_NO_REPLY},
    };
    for (size_t i = 0; i < G_N_ELEMENTS(kCodes); ++i) {
        if (g_strcmp0(name, kCodes[i].name) == 0) {
            return kCodes[i].code;
        }
    }
    return KV_ERROR_BUS;
}

static KVCallRecord* FindCall(KVHandle* handle, KVMessageToken token) {
    return g_hash_table_lookup(handle->calls, &token);
}

static KVCallRecord* AddCall(KVHandle* handle, KVMessageToken token, KVCallKind kind,
                             KVReplyFunc func, void* userData, const char* name) {
    KVCallRecord* call = g_new0(KVCallRecord, 1);
    call->token = token;
    call->kind = kind;
    call->func = func;
    call->userData = userData;
    call->name = g_strdup(name);
    g_hash_table_insert(handle->calls, &call->token, call);
    return call;
}

void KvClientOnReply(KVHandle* handle, KVPending* pending, GDBusMessage* reply) {
    KVCallRecord* call = FindCall(handle, pending->token);
    if (call == NULL || call->serial != g_dbus_message_get_reply_serial(reply)) {
        return;
    }
    call->serial = 0;
    if (g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_ERROR) {
        GError* gerror = NULL;
        g_dbus_message_to_gerror(reply, &gerror);
        g_dbus_error_strip_remote_error(gerror);
        DeliverError(handle, call, CodeOfBusError(g_dbus_message_get_error_name(reply)),
                     gerror->message);
        g_error_free(gerror);
        return;
    }
    GVariant* body = g_dbus_message_get_body(reply);
    const char* sender = g_dbus_message_get_sender(reply);
    if (body == NULL || !g_variant_is_of_type(body, G_VARIANT_TYPE("(sb)")) || sender == NULL) {
        DeliverError(handle, call, KV_ERROR_PROTOCOL, "The service's reply is not a kelvra reply");
        return;
    }
    const char* payload;
    gboolean more;
    g_variant_get(body, "(&sb)", &payload, &more);
    if (more) {
        /* Further replies come from this connection, and end if it leaves the bus. */
        call->owner = g_strdup(sender);
        KvWatchAdd(handle, call->owner);
    }
    Deliver(handle, call, g_strdup(payload), !more);
}

void KvClientOnReplySignal(KVHandle* handle, GDBusMessage* signal) {
    GVariant* body = g_dbus_message_get_body(signal);
    if (body == NULL || !g_variant_is_of_type(body, G_VARIANT_TYPE("(tsb)"))) {
        return;
    }
    guint64 token;
    const char* payload;
    gboolean more;
    g_variant_get(body, "(t&sb)", &token, &payload, &more);
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL || call->kind != KV_CALL_REMOTE || call->owner == NULL ||
        g_strcmp0(call->owner, g_dbus_message_get_sender(signal)) != 0) {
        return;
    }
    Deliver(handle, call, g_strdup(payload), !more);
}

static char* StatusPayload(const char* name, gboolean connected) {
    json_object* reply = json_object_new_object();
    json_object_object_add(reply, "serviceName", json_object_new_string(name));
    json_object_object_add(reply, "connected", json_object_new_boolean(connected));
    json_object_object_add(reply, "returnValue", json_object_new_boolean(1));
    char* payload = g_strdup(json_object_to_json_string_ext(
        reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    json_object_put(reply);
    return payload;
}

static void SendStatus(KVHandle* handle, KVCallRecord* call, gboolean connected) {
    call->statusSent = TRUE;
    call->connected = connected;
    Deliver(handle, call, StatusPayload(call->name, connected), FALSE);
}

void KvClientOnLocalDue(KVHandle* handle, KVMessageToken token) {
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL) {
        return;
    }
    if (call->kind == KV_CALL_REMOTE) {
        if (call->unavailable) {
            DeliverError(handle, call, KV_ERROR_BUS_UNAVAILABLE,
                         "The bus is unavailable: the call was made without a bus connection");
        }
        return;
    }
    if (call->statusSent) {
        return;
    }
    KVWatch* watch = g_hash_table_lookup(handle->watches, call->name);
    if (watch != NULL && watch->known) {
        SendStatus(handle, call, watch->owner != NULL);
    }
}

void KvClientOnOwnerChanged(KVHandle* handle, const char* name, const char* oldOwner,
                            const char* newOwner, gboolean initial) {
    /* Reply functions may end any call: collect the tokens first, look each up again. */
    GArray* tokens = g_array_new(FALSE, FALSE, sizeof(KVMessageToken));
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->calls);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        KVCallRecord* call = value;
        /* A status call hears of changes once it has its first reply; the owner's first answer
         * (also after a reconnect) reaches every status call of the name. */
        if ((call->kind == KV_CALL_STATUS && strcmp(call->name, name) == 0 &&
             (initial || call->statusSent)) ||
            (call->kind == KV_CALL_REMOTE && newOwner == NULL &&
             g_strcmp0(call->owner, name) == 0)) {
            g_array_append_val(tokens, call->token);
        }
    }
    gboolean connected = newOwner != NULL;
    for (guint i = 0; i < tokens->len && !handle->unregistered; ++i) {
        KVMessageToken token = g_array_index(tokens, KVMessageToken, i);
        KVCallRecord* call = FindCall(handle, token);
        if (call == NULL) {
            continue;
        }
        if (call->kind == KV_CALL_REMOTE) {
            DeliverError(handle, call, KV_ERROR_SERVICE_GONE,
                         "The service left the bus while the call was open");
            continue;
        }
        if (!initial && oldOwner != NULL && newOwner != NULL) {
            /* Another connection took the name over: the old service went away. */
            SendStatus(handle, call, FALSE);
            call = FindCall(handle, token);
            if (call == NULL || handle->unregistered) {
                continue;
            }
        }
        if (!call->statusSent || call->connected != connected) {
            SendStatus(handle, call, connected);
        }
    }
    g_array_free(tokens, TRUE);
}

void KvClientOnBusLost(KVHandle* handle) {
    GArray* tokens = g_array_new(FALSE, FALSE, sizeof(KVMessageToken));
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->calls);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        g_array_append_val(tokens, ((KVCallRecord*)value)->token);
    }
    /* Remote calls end; status calls report every service gone and stay until cancelled. */
    for (guint i = 0; i < tokens->len && !handle->unregistered; ++i) {
        KVCallRecord* call = FindCall(handle, g_array_index(tokens, KVMessageToken, i));
        if (call == NULL) {
            continue;
        }
        if (call->kind == KV_CALL_REMOTE) {
            DeliverError(handle, call, KV_ERROR_BUS_UNAVAILABLE,
                         "The bus is unavailable: the connection was lost");
        } else if (!call->statusSent || call->connected) {
            SendStatus(handle, call, FALSE);
        }
    }
    g_array_free(tokens, TRUE);
}

/* registerServerStatus: {"serviceName": NAME}. */
static gboolean StartStatusCall(KVHandle* handle, const char* payload, KVReplyFunc func,
                                void* userData, KVMessageToken* token, KVError* error) {
    enum json_tokener_error parseError;
    json_object* request = json_tokener_parse_verbose(payload, &parseError);
    json_object* nameValue = NULL;
    const char* name = NULL;
    if (request != NULL && json_object_is_type(request, json_type_object) &&
        json_object_object_get_ex(request, "serviceName", &nameValue) &&
        json_object_is_type(nameValue, json_type_string)) {
        name = json_object_get_string(nameValue);
    }
    if (name == NULL || !g_dbus_is_name(name)) {
        KvErrorSet(error, KV_ERROR_BAD_PAYLOAD,
                   "registerServerStatus needs {\"serviceName\": NAME} with a bus name");
        json_object_put(request);
        return FALSE;
    }
    KVCallRecord* call = AddCall(handle, ++handle->lastToken, KV_CALL_STATUS, func, userData, name);
    json_object_put(request);
    KVWatch* watch = KvWatchAdd(handle, call->name);
    if (watch->known) {
        g_queue_push_tail(&handle->localItems, g_memdup2(&call->token, sizeof call->token));
        KvScheduleDispatch(handle);
    }
    if (token != NULL) {
        *token = call->token;
    }
    return TRUE;
}

/* A call made while the handle has no connection: its error reply comes from the loop. */
static void StartUnavailableCall(KVHandle* handle, const char* service, KVReplyFunc func,
                                 void* userData, KVMessageToken* token) {
    KVCallRecord* call =
        AddCall(handle, ++handle->lastToken, KV_CALL_REMOTE, func, userData, service);
    call->unavailable = TRUE;
    g_queue_push_tail(&handle->localItems, g_memdup2(&call->token, sizeof call->token));
    KvScheduleDispatch(handle);
    if (token != NULL) {
        *token = call->token;
    }
}

static gboolean StartRemoteCall(KVHandle* handle, const char* service, const char* path,
                                const char* member, const char* payload, KVReplyFunc func,
                                void* userData, KVMessageToken* token, KVError* error) {
    KVMessageToken next = ++handle->lastToken;
    GDBusMessage* message =
        g_dbus_message_new_method_call(service, path, KV_METHOD_INTERFACE, member);
    g_dbus_message_set_body(message, g_variant_new("(st)", payload, (guint64)next));
    g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    KVPending* pending = g_new0(KVPending, 1);
    pending->kind = KV_PENDING_CALL;
    pending->token = next;
    guint32 serial = KvSend(handle, message, pending, error);
    g_object_unref(message);
    if (serial == 0) {
        return FALSE;
    }
    KVCallRecord* call = AddCall(handle, next, KV_CALL_REMOTE, func, userData, service);
    call->serial = serial;
    if (token != NULL) {
        *token = call->token;
    }
    return TRUE;
}

/* Lets the service of a remote call know that nobody waits for it any more. */
static void TellServiceCancelled(KVHandle* handle, KVCallRecord* call) {
    if (call->kind != KV_CALL_REMOTE || call->unavailable || !KvLinkUp(handle)) {
        return;
    }
    /* Before the first reply the service is reached by its name; afterwards the connection
     * that replied holds the subscription. */
    GDBusMessage* cancel =
        g_dbus_message_new_method_call(call->owner != NULL ? call->owner : call->name,
                                       KV_CONTROL_PATH, KV_CONTROL_INTERFACE, "Cancel");
    g_dbus_message_set_body(cancel, g_variant_new("(t)", (guint64)call->token));
    g_dbus_message_set_flags(
        cancel, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED | G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    KvSend(handle, cancel, NULL, NULL);
    g_object_unref(cancel);
}

typedef struct KVCallDeadline {
    KVHandle* handle;
    KVMessageToken token;
    guint32 timeoutMs;
} KVCallDeadline;

/* No first reply in time: the call is cancelled as by KVCallCancel, and its reply function gets
 * a last error reply instead. A reply that comes later finds no call and is dropped. */
static gboolean OnCallDeadline(gpointer data) {
    const KVCallDeadline* deadline = data;
    KVHandle* handle = deadline->handle;
    KVCallRecord* call = FindCall(handle, deadline->token);
    if (call == NULL || handle->unregistered) {
        return G_SOURCE_REMOVE;
    }
    KvHandleRef(handle);
    TellServiceCancelled(handle, call);
    char* text =
        g_strdup_printf("No reply within %u ms: the call was cancelled", deadline->timeoutMs);
    DeliverError(handle, call, KV_ERROR_TIMEOUT, text);
    g_free(text);
    KvHandleUnref(handle);
    return G_SOURCE_REMOVE;
}

/* The source owns the deadline record and dies with the call (KvCallRecordFree). */
static void StartTimeout(KVHandle* handle, KVMessageToken token, guint32 timeoutMs) {
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL || timeoutMs == 0) {
        return;
    }
    KVCallDeadline* deadline = g_new0(KVCallDeadline, 1);
    deadline->handle = handle;
    deadline->token = token;
    deadline->timeoutMs = timeoutMs;
    call->timeout = g_timeout_source_new(timeoutMs);
    g_source_set_callback(call->timeout, OnCallDeadline, deadline, g_free);
    g_source_set_static_name(call->timeout, "kelvra call deadline");
    g_source_attach(call->timeout, handle->context);
}

bool KVCall(KVHandle* handle, const char* uri, const char* payload, KVReplyFunc replyFunc,
            void* userData, KVMessageToken* token, KVError* error) {
    return KVCallWithTimeout(handle, uri, payload, 0, replyFunc, userData, token, error);
}

bool KVCallWithTimeout(KVHandle* handle, const char* uri, const char* payload, uint32_t timeoutMs,
                       KVReplyFunc replyFunc, void* userData, KVMessageToken* tokenOut,
                       KVError* error) {
    KVMessageToken local = 0;
    KVMessageToken* token = &local;
    if (tokenOut != NULL) {
        *tokenOut = 0;
    }
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    if (replyFunc == NULL) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "NULL reply function");
        return false;
    }
    if (!KvCheckPayload(payload, error)) {
        return false;
    }
    char* service = NULL;
    char* path = NULL;
    char* member = NULL;
    if (!KvParseUri(uri, &service, &path, &member)) {
        KvErrorSet(error, KV_ERROR_BAD_URI, "Malformed URI \"%s\"", uri != NULL ? uri : "(null)");
        return false;
    }
    gboolean ok = FALSE;
    if (handle->unregistered) {
        KvErrorSet(error, KV_ERROR_BUS, "The handle is unregistered");
    } else if (handle->source == NULL) {
        KvErrorSet(error, KV_ERROR_NOT_ATTACHED, "The handle is not attached to a context");
    } else {
        char* key = KvMethodKey(path, member);
        if (strcmp(service, KV_STATUS_SERVICE) == 0 && strcmp(key, KV_STATUS_METHOD) == 0) {
            ok = StartStatusCall(handle, payload, replyFunc, userData, token, error);
        } else if (!KvLinkUp(handle)) {
            StartUnavailableCall(handle, service, replyFunc, userData, token);
            ok = TRUE;
        } else {
            ok = StartRemoteCall(handle, service, path, member, payload, replyFunc, userData, token,
                                 error);
        }
        g_free(key);
    }
    g_free(service);
    g_free(path);
    g_free(member);
    if (ok) {
        StartTimeout(handle, local, timeoutMs);
        if (tokenOut != NULL) {
            *tokenOut = local;
        }
    }
    return ok;
}

bool KVCallCancel(KVHandle* handle, KVMessageToken token, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL) {
        KvErrorSet(error, KV_ERROR_NO_SUCH_CALL, "No open call has the token %llu",
                   (unsigned long long)token);
        return false;
    }
    TellServiceCancelled(handle, call);
    RemoveCall(handle, call);
    return true;
}
