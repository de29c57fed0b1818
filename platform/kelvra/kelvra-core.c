/* The connection core: errors, the handle's sd_bus and the GSource that drives it on the
 * attached context, link state and reconnects, the queue of deferred work, and messages. */
#include <errno.h>
#include <poll.h>
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

gboolean KvBusError(KVError* error, int code, int result, const char* what) {
    KvErrorSet(error, code, "%s: %s", what, g_strerror(-result));
    return FALSE;
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

/* Deferred work. */

typedef struct KVDeferred {
    KVDeferFunc func;
    sd_bus_message* message;
    guint64 key;
} KVDeferred;

static void DeferredFree(gpointer data) {
    KVDeferred* item = data;
    sd_bus_message_unref(item->message);
    g_free(item);
}

void KvCoreDefer(KVHandle* handle, KVDeferFunc func, sd_bus_message* message, guint64 key) {
    KVDeferred* item = g_new(KVDeferred, 1);
    item->func = func;
    item->message = sd_bus_message_ref(message);
    item->key = key;
    g_queue_push_tail(&handle->deferred, item);
}

/* Runs the queue, including what the work itself queues; stops when the handle goes. */
static void RunDeferred(KVHandle* handle) {
    KVDeferred* item;
    while (!handle->unregistered && (item = g_queue_pop_head(&handle->deferred)) != NULL) {
        item->func(handle, item->message, item->key);
        DeferredFree(item);
    }
}

/* Modules. */

void KvCoreAddModule(KVHandle* handle, const KVModule* module) {
    g_assert(handle->moduleCount < KV_MAX_MODULES);
    handle->modules[handle->moduleCount++] = *module;
}

#define KV_EACH_MODULE(handle, hook)                                                \
    for (int i_ = 0; i_ < (handle)->moduleCount && !(handle)->unregistered; ++i_) { \
        if ((handle)->modules[i_].hook != NULL) {                                   \
            (handle)->modules[i_].hook(handle);                                     \
        }                                                                           \
    }

/* The source. */

typedef struct KVSource {
    GSource base;
    KVHandle* handle; /* not a reference: KVUnregister destroys the source */
} KVSource;

gboolean KvCoreCanSend(KVHandle* handle) {
    return handle->bus != NULL && sd_bus_is_open(handle->bus) > 0;
}

/* The descriptor to poll follows the connection; its events follow what sd-bus waits for. */
static void PollBus(KVHandle* handle) {
    const int fd = handle->bus != NULL ? sd_bus_get_fd(handle->bus) : -1;
    if (handle->source == NULL || fd == handle->fd) {
        return;
    }
    if (handle->fdTag != NULL) {
        g_source_remove_unix_fd(handle->source, handle->fdTag);
        handle->fdTag = NULL;
    }
    handle->fd = fd;
    if (fd >= 0) {
        handle->fdEvents = G_IO_IN;
        handle->fdTag = g_source_add_unix_fd(handle->source, fd, G_IO_IN);
    }
}

static gboolean SourcePrepare(GSource* source, gint* timeout) {
    KVHandle* handle = ((KVSource*)source)->handle;
    *timeout = -1;
    if (handle->deferred.length > 0) {
        return TRUE;
    }
    if (handle->bus == NULL) {
        return FALSE;
    }
    if (sd_bus_is_open(handle->bus) <= 0) {
        return TRUE; /* closed under us: dispatch handles the loss */
    }
    PollBus(handle);
    /* Changing what is polled wakes the context up: only when sd-bus wants something else. */
    const int events = sd_bus_get_events(handle->bus);
    if (handle->fdTag != NULL && events >= 0 && events != handle->fdEvents) {
        handle->fdEvents = events;
        g_source_modify_unix_fd(source, handle->fdTag, (GIOCondition)events);
    }
    uint64_t until = UINT64_MAX;
    if (sd_bus_get_timeout(handle->bus, &until) < 0 || until == UINT64_MAX) {
        return FALSE;
    }
    /* sd-bus and GLib both count CLOCK_MONOTONIC in microseconds. */
    const gint64 now = g_source_get_time(source);
    if ((gint64)until <= now) {
        return TRUE;
    }
    const uint64_t ms = (until - (uint64_t)now + 999) / 1000;
    *timeout = ms > G_MAXINT ? G_MAXINT : (gint)ms;
    return FALSE;
}

static gboolean SourceCheck(GSource* source) {
    KVHandle* handle = ((KVSource*)source)->handle;
    if (handle->deferred.length > 0) {
        return TRUE;
    }
    if (handle->bus == NULL) {
        return FALSE;
    }
    if (handle->fdTag != NULL && g_source_query_unix_fd(source, handle->fdTag) != 0) {
        return TRUE;
    }
    uint64_t until = UINT64_MAX;
    return sd_bus_is_open(handle->bus) <= 0 ||
           (sd_bus_get_timeout(handle->bus, &until) >= 0 && until != UINT64_MAX &&
            (gint64)until <= g_source_get_time(source));
}

static void LinkLost(KVHandle* handle);

/* One message at a time: what its handlers queued runs before the next is read, so replies,
 * requests and changes reach the application in the order the bus sent them. */
static gboolean SourceDispatch(GSource* source, GSourceFunc callback, gpointer data) {
    (void)callback;
    (void)data;
    KVHandle* handle = ((KVSource*)source)->handle;
    KvHandleRef(handle);
    RunDeferred(handle);
    while (!handle->unregistered && handle->bus != NULL) {
        sd_bus* bus = handle->bus;
        const int result = sd_bus_process(bus, NULL);
        if (result < 0 || sd_bus_is_open(bus) <= 0) {
            RunDeferred(handle);
            if (!handle->unregistered && handle->bus == bus) {
                LinkLost(handle);
            }
            break;
        }
        RunDeferred(handle);
        if (result == 0) {
            break;
        }
    }
    RunDeferred(handle);
    KvHandleUnref(handle);
    return G_SOURCE_CONTINUE;
}

static GSourceFuncs gSourceFuncs = {SourcePrepare, SourceCheck, SourceDispatch, NULL, NULL, NULL};

/* Connections. */

#define KV_RETRY_FIRST_MS 100
#define KV_RETRY_MAX_MS 5000

static void Report(KVHandle* handle, gboolean up) {
    if (handle->reportedUp == up || handle->unregistered) {
        return;
    }
    handle->reportedUp = up;
    if (handle->connectionFunc != NULL) {
        handle->connectionFunc(handle, up, handle->connectionData);
    }
}

static void ReportDown(KVHandle* handle, sd_bus_message* message, guint64 key) {
    (void)message;
    (void)key;
    Report(handle, FALSE);
}

static void StartConnect(KVHandle* handle);

static gboolean OnRetry(gpointer data) {
    KVHandle* handle = data;
    g_source_unref(handle->retrySource);
    handle->retrySource = NULL;
    KvHandleRef(handle);
    StartConnect(handle);
    KvHandleUnref(handle);
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

#define KV_FLUSH_MAX_MS 250

/* Writes what is still queued, waiting for the socket at most KV_FLUSH_MAX_MS in all: a bus that
 * does not read must not hold the caller (sd_bus_flush would wait for as long as it takes). */
static void FlushBriefly(sd_bus* bus) {
    const gint64 deadline = g_get_monotonic_time() + KV_FLUSH_MAX_MS * 1000;
    while (sd_bus_is_open(bus) > 0 && (sd_bus_get_events(bus) & POLLOUT) != 0) {
        const gint64 left = (deadline - g_get_monotonic_time()) / 1000;
        struct pollfd writable = {sd_bus_get_fd(bus), POLLOUT, 0};
        if (left <= 0 || poll(&writable, 1, (int)left) <= 0 || sd_bus_process(bus, NULL) < 0) {
            return;
        }
    }
}

/* Takes the connection from the handle. Replies and cancels sent last go out first when flush
 * is set and the connection is up (sd-bus would wait for a connection being made). */
static void DropBus(KVHandle* handle, gboolean flush) {
    sd_bus* bus = handle->bus;
    if (bus == NULL) {
        return;
    }
    handle->bus = NULL;
    handle->nameRequest = sd_bus_slot_unref(handle->nameRequest);
    PollBus(handle);
    if (flush && handle->link == KV_LINK_UP) {
        FlushBriefly(bus);
    }
    sd_bus_close(bus);
    sd_bus_unref(bus);
}

/* The connection closed, or its attempt failed: every module lets go of it, then the
 * application hears of it, and the next attempt is armed. */
static void LinkLost(KVHandle* handle) {
    KV_EACH_MODULE(handle, onDown);
    DropBus(handle, FALSE);
    handle->link = KV_LINK_DOWN;
    Report(handle, FALSE);
    ScheduleRetry(handle);
}

static void LinkUp(KVHandle* handle) {
    handle->link = KV_LINK_UP;
    handle->retryDelayMs = KV_RETRY_FIRST_MS;
    KV_EACH_MODULE(handle, onUp);
    if (handle->reportFirstUp) {
        handle->reportFirstUp = FALSE;
        handle->reportedUp = FALSE;
    }
    Report(handle, TRUE);
}

static void OnNameAnswer(KVHandle* handle, sd_bus_message* reply, guint64 key) {
    (void)key;
    const uint32_t kPrimaryOwner = 1;
    uint32_t answer = 0;
    if (handle->link != KV_LINK_CONNECTING || sd_bus_message_get_bus(reply) != handle->bus) {
        return;
    }
    if (sd_bus_message_is_method_error(reply, NULL) ||
        sd_bus_message_read(reply, "u", &answer) < 0 || answer != kPrimaryOwner) {
        /* Another connection owns the name: try again later on a new connection. */
        LinkLost(handle);
        return;
    }
    LinkUp(handle);
}

static int OnNameReply(sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)error;
    KVHandle* handle = data;
    handle->nameRequest = sd_bus_slot_unref(handle->nameRequest);
    KvCoreDefer(handle, OnNameAnswer, reply, 0);
    return 1;
}

static void OnConnected(KVHandle* handle, sd_bus_message* message, guint64 key) {
    (void)key;
    if (handle->link != KV_LINK_CONNECTING || sd_bus_message_get_bus(message) != handle->bus) {
        return;
    }
    if (handle->serviceName == NULL) {
        LinkUp(handle);
        return;
    }
    /* sd-bus adds "do not queue": the answer is the primary ownership or a refusal. */
    const int result = sd_bus_request_name_async(handle->bus, &handle->nameRequest,
                                                 handle->serviceName, 0, OnNameReply, handle);
    if (result < 0) {
        LinkLost(handle);
    }
}

/* Hello has been answered: the local Connected signal. */
static int CoreFilter(sd_bus_message* message, void* data, sd_bus_error* error) {
    (void)error;
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Connected")) {
        KvCoreDefer(data, OnConnected, message, 0);
        return 1;
    }
    return 0;
}

