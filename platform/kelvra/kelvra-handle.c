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

guint32 KvSend(KVHandle* handle, GDBusMessage* message, KVPending* pending, KVError* error) {
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
    pthread_mutex_lock(&handle->inbox->lock);
    g_hash_table_remove(handle->inbox->pendingBySerial, GUINT_TO_POINTER(serial));
    pthread_mutex_unlock(&handle->inbox->lock);
}

/* Dispatch on the attached context. */

typedef struct KVSource {
    GSource base;
    KVHandle* handle; /* not a reference: KVUnregister destroys the source */
} KVSource;

static void ProcessItem(KVHandle* handle, KVInboxItem* item) {
    GDBusMessage* message = item->message;
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            if (item->pending->kind == KV_PENDING_CALL) {
                KvClientOnReply(handle, item->pending, message);
            } else {
                KvWatchOnQueryReply(handle, item->pending, message);
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

/* Runs on the attached context's thread, from the connection's context (see below). */
static void OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished,
                               GError* gerror, gpointer data) {
    (void)connection;
    (void)remotePeerVanished;
    (void)gerror;
    KVHandle* handle = data;
    if (handle->unregistered || handle->busLost) {
        return;
    }
    handle->busLost = TRUE;
    KvClientOnBusLost(handle);
    if (!handle->unregistered) {
        KvServiceOnBusLost(handle);
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
    if (handle->connectionContextTag != NULL &&
        g_source_query_unix_fd(source, handle->connectionContextTag) != 0) {
        while (!handle->unregistered &&
               g_main_context_iteration(handle->connectionContext, FALSE)) {
        }
    }
    GQueue batch = G_QUEUE_INIT;
    pthread_mutex_lock(&handle->inbox->lock);
    batch = handle->inbox->items;
    g_queue_init(&handle->inbox->items);
    pthread_mutex_unlock(&handle->inbox->lock);
    KVInboxItem* item;
    while ((item = g_queue_pop_head(&batch)) != NULL) {
        if (!handle->unregistered) {
            ProcessItem(handle, item);
        }
        InboxItemFree(item);
    }
    KVMessageToken* token;
    while (!handle->unregistered && (token = g_queue_pop_head(&handle->localItems)) != NULL) {
        KVMessageToken value = *token;
        g_free(token);
        KvClientOnStatusDue(handle, value);
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

/* Registration. */

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

static GDBusConnection* Connect(GMainContext* connectionContext, KVError* error) {
    GError* gerror = NULL;
    char* address = SelectBusAddress(&gerror);
    if (address == NULL) {
        KvErrorSet(error, KV_ERROR_BUS, "No bus address: %s", gerror->message);
        g_error_free(gerror);
        return NULL;
    }
    g_main_context_push_thread_default(connectionContext);
    GDBusConnection* connection =
        g_dbus_connection_new_for_address_sync(address,
                                               G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                               NULL, NULL, &gerror);
    g_main_context_pop_thread_default(connectionContext);
    if (connection == NULL) {
        KvErrorSet(error, KV_ERROR_BUS, "Cannot connect to the bus at %s: %s", address,
                   gerror->message);
        g_error_free(gerror);
    } else {
        g_dbus_connection_set_exit_on_close(connection, FALSE);
    }
    g_free(address);
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

static void CloseConnection(KVHandle* handle) {
    g_dbus_connection_remove_filter(handle->connection, handle->filterId);
    /* Closing drops what is still queued: replies and cancels sent last must go out first. */
    g_dbus_connection_flush_sync(handle->connection, NULL, NULL);
    g_dbus_connection_close_sync(handle->connection, NULL, NULL);
    /* GDBus has queued its "closed" notification on the connection's context, holding the
     * connection: run it so that the connection can be freed. */
    while (g_main_context_iteration(handle->connectionContext, FALSE)) {
    }
    g_signal_handler_disconnect(handle->connection, handle->closedHandler);
}

static void TokenFree(gpointer token) {
    g_free(token);
}

bool KVRegister(const char* serviceName, KVHandle** handleOut, KVError* error) {
    if (handleOut == NULL) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "NULL handle pointer");
        return false;
    }
    *handleOut = NULL;
    if (serviceName != NULL && !KvIsServiceName(serviceName)) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Invalid service name \"%s\"", serviceName);
        return false;
    }
    /* Ownerless polling: GDBus signals the context's wake-up whenever it queues something, even
     * though no thread owns the context. */
    GMainContext* connectionContext =
        g_main_context_new_with_flags(G_MAIN_CONTEXT_FLAGS_OWNERLESS_POLLING);
    GDBusConnection* connection = Connect(connectionContext, error);
    if (connection == NULL) {
        g_main_context_unref(connectionContext);
        return false;
    }
    KVHandle* handle = g_new0(KVHandle, 1);
    handle->refCount = 1;
    handle->serviceName = g_strdup(serviceName);
    handle->connection = connection;
    handle->connectionContext = connectionContext;
    handle->inbox = InboxNew();
    handle->calls =
        g_hash_table_new_full(g_int64_hash, g_int64_equal, NULL, (GDestroyNotify)KvCallRecordFree);
    handle->watches = g_hash_table_new_full(g_str_hash, g_str_equal, NULL, KvWatchFree);
    handle->methods = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    handle->requests = g_hash_table_new(g_str_hash, g_str_equal);
    g_queue_init(&handle->localItems);
    handle->closedHandler =
        g_signal_connect(connection, "closed", G_CALLBACK(OnConnectionClosed), handle);
    /* The filter is in place before the name is owned, so that no request escapes it. */
    g_atomic_int_inc(&handle->inbox->refCount);
    handle->filterId =
        g_dbus_connection_add_filter(connection, ConnectionFilter, handle->inbox, InboxUnref);
    if (serviceName != NULL && !RequestName(connection, serviceName, error)) {
        handle->unregistered = TRUE;
        CloseConnection(handle);
        KvHandleUnref(handle);
        return false;
    }
    *handleOut = handle;
    return true;
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
    pthread_mutex_lock(&handle->inbox->lock);
    handle->inbox->source = g_source_ref(source);
    if (handle->inbox->items.length > 0) {
        g_source_set_ready_time(source, 0);
    }
    pthread_mutex_unlock(&handle->inbox->lock);
    return true;
}

bool KVUnregister(KVHandle* handle, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    handle->unregistered = TRUE;
    KvServiceShutdown(handle);
    GQueue items = G_QUEUE_INIT;
    pthread_mutex_lock(&handle->inbox->lock);
    handle->inbox->closed = TRUE;
    items = handle->inbox->items;
    g_queue_init(&handle->inbox->items);
    g_hash_table_remove_all(handle->inbox->pendingBySerial);
    GSource* inboxSource = handle->inbox->source;
    handle->inbox->source = NULL;
    pthread_mutex_unlock(&handle->inbox->lock);
    g_queue_clear_full(&items, (GDestroyNotify)InboxItemFree);
    if (inboxSource != NULL) {
        g_source_unref(inboxSource);
    }
    if (handle->source != NULL) {
        g_source_destroy(handle->source);
        g_source_unref(handle->source);
        handle->source = NULL;
    }
    CloseConnection(handle);
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
    g_object_unref(handle->connection);
    g_main_context_unref(handle->connectionContext);
    if (handle->context != NULL) {
        g_main_context_unref(handle->context);
    }
    InboxUnref(handle->inbox);
    g_free(handle->serviceName);
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
