#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

// The GSource with a pointer back to its bridge.
struct RdAsyncBridgeImpl::BridgeSource {
    GSource base;
    RdAsyncBridgeImpl* bridge;
};

// No prepare or check: the source is ready exactly when its ready time has come.
GSourceFuncs RdAsyncBridgeImpl::sourceFuncs_ = {nullptr, nullptr, &RdAsyncBridgeImpl::Dispatch,
                                                nullptr, nullptr, nullptr};

RdAsyncBridgeImpl::RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher,
                                     std::function<void()> callback)
    : dispatcher_(dispatcher),
      callback_(std::move(callback)),
      source_(g_source_new(&sourceFuncs_, sizeof(BridgeSource))),
      runDue_(false) {
    reinterpret_cast<BridgeSource*>(source_)->bridge = this;
    // Default priority, not idle priority: a triggered bridge competes with timers and I/O.
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_set_can_recurse(source_, FALSE);
    g_source_set_ready_time(source_, -1);
    g_source_attach(source_, dispatcher_->GetContext());
}

RdAsyncBridgeImpl::~RdAsyncBridgeImpl() {
    g_source_unref(source_);
}

void RdAsyncBridgeImpl::Trigger() {
    if (runDue_.exchange(true, std::memory_order_acq_rel)) {
        return;  // The run already due covers this trigger.
    }
    // Thread-safe in GLib: takes the context's lock and wakes its thread when that is another.
    g_source_set_ready_time(source_, 0);
}

void RdAsyncBridgeImpl::ChangeCb(std::function<void()> callback) {
    callback_.Replace(std::move(callback));
}

void RdAsyncBridgeImpl::Discard() {
    g_source_destroy(source_);
    DropRef();
}

gboolean RdAsyncBridgeImpl::Dispatch(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<BridgeSource*>(source)->bridge->Run();
    return G_SOURCE_CONTINUE;  // Discard, if the callback ran it, has destroyed the source.
}

void RdAsyncBridgeImpl::Run() {
    // Asleep again first, then open to new triggers: one that comes from here on makes another
    // run due, and one before has its event seen by this run.
    g_source_set_ready_time(source_, -1);
    runDue_.store(false, std::memory_order_seq_cst);
    RdAsyncBridgeImpl* self = this;
    dispatcher_->RunGuarded([self]() {
        RefCounted::Holder hold(self);
        self->callback_();  // std::bad_function_call when empty.
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
