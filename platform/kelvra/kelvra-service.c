/* Service side: methods, requests, replies and subscriptions, and the introspection data that
 * lets generic D-Bus tools list the methods. */
#include <errno.h>
#include <string.h>

#include "kelvra-private.h"

typedef enum KVRequestState {
    KV_REQUEST_OPEN,  /* no reply yet, or a subscription */
    KV_REQUEST_CLOSED /* answered for good, cancelled, or the client left */
} KVRequestState;

/* Why a request is closed without a last reply from the service. */
typedef enum KVCloseReason {
    KV_CLOSE_ANSWERED,  /* the last reply went out */
    KV_CLOSE_CANCELLED, /* the client cancelled */
    KV_CLOSE_GONE       /* the client left the bus */
} KVCloseReason;

typedef struct KVRequest {
    KVMessage base; /* first: a KVMessage* of a request is a KVRequest* */
    char* method;   /* "CATEGORY/METHOD" */
    char* sender;   /* the client's unique name */
    KVMessageToken token;
    char* key;            /* sender + "/" + token, the key in the service's requests */
    sd_bus_message* call; /* the D-Bus call until the first reply goes out */
    KVRequestState state;
    gboolean subscribed; /* KVSubscriptionAdd: the library holds a reference */
    KVCancelFunc cancelFunc;
    void* cancelData;
} KVRequest;

typedef struct KVMethod {
    KVMethodFunc func;
    void* userData;
} KVMethod;

struct KVService {
    GHashTable* methods;  /* "CATEGORY/METHOD" -> KVMethod* */
    GHashTable* requests; /* key -> KVRequest* (not a reference), open requests */
};

static gboolean SendReply(KVHandle* handle, sd_bus_message* reply, KVError* error) {
    const gboolean sent = KvCoreSend(handle, reply, error);
    sd_bus_message_unref(reply);
    return sent;
}

/* Sends the answer to a method call; result is that of making it. An answer that cannot be
 * made or queued closes the connection: the caller would wait for it forever, and the bus
 * answers for a connection that leaves. */
static gboolean SendAnswer(KVHandle* handle, sd_bus_message* call, sd_bus_message* reply,
                           int result, KVError* error) {
    if (sd_bus_message_get_bus(call) != handle->bus || !KvCoreCanSend(handle)) {
        sd_bus_message_unref(reply);
        KvErrorSet(error, KV_ERROR_BUS_UNAVAILABLE, "The caller's connection is gone");
        return FALSE;
    }
    const gboolean sent = result >= 0
                              ? SendReply(handle, reply, error)
                              : KvBusError(error, KV_ERROR_BUS, result, "Cannot make the reply");
    if (result < 0) {
        sd_bus_message_unref(reply);
    }
    if (!sent) {
        KvCoreFail(handle);
    }
    return sent;
}

/* The method return (sb) of a call. */
static gboolean SendReturn(KVHandle* handle, sd_bus_message* call, const char* payload,
                           gboolean more, KVError* error) {
    sd_bus_message* reply = NULL;
    int result = sd_bus_message_new_method_return(call, &reply);
    if (result >= 0) {
        result = sd_bus_message_append(reply, "sb", payload, more);
    }
    return SendAnswer(handle, call, reply, result, error);
}

static gboolean SendFirstReply(KVHandle* handle, KVRequest* request, const char* payload,
                               gboolean more, KVError* error) {
    sd_bus_message* call = request->call;
    request->call = NULL;
    const gboolean sent = SendReturn(handle, call, payload, more, error);
    sd_bus_message_unref(call);
    return sent;
}

static gboolean SendLaterReply(KVHandle* handle, KVRequest* request, const char* payload,
                               gboolean more, KVError* error) {
    sd_bus_message* signal = NULL;
    if (handle->bus == NULL) {
        KvErrorSet(error, KV_ERROR_BUS_UNAVAILABLE, "The bus is unavailable");
        return FALSE;
    }
    int result = sd_bus_message_new_signal(handle->bus, &signal, KV_CONTROL_PATH,
                                           KV_CLIENT_INTERFACE, "Reply");
    if (result >= 0) {
        result = sd_bus_message_set_destination(signal, request->sender);
    }
    if (result >= 0) {
        result = sd_bus_message_append(signal, "tsb", (uint64_t)request->token, payload, more);
    }
    if (result < 0) {
        sd_bus_message_unref(signal);
        return KvBusError(error, KV_ERROR_BUS, result, "Cannot make the reply");
    }
    return SendReply(handle, signal, error);
}

