#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"

#include <kelvra/kelvra.h>

#include <map>

#include "Src/Utils/Linux/UncaughtException.h"
#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/VokKvError.h"
#include "Src/Utils/RuntimeDispatcher/Linux/LoopHeartbeat.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"
#include "vok/Mutex.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokKvClient.h"

namespace vok {

namespace {

const Logger& DispatcherLogger() {
    static const Logger logger("VOK.Dispatcher");
    return logger;
}

// Which dispatcher a bus handle belongs to, so that bus callbacks can hand their exceptions to
// it. Protects the map.
Mutex& HandleRegistryLock() {
    static Mutex lock;
    return lock;
}

std::map<KVHandle*, RuntimeDispatcherImpl*>& HandleRegistry() {
    static std::map<KVHandle*, RuntimeDispatcherImpl*> registry;
    return registry;
}

// A source that is never ready: it only marks its thread waiting when the loop is about to poll
// and busy when the poll returns. It has the highest priority, so GLib prepares and checks it
// first in every iteration, whatever else is ready.
struct HeartbeatSource {
    GSource source;
    LoopHeartbeat* heartbeat;
};

gboolean HeartbeatPrepare(GSource* source, gint* timeout) {
    *timeout = -1;
    reinterpret_cast<HeartbeatSource*>(source)->heartbeat->Waiting();
    return FALSE;
}

gboolean HeartbeatCheck(GSource* source) {
    reinterpret_cast<HeartbeatSource*>(source)->heartbeat->Beat();
    return FALSE;
}

gboolean HeartbeatDispatch(GSource*, GSourceFunc, gpointer) {
    return G_SOURCE_CONTINUE;
}

GSourceFuncs gHeartbeatFuncs = {HeartbeatPrepare, HeartbeatCheck, HeartbeatDispatch,
                                nullptr,          nullptr,        nullptr};

}  // namespace

RuntimeDispatcherImpl* RuntimeDispatcherImpl::FromKvHandle(KVHandle* handle) {
    MutexLocker lock(HandleRegistryLock());
    auto it = HandleRegistry().find(handle);
    return it != HandleRegistry().end() ? it->second : nullptr;
}

KVHandle* RuntimeDispatcherImpl::GetKvHandle() {
    if (kvHandle_ == nullptr) {
        InitKelvra();
    }
    return kvHandle_;
}

VokKvClient* RuntimeDispatcherImpl::GetVokKvClient(const std::string& serviceName) {
    if (clientMgr_ == nullptr) {
        clientMgr_ = new VokKvClientMgr(GetKvHandle());
    }
    return clientMgr_->GetClient(serviceName);
}

namespace {

// A lost bus is an expected event: the handle reconnects by itself; the log says what happened.
void OnBusConnection(KVHandle*, bool connected, void*) {
    static const Logger logger("VOK.Dispatcher.Bus");
    if (connected) {
        logger.Warning("bus connection restored");
    } else {
        logger.Warning("bus connection lost; reconnecting");
    }
}

}  // namespace

void RuntimeDispatcherImpl::InitKelvra() {
    if (kvHandle_ != nullptr) {
        return;
    }
    // Made even when the bus is not there yet: calls then end through their callbacks with the
    // bus-unavailable error, and the handle connects once the bus is up.
    VokKvError error;
    error.result = KVRegisterWithFlags(nullptr, KV_REGISTER_ALLOW_NO_BUS, &kvHandle_, &error.error);
    if (!error.result) {
        kvHandle_ = nullptr;
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
    }
    error.result = KVGmainAttach(kvHandle_, context_, &error.error) &&
                   KVSetConnectionFunc(kvHandle_, &OnBusConnection, nullptr, &error.error);
    if (error.result) {
        MutexLocker lock(HandleRegistryLock());
        HandleRegistry()[kvHandle_] = this;
        return;
    }
    VokKvError error2;
    error2.result = KVUnregister(kvHandle_, &error2.error);
    kvHandle_ = nullptr;
    VOK_THROW_RESOURCE_ERROR(kVokErrFailed, error.Message());
}

void RuntimeDispatcherImpl::DeinitKelvra() {
    if (kvHandle_ == nullptr) {
        return;
    }
    {
        MutexLocker lock(HandleRegistryLock());
        HandleRegistry().erase(kvHandle_);
    }
    // A failed unregistration at shutdown is ignored; result is not updated, so the record is
    // not released either.
    VokKvError error;
    (void)KVUnregister(kvHandle_, &error.error);
    kvHandle_ = nullptr;
}

RuntimeDispatcherImpl::RuntimeDispatcherImpl(GMainContext* context)
    : context_(nullptr),
      loop_(nullptr),
      kvHandle_(nullptr),
      clientMgr_(nullptr),
      inRun_(false),
      heartbeatSource_(nullptr),
      postQueue_(std::make_shared<RdPostQueue>(this)) {
    // The context (and its wake-up descriptor) is made only once everything that may throw has
    // been allocated, so a failing constructor leaves nothing behind.
    context_ = context != nullptr ? g_main_context_ref(context) : g_main_context_new();
    if (context_ != nullptr) {
        loop_ = g_main_loop_new(context_, FALSE);
        if (loop_ != nullptr) {
            AttachHeartbeat(LoopHeartbeat::ForThisThread());
            return;
        }
        g_main_context_unref(context_);
    }
    VOK_THROW_RESOURCE_ERROR(kVokErrFailed, nullptr);
}

void RuntimeDispatcherImpl::AttachHeartbeat(LoopHeartbeat* heartbeat) {
    if (heartbeat == nullptr) {
        return;
    }
    heartbeatSource_ = g_source_new(&gHeartbeatFuncs, sizeof(HeartbeatSource));
    reinterpret_cast<HeartbeatSource*>(heartbeatSource_)->heartbeat = heartbeat;
    g_source_set_priority(heartbeatSource_, G_MININT);
    g_source_set_name(heartbeatSource_, "vok heartbeat");
    g_source_attach(heartbeatSource_, context_);
}

RuntimeDispatcherImpl::~RuntimeDispatcherImpl() {
    postQueue_->Close();
    if (heartbeatSource_ != nullptr) {
        g_source_destroy(heartbeatSource_);
        LoopHeartbeat* heartbeat = reinterpret_cast<HeartbeatSource*>(heartbeatSource_)->heartbeat;
        g_source_unref(heartbeatSource_);
        heartbeat->Beat();  // The loop is gone: whatever the thread does now is busy time.
    }
    delete clientMgr_;
    clientMgr_ = nullptr;
    DeinitKelvra();
    if (loop_ != nullptr) {
        g_main_loop_unref(loop_);
    }
    if (context_ != nullptr) {
        g_main_context_unref(context_);
    }
}

void RuntimeDispatcherImpl::Run() {
    if (g_main_loop_is_running(loop_)) {
        return;
    }
    inRun_ = true;
    g_main_loop_run(loop_);
    inRun_ = false;
    if (pending_) {
        std::exception_ptr exception = pending_;
        pending_ = nullptr;
        std::rethrow_exception(exception);
    }
}

void RuntimeDispatcherImpl::KeepException(std::exception_ptr exception) noexcept {
    if (inRun_) {
        if (!pending_) {
            pending_ = exception;
            g_main_loop_quit(loop_);
        } else {
            DispatcherLogger().Critical(
                "Dispatcher %p: a further exception before Run returned is dropped: %s",
                static_cast<void*>(this), DescribeException(exception).c_str());
        }
        return;
    }
    if (!handler_) {
        AbortOnException(DispatcherLogger(),
                         "Exception out of a dispatcher callback with no Run in progress",
                         exception);
    }
    try {
        handler_(exception);
    } catch (...) {
        AbortOnException(DispatcherLogger(), "Exception out of a dispatcher's exception handler",
                         std::current_exception());
    }
}

void RuntimeDispatcherImpl::SetExceptionHandler(std::function<void(std::exception_ptr)> handler) {
    handler_ = std::move(handler);
}

void RuntimeDispatcherImpl::AbortOnOrphanException(std::exception_ptr exception) noexcept {
    AbortOnException(DispatcherLogger(), "Exception out of a callback that no dispatcher owns",
                     exception);
}

void RuntimeDispatcherImpl::RequestStop() {
    if (g_main_loop_is_running(loop_)) {
        g_main_loop_quit(loop_);
    }
}

bool RdPostQueue::Post(std::function<void()> closure) {
    MutexLocker lock(lock_);
    if (dispatcher_ == nullptr) {
        return false;  // the closure is destroyed as the argument goes
    }
    closures_.push_back(std::move(closure));
    if (source_ == nullptr) {
        source_ = ready_.NewSource();
        g_source_set_name(source_, "vok post");
        ready_.RaiseWithoutWake();
        g_source_attach(source_, dispatcher_->GetContext());  // wakes the context
    } else {
        ready_.Raise(dispatcher_->GetContext());
    }
    return true;
}

void RdPostQueue::RunPending() {
    std::vector<std::function<void()>> batch;  // an empty vector allocates nothing
    RuntimeDispatcherImpl* dispatcher;
    {
        MutexLocker lock(lock_);
        // Cleared under the lock, so a post after the swap makes the source ready again.
        ready_.Lower();
        batch.swap(closures_);
        dispatcher = dispatcher_;
    }
    for (std::function<void()>& closure : batch) {
        dispatcher->RunGuarded(closure);  // std::bad_function_call when empty
    }
}

void RdPostQueue::Close() {
    // Swapped into a vector, which allocates nothing: closing never fails for want of memory.
    std::vector<std::function<void()>> dropped;
    GSource* source;
    {
        MutexLocker lock(lock_);
        dispatcher_ = nullptr;
        dropped.swap(closures_);
        source = source_;
        source_ = nullptr;
    }
    if (source != nullptr) {
        g_source_destroy(source);
        g_source_unref(source);
    }
    // dropped goes here, unrun, outside the lock: a closure's captures may post again.
}

bool RdPostTarget::Post(std::function<void()> closure) const {
    return queue_ != nullptr && queue_->Post(std::move(closure));
}

RuntimeDispatcher::RuntimeDispatcher() : impl_(new RuntimeDispatcherImpl(nullptr)) {}
RuntimeDispatcher::RuntimeDispatcher(RuntimeDispatcherImpl* impl) : impl_(impl) {}
RuntimeDispatcher::~RuntimeDispatcher() {
    delete impl_;
}
void RuntimeDispatcher::Run() {
    impl_->Run();
}
void RuntimeDispatcher::RequestStop() {
    impl_->RequestStop();
}
bool RuntimeDispatcher::Post(std::function<void()> closure) {
    return impl_->GetPostQueue()->Post(std::move(closure));
}
RdPostTarget RuntimeDispatcher::GetPostTarget() {
    RdPostTarget target;
    target.queue_ = impl_->GetPostQueue();
    return target;
}
void RuntimeDispatcher::SetExceptionHandler(std::function<void(std::exception_ptr)> handler) {
    impl_->SetExceptionHandler(std::move(handler));
}
GMainLoop* RuntimeDispatcher::GetInternalLoop(RuntimeDispatcher& dispatcher) {
    return dispatcher.impl_->GetLoop();
}

GlibRuntimeDispatcher::GlibRuntimeDispatcher(GMainContext* context)
    : RuntimeDispatcher(new RuntimeDispatcherImpl(context)) {}

}  // namespace vok
