#include "Src/Utils/RuntimeDispatcher/Linux/RdPortMonitorImpl.h"

#include "vok/PortEventInterface.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdPortMonitorImpl::RdPortMonitorImpl(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                                     std::function<void(bool, bool, bool)> callback)
    : port_(port),
      dispatcher_(dispatcher),
      callback_(std::move(callback)),
      maskRead_(false),
      maskWrite_(false),
      maskException_(false),
      bridge_(new RdAsyncBridge(dispatcher_, [this]() { CallbackFunc(bridge_.get(), nullptr); })) {
    port_.WatchPortEvents(false, false, false);
    port_.RegisterPortEventSignalSink(*bridge_);
}

RdPortMonitorImpl::~RdPortMonitorImpl() = default;

void RdPortMonitorImpl::CheckPort(bool* readable, bool* writable, bool* exception) {
    port_.GetPortState(readable, writable, exception);
    *readable = *readable && maskRead_;
    *writable = *writable && maskWrite_;
    *exception = *exception && maskException_;
}

void RdPortMonitorImpl::SetEventMask(bool read, bool write, bool exception) {
    maskRead_ = read;
    maskWrite_ = write;
    maskException_ = exception;
    port_.WatchPortEvents(read, write, exception);
    bool r = false, w = false, e = false;
    CheckPort(&r, &w, &e);
    if (r || w || e) {
        bridge_->Trigger();  // Already true: report it without waiting for a new event.
    }
}

void RdPortMonitorImpl::ChangeCb(std::function<void(bool, bool, bool)> callback) {
    callback_.Replace(std::move(callback));
}

void RdPortMonitorImpl::CallbackFunc(RdAsyncBridge*, void*) {
    bool r = false, w = false, e = false;
    CheckPort(&r, &w, &e);
    if (!r && !w && !e) {
        return;  // A stale or masked-out signal.
    }
    Holder hold(this);
    callback_(r, w, e);  // std::bad_function_call when empty.
    if (m_refCount > 1) {
        // The front still exists: keep calling back while the port stays ready.
        CheckPort(&r, &w, &e);
        if (r || w || e) {
            bridge_->Trigger();
        }
    }
}

void RdPortMonitorImpl::Discard() {
    port_.UnregisterPortEventSignalSink();
    DropRef();
}

RdPortMonitorBase::RdPortMonitorBase(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                                     std::function<void(bool, bool, bool)> callback)
    : impl_(new RdPortMonitorImpl(port, dispatcher, std::move(callback))) {}
RdPortMonitorBase::~RdPortMonitorBase() {
    impl_->Discard();
}
void RdPortMonitorBase::SetEventMask(bool read, bool write, bool exception) {
    impl_->SetEventMask(read, write, exception);
}
void RdPortMonitorBase::ChangeCb(std::function<void(bool, bool, bool)> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