/* Answers a call that never becomes a request. */
static void SendImmediateError(KVHandle* handle, sd_bus_message* call, int code, const char* text) {
    char* payload = KvErrorPayload(code, text);
    SendReturn(handle, call, payload, FALSE, NULL);
    g_free(payload);
}

static void CloseRequest(KVHandle* handle, KVRequest* request, KVCloseReason reason) {
    if (request->state == KV_REQUEST_CLOSED) {
        return;
    }
    request->state = KV_REQUEST_CLOSED;
    g_hash_table_remove(handle->service->requests, request->key);
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
        request->cancelFunc(handle, &request->base, request->cancelData);
    }
    KVMessageUnref(&request->base);
}

/* Validates a request argument of KVReply and friends. */
static KVRequest* CheckRequest(KVHandle* handle, KVMessage* message, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return NULL;
    }
    if (message == NULL || message->kind != KV_MESSAGE_REQUEST || message->handle != handle) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Not a request of this handle");
        return NULL;
    }
    KVRequest* request = (KVRequest*)message;
    if (handle->unregistered || request->state == KV_REQUEST_CLOSED) {
        KvErrorSet(error, KV_ERROR_CLOSED,
                   "The request was answered, cancelled, or its client left the bus");
        return NULL;
    }
    return request;
}

static gboolean ReplyCommon(KVHandle* handle, KVMessage* message, const char* payload,
                            gboolean last, KVError* error) {
    KVRequest* request = CheckRequest(handle, message, error);
    if (request == NULL || !KvCheckPayload(payload, error)) {
        return FALSE;
    }
    const gboolean more = request->subscribed && !last;
    const gboolean first = request->call != NULL;
    const gboolean sent = first ? SendFirstReply(handle, request, payload, more, error)
                                : SendLaterReply(handle, request, payload, more, error);
    if (!more) {
        CloseRequest(handle, request, KV_CLOSE_ANSWERED);
        if (!sent && !first) {
            /* The client would wait for its last reply forever (a first reply that cannot go
             * out has closed the connection already). */
            KvCoreFail(handle);
        }
    }
    return sent;
}

bool KVReply(KVHandle* handle, KVMessage* request, const char* payload, KVError* error) {
    return ReplyCommon(handle, request, payload, FALSE, error);
}

bool KVReplyLast(KVHandle* handle, KVMessage* request, const char* payload, KVError* error) {
    return ReplyCommon(handle, request, payload, TRUE, error);
}

bool KVSubscriptionAdd(KVHandle* handle, KVMessage* message, KVCancelFunc cancelFunc,
                       void* userData, KVError* error) {
    KVRequest* request = CheckRequest(handle, message, error);
    if (request == NULL) {
        return false;
    }
    if (request->subscribed) {
        KvErrorSet(error, KV_ERROR_EXISTS, "The request is already a subscription");
        return false;
    }
    request->subscribed = TRUE;
    request->cancelFunc = cancelFunc;
    request->cancelData = userData;
    KVMessageRef(message);
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
    if (g_hash_table_contains(handle->service->methods, method)) {
        KvErrorSet(error, KV_ERROR_EXISTS, "The method \"%s\" is already registered", method);
        return false;
    }
    KVMethod* entry = g_new0(KVMethod, 1);
    entry->func = func;
    entry->userData = userData;
    g_hash_table_insert(handle->service->methods, g_strdup(method), entry);
    return true;
}

/* The payload must be a JSON object; "subscribe": true asks for a subscription. */
static gboolean ParseRequestPayload(const char* payload, gboolean* subscribe) {
    const char* member = NULL;
    if (!KvJsonReadObject(payload, "subscribe", &member)) {
        return FALSE;
    }
    *subscribe = KvJsonIsTrue(member);
    return TRUE;
}

