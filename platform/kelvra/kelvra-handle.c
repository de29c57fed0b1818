/* Handles: connection, registration, the inbox filled by the connection filter, dispatch on the
 * attached context, errors and messages. */
#include <json-c/json.h>
#include <stdarg.h>
#include <string.h>

#include "kelvra-private.h"

/* Errors. */

void KVErrorInit(KVError* error) {
    if (error != NULL) {
        error->code = KV_ERROR_NONE;
        error->message = NULL;
    }
}

void KVErrorFree(KVError* error) {
    if (error != NULL) {
        g_free(error->message);
        KVErrorInit(error);
    }
}

void KvErrorSet(KVError* error, int code, const char* format, ...) {
    if (error == NULL) {
        return;
    }
    va_list args;
    va_start(args, format);
    g_free(error->message);
    error->code = code;
    error->message = g_strdup_vprintf(format, args);
    va_end(args);
}

gboolean KvCheckHandle(KVHandle* handle, KVError* error) {
    if (handle == NULL) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "NULL handle");
        return FALSE;
    }
    return TRUE;
}

gboolean KvCheckPayload(const char* payload, KVError* error) {
    if (payload == NULL || !g_utf8_validate(payload, -1, NULL)) {
        KvErrorSet(error, KV_ERROR_BAD_PAYLOAD, "The payload is NULL or not UTF-8 text");
        return FALSE;
    }
    if (strnlen(payload, KV_MAX_PAYLOAD_SIZE + 1) > KV_MAX_PAYLOAD_SIZE) {
        KvErrorSet(error, KV_ERROR_PAYLOAD_TOO_LARGE, "The payload is longer than %u bytes",
                   KV_MAX_PAYLOAD_SIZE);
        return FALSE;
    }
    return TRUE;
}

