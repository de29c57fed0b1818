/*
 * Not public API. The structures of libkelvra and the functions its files share.
 *
 * Threads: the GDBus worker thread runs only the connection filter, which hands incoming
 * messages to the handle's inbox (KVInbox, locked) and wakes the handle's source on the attached
 * context. Everything else, every table of KVHandle included, belongs to the thread that runs
 * that context.
 */
#ifndef KELVRA_KELVRA_PRIVATE_H
#define KELVRA_KELVRA_PRIVATE_H

#include <gio/gio.h>
#include <pthread.h>

#include "kelvra/kelvra.h"

#define KV_METHOD_INTERFACE "com.orvex.kelvra.Method"
#define KV_CLIENT_INTERFACE "com.orvex.kelvra.Client"
#define KV_CONTROL_INTERFACE "com.orvex.kelvra.Control"
#define KV_CONTROL_PATH "/com/orvex/kelvra"
#define KV_STATUS_SERVICE "com.orvex.kelvrabus"
#define KV_STATUS_METHOD "signal/registerServerStatus"

/* What a reply awaited by serial belongs to. */
typedef enum KVPendingKind {
    KV_PENDING_CALL,        /* the first reply of a client call */
    KV_PENDING_NAME_QUERY,  /* GetNameOwner of a watched name */
    KV_PENDING_NAME_REQUEST /* RequestName of the handle's service name, after a reconnect */
} KVPendingKind;

typedef struct KVPending {
    KVPendingKind kind;
    KVMessageToken token; /* KV_PENDING_CALL */
    char* name;           /* KV_PENDING_NAME_QUERY */
} KVPending;

/* One message from the worker thread: the D-Bus message and, for a reply we awaited, what it
 * belongs to. */
typedef struct KVInboxItem {
    GDBusMessage* message;
    KVPending* pending; /* NULL for calls and signals */
} KVInboxItem;

/* Shared by the handle and the filter of one connection; freed when both have let go. A new
 * connection gets a new inbox, so that serials of an old connection never meet those of the new
 * one. */
typedef struct KVInbox {
    gint refCount; /* atomic */
    /* Set (atomically) once the inbox is built. The filter reaches the inbox through GDBus, whose
     * locking ThreadSanitizer cannot see; reading this flag first makes the hand-over visible. */
    gint ready;
    pthread_mutex_t lock;        /* Protects every member below. */
    GHashTable* pendingBySerial; /* guint32 serial -> KVPending*, replies we await */
    GQueue items;                /* KVInboxItem*, oldest first */
    GSource* source;             /* the handle's source once attached, woken on each item */
    gboolean closed;             /* the handle is gone: take nothing more */
} KVInbox;

typedef enum KVCallKind {
    KV_CALL_REMOTE, /* a call to a service */
    KV_CALL_STATUS  /* registerServerStatus, answered by the library */
} KVCallKind;

/* A client call that has not ended. */
typedef struct KVCallRecord {
    KVMessageToken token;
    KVCallKind kind;
    KVReplyFunc func;
    void* userData;
    char* name;           /* the service's well-known name (remote) or the watched name (status) */
    guint32 serial;       /* remote: the call's serial until its first reply, then 0 */
    char* owner;          /* remote: unique name of the service once it replied with more to come */
    gboolean statusSent;  /* status: the first reply has gone out */
    gboolean connected;   /* status: the last state reported */
    gboolean unavailable; /* remote: made without a bus; its error reply is due */
    GSource* timeout;     /* until the first reply when the call has a deadline, else NULL */
} KVCallRecord;

/* A name whose owner the handle follows (well-known names for status calls, unique names of
 * services with open calls and of clients with subscriptions). */
typedef struct KVWatch {
    char* name;
    int users;
    gboolean known;      /* the GetNameOwner answer has arrived (or the bus is lost: no owner) */
    char* owner;         /* NULL when the name has no owner */
    guint32 querySerial; /* the GetNameOwner call in flight, or 0 */
} KVWatch;

typedef struct KVMethod {
    KVMethodFunc func;
    void* userData;
} KVMethod;

typedef enum KVMessageKind { KV_MESSAGE_REPLY, KV_MESSAGE_REQUEST } KVMessageKind;

typedef enum KVRequestState {
    KV_REQUEST_OPEN,  /* no reply yet, or a subscription */
    KV_REQUEST_CLOSED /* answered for good, cancelled, or the client left */
} KVRequestState;

struct KVMessage {
    int refCount;
    KVMessageKind kind;
    KVHandle* handle; /* a reference */
    char* payload;
    /* Replies. */
    gboolean last;
    /* Requests. */
    char* method;         /* "CATEGORY/METHOD" */
    char* sender;         /* the client's unique name */
    KVMessageToken token; /* the client's token */
    char* key;            /* sender + "/" + token, the key in handle->requests */
    GDBusMessage* call;   /* the D-Bus call until the first reply goes out */
    gboolean subscribe;   /* the payload asks for a subscription */
    KVRequestState state;
    gboolean subscribed; /* KVSubscriptionAdd: the library holds a reference */
    KVCancelFunc cancelFunc;
    void* cancelData;
};

/* The handle's bus connection. */
typedef enum KVLinkState {
    KV_LINK_UP,         /* connected, owning the service name if the handle has one */
    KV_LINK_CONNECTING, /* a connection attempt, or the name request on a new connection, runs */
    KV_LINK_DOWN        /* no connection; the retry timer runs once the handle is attached */
} KVLinkState;

