/*
 * kelvra: the platform bus library. Clients call methods of services and receive one reply, or a
 * stream of replies (subscriptions) until they cancel; services own a well-known name, register
 * methods and answer. Payloads are JSON text. The bus is D-Bus; every handle has its own
 * connection.
 *
 * Bus address: KELVRA_BUS_ADDRESS when set, else DBUS_SESSION_BUS_ADDRESS, else the system bus.
 *
 * URIs
 * ----
 *   kelvra://SERVICE/CATEGORY/METHOD       for example kelvra://com.orvex.power/time/alarmAdd
 *
 * SERVICE is the D-Bus well-known name of the service (elements of [A-Za-z0-9_-] separated by
 * dots, at least two, not starting with a digit). CATEGORY is zero or more elements of
 * [A-Za-z0-9_] separated by "/"; METHOD is [A-Za-z_][A-Za-z0-9_]*. A call becomes a D-Bus method
 * call to SERVICE, object path "/" + CATEGORY ("/" when there is none), interface
 * "com.orvex.kelvra.Method", member METHOD, with the JSON payload and the call's token as
 * arguments (st). A service registers the method under "CATEGORY/METHOD" ("time/alarmAdd").
 * The first reply is the D-Bus method return (sb: payload, more replies follow); further replies
 * of a subscription are signals "Reply" (tsb: token, payload, more) of interface
 * "com.orvex.kelvra.Client" sent to the caller alone; a cancel is a call "Cancel" (t) of
 * interface "com.orvex.kelvra.Control" on path "/com/orvex/kelvra".
 *
 * kelvra://com.orvex.kelvrabus/signal/registerServerStatus with {"serviceName":"NAME"} is answered
 * by the library itself, from the bus's name-owner tracking: one reply at once,
 * {"serviceName":"NAME","connected":BOOL,"returnValue":true}, then one reply per change, until
 * cancelled. A service replaced by another owner reports false, then true.
 *
 * Replies
 * -------
 * A call stays open until its last reply, or until the client cancels it. A service that cannot
 * serve a call, or the library on its behalf, answers with a last reply
 * {"returnValue":false,"errorCode":N,"errorText":"..."}, N a KVErrorCode: no such service
 * (KV_ERROR_NO_SERVICE), no such method (KV_ERROR_NO_METHOD), a payload that is not a JSON object
 * (KV_ERROR_BAD_PAYLOAD), a payload above KV_MAX_PAYLOAD_SIZE (KV_ERROR_PAYLOAD_TOO_LARGE), the
 * method failed (KV_ERROR_METHOD_FAILED), no reply came because the service released the request
 * unanswered or left before replying (KV_ERROR_NO_REPLY), the service left the bus while a
 * subscription was open (KV_ERROR_SERVICE_GONE), the bus went away (KV_ERROR_BUS_UNAVAILABLE),
 * no first reply came within the call's timeout (KV_ERROR_TIMEOUT, see KVCallWithTimeout).
 *
 * Losing the bus and getting it back
 * ----------------------------------
 * A lost bus (the daemon exits or is restarted) is an expected event. The handle stays valid, and
 * everything the application holds (the handle, its methods, its open status calls) keeps
 * working across it. When the connection closes, the handle, from its context:
 *   - ends every open call to a service with a last reply KV_ERROR_BUS_UNAVAILABLE;
 *   - reports every watched service as not connected (open status calls stay open);
 *   - closes every request it serves: subscriptions end as if their clients had left (cancel
 *     functions run), because those clients lost their connections too;
 *   - calls the connection function (KVSetConnectionFunc) with false;
 *   - connects again to the same address, first after 100 ms, then after twice the previous
 *     wait, at most 5 s apart, from a timeout on the attached context (no busy loop). A handle
 *     that owns a service name owns it again before it counts as connected (while another
 *     connection holds the name it keeps trying); its registered methods stay registered.
 * Once connected again it follows its watched names anew (status calls report the current
 * state when it differs from the last one reported) and calls the connection function with true.
 * While the handle has no connection, KVCall still succeeds: a status call gets its first reply
 * (not connected) from the loop, and a call to a service gets, from the loop, a last reply
 * KV_ERROR_BUS_UNAVAILABLE; nothing is delivered inside KVCall itself. While a connection is
 * being made (authentication, Hello, the name request all run from the loop), calls and status
 * calls are sent on it and wait for it; if it fails they end as on a lost bus.
 *
 * Threads
 * -------
 * A handle belongs to the thread that runs the GMainContext it is attached to. Its connection is
 * driven by one source on that context; the library starts no thread and never blocks the loop.
 * Every reply function, method function and cancel function runs on that thread, from that
 * context, never inside the library call that caused it. Call the functions of
 * a handle on that thread (or before the context runs anywhere). Callbacks may call any function
 * of the library, KVUnregister included. Different handles are independent.
 *
 * Errors
 * ------
 * Every function that can fail returns false and, when error is not NULL, fills it (code and
 * message). Initialise a KVError with KVErrorInit; a failing call replaces what it held; release
 * it with KVErrorFree.
 *
 * Running out of memory
 * ---------------------
 * A function that cannot allocate what it needs on the connection fails with KV_ERROR_BUS and
 * leaves the handle as it was (a KVCall is not made, a subscription whose further reply is not
 * sent stays open). When something the bus or a peer waits for cannot be made or queued (the
 * first or the last reply to a call, a filter or name watch of a new connection, the cancel of a
 * call), the handle closes its connection and goes on as after a lost bus: the bus tells the
 * peers, whose calls end instead of waiting forever. Memory GLib allocates is not part of this:
 * GLib aborts when it runs out.
 */
