/* Client side: calls, their replies, cancels, and the service-status subscription. */
#include <string.h>

#include "kelvra-private.h"

typedef enum KVCallKind {
    KV_CALL_REMOTE, /* a call to a service */
    KV_CALL_STATUS  /* registerServerStatus, answered by the library */
} KVCallKind;

/* A client call that has not ended. */
typedef struct KVCallRecord {
    KVHandle* handle; /* not a reference: calls go with the handle */
    KVMessageToken token;
    KVCallKind kind;
    KVReplyFunc func;
    void* userData;
    char* name;           /* the service's well-known name (remote) or the watched name (status) */
    char* owner;          /* remote: unique name of the service once it replied with more to come */
    sd_bus_slot* slot;    /* remote: the first reply, until it comes; dropping it cancels */
    sd_bus_slot* confirm; /* remote: the bus's answer that confirms endCode, see EndConfirmed */
    int endCode;
    char* endText;
    gboolean statusSent;  /* status: the first reply has gone out */
    gboolean connected;   /* status: the last state reported */
    gboolean unavailable; /* remote: made without a bus; its error reply is due */
    GSource* timeout;     /* until the first reply when the call has a deadline, else NULL */
} KVCallRecord;

struct KVClient {
    GHashTable* calls; /* KVMessageToken* -> KVCallRecord*, open calls */
    KVMessageToken lastToken;
};

static void StopTimeout(KVCallRecord* call) {
    if (call->timeout != NULL) {
        g_source_destroy(call->timeout);
        g_source_unref(call->timeout);
        call->timeout = NULL;
    }
}

static void CallRecordFree(gpointer data) {
    KVCallRecord* call = data;
    StopTimeout(call);
    sd_bus_slot_unref(call->slot);
    sd_bus_slot_unref(call->confirm);
    g_free(call->name);
    g_free(call->owner);
    g_free(call->endText);
    g_free(call);
}

static KVCallRecord* FindCall(KVHandle* handle, KVMessageToken token) {
    return g_hash_table_lookup(handle->client->calls, &token);
}

/* Forgets a call and what it watches; an awaited reply is dropped with the slot. */
static void RemoveCall(KVHandle* handle, KVCallRecord* call) {
    if (call->kind == KV_CALL_STATUS) {
        KvWatchRemove(handle, call->name);
    } else if (call->owner != NULL) {
        KvWatchRemove(handle, call->owner);
    }
    g_hash_table_remove(handle->client->calls, &call->token);
}

/* Calls the reply function with payload (taken). A last reply ends the call first, so that the
 * function sees it ended. */
static void Deliver(KVHandle* handle, KVCallRecord* call, char* payload, gboolean last) {
    KVReplyFunc func = call->func;
    void* userData = call->userData;
    KVMessage* reply = KvMessageNew(handle, KV_MESSAGE_REPLY, sizeof(KVMessage), payload);
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

static void EndConfirmed(KVHandle* handle, sd_bus_message* reply, guint64 token) {
    (void)reply;
    KVCallRecord* call = FindCall(handle, token);
    if (call != NULL && call->endText != NULL) {
        DeliverError(handle, call, call->endCode, call->endText);
    }
}

static int OnConfirmReply(sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)error;
    KVCallRecord* call = data;
    call->confirm = sd_bus_slot_unref(call->confirm);
    KvCoreDefer(call->handle, EndConfirmed, reply, call->token);
    return 1;
}

/* Ends a call because its service left, once the bus has answered one more request. A bus that
 * is going away drops its other clients (the service among them) before it drops this one: the
 * call then ends with the bus's loss (KV_ERROR_BUS_UNAVAILABLE), which is what happened. */
static void EndWhenBusConfirms(KVHandle* handle, KVCallRecord* call, int code, const char* text) {
    if (call->endText != NULL) {
        return;
    }
    call->endCode = code;
    call->endText = g_strdup(text);
    if (!KvCoreCanSend(handle) ||
        sd_bus_call_method_async(handle->bus, &call->confirm, KV_BUS_NAME, KV_BUS_PATH, KV_BUS_NAME,
                                 "GetId", OnConfirmReply, call, "") < 0) {
        /* The connection's loss ends the call from the loop. */
        call->confirm = NULL;
        KvCoreFail(handle);
    }
}

