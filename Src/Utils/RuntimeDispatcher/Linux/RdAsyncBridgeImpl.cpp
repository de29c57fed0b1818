#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RdAsyncBridgeImpl::RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher,
                                     std::function<void()> callback, bool traced)
    : dispatcher_(dispatcher),
      context_(dispatcher->GetContext()),
      callback_(std::move(callback)),
      runDue_([](void* self) { static_cast<RdAsyncBridgeImpl*>(self)->Run(); }, this),
      source_(runDue_.NewSource()),
      traced_(traced) {
    // Default priority, not idle priority: a triggered bridge competes with timers and I/O.
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_set_can_recurse(source_, FALSE);
    g_source_attach(source_, context_);
}

RdAsyncBridgeImpl::~RdAsyncBridgeImpl() {
    g_source_unref(source_);
}

void RdAsyncBridgeImpl::Trigger() {
    if (!triggers_.TryEnter()) {
        return;  // Being discarded: the run could not happen anyway.
    }
    runDue_.Raise(context_);
    triggers_.Leave();
}

void RdAsyncBridgeImpl::ChangeCb(std::function<void()> callback) {
    callback_.Replace(std::move(callback));
}

void RdAsyncBridgeImpl::Discard() {
    triggers_.CloseAndWait();
    g_source_destroy(source_);
    DropRef();
}

void RdAsyncBridgeImpl::Run() {
    // Open to new triggers first: one that comes from here on makes another run due.
    runDue_.Lower();
    RdAsyncBridgeImpl* self = this;
    dispatcher_->RunGuarded([self]() {
        RefCounted::Holder hold(self);
        if (!self->traced_) {
            self->callback_();  // std::bad_function_call when empty.
            return;
        }
        trace::TraceCallbackScope scope(trace::kCbBridge);
        self->callback_();
    });
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