char* KvErrorPayload(int code, const char* text) {
    json_object* reply = json_object_new_object();
    json_object_object_add(reply, "returnValue", json_object_new_boolean(0));
    json_object_object_add(reply, "errorCode", json_object_new_int(code));
    json_object_object_add(reply, "errorText", json_object_new_string(text));
    char* payload = g_strdup(json_object_to_json_string_ext(
        reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    json_object_put(reply);
    return payload;
}

/* The inbox. */

static KVInbox* InboxNew(void) {
    KVInbox* inbox = g_new0(KVInbox, 1);
    inbox->refCount = 1;
    pthread_mutex_init(&inbox->lock, NULL);
    inbox->pendingBySerial =
        g_hash_table_new_full(g_direct_hash, g_direct_equal, NULL, (GDestroyNotify)KvPendingFree);
    g_queue_init(&inbox->items);
    g_atomic_int_set(&inbox->ready, 1);
    return inbox;
}

static void InboxItemFree(KVInboxItem* item) {
    g_object_unref(item->message);
    KvPendingFree(item->pending);
    g_free(item);
}

static void InboxUnref(gpointer data) {
    KVInbox* inbox = data;
    if (!g_atomic_int_dec_and_test(&inbox->refCount)) {
        return;
    }
    /* GDBus guarantees that no filter runs any more; taking the lock once shows it to
     * ThreadSanitizer as well. */
    pthread_mutex_lock(&inbox->lock);
    pthread_mutex_unlock(&inbox->lock);
    g_queue_clear_full(&inbox->items, (GDestroyNotify)InboxItemFree);
    g_hash_table_destroy(inbox->pendingBySerial);
    if (inbox->source != NULL) {
        g_source_unref(inbox->source);
    }
    pthread_mutex_destroy(&inbox->lock);
    g_free(inbox);
}

void KvPendingFree(KVPending* pending) {
    if (pending != NULL) {
        g_free(pending->name);
        g_free(pending);
    }
}

static gboolean IsNameOwnerChanged(GDBusMessage* message) {
    return g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0 &&
           g_strcmp0(g_dbus_message_get_interface(message), "org.freedesktop.DBus") == 0 &&
           g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") == 0;
}

/* Runs on the GDBus worker thread: queues what the handle handles and wakes its source. Messages
 * for the handle alone are taken from GDBus; name-owner signals are shared. */
static GDBusMessage* ConnectionFilter(GDBusConnection* connection, GDBusMessage* message,
                                      gboolean incoming, gpointer data) {
    (void)connection;
    KVInbox* inbox = data;
    if (!incoming || !g_atomic_int_get(&inbox->ready)) {
        return message;
    }
    const char* interface = g_dbus_message_get_interface(message);
    gboolean take = FALSE;
    gboolean share = FALSE;
    KVPending* pending = NULL;
    pthread_mutex_lock(&inbox->lock);
    if (!inbox->closed) {
        switch (g_dbus_message_get_message_type(message)) {
            case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
            case G_DBUS_MESSAGE_TYPE_ERROR:
                take = g_hash_table_steal_extended(
                    inbox->pendingBySerial,
                    GUINT_TO_POINTER(g_dbus_message_get_reply_serial(message)), NULL,
                    (gpointer*)&pending);
                break;
            case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
                take = g_strcmp0(interface, KV_METHOD_INTERFACE) == 0 ||
                       g_strcmp0(interface, KV_CONTROL_INTERFACE) == 0;
                break;
            case G_DBUS_MESSAGE_TYPE_SIGNAL:
                take = g_strcmp0(interface, KV_CLIENT_INTERFACE) == 0;
                share = !take && IsNameOwnerChanged(message);
                break;
            default:
                break;
        }
    }
    if (take || share) {
        KVInboxItem* item = g_new0(KVInboxItem, 1);
        item->message = share ? g_object_ref(message) : message;
        item->pending = pending;
        g_queue_push_tail(&inbox->items, item);
        if (inbox->source != NULL) {
            g_source_set_ready_time(inbox->source, 0);
        }
    }
    pthread_mutex_unlock(&inbox->lock);
    return take ? NULL : message;
}

gboolean KvLinkUp(KVHandle* handle) {
    return handle->link == KV_LINK_UP;
}

guint32 KvSend(KVHandle* handle, GDBusMessage* message, KVPending* pending, KVError* error) {
    if (handle->connection == NULL) {
        KvPendingFree(pending);
        KvErrorSet(error, KV_ERROR_BUS_UNAVAILABLE, "The bus is unavailable");
        return 0;
    }
    GError* gerror = NULL;
    guint32 serial = 0;
    gboolean sent;
    /* The reply may reach the filter before the serial is known here: the lock makes the
     * filter wait until it is recorded. */
    if (pending != NULL) {
        pthread_mutex_lock(&handle->inbox->lock);
        sent = g_dbus_connection_send_message(handle->connection, message,
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, &gerror);
        if (sent) {
            g_hash_table_insert(handle->inbox->pendingBySerial, GUINT_TO_POINTER(serial), pending);
        }
        pthread_mutex_unlock(&handle->inbox->lock);
    } else {
        sent = g_dbus_connection_send_message(handle->connection, message,
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, &gerror);
    }
    if (!sent) {
        KvPendingFree(pending);
        KvErrorSet(error, KV_ERROR_BUS, "Cannot send on the bus: %s", gerror->message);
        g_error_free(gerror);
        return 0;
    }
    return serial;
}

void KvForgetSerial(KVHandle* handle, guint32 serial) {
    if (handle->inbox == NULL) {
        return;
    }
    pthread_mutex_lock(&handle->inbox->lock);
    g_hash_table_remove(handle->inbox->pendingBySerial, GUINT_TO_POINTER(serial));
    pthread_mutex_unlock(&handle->inbox->lock);
}

/* Dispatch on the attached context. */

typedef struct KVSource {
    GSource base;
    KVHandle* handle; /* not a reference: KVUnregister destroys the source */
} KVSource;

static void OnNameRequestReply(KVHandle* handle, GDBusMessage* reply);

static void ProcessItem(KVHandle* handle, KVInboxItem* item) {
    GDBusMessage* message = item->message;
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            if (item->pending->kind == KV_PENDING_CALL) {
                KvClientOnReply(handle, item->pending, message);
            } else if (item->pending->kind == KV_PENDING_NAME_QUERY) {
                KvWatchOnQueryReply(handle, item->pending, message);
            } else {
                OnNameRequestReply(handle, message);
            }
            break;
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            if (IsNameOwnerChanged(message)) {
                KvWatchOnOwnerChanged(handle, message);
            } else if (g_strcmp0(g_dbus_message_get_member(message), "Reply") == 0) {
                KvClientOnReplySignal(handle, message);
            }
            break;
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            if (g_strcmp0(g_dbus_message_get_interface(message), KV_METHOD_INTERFACE) == 0) {
                KvServiceOnCall(handle, message);
            } else {
                KvServiceOnCancel(handle, message);
            }
            break;
        default:
            break;
    }
}

/* Runs the messages the filter has queued so far. */
static void ProcessInbox(KVHandle* handle) {
    if (handle->inbox == NULL) {
        return;
    }
    KVInbox* inbox = handle->inbox;
    GQueue batch = G_QUEUE_INIT;
    pthread_mutex_lock(&inbox->lock);
    batch = inbox->items;
    g_queue_init(&inbox->items);
    pthread_mutex_unlock(&inbox->lock);
    KVInboxItem* item;
    while ((item = g_queue_pop_head(&batch)) != NULL) {
        /* A callback may have unregistered the handle or lost the connection: what is left of
         * the batch belongs to a connection that is gone. */
        if (!handle->unregistered && handle->inbox == inbox) {
            ProcessItem(handle, item);
        }
        InboxItemFree(item);
    }
}

/* The connection's context has no thread of its own: the handle's source polls its wake-up
 * descriptor (the only one it has) and runs it when GDBus queues something there. */
static void WatchConnectionContext(KVHandle* handle) {
    GMainContext* context = handle->connectionContext;
    if (!g_main_context_acquire(context)) {
        return;
    }
    gint priority = 0;
    gint timeout = 0;
    GPollFD fds[1];
    g_main_context_prepare(context, &priority);
    gint count = g_main_context_query(context, G_MAXINT, &timeout, fds, G_N_ELEMENTS(fds));
    g_main_context_release(context);
    if (count >= 1) {
        handle->connectionContextTag = g_source_add_unix_fd(handle->source, fds[0].fd, G_IO_IN);
    }
}

static gboolean SourceDispatch(GSource* source, GSourceFunc callback, gpointer data) {
    (void)callback;
    (void)data;
    KVHandle* handle = ((KVSource*)source)->handle;
    g_source_set_ready_time(source, -1);
    KvHandleRef(handle);
    /* What arrived before a connection closed is handled before its loss is. */
    ProcessInbox(handle);
    if (handle->connectionContextTag != NULL &&
        g_source_query_unix_fd(source, handle->connectionContextTag) != 0) {
        while (!handle->unregistered &&
               g_main_context_iteration(handle->connectionContext, FALSE)) {
        }
    }
    if (!handle->unregistered) {
        ProcessInbox(handle);
    }
    KVMessageToken* token;
    while (!handle->unregistered && (token = g_queue_pop_head(&handle->localItems)) != NULL) {
        KVMessageToken value = *token;
        g_free(token);
        KvClientOnLocalDue(handle, value);
    }
    KvHandleUnref(handle);
    return G_SOURCE_CONTINUE;
}

static GSourceFuncs gSourceFuncs = {NULL, NULL, SourceDispatch, NULL, NULL, NULL};

void KvScheduleDispatch(KVHandle* handle) {
    if (handle->source != NULL) {
        g_source_set_ready_time(handle->source, 0);
    }
}

/* Connections. */

#define KV_RETRY_FIRST_MS 100
#define KV_RETRY_MAX_MS 5000

static const GDBusConnectionFlags kConnectionFlags =
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;

static char* SelectBusAddress(GError** gerror) {
    const char* names[] = {"KELVRA_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"};
    for (size_t i = 0; i < G_N_ELEMENTS(names); ++i) {
        const char* address = g_getenv(names[i]);
        if (address != NULL && address[0] != '\0') {
            return g_strdup(address);
        }
    }
    return g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, gerror);
}

