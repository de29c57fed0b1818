#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/RdKvServiceImpl.h"

#include <utility>

#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/VokKvError.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"
#include "vok/RdKvService.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

namespace {

const char kSubscriptionEndReply[] = "{\"returnValue\":true,\"subscribed\":false}";

const std::string& EmptyText() {
    static const std::string empty;
    return empty;
}

const JsonToken& EmptyToken() {
    static const JsonToken empty;
    return empty;
}

const Logger& ServiceLogger() {
    static const Logger logger("VOK.Dispatcher.Bus");
    return logger;
}

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

// ---- service ----

RdKvServiceImpl::RdKvServiceImpl(RuntimeDispatcherImpl* dispatcher, const std::string& serviceName)
    : dispatcher_(dispatcher),
      serviceName_(serviceName),
      handle_(nullptr),
      observer_([](bool) {}),
      everOwned_(false) {
    // A bus that is down, or a name another connection owns, is not an error: the handle takes
    // the name once it can, and reports that first ownership too.
    VokKvError error;
    error.result = KVRegisterWithFlags(serviceName.c_str(),
                                       KV_REGISTER_ALLOW_NO_BUS | KV_REGISTER_REPORT_FIRST_UP,
                                       &handle_, &error.error);
    if (!error.result) {
        handle_ = nullptr;
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
    }
    error.result =
        KVSetConnectionFunc(handle_, &RdKvServiceImpl::ConnectionCb, this, &error.error) &&
        KVGmainAttach(handle_, dispatcher_->GetContext(), &error.error);
    if (!error.result) {
        KVUnregister(handle_, nullptr);
        handle_ = nullptr;
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
    }
}

RdKvServiceImpl::~RdKvServiceImpl() {
    if (handle_ != nullptr) {
        KVUnregister(handle_, nullptr);
    }
}

void RdKvServiceImpl::AddMethod(const std::string& method,
                                std::function<void(RdKvRequest&)> handler) {
    if (!handler) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, ("empty handler for method " + method).c_str());
    }
    std::unique_ptr<Method> entry(
        new Method{this, RdCallback<void(RdKvRequest&)>(std::move(handler))});
    VokKvError error;
    error.result = KVRegisterMethod(handle_, method.c_str(), &RdKvServiceImpl::MethodCb,
                                    entry.get(), &error.error);
    if (!error.result) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, error.Message());
    }
    methods_[method] = std::move(entry);
}

void RdKvServiceImpl::SetConnectionObserver(std::function<void(bool)> observer) {
    if (!observer) {
        observer = [](bool) {};
    }
    observer_.Replace(std::move(observer));
}

bool RdKvServiceImpl::IsConnected() const {
    return handle_ != nullptr && KVIsConnected(handle_);
}

void RdKvServiceImpl::Discard() {
    // No callback runs after the unregistration: requests and subscriptions still alive learn
    // from the null handle that the service is gone.
    if (handle_ != nullptr) {
        KVUnregister(handle_, nullptr);
        handle_ = nullptr;
    }
    for (auto& open : subscriptions_) {
        open.second->Close();
    }
    subscriptions_.clear();
    DropRef();
}

bool RdKvServiceImpl::AddSubscription(RdKvRequestImpl* request, KVError* error) {
    if (!KVSubscriptionAdd(handle_, request->Message(), &RdKvServiceImpl::CancelCb, this, error)) {
        return false;
    }
    subscriptions_[request->Message()] = request;
    return true;
}

bool RdKvServiceImpl::MethodCb(KVHandle*, KVMessage* message, void* data) {
    Method* method = static_cast<Method*>(data);
    RdKvServiceImpl* self = method->service;
    Holder hold(self);  // the handler may destroy the service, and so its methods
    bool answered = true;
    {
        RdKvRequestImpl* impl = new RdKvRequestImpl(self, message);
        RdKvRequest request(impl);
        self->dispatcher_->RunGuarded([&]() {
            trace::TraceCallbackScope scope(trace::kCbBusMethod);
            try {
                method->handler(request);  // std::bad_function_call when empty
            } catch (...) {
                answered = false;  // the bus library answers an open request: method failed
                impl->EndTrace(KV_ERROR_METHOD_FAILED);
                throw;
            }
        });
    }
    return answered;
}

void RdKvServiceImpl::CancelCb(KVHandle*, KVMessage* message, void* data) {
    RdKvServiceImpl* self = static_cast<RdKvServiceImpl*>(data);
    auto it = self->subscriptions_.find(message);
    if (it == self->subscriptions_.end()) {
        return;
    }
    RdKvRequestImpl* request = it->second;
    self->subscriptions_.erase(it);
    request->Cancelled(self->dispatcher_);
}

