/*
 * Not public API. The structures of libkelvra and the functions its files share.
 *
 * Layers, each calling only the ones below it:
 *   kelvra-core.c     the connection (one sd_bus), its GSource, link state and backoff, errors,
 *                     messages and the queue of work deferred to the loop; it knows no module:
 *                     modules register hooks (KVModule) and deferred functions (KVDeferFunc)
 *   kelvra-uri.c      URIs and names (used by every layer)
 *   kelvra-json.c     the fixed JSON replies and the members read from payloads (every layer)
 *   kelvra-names.c    name-owner tracking
 *   kelvra-client.c   calls and status calls          kelvra-service.c   methods and requests
 *   kelvra.c          registration: builds a handle from the core and the modules
 *
 * Threads: none of its own. Everything of a handle belongs to the thread that runs the context
 * the handle is attached to. sd-bus runs only the library's own handlers, which queue the work
 * (KvCoreDefer); application functions run from that queue, outside sd-bus, so that whatever
 * they do (unregister, throw) leaves sd-bus consistent.
 */
#ifndef KELVRA_KELVRA_PRIVATE_H
#define KELVRA_KELVRA_PRIVATE_H

#include <glib.h>
#include <systemd/sd-bus.h>

#include "kelvra/kelvra.h"

#define KV_METHOD_INTERFACE "com.orvex.kelvra.Method"
#define KV_CLIENT_INTERFACE "com.orvex.kelvra.Client"
#define KV_CONTROL_INTERFACE "com.orvex.kelvra.Control"
#define KV_CONTROL_PATH "/com/orvex/kelvra"
#define KV_STATUS_SERVICE "com.orvex.kelvrabus"
#define KV_STATUS_METHOD "signal/registerServerStatus"
#define KV_BUS_NAME "org.freedesktop.DBus"
#define KV_BUS_PATH "/org/freedesktop/DBus"

/* Hooks of a module, called by the core in the order the modules were added. */
typedef struct KVModule {
    void (*onConnect)(KVHandle* handle);    /* a new connection: install handlers on handle->bus */
    void (*onUp)(KVHandle* handle);         /* the connection is up (and owns the service name) */
    void (*onDown)(KVHandle* handle);       /* the connection is gone, or its attempt failed */
    void (*onUnregister)(KVHandle* handle); /* KVUnregister: drop everything, no callbacks */
    void (*destroy)(KVHandle* handle);      /* the last reference is gone: free the state */
} KVModule;

#define KV_MAX_MODULES 4

/* Work for the loop: runs from the handle's source, outside sd-bus. message (a reference, may
 * be NULL) and key are what the handler that queued it passed. */
typedef void (*KVDeferFunc)(KVHandle* handle, sd_bus_message* message, guint64 key);

typedef enum KVLinkState {
    KV_LINK_DOWN,       /* no connection; the retry timer runs once the handle is attached */
    KV_LINK_CONNECTING, /* authentication, Hello or the name request runs */
    KV_LINK_UP          /* connected, owning the service name if the handle has one */
} KVLinkState;

typedef struct KVNames KVNames;
typedef struct KVClient KVClient;
typedef struct KVService KVService;

struct KVHandle {
    int refCount;      /* the user's, one per message, one per running dispatch */
    char* serviceName; /* NULL for an anonymous client */
    char* address;     /* the bus address, chosen once at registration */
    KVLinkState link;
    sd_bus* bus;              /* NULL while the link is down */
    sd_bus_slot* nameRequest; /* RequestName on the current connection, until answered */
    GSource* retrySource;     /* the next connection attempt, on the attached context */
    guint retryDelayMs;       /* the wait before the next attempt after a failure */
    gboolean reportedUp;      /* what the connection function was last told (true at first) */
    gboolean reportFirstUp;   /* the first connection is reported although nothing was before */
    KVConnectionFunc connectionFunc; /* may be NULL */
    void* connectionData;
    GMainContext* context; /* attached, a reference; NULL before */
    GSource* source;
    gpointer fdTag; /* the bus descriptor's poll record in source */
    int fd;
    int fdEvents; /* what fdTag polls for */
    gboolean unregistered;
    GQueue deferred; /* KVDeferred*, oldest first */
    KVModule modules[KV_MAX_MODULES];
    int moduleCount;
    KVNames* names;
    KVClient* client;
    KVService* service;
};

typedef enum KVMessageKind { KV_MESSAGE_REPLY, KV_MESSAGE_REQUEST } KVMessageKind;

/* A reply (client) or a request (service). The service's request state lives in the structure
 * that embeds it; finalize releases that state when the last reference goes. */
struct KVMessage {
    int refCount;
    KVMessageKind kind;
    KVHandle* handle; /* a reference */
    char* payload;
    gboolean last;      /* replies: no reply follows */
    gboolean subscribe; /* requests: the payload asks for a subscription */
    const char* method; /* requests: "CATEGORY/METHOD" */
    const char* sender; /* requests: the client's unique name */
    void (*finalize)(KVMessage* message);
};

