#include "Src/Utils/RuntimeDispatcher/Linux/RdAsyncBridgeImpl.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

// The GSource with a pointer back to its bridge.
struct RdAsyncBridgeImpl::BridgeSource {
    GSource base;
    RdAsyncBridgeImpl* bridge;
};

namespace {

int NewEventFd() {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        VOK_THROW_RESOURCE_ERROR(errno, "eventfd");
    }
    return fd;
}

const Logger& BridgeLogger() {
    static const Logger logger("VOK.Dispatcher");
    return logger;
}

}  // namespace

// No prepare or check: GLib dispatches a source whose descriptor polled ready.
GSourceFuncs RdAsyncBridgeImpl::sourceFuncs_ = {nullptr, nullptr, &RdAsyncBridgeImpl::Dispatch,
                                                nullptr, nullptr, nullptr};

RdAsyncBridgeImpl::RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher,
                                     std::function<void()> callback)
    : dispatcher_(dispatcher),
      callback_(std::move(callback)),
      eventFd_(NewEventFd()),
      source_(g_source_new(&sourceFuncs_, sizeof(BridgeSource))),
      runDue_(false) {
    reinterpret_cast<BridgeSource*>(source_)->bridge = this;
    g_source_add_unix_fd(source_, eventFd_, G_IO_IN);
    // Default priority, not idle priority: a triggered bridge competes with timers and I/O.
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_set_can_recurse(source_, FALSE);
    g_source_attach(source_, dispatcher_->GetContext());
}

RdAsyncBridgeImpl::~RdAsyncBridgeImpl() {
    g_source_unref(source_);
    (void)close(eventFd_);
}

void RdAsyncBridgeImpl::Trigger() {
    if (runDue_.exchange(true, std::memory_order_acq_rel)) {
        return;  // The run already due covers this trigger.
    }
    const uint64_t one = 1;
    if (write(eventFd_, &one, sizeof one) != static_cast<ssize_t>(sizeof one)) {
        // Not expected with a valid descriptor (the count stays far below its limit); the next
        // trigger tries again.
        BridgeLogger().Error("async bridge %p: waking the dispatcher failed: %s",
                             static_cast<void*>(this), strerror(errno));
        runDue_.store(false, std::memory_order_seq_cst);
    }
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
    uint64_t count;
    (void)read(eventFd_, &count, sizeof count);
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