/* Released unanswered: answered for the service, so that the client does not wait. */
static void RequestFinalize(KVMessage* message) {
    KVRequest* request = (KVRequest*)message;
    KVHandle* handle = message->handle;
    if (request->state == KV_REQUEST_OPEN) {
        g_hash_table_remove(handle->service->requests, request->key);
        if (!handle->unregistered && request->call != NULL) {
            char* payload = KvErrorPayload(KV_ERROR_NO_REPLY, "The service did not reply");
            SendFirstReply(handle, request, payload, FALSE, NULL);
            g_free(payload);
        }
    }
    sd_bus_message_unref(request->call);
    g_free(request->method);
    g_free(request->sender);
    g_free(request->key);
}

static void OnCall(KVHandle* handle, sd_bus_message* call) {
    const char* payload = NULL;
    uint64_t token = 0;
    const char* sender = sd_bus_message_get_sender(call);
    if (sender == NULL || !sd_bus_message_has_signature(call, "st") ||
        sd_bus_message_read(call, "st", &payload, &token) < 0) {
        sd_bus_message* reply = NULL;
        const int result = sd_bus_message_new_method_errorf(
            call, &reply, SD_BUS_ERROR_INVALID_ARGS,
            "A kelvra call carries a JSON payload and a token (st)");
        SendAnswer(handle, call, reply, result, NULL);
        return;
    }
    char* method = KvMethodKey(sd_bus_message_get_path(call), sd_bus_message_get_member(call));
    KVMethod* entry = method != NULL ? g_hash_table_lookup(handle->service->methods, method) : NULL;
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
    } else if (g_hash_table_contains(handle->service->requests, key)) {
        SendImmediateError(handle, call, KV_ERROR_EXISTS, "A call with this token is open");
    } else {
        KVRequest* request = (KVRequest*)KvMessageNew(handle, KV_MESSAGE_REQUEST, sizeof(KVRequest),
                                                      g_strdup(payload));
        request->method = g_steal_pointer(&method);
        request->sender = g_strdup(sender);
        request->token = token;
        request->key = g_steal_pointer(&key);
        request->call = sd_bus_message_ref(call);
        request->state = KV_REQUEST_OPEN;
        request->base.subscribe = subscribe;
        request->base.method = request->method;
        request->base.sender = request->sender;
        request->base.finalize = RequestFinalize;
        g_hash_table_insert(handle->service->requests, request->key, request);
        const gboolean handled = entry->func(handle, &request->base, entry->userData);
        if (!handled && !handle->unregistered && request->state == KV_REQUEST_OPEN &&
            request->call != NULL) {
            char* failure = KvErrorPayload(KV_ERROR_METHOD_FAILED, "The method failed");
            KVReplyLast(handle, &request->base, failure, NULL);
            g_free(failure);
        }
        KVMessageUnref(&request->base);
    }
    g_free(method);
    g_free(key);
}

static void OnCancel(KVHandle* handle, sd_bus_message* call) {
    uint64_t token = 0;
    const char* sender = sd_bus_message_get_sender(call);
    if (!sd_bus_message_is_method_call(call, KV_CONTROL_INTERFACE, "Cancel") || sender == NULL ||
        sd_bus_message_read(call, "t", &token) < 0) {
        return;
    }
    char* key = g_strdup_printf("%s/%llu", sender, (unsigned long long)token);
    KVRequest* request = g_hash_table_lookup(handle->service->requests, key);
    g_free(key);
    if (request != NULL) {
        KVMessageRef(&request->base);
        CloseRequest(handle, request, KV_CLOSE_CANCELLED);
        KVMessageUnref(&request->base);
    }
}

/* Introspection. Every registered method's path and the control path are objects; their
 * ancestors are nodes that list their children. */

