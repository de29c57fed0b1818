#include "Src/Utils/RuntimeDispatcher/Linux/RdPortMonitorImpl.h"

#include <exception>

#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/PortEventInterface.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdPortMonitorImpl::RdPortMonitorImpl(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                                     std::function<void(bool, bool, bool)> callback)
    : port_(port),
      callback_(std::move(callback)),
      maskRead_(false),
      bridge_(new RdAsyncBridgeImpl(
          RuntimeDispatcher::GetImpl(dispatcher), [this]() { CallbackFunc(); }, false)) {
    try {
        port_.WatchPortEvents(false, false, false);
        port_.RegisterPortEventSignalSink(*bridge_);
    } catch (...) {
        bridge_->Discard();
        throw;
    }
}

RdPortMonitorImpl::~RdPortMonitorImpl() {
    bridge_->Discard();
}

void RdPortMonitorImpl::CheckPort(bool* readable, bool* writable, bool* exception) {
    port_.GetPortState(readable, writable, exception);
    *readable = *readable && maskRead_;
    *writable = false;
    *exception = false;
}

void RdPortMonitorImpl::SetEventMask(bool read, bool write, bool exception) {
    if (write || exception) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed,
                                "a port monitor watches readability only; a MessageMover port is "
                                "always writable and raises no exceptions");
    }
    port_.WatchPortEvents(read, false, false);
    maskRead_ = read;
    bool r = false, w = false, e = false;
    CheckPort(&r, &w, &e);
    if (r) {
        bridge_->Trigger();  // Already true: report it without waiting for a new event.
    }
}

void RdPortMonitorImpl::ChangeCb(std::function<void(bool, bool, bool)> callback) {
    callback_.Replace(std::move(callback));
}

void RdPortMonitorImpl::CallbackFunc() {
    bool r = false, w = false, e = false;
    CheckPort(&r, &w, &e);
    if (!r) {
        return;  // A stale or masked-out signal.
    }
    Holder hold(this);
    {
        trace::TraceCallbackScope scope(trace::kCbPortMonitor);
        callback_(r, w, e);  // std::bad_function_call when empty.
    }
    if (m_refCount > 1) {
        // The front still exists: keep calling back while the port stays readable. This runs
        // inside the loop's dispatch, so marking the run due is enough: the loop sees it when it
        // prepares its sources again, with no wake-up and no system call.
        CheckPort(&r, &w, &e);
        if (r) {
            bridge_->MarkDue();
        }
    }
}

void RdPortMonitorImpl::Discard() {
    try {
        port_.UnregisterPortEventSignalSink();
    } catch (const std::exception&) {
        // A port whose interface was discarded refuses every call; it delivers nothing any more,
        // so it never triggers this monitor again.
    }
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