/* kelvra-core.c */
void KvErrorSet(KVError* error, int code, const char* format, ...) G_GNUC_PRINTF(3, 4);
gboolean KvCheckHandle(KVHandle* handle, KVError* error);
/* Checks a payload the application gives: not NULL, UTF-8, at most KV_MAX_PAYLOAD_SIZE. */
gboolean KvCheckPayload(const char* payload, KVError* error);
void KvHandleRef(KVHandle* handle);
void KvHandleUnref(KVHandle* handle);
/* A handle without a connection. */
KVHandle* KvCoreNew(const char* serviceName, char* address);
void KvCoreAddModule(KVHandle* handle, const KVModule* module);
/* Makes the first connection; false when the bus cannot be reached (error filled). */
gboolean KvCoreStart(KVHandle* handle, KVError* error);
/* True while messages can be sent (a connection, up or being made). */
gboolean KvCoreCanSend(KVHandle* handle);
/* Closes the connection because something that had to go out on it could not be made or
 * queued (out of memory): a peer would otherwise wait for it forever, or the handle's view of
 * the bus would be wrong. The loop then handles the loss as any other (calls end, requests
 * close, the handle reconnects), and the bus tells the peers. Safe without a connection. */
void KvCoreFail(KVHandle* handle);
/* Sends a message on the connection; false when it cannot (error filled). */
gboolean KvCoreSend(KVHandle* handle, sd_bus_message* message, KVError* error);
/* A method call to the bus daemon, or NULL without a connection. */
sd_bus_message* KvCoreNewBusCall(KVHandle* handle, const char* member);
void KvCoreDefer(KVHandle* handle, KVDeferFunc func, sd_bus_message* message, guint64 key);
/* Sets the error record of an sd-bus failure; returns FALSE. */
gboolean KvBusError(KVError* error, int code, int result, const char* what);
KVMessage* KvMessageNew(KVHandle* handle, KVMessageKind kind, size_t size, char* payload);

/* kelvra-json.c: built with GLib only, so they never fail for lack of memory. */
/* {"returnValue":false,"errorCode":code,"errorText":text}, to be g_free'd. */
char* KvErrorPayload(int code, const char* text);
/* {"serviceName":name,"connected":connected,"returnValue":true}, to be g_free'd. */
char* KvStatusPayload(const char* name, gboolean connected);
/* True when text is one JSON object; *member then points at the value of its last top-level
 * member called name (NULL when it has none). */
gboolean KvJsonReadObject(const char* text, const char* name, const char** member);
/* Whether a member's value is true. */
gboolean KvJsonIsTrue(const char* member);
/* A member's value when it is a string without \u0000, decoded (to be g_free'd); NULL
 * otherwise. */
char* KvJsonGetString(const char* member);

/* kelvra-uri.c */
/* Splits uri into service, object path and member (to be g_free'd); false when malformed. */
gboolean KvParseUri(const char* uri, char** service, char** path, char** member);
/* Splits "CATEGORY/METHOD" into object path and member (to be g_free'd); false when malformed. */
gboolean KvSplitMethod(const char* method, char** path, char** member);
/* "CATEGORY/METHOD" of an object path and member; NULL when they do not form one. */
char* KvMethodKey(const char* path, const char* member);
/* A well-known name; KvIsBusName also takes unique names (":1.42"). */
gboolean KvIsServiceName(const char* name);
gboolean KvIsBusName(const char* name);

/* kelvra-names.c: names whose owner the handle follows. */
typedef struct KVWatch {
    KVHandle* handle; /* not a reference: watches go with the handle */
    char* name;
    int users;
    gboolean known;     /* the GetNameOwner answer has arrived (or no bus: no owner) */
    char* owner;        /* NULL when the name has no owner */
    sd_bus_slot* match; /* NameOwnerChanged of the name */
    sd_bus_slot* query; /* GetNameOwner in flight */
    guint64 queryId;    /* identifies the query's answer in the deferred queue */
} KVWatch;
/* A watched name's owner became known (initial) or changed (from NULL, to NULL, or both set
 * for a replacement). The watch may go inside. */
typedef void (*KVOwnerFunc)(KVHandle* handle, const char* name, const char* oldOwner,
                            const char* newOwner, gboolean initial);
void KvNamesInit(KVHandle* handle);
void KvNamesListen(KVHandle* handle, KVOwnerFunc func);
KVWatch* KvWatchAdd(KVHandle* handle, const char* name);
KVWatch* KvWatchFind(KVHandle* handle, const char* name);
void KvWatchRemove(KVHandle* handle, const char* name);

/* kelvra-client.c, kelvra-service.c */
void KvClientInit(KVHandle* handle);
void KvServiceInit(KVHandle* handle);

#endif /* KELVRA_KELVRA_PRIVATE_H */