static void OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished,
                               GError* gerror, gpointer data);

/* Gives the handle a new connection: a new inbox, its filter and the "closed" handler. The
 * filter is in place before the name is owned, so that no request escapes it. GDBus runs the
 * filter's release on the context current when it is added: the connection's. */
static void AttachConnection(KVHandle* handle, GDBusConnection* connection) {
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    handle->connection = connection;
    handle->inbox = InboxNew();
    if (handle->source != NULL) {
        handle->inbox->source = g_source_ref(handle->source);
    }
    handle->closedHandler =
        g_signal_connect(connection, "closed", G_CALLBACK(OnConnectionClosed), handle);
    g_atomic_int_inc(&handle->inbox->refCount);
    g_main_context_push_thread_default(handle->connectionContext);
    handle->filterId =
        g_dbus_connection_add_filter(connection, ConnectionFilter, handle->inbox, InboxUnref);
    g_main_context_pop_thread_default(handle->connectionContext);
}

/* Takes the connection from the handle: the filter goes, the inbox is closed and what it still
 * holds is dropped. Closes the connection when close is set (it is still open). */
static void DetachConnection(KVHandle* handle, gboolean close) {
    GDBusConnection* connection = handle->connection;
    KVInbox* inbox = handle->inbox;
    if (connection == NULL) {
        return;
    }
    handle->connection = NULL;
    handle->inbox = NULL;
    handle->nameRequestSerial = 0;
    g_dbus_connection_remove_filter(connection, handle->filterId);
    g_signal_handler_disconnect(connection, handle->closedHandler);
    GQueue items = G_QUEUE_INIT;
    pthread_mutex_lock(&inbox->lock);
    inbox->closed = TRUE;
    items = inbox->items;
    g_queue_init(&inbox->items);
    g_hash_table_remove_all(inbox->pendingBySerial);
    GSource* inboxSource = inbox->source;
    inbox->source = NULL;
    pthread_mutex_unlock(&inbox->lock);
    g_queue_clear_full(&items, (GDestroyNotify)InboxItemFree);
    if (inboxSource != NULL) {
        g_source_unref(inboxSource);
    }
    InboxUnref(inbox);
    if (close) {
        /* Replies and cancels sent last must go out before the connection goes. */
        g_dbus_connection_flush_sync(connection, NULL, NULL);
        g_dbus_connection_close_sync(connection, NULL, NULL);
    }
    /* GDBus's "closed" notification and the filter's release are queued on the connection's
     * context, holding the connection: they run there and let it go. */
    g_object_unref(connection);
}

