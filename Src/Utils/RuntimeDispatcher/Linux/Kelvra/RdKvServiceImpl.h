// Not public API. Implementation of RdKvService, RdKvRequest and RdKvSubscription.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVSERVICEIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVSERVICEIMPL_H

#include <kelvra/kelvra.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/JsonToken.h"
#include "vok/VokTypes.h"

namespace vok {

class RdKvRequest;
class RdKvRequestImpl;
class RuntimeDispatcherImpl;

// The service's bus handle, its methods and its open subscriptions. Reference-counted: the front
// holds one reference and every request or subscription still alive holds one, so that they can
// tell, after the front is gone, that the service is (handle_ null). Dispatcher's thread only.
class RdKvServiceImpl : public RefCounted {
  public:
    RdKvServiceImpl(RuntimeDispatcherImpl* dispatcher, const std::string& serviceName);

    void AddMethod(const std::string& method, std::function<void(RdKvRequest&)> handler);
    void SetConnectionObserver(std::function<void(bool)> observer);
    bool IsConnected() const;
    const std::string& GetServiceName() const { return serviceName_; }
    // Gives up the name (no callback runs afterwards) and drops the front's reference.
    void Discard();

    // Null once the front is gone.
    KVHandle* GetHandle() const { return handle_; }
    // Registers request as a subscription whose cancel reaches it; false (error filled) when the
    // bus library refuses.
    bool AddSubscription(RdKvRequestImpl* request, KVError* error);
    // Forgets a subscription that ended on this side.
    void ForgetSubscription(KVMessage* message) { subscriptions_.erase(message); }

    // A reference of a request or subscription.
    void TakeRef() { ++m_refCount; }
    using RefCounted::DropRef;

  private:
    // One registered method; its address is the bus library's user data.
    struct Method {
        RdKvServiceImpl* service;
        RdCallback<void(RdKvRequest&)> handler;
    };

    ~RdKvServiceImpl() override;

    static bool MethodCb(KVHandle* handle, KVMessage* message, void* method);
    static void CancelCb(KVHandle* handle, KVMessage* message, void* service);
    static void ConnectionCb(KVHandle* handle, bool connected, void* service);

    RuntimeDispatcherImpl* dispatcher_;  // Not owned; takes the callbacks' exceptions.
    std::string serviceName_;
    KVHandle* handle_;  // Owned registration; null after Discard.
    std::map<std::string, std::unique_ptr<Method>> methods_;
    RdCallback<void(bool)> observer_;
    // Open subscriptions by their request; not owned (each removes itself when it ends).
    std::map<KVMessage*, RdKvRequestImpl*> subscriptions_;
    bool everOwned_;  // The name has been owned once: a false since means a lost bus.
};

// One request, shared by the RdKvRequest and then the RdKvSubscription that carry it; a running
// cancel callback holds a reference of its own. Dispatcher's thread only.
class RdKvRequestImpl : public RefCounted {
  public:
    // Takes a reference on message and on service.
    RdKvRequestImpl(RdKvServiceImpl* service, KVMessage* message);

    const std::string& PayloadText() const { return payloadText_; }
    const JsonToken& Payload() const;
    const std::string& Method() const { return method_; }
    const std::string& Sender() const { return sender_; }
    bool AsksSubscription() const { return asksSubscription_; }
    bool IsOpen() const { return open_ && service_->GetHandle() != nullptr; }
    KVMessage* Message() const { return message_; }

    // Sends text; last closes a subscription. See RdKvRequest::Reply for the results.
    bool Send(const char* text, bool last);
    // Turns the request into a subscription; throws when it is not open or the library refuses.
    void Subscribe(std::function<void()> onCancel);
    // The client cancelled or left: the request is closed; runs the cancel callback.
    void Cancelled(RuntimeDispatcherImpl* dispatcher);
    // The service is gone: nothing can be sent any more.
    void Close();
    // Ends the request's slice in the flight recorder, when it is open there, with error.
    void EndTrace(int64_t error);

    using RefCounted::DropRef;

  private:
    ~RdKvRequestImpl() override;

    RdKvServiceImpl* service_;  // One reference.
    KVMessage* message_;        // One reference.
    std::string payloadText_;
    std::string method_;
    std::string sender_;
    bool asksSubscription_;
    bool open_;        // Not yet closed by a reply, a cancel or the service's end.
    bool subscribed_;  // Kept open by Subscribe.
    mutable bool parsed_;
    mutable JsonToken payload_;  // Parsed on first use.
    RdCallback<void()> onCancel_;
    uint64_t traceId_;  // The request's slice in the flight recorder until its end; 0 for none.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVSERVICEIMPL_H