void RdKvServiceImpl::ConnectionCb(KVHandle*, bool connected, void* data) {
    RdKvServiceImpl* self = static_cast<RdKvServiceImpl*>(data);
    if (connected) {
        self->everOwned_ = true;
    } else if (!self->everOwned_) {
        // Only the first connection's failure is reported before the name is owned.
        ServiceLogger().Warning(
            "%s is not served yet: the bus is down or another program owns "
            "the name; the service takes the name once it is free",
            self->serviceName_.c_str());
    }
    self->dispatcher_->RunGuarded([self, connected]() {
        Holder hold(self);
        trace::TraceCallbackScope scope(trace::kCbBusMethod);
        self->observer_(connected);
    });
}

// ---- request ----

RdKvRequestImpl::RdKvRequestImpl(RdKvServiceImpl* service, KVMessage* message)
    : service_(service),
      message_(KVMessageRef(message)),
      payloadText_(Text(KVMessageGetPayload(message))),
      method_(Text(KVMessageGetMethod(message))),
      sender_(Text(KVMessageGetSender(message))),
      asksSubscription_(KVMessageIsSubscription(message)),
      open_(true),
      subscribed_(false),
      parsed_(false),
      onCancel_([]() {}),
      traceId_(trace::TraceAsyncStart(trace::kAsyncServedRequest, KVMessageGetMethod(message), 0)) {
    service_->TakeRef();  // dropped by the destructor
}

RdKvRequestImpl::~RdKvRequestImpl() {
    EndTrace(service_->GetHandle() != nullptr ? KV_ERROR_NO_REPLY : KV_ERROR_SERVICE_GONE);
    KVMessageUnref(message_);  // unanswered: the bus library answers for the service
    service_->DropRef();
}

const JsonToken& RdKvRequestImpl::Payload() const {
    if (!parsed_) {
        parsed_ = true;
        payload_.ParseJsonString(payloadText_.c_str());
    }
    return payload_;
}

bool RdKvRequestImpl::Send(const char* text, bool last) {
    KVHandle* handle = service_->GetHandle();
    if (!open_ || handle == nullptr) {
        return false;
    }
    VokKvError error;
    error.result = last ? KVReplyLast(handle, message_, text, &error.error)
                        : KVReply(handle, message_, text, &error.error);
    const int32_t code = error.error.code;
    if (!error.result && (code == KV_ERROR_BAD_PAYLOAD || code == KV_ERROR_PAYLOAD_TOO_LARGE ||
                          code == KV_ERROR_INVALID_ARGUMENT)) {
        // Refused before anything was sent: the request stays open.
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, error.Message());
    }
    // A reply closes a plain request, a last reply a subscription; a refusal as closed means the
    // client or the bus ended it first.
    if (!subscribed_ || last || code == KV_ERROR_CLOSED) {
        if (traceId_ != 0) {  // the reply is scanned for its code only while it is recorded
            EndTrace(error.result ? KvReplyErrorCode(text) : code);
        }
        open_ = false;
        if (subscribed_) {
            service_->ForgetSubscription(message_);
        }
    }
    return error.result;
}

void RdKvRequestImpl::Subscribe(std::function<void()> onCancel) {
    if (!IsOpen() || subscribed_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "the request is not open");
    }
    VokKvError error;
    error.result = service_->AddSubscription(this, &error.error);
    if (!error.result) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, error.Message());
    }
    subscribed_ = true;
    if (onCancel) {
        onCancel_.Replace(std::move(onCancel));
    }
}

void RdKvRequestImpl::Cancelled(RuntimeDispatcherImpl* dispatcher) {
    open_ = false;
    EndTrace(trace::kTraceEndCancelled);
    dispatcher->RunGuarded([this]() {
        Holder hold(this);  // the callback may destroy its subscription
        trace::TraceCallbackScope scope(trace::kCbBusMethod);
        onCancel_();
    });
}

void RdKvRequestImpl::Close() {
    open_ = false;
    EndTrace(KV_ERROR_SERVICE_GONE);
}

void RdKvRequestImpl::EndTrace(int64_t error) {
    trace::TraceAsyncFinish(trace::kAsyncServedRequest, &traceId_, error);
}

// ---- fronts ----

