#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/RdKvCallImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/VokKvError.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/RdKvCall.h"

namespace vok {

RdKvCallImpl::RdKvCallImpl(KVHandle* handle, std::function<void(KVMessage*)> callback)
    : handle_(handle),
      callback_(std::move(callback)),
      pending_(false),
      token_(0),
      dispatcher_(RuntimeDispatcherImpl::FromKvHandle(handle)),
      traceId_(0) {}

void RdKvCallImpl::Call(const std::string& serviceName, const std::string& method,
                        const std::string& payload, unsigned int timeoutMs) {
    Cancel();
    const std::string uri = "kelvra://" + serviceName + "/" + method;
    traceId_ = trace::TraceAsyncStart(trace::kAsyncBusCall, uri.c_str(), timeoutMs);
    VokKvError error;
    error.result = KVCallWithTimeout(handle_, uri.c_str(), payload.c_str(), timeoutMs,
                                     &RdKvCallImpl::CallbackFunc, this, &token_, &error.error);
    if (!error.result) {
        trace::TraceAsyncFinish(trace::kAsyncBusCall, &traceId_, error.error.code);
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
    }
    pending_ = true;
}

void RdKvCallImpl::Cancel() {
    if (pending_) {
        VokKvError error;
        error.result = KVCallCancel(handle_, token_, &error.error);
        pending_ = false;
        trace::TraceAsyncFinish(trace::kAsyncBusCall, &traceId_, trace::kTraceEndCancelled);
    }
}

void RdKvCallImpl::ChangeCb(std::function<void(KVMessage*)> callback) {
    callback_.swap(callback);
}

void RdKvCallImpl::Discard() {
    Cancel();
    DropRef();
}

bool RdKvCallImpl::CallbackFunc(KVHandle*, KVMessage* message, void* data) {
    RdKvCallImpl* self = static_cast<RdKvCallImpl*>(data);
    // The slice ends before the callback runs, which may make the next call.
    if (self->traceId_ != 0 && KVMessageIsLastReply(message)) {
        trace::TraceAsyncFinish(trace::kAsyncBusCall, &self->traceId_,
                                KvReplyErrorCode(KVMessageGetPayload(message)));
    }
    // pending_ stays set: a subscription gets replies until it is cancelled.
    RuntimeDispatcherImpl::RunGuardedOn(self->dispatcher_, [self, message]() {
        RefCounted::Holder hold(self);
        trace::TraceCallbackScope scope(trace::kCbBusReply);
        // A copy runs, so that ChangeCb from inside the callback does not destroy it while it
        // runs.
        const std::function<void(KVMessage*)> callback(self->callback_);
        callback(message);  // std::bad_function_call when empty.
    });
    return true;
}

RdKvCallBase::RdKvCallBase(KVHandle* handle, std::function<void(KVMessage*)> callback)
    : impl_(new RdKvCallImpl(handle, std::move(callback))) {}
RdKvCallBase::~RdKvCallBase() {
    impl_->Discard();
}
void RdKvCallBase::Call(const std::string& serviceName, const std::string& method,
                        const std::string& payload) {
    impl_->Call(serviceName, method, payload, 0);
}
void RdKvCallBase::Call(const std::string& serviceName, const std::string& method,
                        const std::string& payload, unsigned int timeoutMs) {
    impl_->Call(serviceName, method, payload, timeoutMs);
}
void RdKvCallBase::Cancel() {
    impl_->Cancel();
}
void RdKvCallBase::ChangeCb(std::function<void(KVMessage*)> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
