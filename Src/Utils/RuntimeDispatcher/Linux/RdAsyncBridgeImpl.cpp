#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdAsyncBridgeImpl::RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher,
                                     std::function<void()> callback)
    : dispatcher_(dispatcher), callback_(std::move(callback)), source_(nullptr) {}

void RdAsyncBridgeImpl::Trigger() {
    MutexLocker lock(lock_);
    if (source_ != nullptr) {
        return;  // The pending run covers this trigger.
    }
    GSource* source = g_idle_source_new();
    // Default priority, not idle priority: a triggered bridge competes with timers and I/O.
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_can_recurse(source, FALSE);
    g_source_set_callback(source, &RdAsyncBridgeImpl::CallbackFunc, this, nullptr);
    g_source_attach(source, dispatcher_->GetContext());  // Wakes the dispatcher's thread.
    g_source_unref(source);
    source_ = source;
}

void RdAsyncBridgeImpl::ChangeCb(std::function<void()> callback) {
    callback_.Replace(std::move(callback));
}

void RdAsyncBridgeImpl::Discard() {
    {
        MutexLocker lock(lock_);
        if (source_ != nullptr) {
            g_source_destroy(source_);
            source_ = nullptr;
        }
    }
    DropRef();
}

gboolean RdAsyncBridgeImpl::CallbackFunc(void* data) {
    RdAsyncBridgeImpl* self = static_cast<RdAsyncBridgeImpl*>(data);
    {
        // From now on a trigger schedules a new run.
        MutexLocker lock(self->lock_);
        self->source_ = nullptr;
    }
    self->dispatcher_->RunGuarded([self]() {
        RefCounted::Holder hold(self);
        self->callback_();  // std::bad_function_call when empty.
    });
    return FALSE;
}

RdAsyncBridgeBase::RdAsyncBridgeBase(RuntimeDispatcher& dispatcher, std::function<void()> callback)
    : impl_(new RdAsyncBridgeImpl(RuntimeDispatcher::GetImpl(dispatcher), std::move(callback))) {}
RdAsyncBridgeBase::~RdAsyncBridgeBase() {
    impl_->Discard();
}
void RdAsyncBridgeBase::Trigger() {
    impl_->Trigger();
}
void RdAsyncBridgeBase::ChangeCb(std::function<void()> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