/* A new connection: connect() on the bus socket returns at once; authentication and Hello run
 * from the loop. */
static int OpenBus(KVHandle* handle) {
    sd_bus* bus = NULL;
    int result = sd_bus_new(&bus);
    if (result >= 0) {
        result = sd_bus_set_address(bus, handle->address);
    }
    if (result >= 0) {
        result = sd_bus_set_bus_client(bus, 1);
    }
    if (result >= 0) {
        result = sd_bus_set_connected_signal(bus, 1);
    }
    if (result >= 0) {
        result = sd_bus_add_filter(bus, NULL, CoreFilter, handle);
    }
    if (result >= 0) {
        result = sd_bus_start(bus);
    }
    if (result < 0) {
        sd_bus_unref(bus);
        return result;
    }
    handle->bus = bus;
    handle->link = KV_LINK_CONNECTING;
    KV_EACH_MODULE(handle, onConnect);
    PollBus(handle);
    return 0;
}

static void StartConnect(KVHandle* handle) {
    if (handle->unregistered || handle->bus != NULL) {
        return;
    }
    if (OpenBus(handle) < 0) {
        Report(handle, FALSE);
        ScheduleRetry(handle);
    }
}

void KvCoreFail(KVHandle* handle) {
    if (handle->bus != NULL) {
        /* Not dropped here: the dispatch that notices the closed connection runs LinkLost, with
         * every module's view of the loss, from the loop. */
        sd_bus_close(handle->bus);
    }
}