#ifndef KELVRA_KELVRA_H
#define KELVRA_KELVRA_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KELVRA_EXPORT __attribute__((visibility("default")))

typedef struct _GMainContext GMainContext;

/* A registration on the bus: one connection, anonymous or owning a service name. */
typedef struct KVHandle KVHandle;
/* A reply (client side) or a request (service side). */
typedef struct KVMessage KVMessage;
/* Identifies a call of a handle; never 0. */
typedef uint64_t KVMessageToken;

/* Error codes: of KVError records and of error replies' "errorCode". */
typedef enum KVErrorCode {
    KV_ERROR_NONE = 0,
    KV_ERROR_INVALID_ARGUMENT = 1, /* NULL or malformed argument */
    KV_ERROR_BAD_URI = 2,          /* URI not of the form above */
    KV_ERROR_BAD_PAYLOAD = 3,      /* NULL, not UTF-8, or (at a service) not a JSON object */
    KV_ERROR_BUS = 4,              /* no connection to the bus, the bus refused, or it went away */
    KV_ERROR_NAME_TAKEN = 5,       /* another connection owns the service name */
    KV_ERROR_NOT_ATTACHED = 6,     /* the handle is not attached to a context yet */
    KV_ERROR_ALREADY_ATTACHED = 7, /* a handle is attached once */
    KV_ERROR_NO_SUCH_CALL = 8,     /* the token's call has ended or was cancelled */
    KV_ERROR_NO_SERVICE = 9,       /* no connection owns the service name */
    KV_ERROR_NO_METHOD = 10,       /* the service has no such method */
    KV_ERROR_CLOSED = 11,          /* the request was answered, cancelled, or its client left */
    KV_ERROR_SERVICE_GONE = 12,    /* the service left the bus while the call was open */
    KV_ERROR_NO_REPLY = 13,        /* the service did not reply (released the request, or left) */
    KV_ERROR_METHOD_FAILED = 14,   /* the service's method function returned false */
    KV_ERROR_NOT_A_SERVICE = 15,   /* an anonymous handle cannot register methods */
    KV_ERROR_EXISTS = 16,          /* the method or subscription is already registered */
    KV_ERROR_PROTOCOL = 17,        /* the peer answered with something that is not kelvra */
    KV_ERROR_BUS_UNAVAILABLE = 18, /* no bus connection now (lost, or not made yet); the handle
                                      reconnects by itself: try again later */
    KV_ERROR_PAYLOAD_TOO_LARGE = 19, /* the payload is longer than KV_MAX_PAYLOAD_SIZE */
    KV_ERROR_TIMEOUT = 20            /* no first reply within the call's timeout: cancelled */
} KVErrorCode;