static void ReportConnection(KVHandle* handle, gboolean connected) {
    if (handle->connectionFunc != NULL && !handle->unregistered) {
        handle->connectionFunc(handle, connected, handle->connectionData);
    }
}

static void StartConnect(KVHandle* handle);

static gboolean OnRetry(gpointer data) {
    KVHandle* handle = data;
    g_source_unref(handle->retrySource);
    handle->retrySource = NULL;
    StartConnect(handle);
    return G_SOURCE_REMOVE;
}

/* Arms the next connection attempt, each wait twice the previous one up to the maximum. */
static void ScheduleRetry(KVHandle* handle) {
    handle->link = KV_LINK_DOWN;
    if (handle->context == NULL || handle->retrySource != NULL || handle->unregistered) {
        return;
    }
    handle->retrySource = g_timeout_source_new(handle->retryDelayMs);
    g_source_set_callback(handle->retrySource, OnRetry, handle, NULL);
    g_source_set_static_name(handle->retrySource, "kelvra reconnect");
    g_source_attach(handle->retrySource, handle->context);
    handle->retryDelayMs = MIN(handle->retryDelayMs * 2, KV_RETRY_MAX_MS);
}

static void LinkUp(KVHandle* handle) {
    handle->link = KV_LINK_UP;
    handle->retryDelayMs = KV_RETRY_FIRST_MS;
    KvWatchOnBusBack(handle);
    ReportConnection(handle, TRUE);
}

