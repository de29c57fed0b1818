#include "Src/Utils/RuntimeDispatcher/Linux/RdTimerImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/GlibTimerSource.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdTimerImpl::RdTimerImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback)
    : dispatcher_(dispatcher),
      callback_(std::move(callback)),
      source_(nullptr),
      periodMs_(0),
      due_{0, 0} {}

RdTimerImpl::~RdTimerImpl() {
    Cancel();
}

void RdTimerImpl::Schedule(unsigned int milliseconds) {
    Cancel();
    due_ = ReadMonotonicClock() + TimespecFromMs(milliseconds);
    ArmAt(due_);
}

void RdTimerImpl::SchedulePeriodic(unsigned int periodMs) {
    if (periodMs == 0) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "a period of 0 ms");
    }
    Cancel();
    periodMs_ = periodMs;
    due_ = ReadMonotonicClock();
    AdvancePeriodic();
    ArmAt(due_);
}

void RdTimerImpl::AdvancePeriodic() {
    const int64_t periodNs = static_cast<int64_t>(periodMs_) * 1000000;
    const int64_t nowNs = TimespecToNs(ReadMonotonicClock());
    int64_t dueNs = TimespecToNs(due_) + periodNs;
    if (dueNs <= nowNs) {
        // Late by a period or more: the beats in between are dropped, the grid is kept.
        dueNs += ((nowNs - dueNs) / periodNs + 1) * periodNs;
    }
    due_ = TimespecFromNs(dueNs);
}

void RdTimerImpl::ArmAt(const Timespec& expiry) {
    GSource* source = NewGlibTimerSourceAt(expiry);
    reinterpret_cast<GlibTimerSource*>(source)->owner = dispatcher_;
    g_source_set_can_recurse(source, FALSE);
    g_source_set_callback(source, &RdTimerImpl::CallbackFunc, this, nullptr);
    g_source_attach(source, dispatcher_->GetContext());
    g_source_unref(source);
    source_ = source;
}

void RdTimerImpl::Cancel() {
    periodMs_ = 0;
    if (source_ != nullptr) {
        g_source_destroy(source_);
        source_ = nullptr;
    }
}

void RdTimerImpl::ChangeCb(std::function<void()> callback) {
    callback_.Replace(std::move(callback));
}

void RdTimerImpl::Discard() {
    Cancel();
    DropRef();
}

gboolean RdTimerImpl::CallbackFunc(void* data) {
    RdTimerImpl* self = static_cast<RdTimerImpl*>(data);
    // GLib removes the source after this dispatch; forgetting it now also lets the callback
    // re-arm the timer.
    self->source_ = nullptr;
    RefCounted::Holder hold(self);  // the callback may destroy the front
    if (trace::TraceOn()) {
        const int64_t lateNs = TimespecToNs(ReadMonotonicClock()) - TimespecToNs(self->due_);
        trace::TraceInstant(trace::kInstTimerLate, lateNs > 0 ? lateNs : 0, nullptr);
    }
    self->dispatcher_->RunGuarded([self]() {
        trace::TraceCallbackScope scope(trace::kCbTimer);
        self->callback_();  // std::bad_function_call when empty.
    });
    // A periodic timer that the callback left alone (not cancelled, re-armed or destroyed) is
    // armed for its next due time only now, so that the time the callback took counts as late:
    // a beat whose due time passed meanwhile is skipped.
    if (self->periodMs_ != 0 && self->source_ == nullptr) {
        self->dispatcher_->RunGuarded([self]() {
            self->AdvancePeriodic();
            self->ArmAt(self->due_);
        });
    }
    return FALSE;
}

RdTimerBase::RdTimerBase(RuntimeDispatcher& dispatcher, std::function<void()> callback)
    : impl_(new RdTimerImpl(RuntimeDispatcher::GetImpl(dispatcher), std::move(callback))) {}
RdTimerBase::~RdTimerBase() {
    impl_->Discard();
}
void RdTimerBase::Schedule(unsigned int milliseconds) {
    impl_->Schedule(milliseconds);
}
void RdTimerBase::SchedulePeriodic(unsigned int periodMs) {
    impl_->SchedulePeriodic(periodMs);
}
void RdTimerBase::Cancel() {
    impl_->Cancel();
}
void RdTimerBase::ChangeCb(std::function<void()> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