/* The longest payload, in bytes of JSON text, that a call, a request or a reply may carry. The
 * library refuses longer ones before anything is sent (KVCall, KVReply and KVReplyLast fail with
 * KV_ERROR_PAYLOAD_TOO_LARGE and the handle stays usable); a service answers a longer request
 * that reaches it some other way with an error reply of that code. */
#define KV_MAX_PAYLOAD_SIZE (1024u * 1024u)

/* An error record: a code and a message, filled by the functions that take one. */
typedef struct KVError {
    int32_t code;  /* a KVErrorCode; KV_ERROR_NONE when empty */
    char* message; /* NULL when empty; owned by the record */
} KVError;

/* Client side: receives each reply of a call. The message is valid during the call (keep it with
 * KVMessageRef). The result is reserved: return true. */
typedef bool (*KVReplyFunc)(KVHandle* handle, KVMessage* reply, void* userData);
/* Service side: receives a request. Answer it with KVReply now or later (KVMessageRef keeps it).
 * Returning false answers an unanswered request with KV_ERROR_METHOD_FAILED; a request released
 * without an answer is answered with KV_ERROR_NO_REPLY. */
typedef bool (*KVMethodFunc)(KVHandle* handle, KVMessage* request, void* userData);
/* Service side: the client cancelled the subscription or left the bus. The request is closed. */
typedef void (*KVCancelFunc)(KVHandle* handle, KVMessage* request, void* userData);

/* Makes the record empty. */
KELVRA_EXPORT void KVErrorInit(KVError* error);
/* Releases the message and empties the record; safe on an empty record. */
KELVRA_EXPORT void KVErrorFree(KVError* error);

/* Makes a handle and starts connecting; returns at once. serviceName NULL makes an anonymous
 * client; otherwise the handle requests that well-known name from the loop, and counts as
 * connected once it owns it (while another connection owns it, the handle keeps trying as after
 * a lost bus). The connection proceeds once the handle is attached: register its methods before.
 * Fails with KV_ERROR_BUS when the bus's socket cannot be reached at all. */
KELVRA_EXPORT bool KVRegister(const char* serviceName, KVHandle** handle, KVError* error);

/* KVRegisterWithFlags: when the bus cannot be reached now, make the handle all the same; it
 * starts without a connection and connects, once attached, as after a lost bus (see above). */
#define KV_REGISTER_ALLOW_NO_BUS 1u
/* KVRegisterWithFlags: call the connection function with true for the first connection too (once
 * the handle owns its service name), for an owner that waits for the name before it reports
 * itself ready. */
#define KV_REGISTER_REPORT_FIRST_UP 2u
/* KVRegister with flags (a bitwise or of KV_REGISTER_*; 0 is KVRegister). */
KELVRA_EXPORT bool KVRegisterWithFlags(const char* serviceName, unsigned flags, KVHandle** handle,
                                       KVError* error);
/* Called on the attached context with false when the handle loses its bus connection, or when
 * it cannot make its first one (once; another connection owning the service name counts), and
 * with true when it has connected (and owns its service name) after such a false, or the first
 * time with KV_REGISTER_REPORT_FIRST_UP. */
typedef void (*KVConnectionFunc)(KVHandle* handle, bool connected, void* userData);
/* Sets the handle's connection function (NULL: none). */
KELVRA_EXPORT bool KVSetConnectionFunc(KVHandle* handle, KVConnectionFunc func, void* userData,
                                       KVError* error);
/* True while the handle has a bus connection (and owns its service name). */
KELVRA_EXPORT bool KVIsConnected(KVHandle* handle);
/* Delivers the handle's replies, requests and notifications on context (NULL: the global
 * default context). Once per handle. */
KELVRA_EXPORT bool KVGmainAttach(KVHandle* handle, GMainContext* context, KVError* error);
/* Closes the connection (giving up the service name), stops reconnecting, drops every open call
 * without further callbacks, and releases the handle. Messages still referenced stay valid, but
 * replies to them fail. */