static void SendNameRequest(KVHandle* handle) {
    const guint32 kDoNotQueue = 4;
    GDBusMessage* message = g_dbus_message_new_method_call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName");
    g_dbus_message_set_body(message, g_variant_new("(su)", handle->serviceName, kDoNotQueue));
    KVPending* pending = g_new0(KVPending, 1);
    pending->kind = KV_PENDING_NAME_REQUEST;
    handle->nameRequestSerial = KvSend(handle, message, pending, NULL);
    g_object_unref(message);
}

static void OnNameRequestReply(KVHandle* handle, GDBusMessage* reply) {
    const guint32 kPrimaryOwner = 1;
    if (handle->link != KV_LINK_CONNECTING ||
        handle->nameRequestSerial != g_dbus_message_get_reply_serial(reply)) {
        return;
    }
    handle->nameRequestSerial = 0;
    GVariant* body = g_dbus_message_get_body(reply);
    guint32 answer = 0;
    if (g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN && body &&
        g_variant_is_of_type(body, G_VARIANT_TYPE("(u)"))) {
        g_variant_get(body, "(u)", &answer);
    }
    if (answer == kPrimaryOwner) {
        LinkUp(handle);
        return;
    }
    /* Another connection owns the name: try again later on a new connection. */
    DetachConnection(handle, TRUE);
    ScheduleRetry(handle);
}

/* The end of a connection attempt, on the connection's context. */
static void OnConnectReady(GObject* sourceObject, GAsyncResult* result, gpointer data) {
    (void)sourceObject;
    KVHandle* handle = data;
    GError* gerror = NULL;
    GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &gerror);
    g_clear_object(&handle->connectAttempt);
    if (gerror != NULL) {
        g_error_free(gerror);
    }
    if (handle->unregistered) {
        if (connection != NULL) {
            g_dbus_connection_close_sync(connection, NULL, NULL);
            g_object_unref(connection);
        }
        return;
    }
    if (connection == NULL) {
        ScheduleRetry(handle);
        return;
    }
    AttachConnection(handle, connection);
    if (handle->serviceName == NULL) {
        LinkUp(handle);
        return;
    }
    SendNameRequest(handle);
    if (handle->nameRequestSerial == 0) {
        DetachConnection(handle, TRUE);
        ScheduleRetry(handle);
    }
}

/* Connects in the background; the result and the new connection's notifications arrive on the
 * connection's context. */
static void StartConnect(KVHandle* handle) {
    handle->link = KV_LINK_CONNECTING;
    handle->connectAttempt = g_cancellable_new();
    g_main_context_push_thread_default(handle->connectionContext);
    g_dbus_connection_new_for_address(handle->address, kConnectionFlags, NULL,
                                      handle->connectAttempt, OnConnectReady, handle);
    g_main_context_pop_thread_default(handle->connectionContext);
}

/* Runs on the attached context's thread, from the connection's context. */
static void OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished,
                               GError* gerror, gpointer data) {
    (void)connection;
    (void)remotePeerVanished;
    (void)gerror;
    KVHandle* handle = data;
    if (handle->unregistered || handle->connection != connection) {
        return;
    }
    const gboolean wasUp = handle->link == KV_LINK_UP;
    DetachConnection(handle, FALSE);
    handle->link = KV_LINK_DOWN;
    KvWatchOnBusLost(handle);
    KvClientOnBusLost(handle);
    if (!handle->unregistered) {
        KvServiceOnBusLost(handle);
    }
    if (wasUp) {
        ReportConnection(handle, FALSE);
    }
    ScheduleRetry(handle);
}

/* Registration. */

static GDBusConnection* Connect(KVHandle* handle, KVError* error) {
    GError* gerror = NULL;
    g_main_context_push_thread_default(handle->connectionContext);
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        handle->address, kConnectionFlags, NULL, NULL, &gerror);
    g_main_context_pop_thread_default(handle->connectionContext);
    if (connection == NULL) {
        KvErrorSet(error, KV_ERROR_BUS, "Cannot connect to the bus at %s: %s", handle->address,
                   gerror->message);
        g_error_free(gerror);
    }
    return connection;
}

