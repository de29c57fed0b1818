#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

// The GSource with a pointer back to its bridge.
struct RdAsyncBridgeImpl::BridgeSource {
    GSource base;
    RdAsyncBridgeImpl* bridge;
};

GSourceFuncs RdAsyncBridgeImpl::sourceFuncs_ = {&RdAsyncBridgeImpl::Prepare,
                                                &RdAsyncBridgeImpl::Check,
                                                &RdAsyncBridgeImpl::Dispatch,
                                                nullptr,
                                                nullptr,
                                                nullptr};

RdAsyncBridgeImpl::RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher,
                                     std::function<void()> callback, bool traced)
    : dispatcher_(dispatcher),
      context_(dispatcher->GetContext()),
      callback_(std::move(callback)),
      source_(g_source_new(&sourceFuncs_, sizeof(BridgeSource))),
      runDue_(false),
      traced_(traced) {
    reinterpret_cast<BridgeSource*>(source_)->bridge = this;
    // Default priority, not idle priority: a triggered bridge competes with timers and I/O.
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_set_can_recurse(source_, FALSE);
    g_source_attach(source_, context_);
}

RdAsyncBridgeImpl::~RdAsyncBridgeImpl() {
    g_source_unref(source_);
}

RdAsyncBridgeImpl* RdAsyncBridgeImpl::BridgeOf(GSource* source) {
    return reinterpret_cast<BridgeSource*>(source)->bridge;
}

bool RdAsyncBridgeImpl::InOwnDispatch() const {
    GSource* const current = g_main_current_source();
    return current != nullptr && g_source_get_context(current) == context_;
}

void RdAsyncBridgeImpl::Trigger() {
    if (!triggers_.TryEnter()) {
        return;  // Being discarded: the run could not happen anyway.
    }
    if (!runDue_.exchange(true, std::memory_order_acq_rel) && !InOwnDispatch()) {
        // One write to the context's wake-up descriptor; a run already due covers this trigger.
        g_main_context_wakeup(context_);
    }
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

gboolean RdAsyncBridgeImpl::Prepare(GSource* source, gint* timeout) {
    *timeout = -1;
    return BridgeOf(source)->runDue_.load(std::memory_order_acquire);
}

gboolean RdAsyncBridgeImpl::Check(GSource* source) {
    return BridgeOf(source)->runDue_.load(std::memory_order_acquire);
}

gboolean RdAsyncBridgeImpl::Dispatch(GSource* source, GSourceFunc, gpointer) {
    BridgeOf(source)->Run();
    return G_SOURCE_CONTINUE;  // Discard, if the callback ran it, has destroyed the source.
}

void RdAsyncBridgeImpl::Run() {
    // Open to new triggers first: one that comes from here on makes another run due.
    runDue_.store(false, std::memory_order_seq_cst);
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