KELVRA_EXPORT bool KVUnregister(KVHandle* handle, KVError* error);

/* Calls uri with a JSON payload; replyFunc receives every reply until the last one or until
 * KVCallCancel. The handle must be attached. token (may be NULL) receives the call's token. */
KELVRA_EXPORT bool KVCall(KVHandle* handle, const char* uri, const char* payload,
                          KVReplyFunc replyFunc, void* userData, KVMessageToken* token,
                          KVError* error);
/* KVCall with a deadline for the first reply: when timeoutMs milliseconds (0: no deadline, as
 * KVCall) pass without a reply, the library cancels the call as KVCallCancel does (the service
 * learns of the cancel: a subscription's cancel function runs) and then delivers, from the loop,
 * a last reply {"returnValue":false,"errorCode":20 (KV_ERROR_TIMEOUT),"errorText":"No reply
 * within N ms..."}. A reply that arrives after that is dropped; the reply function never sees
 * it. The deadline bounds the first reply only: once a subscription has its first reply it stays
 * open, without a deadline, until its last reply or KVCallCancel. */
KELVRA_EXPORT bool KVCallWithTimeout(KVHandle* handle, const char* uri, const char* payload,
                                     uint32_t timeoutMs, KVReplyFunc replyFunc, void* userData,
                                     KVMessageToken* token, KVError* error);
/* Ends an open call: no reply is delivered after this returns, and the service learns of the
 * cancel (from the connection's loss when the cancel cannot be sent). KV_ERROR_NO_SUCH_CALL when
 * the call has already ended. */
KELVRA_EXPORT bool KVCallCancel(KVHandle* handle, KVMessageToken token, KVError* error);

/* The JSON text of a reply or request, owned by the message; NULL for a NULL message. */
KELVRA_EXPORT const char* KVMessageGetPayload(KVMessage* message);
/* Client side: true when no reply follows this one (the call has ended). */
KELVRA_EXPORT bool KVMessageIsLastReply(KVMessage* message);
/* Service side: true when the request's payload asks for a subscription ("subscribe": true). */
KELVRA_EXPORT bool KVMessageIsSubscription(KVMessage* message);
/* Service side: the method the request was sent to, "CATEGORY/METHOD". */
KELVRA_EXPORT const char* KVMessageGetMethod(KVMessage* message);
/* Service side: the bus's unique name of the client that sent the request (":1.42"), owned by
 * the message; NULL for a NULL message or a reply. Identifies the caller, e.g. to let only the
 * client that made something remove it. */
KELVRA_EXPORT const char* KVMessageGetSender(KVMessage* message);
/* Takes a reference, to keep a message beyond its callback; returns message. */
KELVRA_EXPORT KVMessage* KVMessageRef(KVMessage* message);
KELVRA_EXPORT void KVMessageUnref(KVMessage* message);

/* Service side: calls func for every request to "CATEGORY/METHOD" ("time/alarmAdd"). */
KELVRA_EXPORT bool KVRegisterMethod(KVHandle* handle, const char* method, KVMethodFunc func,
                                    void* userData, KVError* error);
/* Keeps the request open for further replies after its first one, until the client cancels or
 * leaves (then cancelFunc, which may be NULL, is called once) or the service ends it with
 * KVReplyLast. Call it before the first reply. The library holds a reference meanwhile. */
KELVRA_EXPORT bool KVSubscriptionAdd(KVHandle* handle, KVMessage* request, KVCancelFunc cancelFunc,
                                     void* userData, KVError* error);
/* Sends one reply. A request that is not a subscription is closed by its reply. Fails with
 * KV_ERROR_CLOSED on a closed request. */
KELVRA_EXPORT bool KVReply(KVHandle* handle, KVMessage* request, const char* payload,
                           KVError* error);
/* Sends the last reply and closes the request (the client's call ends). */
KELVRA_EXPORT bool KVReplyLast(KVHandle* handle, KVMessage* request, const char* payload,
                               KVError* error);

#ifdef __cplusplus
}
#endif

#endif /* KELVRA_KELVRA_H */