static gboolean RequestName(GDBusConnection* connection, const char* name, KVError* error) {
    const guint32 kDoNotQueue = 4;
    const guint32 kPrimaryOwner = 1;
    GError* gerror = NULL;
    GVariant* result = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", name, kDoNotQueue), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, NULL, &gerror);
    if (result == NULL) {
        KvErrorSet(error, KV_ERROR_BUS, "Cannot request the name %s: %s", name, gerror->message);
        g_error_free(gerror);
        return FALSE;
    }
    guint32 answer = 0;
    g_variant_get(result, "(u)", &answer);
    g_variant_unref(result);
    if (answer != kPrimaryOwner) {
        KvErrorSet(error, KV_ERROR_NAME_TAKEN, "The name %s is owned by another connection", name);
        return FALSE;
    }
    return TRUE;
}

/* Runs what GDBus queued on the connection's context (notifications, releases) until nothing
 * is left. */
static void DrainConnectionContext(KVHandle* handle) {
    while (g_main_context_iteration(handle->connectionContext, FALSE)) {
    }
}

static void TokenFree(gpointer token) {
    g_free(token);
}

bool KVRegisterWithFlags(const char* serviceName, unsigned flags, KVHandle** handleOut,
                         KVError* error) {
    if (handleOut == NULL) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "NULL handle pointer");
        return false;
    }
    *handleOut = NULL;
    if (serviceName != NULL && !KvIsServiceName(serviceName)) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Invalid service name \"%s\"", serviceName);
        return false;
    }
    GError* gerror = NULL;
    char* address = SelectBusAddress(&gerror);
    if (address == NULL) {
        KvErrorSet(error, KV_ERROR_BUS, "No bus address: %s", gerror->message);
        g_error_free(gerror);
        return false;
    }
    KVHandle* handle = g_new0(KVHandle, 1);
    handle->refCount = 1;
    handle->serviceName = g_strdup(serviceName);
    handle->address = address;
    handle->link = KV_LINK_DOWN;
    handle->retryDelayMs = KV_RETRY_FIRST_MS;
    /* Ownerless polling: GDBus signals the context's wake-up whenever it queues something, even
     * though no thread owns the context. */
    handle->connectionContext =
        g_main_context_new_with_flags(G_MAIN_CONTEXT_FLAGS_OWNERLESS_POLLING);
    handle->calls =
        g_hash_table_new_full(g_int64_hash, g_int64_equal, NULL, (GDestroyNotify)KvCallRecordFree);
    handle->watches = g_hash_table_new_full(g_str_hash, g_str_equal, NULL, KvWatchFree);
    handle->methods = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    handle->requests = g_hash_table_new(g_str_hash, g_str_equal);
    g_queue_init(&handle->localItems);
    KVError connectError;
    KVErrorInit(&connectError);
    GDBusConnection* connection = Connect(handle, &connectError);
    if (connection == NULL) {
        if ((flags & KV_REGISTER_ALLOW_NO_BUS) != 0) {
            KVErrorFree(&connectError);
            *handleOut = handle;
            return true;
        }
        KvErrorSet(error, connectError.code, "%s", connectError.message);
        KVErrorFree(&connectError);
        handle->unregistered = TRUE;
        KvHandleUnref(handle);
        return false;
    }
    AttachConnection(handle, connection);
    if (serviceName != NULL && !RequestName(connection, serviceName, error)) {
        handle->unregistered = TRUE;
        DetachConnection(handle, TRUE);
        DrainConnectionContext(handle);
        KvHandleUnref(handle);
        return false;
    }
    handle->link = KV_LINK_UP;
    *handleOut = handle;
    return true;
}

bool KVRegister(const char* serviceName, KVHandle** handleOut, KVError* error) {
    return KVRegisterWithFlags(serviceName, 0, handleOut, error);
}

bool KVSetConnectionFunc(KVHandle* handle, KVConnectionFunc func, void* userData, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    handle->connectionFunc = func;
    handle->connectionData = userData;
    return true;
}

bool KVIsConnected(KVHandle* handle) {
    return handle != NULL && handle->link == KV_LINK_UP;
}