gboolean KvCoreSend(KVHandle* handle, sd_bus_message* message, KVError* error) {
    if (!KvCoreCanSend(handle) || sd_bus_message_get_bus(message) != handle->bus) {
        KvErrorSet(error, KV_ERROR_BUS_UNAVAILABLE, "The bus is unavailable");
        return FALSE;
    }
    const int result = sd_bus_send(handle->bus, message, NULL);
    return result >= 0 || KvBusError(error, KV_ERROR_BUS, result, "Cannot send on the bus");
}

sd_bus_message* KvCoreNewBusCall(KVHandle* handle, const char* member) {
    sd_bus_message* message = NULL;
    if (handle->bus == NULL ||
        sd_bus_message_new_method_call(handle->bus, &message, KV_BUS_NAME, KV_BUS_PATH, KV_BUS_NAME,
                                       member) < 0) {
        return NULL;
    }
    return message;
}

/* Handles. */

KVHandle* KvCoreNew(const char* serviceName, char* address) {
    KVHandle* handle = g_new0(KVHandle, 1);
    handle->refCount = 1;
    handle->serviceName = g_strdup(serviceName);
    handle->address = address;
    handle->link = KV_LINK_DOWN;
    handle->retryDelayMs = KV_RETRY_FIRST_MS;
    handle->reportedUp = TRUE;
    handle->fd = -1;
    g_queue_init(&handle->deferred);
    return handle;
}

