#include "Src/Utils/RuntimeDispatcher/Linux/RdTimerImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/GlibTimerSource.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdTimerImpl::RdTimerImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback)
    : dispatcher_(dispatcher), callback_(std::move(callback)), source_(nullptr) {}

RdTimerImpl::~RdTimerImpl() {
    Cancel();
}

void RdTimerImpl::Schedule(unsigned int milliseconds) {
    Cancel();
    GSource* source = NewGlibTimerSource(milliseconds);
    reinterpret_cast<GlibTimerSource*>(source)->owner = dispatcher_;
    g_source_set_can_recurse(source, FALSE);
    g_source_set_callback(source, &RdTimerImpl::CallbackFunc, this, nullptr);
    g_source_attach(source, dispatcher_->GetContext());
    g_source_unref(source);
    source_ = source;
}

void RdTimerImpl::Cancel() {
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
    self->dispatcher_->RunGuarded([self]() {
        RefCounted::Holder hold(self);
        self->callback_();  // std::bad_function_call when empty.
    });
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
void RdTimerBase::Cancel() {
    impl_->Cancel();
}
void RdTimerBase::ChangeCb(std::function<void()> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