static void AddChild(GHashTable* children, const char* path, const char* object) {
    const size_t length = strlen(path);
    const char* rest = NULL;
    if (strcmp(path, "/") == 0) {
        rest = object + 1;
    } else if (strncmp(object, path, length) == 0 && object[length] == '/') {
        rest = object + length + 1;
    }
    if (rest != NULL && rest[0] != '\0') {
        const char* end = strchr(rest, '/');
        char* child = end != NULL ? g_strndup(rest, (gsize)(end - rest)) : g_strdup(rest);
        g_hash_table_add(children, child);
    }
}

static void AppendMethods(KVHandle* handle, const char* path, GString* xml, GHashTable* children) {
    GHashTableIter iter;
    gpointer key;
    gboolean open = FALSE;
    g_hash_table_iter_init(&iter, handle->service->methods);
    while (g_hash_table_iter_next(&iter, &key, NULL)) {
        char* methodPath = NULL;
        char* member = NULL;
        if (!KvSplitMethod(key, &methodPath, &member)) {
            continue;
        }
        AddChild(children, path, methodPath);
        if (strcmp(methodPath, path) == 0) {
            if (!open) {
                g_string_append(xml, " <interface name=\"" KV_METHOD_INTERFACE "\">\n");
                open = TRUE;
            }
            g_string_append_printf(xml,
                                   "  <method name=\"%s\">\n"
                                   "   <arg name=\"payload\" type=\"s\" direction=\"in\"/>\n"
                                   "   <arg name=\"token\" type=\"t\" direction=\"in\"/>\n"
                                   "   <arg name=\"payload\" type=\"s\" direction=\"out\"/>\n"
                                   "   <arg name=\"more\" type=\"b\" direction=\"out\"/>\n"
                                   "  </method>\n",
                                   member);
        }
        g_free(methodPath);
        g_free(member);
    }
    if (open) {
        g_string_append(xml, " </interface>\n");
    }
}

/* The XML of path, or NULL when path is neither an object nor an ancestor of one. */
static char* Introspect(KVHandle* handle, const char* path) {
    GString* xml = g_string_new(
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n"
        " <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
        "  <method name=\"Introspect\">\n"
        "   <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
        "  </method>\n </interface>\n"
        " <interface name=\"org.freedesktop.DBus.Peer\">\n"
        "  <method name=\"Ping\"/>\n"
        "  <method name=\"GetMachineId\">\n"
        "   <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
        "  </method>\n </interface>\n");
    const gsize standard = xml->len;
    GHashTable* children = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, NULL);
    AppendMethods(handle, path, xml, children);
    AddChild(children, path, KV_CONTROL_PATH);
    if (strcmp(path, KV_CONTROL_PATH) == 0) {
        g_string_append(xml, " <interface name=\"" KV_CONTROL_INTERFACE
                             "\">\n"
                             "  <method name=\"Cancel\">\n"
                             "   <arg name=\"token\" type=\"t\" direction=\"in\"/>\n"
                             "  </method>\n </interface>\n");
    }
    GHashTableIter iter;
    gpointer child;
    g_hash_table_iter_init(&iter, children);
    while (g_hash_table_iter_next(&iter, &child, NULL)) {
        g_string_append_printf(xml, " <node name=\"%s\"/>\n", (const char*)child);
    }
    const gboolean exists = xml->len > standard;
    g_hash_table_destroy(children);
    g_string_append(xml, "</node>\n");
    return g_string_free(xml, !exists);
}

static void OnIntrospect(KVHandle* handle, sd_bus_message* call) {
    const char* path = sd_bus_message_get_path(call);
    char* xml = path != NULL ? Introspect(handle, path) : NULL;
    sd_bus_message* reply = NULL;
    int result = xml != NULL
                     ? sd_bus_message_new_method_return(call, &reply)
                     : sd_bus_message_new_method_errorf(call, &reply, SD_BUS_ERROR_UNKNOWN_OBJECT,
                                                        "No object at \"%s\"", path);
    if (result >= 0 && xml != NULL) {
        result = sd_bus_message_append(reply, "s", xml);
    }
    SendAnswer(handle, call, reply, result, NULL);
    g_free(xml);
}