static int CodeOfBusError(const char* name) {
    static const struct {
        const char* name;
        int code;
    } kCodes[] = {
        {SD_BUS_ERROR_SERVICE_UNKNOWN, KV_ERROR_NO_SERVICE},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, KV_ERROR_NO_SERVICE},
        {SD_BUS_ERROR_UNKNOWN_METHOD, KV_ERROR_NO_METHOD},
        {SD_BUS_ERROR_UNKNOWN_OBJECT, KV_ERROR_NO_METHOD},
        {SD_BUS_ERROR_UNKNOWN_INTERFACE, KV_ERROR_NO_METHOD},
        {SD_BUS_ERROR_NO_REPLY, KV_ERROR_NO_REPLY},
    };
    for (size_t i = 0; i < G_N_ELEMENTS(kCodes); ++i) {
        if (g_strcmp0(name, kCodes[i].name) == 0) {
            return kCodes[i].code;
        }
    }
    return KV_ERROR_BUS;
}

static KVCallRecord* AddCall(KVHandle* handle, KVCallKind kind, KVReplyFunc func, void* userData,
                             const char* name) {
    KVCallRecord* call = g_new0(KVCallRecord, 1);
    call->handle = handle;
    call->token = ++handle->client->lastToken;
    call->kind = kind;
    call->func = func;
    call->userData = userData;
    call->name = g_strdup(name);
    g_hash_table_insert(handle->client->calls, &call->token, call);
    return call;
}

static void OnFirstReply(KVHandle* handle, sd_bus_message* reply, guint64 token) {
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL) {
        return;
    }
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    if (error != NULL) {
        const int code = CodeOfBusError(error->name);
        const char* text = error->message != NULL ? error->message : error->name;
        /* The bus answers so for a service that left without replying. */
        if (code == KV_ERROR_NO_REPLY &&
            g_strcmp0(sd_bus_message_get_sender(reply), KV_BUS_NAME) == 0) {
            EndWhenBusConfirms(handle, call, code, text);
        } else {
            DeliverError(handle, call, code, text);
        }
        return;
    }
    const char* payload = NULL;
    int more = 0;
    const char* sender = sd_bus_message_get_sender(reply);
    if (sender == NULL || sd_bus_message_read(reply, "sb", &payload, &more) < 0) {
        DeliverError(handle, call, KV_ERROR_PROTOCOL, "The service's reply is not a kelvra reply");
        return;
    }
    if (more) {
        /* Further replies come from this connection, and end if it leaves the bus. */
        call->owner = g_strdup(sender);
        KvWatchAdd(handle, call->owner);
    }
    Deliver(handle, call, g_strdup(payload), !more);
}

static int OnCallReply(sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)error;
    KVCallRecord* call = data;
    call->slot = sd_bus_slot_unref(call->slot);
    KvCoreDefer(call->handle, OnFirstReply, reply, call->token);
    return 1;
}

static void OnReplySignal(KVHandle* handle, sd_bus_message* signal, guint64 key) {
    (void)key;
    uint64_t token = 0;
    const char* payload = NULL;
    int more = 0;
    if (sd_bus_message_read(signal, "tsb", &token, &payload, &more) < 0) {
        return;
    }
    KVCallRecord* call = FindCall(handle, token);
    if (call == NULL || call->kind != KV_CALL_REMOTE || call->owner == NULL ||
        call->endText != NULL || g_strcmp0(call->owner, sd_bus_message_get_sender(signal)) != 0) {
        return;
    }
    Deliver(handle, call, g_strdup(payload), !more);
}

/* Later replies of subscriptions: signals sent to this connection alone. */
static int ClientFilter(sd_bus_message* message, void* data, sd_bus_error* error) {
    (void)error;
    if (!sd_bus_message_is_signal(message, KV_CLIENT_INTERFACE, "Reply")) {
        return 0;
    }
    KvCoreDefer(data, OnReplySignal, message, 0);
    return 1;
}

static void SendStatus(KVHandle* handle, KVCallRecord* call, gboolean connected) {
    call->statusSent = TRUE;
    call->connected = connected;
    Deliver(handle, call, KvStatusPayload(call->name, connected), FALSE);
}