RdKvRequest::RdKvRequest() : impl_(nullptr) {}
RdKvRequest::RdKvRequest(RdKvRequestImpl* impl) : impl_(impl) {}
RdKvRequest::~RdKvRequest() {
    if (impl_ != nullptr) {
        impl_->DropRef();
    }
}
RdKvRequest::RdKvRequest(RdKvRequest&& other) noexcept : impl_(other.impl_) {
    other.impl_ = nullptr;
}
RdKvRequest& RdKvRequest::operator=(RdKvRequest&& other) noexcept {
    if (this != &other) {
        if (impl_ != nullptr) {
            impl_->DropRef();
        }
        impl_ = other.impl_;
        other.impl_ = nullptr;
    }
    return *this;
}
const std::string& RdKvRequest::GetPayloadText() const {
    return impl_ != nullptr ? impl_->PayloadText() : EmptyText();
}
const JsonToken& RdKvRequest::GetPayload() const {
    return impl_ != nullptr ? impl_->Payload() : EmptyToken();
}
const std::string& RdKvRequest::GetMethod() const {
    return impl_ != nullptr ? impl_->Method() : EmptyText();
}
const std::string& RdKvRequest::GetSender() const {
    return impl_ != nullptr ? impl_->Sender() : EmptyText();
}
bool RdKvRequest::IsSubscription() const {
    return impl_ != nullptr && impl_->AsksSubscription();
}
bool RdKvRequest::IsOpen() const {
    return impl_ != nullptr && impl_->IsOpen();
}
bool RdKvRequest::Reply(const JsonToken& reply) {
    return impl_ != nullptr && impl_->Send(reply.GenerateJsonEncodingAndPeek(), true);
}
bool RdKvRequest::Reply(const std::string& replyText) {
    return impl_ != nullptr && impl_->Send(replyText.c_str(), true);
}
bool RdKvRequest::ReplyError(int errorCode, const std::string& errorText) {
    JsonToken reply;
    reply.MakeObject();
    reply.ObjectSetBooleanPair("returnValue", false);
    reply.ObjectSetNumberPair("errorCode", errorCode);
    reply.ObjectSetStringPair("errorText", errorText.c_str());
    return Reply(reply);
}
RdKvSubscription RdKvRequest::Subscribe(std::function<void()> onCancel) {
    if (impl_ == nullptr) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "the request is not open");
    }
    impl_->Subscribe(std::move(onCancel));
    RdKvSubscription subscription(impl_);
    impl_ = nullptr;
    return subscription;
}

RdKvSubscription::RdKvSubscription() : impl_(nullptr) {}
RdKvSubscription::RdKvSubscription(RdKvRequestImpl* impl) : impl_(impl) {}
RdKvSubscription::~RdKvSubscription() {
    End();
}
RdKvSubscription::RdKvSubscription(RdKvSubscription&& other) noexcept : impl_(other.impl_) {
    other.impl_ = nullptr;
}
RdKvSubscription& RdKvSubscription::operator=(RdKvSubscription&& other) noexcept {
    if (this != &other) {
        End();
        impl_ = other.impl_;
        other.impl_ = nullptr;
    }
    return *this;
}
void RdKvSubscription::End() {
    if (impl_ == nullptr) {
        return;
    }
    RdKvRequestImpl* impl = impl_;
    impl_ = nullptr;
    try {
        impl->Send(kSubscriptionEndReply, true);
    } catch (...) {
        // The fixed reply is always accepted; nothing may leave a destructor.
    }
    impl->DropRef();
}
bool RdKvSubscription::IsOpen() const {
    return impl_ != nullptr && impl_->IsOpen();
}
const std::string& RdKvSubscription::GetSender() const {
    return impl_ != nullptr ? impl_->Sender() : EmptyText();
}
const JsonToken& RdKvSubscription::GetPayload() const {
    return impl_ != nullptr ? impl_->Payload() : EmptyToken();
}
bool RdKvSubscription::Reply(const JsonToken& reply) {
    return impl_ != nullptr && impl_->Send(reply.GenerateJsonEncodingAndPeek(), false);
}
bool RdKvSubscription::Reply(const std::string& replyText) {
    return impl_ != nullptr && impl_->Send(replyText.c_str(), false);
}
bool RdKvSubscription::ReplyLast(const JsonToken& reply) {
    return impl_ != nullptr && impl_->Send(reply.GenerateJsonEncodingAndPeek(), true);
}
bool RdKvSubscription::ReplyLast(const std::string& replyText) {
    return impl_ != nullptr && impl_->Send(replyText.c_str(), true);
}

RdKvService::RdKvService(RuntimeDispatcher& dispatcher, const std::string& serviceName)
    : impl_(new RdKvServiceImpl(RuntimeDispatcher::GetImpl(dispatcher), serviceName)) {}
RdKvService::~RdKvService() {
    impl_->Discard();
}
void RdKvService::AddMethod(const std::string& method, std::function<void(RdKvRequest&)> handler) {
    impl_->AddMethod(method, std::move(handler));
}
void RdKvService::SetConnectionObserver(std::function<void(bool)> observer) {
    impl_->SetConnectionObserver(std::move(observer));
}
bool RdKvService::IsConnected() const {
    return impl_->IsConnected();
}
const std::string& RdKvService::GetServiceName() const {
    return impl_->GetServiceName();
}

}  // namespace vok