static void OnIncoming(KVHandle* handle, sd_bus_message* call, guint64 key) {
    (void)key;
    if (sd_bus_message_get_bus(call) != handle->bus) {
        return; /* a connection that is gone */
    }
    const char* interface = sd_bus_message_get_interface(call);
    if (g_strcmp0(interface, KV_METHOD_INTERFACE) == 0) {
        OnCall(handle, call);
    } else if (g_strcmp0(interface, KV_CONTROL_INTERFACE) == 0) {
        OnCancel(handle, call);
    } else {
        OnIntrospect(handle, call);
    }
}

/* Calls of the kelvra interfaces, on any path, and introspection; Peer is sd-bus's own. */
static int ServiceFilter(sd_bus_message* message, void* data, sd_bus_error* error) {
    (void)error;
    uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) {
        return 0;
    }
    const char* interface = sd_bus_message_get_interface(message);
    if (g_strcmp0(interface, KV_METHOD_INTERFACE) != 0 &&
        g_strcmp0(interface, KV_CONTROL_INTERFACE) != 0 &&
        !sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Introspectable",
                                       "Introspect")) {
        return 0;
    }
    KvCoreDefer(data, OnIncoming, message, 0);
    return 1;
}

/* Every open request (of sender, or of anybody), each with a reference of the caller's. */
static GPtrArray* TakeRequests(KVHandle* handle, const char* sender) {
    GPtrArray* requests = g_ptr_array_new();
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->service->requests);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        KVRequest* request = value;
        if (sender == NULL || strcmp(request->sender, sender) == 0) {
            g_ptr_array_add(requests, KVMessageRef(&request->base));
        }
    }
    return requests;
}

/* Closes the open requests of sender (NULL: of every client) as if their clients had left. */
static void CloseRequestsOf(KVHandle* handle, const char* sender) {
    GPtrArray* requests = TakeRequests(handle, sender);
    for (guint i = 0; i < requests->len; ++i) {
        KVRequest* request = requests->pdata[i];
        if (!handle->unregistered) {
            if (sender == NULL) {
                /* The connection is gone: nothing can be answered on it. */
                request->call = sd_bus_message_unref(request->call);
            }
            CloseRequest(handle, request, KV_CLOSE_GONE);
        }
        KVMessageUnref(&request->base);
    }
    g_ptr_array_free(requests, TRUE);
}

static void OnOwnerChanged(KVHandle* handle, const char* name, const char* oldOwner,
                           const char* newOwner, gboolean initial) {
    (void)oldOwner;
    (void)initial;
    if (newOwner == NULL) {
        CloseRequestsOf(handle, name);
    }
}

static void OnConnect(KVHandle* handle) {
    if (sd_bus_add_filter(handle->bus, NULL, ServiceFilter, handle) < 0) {
        KvCoreFail(handle); /* the connection would answer every call "unknown object" */
    }
}

/* The connection is gone: subscriptions end as if their clients had left, because those
 * clients lost their connections too. */
static void OnDown(KVHandle* handle) {
    CloseRequestsOf(handle, NULL);
}

/* Closes every open request without calling anybody. */
static void OnUnregister(KVHandle* handle) {
    GPtrArray* requests = TakeRequests(handle, NULL);
    for (guint i = 0; i < requests->len; ++i) {
        KVRequest* request = requests->pdata[i];
        request->state = KV_REQUEST_CLOSED;
        g_hash_table_remove(handle->service->requests, request->key);
        if (request->subscribed) {
            request->subscribed = FALSE;
            KVMessageUnref(&request->base);
        }
        KVMessageUnref(&request->base);
    }
    g_ptr_array_free(requests, TRUE);
}

static void Destroy(KVHandle* handle) {
    g_hash_table_destroy(handle->service->methods);
    g_hash_table_destroy(handle->service->requests);
    g_free(handle->service);
}

void KvServiceInit(KVHandle* handle) {
    static const KVModule kModule = {OnConnect, NULL, OnDown, OnUnregister, Destroy};
    handle->service = g_new0(KVService, 1);
    handle->service->methods = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    handle->service->requests = g_hash_table_new(g_str_hash, g_str_equal);
    KvCoreAddModule(handle, &kModule);
    KvNamesListen(handle, OnOwnerChanged);
}