bool KVGmainAttach(KVHandle* handle, GMainContext* context, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    if (handle->source != NULL) {
        KvErrorSet(error, KV_ERROR_ALREADY_ATTACHED, "The handle is already attached");
        return false;
    }
    handle->context = g_main_context_ref(context != NULL ? context : g_main_context_default());
    GSource* source = g_source_new(&gSourceFuncs, sizeof(KVSource));
    ((KVSource*)source)->handle = handle;
    g_source_set_static_name(source, "kelvra");
    handle->source = source;
    WatchConnectionContext(handle);
    g_source_attach(source, handle->context);
    if (handle->inbox != NULL) {
        pthread_mutex_lock(&handle->inbox->lock);
        handle->inbox->source = g_source_ref(source);
        if (handle->inbox->items.length > 0) {
            g_source_set_ready_time(source, 0);
        }
        pthread_mutex_unlock(&handle->inbox->lock);
    }
    if (handle->link == KV_LINK_DOWN) {
        ScheduleRetry(handle);
    }
    return true;
}

bool KVUnregister(KVHandle* handle, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    handle->unregistered = TRUE;
    KvServiceShutdown(handle);
    if (handle->retrySource != NULL) {
        g_source_destroy(handle->retrySource);
        g_source_unref(handle->retrySource);
        handle->retrySource = NULL;
    }
    if (handle->connectAttempt != NULL) {
        /* The attempt ends soon once cancelled; its result arrives on the connection's context. */
        g_cancellable_cancel(handle->connectAttempt);
        while (handle->connectAttempt != NULL) {
            g_main_context_iteration(handle->connectionContext, TRUE);
        }
    }
    if (handle->source != NULL) {
        g_source_destroy(handle->source);
        g_source_unref(handle->source);
        handle->source = NULL;
    }
    DetachConnection(handle, TRUE);
    DrainConnectionContext(handle);
    /* The tables stay (empty) until the last reference goes: a callback may still be running. */
    g_hash_table_remove_all(handle->calls);
    g_hash_table_remove_all(handle->watches);
    g_queue_clear_full(&handle->localItems, TokenFree);
    KvHandleUnref(handle);
    return true;
}

void KvHandleRef(KVHandle* handle) {
    ++handle->refCount;
}

void KvHandleUnref(KVHandle* handle) {
    if (--handle->refCount > 0) {
        return;
    }
    g_hash_table_destroy(handle->calls);
    g_hash_table_destroy(handle->watches);
    g_hash_table_destroy(handle->methods);
    g_hash_table_destroy(handle->requests);
    g_queue_clear_full(&handle->localItems, TokenFree);
    g_main_context_unref(handle->connectionContext);
    if (handle->context != NULL) {
        g_main_context_unref(handle->context);
    }
    g_free(handle->serviceName);
    g_free(handle->address);
    g_free(handle);
}

/* Messages. */

KVMessage* KvMessageNew(KVHandle* handle, KVMessageKind kind, char* payload) {
    KVMessage* message = g_new0(KVMessage, 1);
    message->refCount = 1;
    message->kind = kind;
    message->handle = handle;
    KvHandleRef(handle);
    message->payload = payload;
    return message;
}

const char* KVMessageGetPayload(KVMessage* message) {
    return message != NULL ? message->payload : NULL;
}

bool KVMessageIsLastReply(KVMessage* message) {
    return message != NULL && message->kind == KV_MESSAGE_REPLY && message->last;
}

bool KVMessageIsSubscription(KVMessage* message) {
    return message != NULL && message->kind == KV_MESSAGE_REQUEST && message->subscribe;
}

const char* KVMessageGetMethod(KVMessage* message) {
    return message != NULL ? message->method : NULL;
}

const char* KVMessageGetSender(KVMessage* message) {
    return message != NULL ? message->sender : NULL;
}

KVMessage* KVMessageRef(KVMessage* message) {
    if (message != NULL) {
        ++message->refCount;
    }
    return message;
}

void KVMessageUnref(KVMessage* message) {
    if (message == NULL || --message->refCount > 0) {
        return;
    }
    if (message->kind == KV_MESSAGE_REQUEST) {
        KvRequestFinalize(message);
    }
    KVHandle* handle = message->handle;
    g_free(message->payload);
    g_free(message);
    KvHandleUnref(handle);
}
