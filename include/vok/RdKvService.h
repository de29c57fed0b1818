// Serving methods on the platform bus from a dispatcher's thread.
#ifndef VOK_RDKVSERVICE_H
#define VOK_RDKVSERVICE_H

#include <functional>
#include <string>

#include "vok/VokTypes.h"

namespace vok {

class JsonToken;
class RdKvRequestImpl;
class RdKvServiceImpl;
class RdKvSubscription;
class RuntimeDispatcher;

// One request to a method of an RdKvService, as its handler receives it: the payload (a JSON
// object, as text and parsed), the method, the caller's bus name and whether it asks for a
// subscription ("subscribe": true). Answer it with Reply or ReplyLast (one reply closes a request
// that is not a subscription), or turn it into an RdKvSubscription. A request may be moved out of
// the handler and answered later from the same thread; one destroyed unanswered is answered by
// the bus library with an error reply (KV_ERROR_NO_REPLY). Move-only; dispatcher's thread only.
class RdKvRequest {
  public:
    // An empty request (as left behind by a move): it answers nothing and every reply fails.
    RdKvRequest();
    ~RdKvRequest();
    // Takes other's request; other ends empty.
    RdKvRequest(RdKvRequest&& other) noexcept;
    // Releases this request (unanswered: see the class comment) and takes other's.
    RdKvRequest& operator=(RdKvRequest&& other) noexcept;
    RdKvRequest(const RdKvRequest&) = delete;
    RdKvRequest& operator=(const RdKvRequest&) = delete;

    // The payload as the client sent it; "" for an empty request.
    const std::string& GetPayloadText() const;
    // The payload parsed (a JSON object); unpopulated for an empty request.
    const JsonToken& GetPayload() const;
    // The method called, "CATEGORY/METHOD".
    const std::string& GetMethod() const;
    // The caller's unique bus name (":1.42"): tells clients apart.
    const std::string& GetSender() const;
    // True when the payload asks for a subscription ("subscribe": true).
    bool IsSubscription() const;
    // True until the request is answered, taken by Subscribe, or its client is gone.
    bool IsOpen() const;

    // Sends reply (its JSON encoding) and closes the request. False when the request is no longer
    // open or the bus is away (the reply is lost; nothing to undo). Throws
    // VokProgramErrorException (kVokErrFailed) for a reply the bus refuses (longer than
    // KV_MAX_PAYLOAD_SIZE, not UTF-8).
    bool Reply(const JsonToken& reply);
    // Reply with JSON text (an object, written by the caller).
    bool Reply(const std::string& replyText);
    // Closes the request with {"returnValue":false,"errorCode":errorCode,"errorText":errorText};
    // results as Reply.
    bool ReplyError(int errorCode, const std::string& errorText);

    // Keeps the request open for further replies: the returned subscription carries it from now
    // on and this request ends empty. onCancel, when not empty, runs on the dispatcher's thread
    // when the client cancels the call or leaves the bus (and when the service loses the bus,
    // whose clients lost theirs too). Throws VokProgramErrorException (kVokErrFailed) when the
    // request is not open.
    RdKvSubscription Subscribe(std::function<void()> onCancel = nullptr);

  private:
    friend class RdKvServiceImpl;
    friend class RdKvSubscription;
    explicit RdKvRequest(RdKvRequestImpl* impl);

    RdKvRequestImpl* impl_;  // Owned; null when empty.
};

// An open subscription: a kept request that gets any number of replies until it ends. It ends
// when the service calls ReplyLast, when the client cancels or leaves (its cancel callback runs,
// IsOpen turns false), or when the object is destroyed while still open: the client then gets the
// last reply {"returnValue":true,"subscribed":false}. Move-only, so a container of subscriptions
// owns each exactly once; the cancel callback may destroy its own subscription. Dispatcher's
// thread only; destroy it before its service.
class RdKvSubscription {
  public:
    // An empty subscription: not open, every reply fails.
    RdKvSubscription();
    // Ends an open subscription with the last reply above.
    ~RdKvSubscription();
    // Takes other's subscription; other ends empty.
    RdKvSubscription(RdKvSubscription&& other) noexcept;
    // Ends this one (as the destructor does) and takes other's.
    RdKvSubscription& operator=(RdKvSubscription&& other) noexcept;
    RdKvSubscription(const RdKvSubscription&) = delete;
    RdKvSubscription& operator=(const RdKvSubscription&) = delete;

    // True until the subscription has ended.
    bool IsOpen() const;
    // The subscriber's unique bus name; "" when empty.
    const std::string& GetSender() const;
    // The payload of the request that opened the subscription; unpopulated when empty.
    const JsonToken& GetPayload() const;

    // Sends one more reply; results as RdKvRequest::Reply.
    bool Reply(const JsonToken& reply);
    // Reply with JSON text.
    bool Reply(const std::string& replyText);
    // Sends the last reply and ends the subscription (the cancel callback does not run).
    bool ReplyLast(const JsonToken& reply);
    // ReplyLast with JSON text.
    bool ReplyLast(const std::string& replyText);

  private:
    friend class RdKvRequest;
    friend class RdKvServiceImpl;
    explicit RdKvSubscription(RdKvRequestImpl* impl);
    void End();

    RdKvRequestImpl* impl_;  // One reference; null when empty.
};

// A service on the platform bus, served from a dispatcher's thread: it owns a well-known bus name
// on a connection of its own, attached to the dispatcher's loop, and calls a handler for each
// request to one of its methods. Create, use and destroy it on the dispatcher's thread (before
// the dispatcher); every handler, cancel callback and connection observer runs there, inside the
// loop, and may destroy the objects it is given. An exception out of any of them takes the
// dispatcher's exception path (Run rethrows it); a request whose handler threw unanswered is
// answered with KV_ERROR_METHOD_FAILED. A lost bus is survived: the service owns its name again
// and keeps its methods when the bus is back; subscriptions open at the loss are cancelled.
// Destroying the service gives up the name; requests still open are dropped without a reply.
class RdKvService : private Uncopyable {
  public:
    // Serves serviceName (for example "com.orvex.sensord") from dispatcher's thread. Returns at
    // once: the connection is made and the name requested from the dispatcher's loop, and the
    // connection observer hears true once the name is owned. Throws VokResourceException
    // (kVokErrFailed) with the bus library's text when the name is invalid or no bus address is
    // known. A bus that is down, or a name another program owns, is no error: the observer hears
    // false (once), a warning is logged, and the service takes the name when the bus is up and
    // the name free, as a daemon restarted while its old instance still exits expects.
    RdKvService(RuntimeDispatcher& dispatcher, const std::string& serviceName);
    ~RdKvService();

    // Calls handler for every request to method ("CATEGORY/METHOD", for example
    // "sensor/mean"). Add the methods right after construction, before the loop runs: a request
    // that arrives before its method is added is answered with KV_ERROR_NO_METHOD. Throws
    // VokProgramErrorException (kVokErrFailed) when the method is malformed or already added, or
    // the handler is empty.
    void AddMethod(const std::string& method, std::function<void(RdKvRequest&)> handler);
    // Called with true each time the service comes to own its name (the first time too), and
    // with false when it loses the bus or cannot own its name at first. Set it right after
    // construction, before the loop runs, to hear the first true. Empty removes the observer.
    void SetConnectionObserver(std::function<void(bool)> observer);
    // True while the service is on the bus and owns its name.
    bool IsConnected() const;
    // The bus name served.
    const std::string& GetServiceName() const;

  private:
    RdKvServiceImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDKVSERVICE_H