struct KVHandle {
    int refCount;      /* the user's, one per message, one per running dispatch */
    char* serviceName; /* NULL for an anonymous client */
    char* address;     /* the bus address, chosen once at registration */
    KVLinkState link;
    GDBusConnection* connection; /* NULL while the link is down */
    /* GDBus queues what it has for the handle on a context of the handle's choosing: this
     * private one, for every connection the handle makes. It carries the connections' own
     * notifications ("closed" when the bus goes away), the filters' releases and the results of
     * connection attempts; the handle's source polls it once attached, and it is released last. */
    GMainContext* connectionContext;
    gulong closedHandler;
    gpointer connectionContextTag; /* the source's watch of connectionContext's wake-up */
    guint filterId;
    KVInbox* inbox;                  /* the connection's; NULL without a connection */
    GCancellable* connectAttempt;    /* the connection attempt in flight, or NULL */
    guint32 nameRequestSerial;       /* RequestName on a new connection in flight, or 0 */
    GSource* retrySource;            /* the next connection attempt, on the attached context */
    guint retryDelayMs;              /* the wait before the next attempt after a failure */
    KVConnectionFunc connectionFunc; /* may be NULL */
    void* connectionData;
    GMainContext* context; /* attached, a reference; NULL before */
    GSource* source;
    gboolean unregistered;
    KVMessageToken lastToken;
    GHashTable* calls;    /* KVMessageToken* -> KVCallRecord*, open client calls */
    GHashTable* watches;  /* name -> KVWatch* */
    GHashTable* methods;  /* "CATEGORY/METHOD" -> KVMethod* */
    GHashTable* requests; /* key -> KVMessage* (not a reference), open requests */
    GQueue localItems;    /* KVMessageToken of calls whose first reply comes from the library */
};

/* kelvra-handle.c */
void KvErrorSet(KVError* error, int code, const char* format, ...) G_GNUC_PRINTF(3, 4);
gboolean KvCheckHandle(KVHandle* handle, KVError* error);
void KvHandleRef(KVHandle* handle);
void KvHandleUnref(KVHandle* handle);
/* Sends a message; with pending, the reply is awaited and delivered with it (ownership of
 * pending passes). Returns the serial, 0 on failure (error filled). */
guint32 KvSend(KVHandle* handle, GDBusMessage* message, KVPending* pending, KVError* error);
/* True while the handle may send calls, signals and replies (KV_LINK_UP). */
gboolean KvLinkUp(KVHandle* handle);
/* Stops awaiting the reply of serial (it is dropped if it comes). */
void KvForgetSerial(KVHandle* handle, guint32 serial);
void KvPendingFree(KVPending* pending);
void KvScheduleDispatch(KVHandle* handle);
/* Checks a payload the application gives: not NULL, UTF-8, at most KV_MAX_PAYLOAD_SIZE. */
gboolean KvCheckPayload(const char* payload, KVError* error);
/* {"returnValue":false,"errorCode":code,"errorText":text}, to be g_free'd. */
char* KvErrorPayload(int code, const char* text);
KVMessage* KvMessageNew(KVHandle* handle, KVMessageKind kind, char* payload);

/* kelvra-client.c, kelvra-service.c: the connection closed under the handle. */
void KvClientOnBusLost(KVHandle* handle);
void KvServiceOnBusLost(KVHandle* handle);

/* kelvra-uri.c */
/* Splits uri into service, object path and member (to be g_free'd); false when malformed. */
gboolean KvParseUri(const char* uri, char** service, char** path, char** member);
/* Splits "CATEGORY/METHOD" into object path and member (to be g_free'd); false when malformed. */
gboolean KvSplitMethod(const char* method, char** path, char** member);
/* "CATEGORY/METHOD" of an object path and member; NULL when they do not form one. */
char* KvMethodKey(const char* path, const char* member);
gboolean KvIsServiceName(const char* name);

/* kelvra-watch.c */
void KvWatchFree(gpointer watch);
KVWatch* KvWatchAdd(KVHandle* handle, const char* name);
void KvWatchRemove(KVHandle* handle, const char* name);
void KvWatchOnQueryReply(KVHandle* handle, KVPending* pending, GDBusMessage* reply);
void KvWatchOnOwnerChanged(KVHandle* handle, GDBusMessage* signal);
/* The bus is lost: no name has an owner, and nothing is awaited. */
void KvWatchOnBusLost(KVHandle* handle);
/* A new connection: follows every watched name again. */
void KvWatchOnBusBack(KVHandle* handle);

/* kelvra-client.c */
void KvClientOnReply(KVHandle* handle, KVPending* pending, GDBusMessage* reply);
void KvClientOnReplySignal(KVHandle* handle, GDBusMessage* signal);
/* A call answered by the library itself (status, or made without a bus) is due its reply. */
void KvClientOnLocalDue(KVHandle* handle, KVMessageToken token);
/* A watched name's owner became known (initial) or changed (from NULL, to NULL, or both set for
 * a replacement). */
void KvClientOnOwnerChanged(KVHandle* handle, const char* name, const char* oldOwner,
                            const char* newOwner, gboolean initial);
void KvCallRecordFree(KVCallRecord* call);

/* kelvra-service.c */
void KvServiceOnCall(KVHandle* handle, GDBusMessage* call);
void KvServiceOnCancel(KVHandle* handle, GDBusMessage* call);
/* Closes the open requests of sender (NULL: of every client). */
void KvServiceOnClientGone(KVHandle* handle, const char* sender);
/* Closes every open request when the handle goes. */
void KvServiceShutdown(KVHandle* handle);
void KvRequestFinalize(KVMessage* request);

#endif /* KELVRA_KELVRA_PRIVATE_H */