gboolean KvCoreStart(KVHandle* handle, KVError* error) {
    const int result = OpenBus(handle);
    if (result < 0) {
        KvErrorSet(error, KV_ERROR_BUS, "Cannot connect to the bus at %s: %s", handle->address,
                   g_strerror(-result));
        return FALSE;
    }
    return TRUE;
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
    /* GLib takes a source that may not recurse off the poll set while it dispatches and puts it
     * back after, waking the context up twice per dispatch. Recursing is safe here: application
     * functions run outside sd-bus, and the queue is taken in order by whichever dispatch runs. */
    g_source_set_can_recurse(source, TRUE);
    handle->source = source;
    PollBus(handle);
    g_source_attach(source, handle->context);
    if (handle->link == KV_LINK_DOWN) {
        /* Made without a bus: the application hears of it from the loop, once. */
        KvCoreDefer(handle, ReportDown, NULL, 0);
        ScheduleRetry(handle);
    }
    return true;
}

bool KVUnregister(KVHandle* handle, KVError* error) {
    if (!KvCheckHandle(handle, error)) {
        return false;
    }
    handle->unregistered = TRUE;
    for (int i = 0; i < handle->moduleCount; ++i) {
        if (handle->modules[i].onUnregister != NULL) {
            handle->modules[i].onUnregister(handle);
        }
    }
    if (handle->retrySource != NULL) {
        g_source_destroy(handle->retrySource);
        g_source_unref(handle->retrySource);
        handle->retrySource = NULL;
    }
    DropBus(handle, TRUE);
    if (handle->source != NULL) {
        g_source_destroy(handle->source);
        g_source_unref(handle->source);
        handle->source = NULL;
    }
    g_queue_clear_full(&handle->deferred, DeferredFree);
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
    for (int i = handle->moduleCount - 1; i >= 0; --i) {
        if (handle->modules[i].destroy != NULL) {
            handle->modules[i].destroy(handle);
        }
    }
    g_queue_clear_full(&handle->deferred, DeferredFree);
    if (handle->context != NULL) {
        g_main_context_unref(handle->context);
    }
    g_free(handle->serviceName);
    g_free(handle->address);
    g_free(handle);
}

/* Messages. */

KVMessage* KvMessageNew(KVHandle* handle, KVMessageKind kind, size_t size, char* payload) {
    KVMessage* message = g_malloc0(size);
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
    if (message->finalize != NULL) {
        message->finalize(message);
    }
    KVHandle* handle = message->handle;
    g_free(message->payload);
    g_free(message);
    KvHandleUnref(handle);
}