/* A call answered by the library itself (status, or made without a bus) is due its reply. */
static void OnLocalDue(KVHandle* handle, sd_bus_message* message, guint64 token) {
    (void)message;
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
    KVWatch* watch = KvWatchFind(handle, call->name);
    if (!call->statusSent && watch != NULL && watch->known) {
        SendStatus(handle, call, watch->owner != NULL);
    }
}

/* Reply functions may end any call: the tokens are collected first, each looked up again. */
static GArray* Tokens(KVHandle* handle, gboolean (*select)(KVCallRecord*, const void*),
                      const void* data) {
    GArray* tokens = g_array_new(FALSE, FALSE, sizeof(KVMessageToken));
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->client->calls);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        if (select == NULL || select(value, data)) {
            g_array_append_val(tokens, ((KVCallRecord*)value)->token);
        }
    }
    return tokens;
}

typedef struct KVOwnerChange {
    const char* name;
    const char* newOwner;
    gboolean initial;
} KVOwnerChange;

/* A status call hears of changes once it has its first reply; the owner's first answer (also
 * after a reconnect) reaches every status call of the name. A remote call hears of its
 * service's leaving. */
static gboolean Concerns(KVCallRecord* call, const void* data) {
    const KVOwnerChange* change = data;
    if (call->kind == KV_CALL_STATUS) {
        return strcmp(call->name, change->name) == 0 && (change->initial || call->statusSent);
    }
    return change->newOwner == NULL && g_strcmp0(call->owner, change->name) == 0;
}

static void OnOwnerChanged(KVHandle* handle, const char* name, const char* oldOwner,
                           const char* newOwner, gboolean initial) {
    const KVOwnerChange change = {name, newOwner, initial};
    GArray* tokens = Tokens(handle, Concerns, &change);
    const gboolean connected = newOwner != NULL;
    for (guint i = 0; i < tokens->len && !handle->unregistered; ++i) {
        KVMessageToken token = g_array_index(tokens, KVMessageToken, i);
        KVCallRecord* call = FindCall(handle, token);
        if (call == NULL) {
            continue;
        }
        if (call->kind == KV_CALL_REMOTE) {
            EndWhenBusConfirms(handle, call, KV_ERROR_SERVICE_GONE,
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

/* The connection is gone (or never came): remote calls end; status calls report every service
 * gone and stay until cancelled. */
static void OnDown(KVHandle* handle) {
    GArray* tokens = Tokens(handle, NULL, NULL);
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
    const char* member = NULL;
    char* name = KvJsonReadObject(payload, "serviceName", &member) ? KvJsonGetString(member) : NULL;
    if (!KvIsBusName(name)) {
        KvErrorSet(error, KV_ERROR_BAD_PAYLOAD,
                   "registerServerStatus needs {\"serviceName\": NAME} with a bus name");
        g_free(name);
        return FALSE;
    }
    KVCallRecord* call = AddCall(handle, KV_CALL_STATUS, func, userData, name);
    g_free(name);
    if (KvWatchAdd(handle, call->name)->known) {
        KvCoreDefer(handle, OnLocalDue, NULL, call->token);
    }
    *token = call->token;
    return TRUE;
}

static gboolean StartRemoteCall(KVHandle* handle, const char* service, const char* path,
                                const char* member, const char* payload, KVReplyFunc func,
                                void* userData, KVMessageToken* token, KVError* error) {
    if (!KvCoreCanSend(handle)) {
        /* No connection: the error reply comes from the loop. */
        KVCallRecord* call = AddCall(handle, KV_CALL_REMOTE, func, userData, service);
        call->unavailable = TRUE;
        KvCoreDefer(handle, OnLocalDue, NULL, call->token);
        *token = call->token;
        return TRUE;
    }
    sd_bus_message* message = NULL;
    const KVMessageToken next = handle->client->lastToken + 1;
    int result = sd_bus_message_new_method_call(handle->bus, &message, service, path,
                                                KV_METHOD_INTERFACE, member);
    if (result >= 0) {
        result = sd_bus_message_set_auto_start(message, 0);
    }
    if (result >= 0) {
        result = sd_bus_message_append(message, "st", payload, (uint64_t)next);
    }
    KVCallRecord* call = NULL;
    if (result >= 0) {
        call = AddCall(handle, KV_CALL_REMOTE, func, userData, service);
        /* No deadline of sd-bus's own: a call waits for its service as long as it is open. */
        result =
            sd_bus_call_async(handle->bus, &call->slot, message, OnCallReply, call, UINT64_MAX);
    }
    sd_bus_message_unref(message);
    if (result < 0) {
        if (call != NULL) {
            RemoveCall(handle, call);
        }
        return KvBusError(error, KV_ERROR_BUS, result, "Cannot send the call");
    }
    *token = call->token;
    return TRUE;
}

/* Lets the service of a remote call know that nobody waits for it any more; false when the
 * cancel could not be made or queued. */
static gboolean TellServiceCancelled(KVHandle* handle, KVCallRecord* call, KVError* error) {
    if (call->kind != KV_CALL_REMOTE || call->unavailable || !KvCoreCanSend(handle)) {
        return TRUE;
    }
    /* Before the first reply the service is reached by its name; afterwards the connection
     * that replied holds the subscription. */
    sd_bus_message* cancel = NULL;
    int result = sd_bus_message_new_method_call(handle->bus, &cancel,
                                                call->owner != NULL ? call->owner : call->name,
                                                KV_CONTROL_PATH, KV_CONTROL_INTERFACE, "Cancel");
    if (result >= 0) {
        result = sd_bus_message_set_expect_reply(cancel, 0);
    }
    if (result >= 0) {
        result = sd_bus_message_set_auto_start(cancel, 0);
    }
    if (result >= 0) {
        result = sd_bus_message_append(cancel, "t", (uint64_t)call->token);
    }
    const gboolean sent = result >= 0
                              ? KvCoreSend(handle, cancel, error)
                              : KvBusError(error, KV_ERROR_BUS, result, "Cannot make the cancel");
    sd_bus_message_unref(cancel);
    return sent;
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
    if (!TellServiceCancelled(handle, call, NULL)) {
        /* The service would keep serving nobody: it learns from the connection's loss. */
        KvCoreFail(handle);
    }
    char* text =
        g_strdup_printf("No reply within %u ms: the call was cancelled", deadline->timeoutMs);
    DeliverError(handle, call, KV_ERROR_TIMEOUT, text);
    g_free(text);
    KvHandleUnref(handle);
    return G_SOURCE_REMOVE;
}

/* The source owns the deadline record and dies with the call. */
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
    KVMessageToken token = 0;
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
            ok = StartStatusCall(handle, payload, replyFunc, userData, &token, error);
        } else {
            ok = StartRemoteCall(handle, service, path, member, payload, replyFunc, userData,
                                 &token, error);
        }
        g_free(key);
    }
    g_free(service);
    g_free(path);
    g_free(member);
    if (ok) {
        StartTimeout(handle, token, timeoutMs);
        if (tokenOut != NULL) {
            *tokenOut = token;
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
    /* The caller may free the reply function's data once this returns, so the call ends here
     * even when the service cannot be told; the service learns from the connection's loss. */
    if (!TellServiceCancelled(handle, call, NULL)) {
        KvCoreFail(handle);
    }
    RemoveCall(handle, call);
    return true;
}

static void OnConnect(KVHandle* handle) {
    if (sd_bus_add_filter(handle->bus, NULL, ClientFilter, handle) < 0) {
        KvCoreFail(handle); /* later replies would be lost on this connection */
    }
}

static void OnUnregister(KVHandle* handle) {
    g_hash_table_remove_all(handle->client->calls);
}

static void Destroy(KVHandle* handle) {
    g_hash_table_destroy(handle->client->calls);
    g_free(handle->client);
}

void KvClientInit(KVHandle* handle) {
    static const KVModule kModule = {OnConnect, NULL, OnDown, OnUnregister, Destroy};
    handle->client = g_new0(KVClient, 1);
    handle->client->calls =
        g_hash_table_new_full(g_int64_hash, g_int64_equal, NULL, CallRecordFree);
    KvCoreAddModule(handle, &kModule);
    KvNamesListen(handle, OnOwnerChanged);
}
