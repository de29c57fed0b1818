// Not public API. Implementation of RuntimeDispatcher.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H

#include <glib.h>

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Src/Utils/RuntimeDispatcher/Linux/RdFlagSource.h"
#include "vok/Mutex.h"

typedef struct KVHandle KVHandle;

namespace vok {

class LoopHeartbeat;
class RuntimeDispatcherImpl;
class VokKvClient;
class VokKvClientMgr;

// Closures posted from any thread to run on a dispatcher's thread. Shared by the dispatcher and
// every RdPostTarget; the dispatcher closes it when it is destroyed. Its GLib source is made on
// the first post and is ready while closures wait.
class RdPostQueue {
  public:
    explicit RdPostQueue(RuntimeDispatcherImpl* dispatcher)
        : dispatcher_(dispatcher),
          ready_([](void* self) { static_cast<RdPostQueue*>(self)->RunPending(); }, this) {}
    RdPostQueue(const RdPostQueue&) = delete;
    RdPostQueue& operator=(const RdPostQueue&) = delete;

    // Any thread. False once closed (the closure is destroyed on the caller's thread).
    bool Post(std::function<void()> closure);
    // Dispatcher's thread, before its context goes: later posts fail; closures still waiting are
    // destroyed unrun.
    void Close();

  private:
    void RunPending();

    RuntimeDispatcherImpl* dispatcher_;  // Null once closed.
    Mutex lock_;                         // Protects closures_, source_ and dispatcher_.
    std::vector<std::function<void()>> closures_;
    RdFlagSource ready_;         // Raised while closures wait.
    GSource* source_ = nullptr;  // ready_'s; one reference; attached to the dispatcher's context.
};

// Owns one reference on its main context and the loop on it. Used on the dispatcher's thread,
// except RequestStop.
class RuntimeDispatcherImpl {
  public:
    // Takes a reference on context, or makes a new context when it is NULL.
    explicit RuntimeDispatcherImpl(GMainContext* context);
    ~RuntimeDispatcherImpl();
    RuntimeDispatcherImpl(const RuntimeDispatcherImpl&) = delete;
    RuntimeDispatcherImpl& operator=(const RuntimeDispatcherImpl&) = delete;

    void Run();
    void RequestStop();

    GMainContext* GetContext() const { return context_; }
    const std::shared_ptr<RdPostQueue>& GetPostQueue() const { return postQueue_; }
    GMainLoop* GetLoop() const { return loop_; }

    // The dispatcher's bus handle, attached to its context, made on first use. It lives as long
    // as the dispatcher, across losses of the bus: without a bus (also at first use) its calls
    // end through their callbacks with the bus-unavailable error, and it reconnects by itself.
    // Throws VokResourceException (kVokErrFailed) only when no handle can be made at all (no
    // bus address); a later call tries again.
    KVHandle* GetKvHandle();
    // The dispatcher's client of serviceName, created on first use.
    VokKvClient* GetVokKvClient(const std::string& serviceName);
    void InitKelvra();
    void DeinitKelvra();
    // The dispatcher whose bus handle this is, or null.
    static RuntimeDispatcherImpl* FromKvHandle(KVHandle* handle);

    // Runs fn, a callback given to GLib or the bus library, and hands an exception leaving it to
    // KeepException. C++ exceptions must not unwind through those C libraries: on ARM their
    // frames have no unwind tables (the process would terminate), and elsewhere GLib's dispatch
    // state would be left half done.
    template <typename Fn>
    void RunGuarded(Fn&& fn) noexcept {
        try {
            fn();
        } catch (...) {
            KeepException(std::current_exception());
        }
    }
    // RunGuarded on dispatcher. Without one (a bus handle that no dispatcher registered) nobody
    // can take the exception: it is logged at critical level and the process aborts.
    template <typename Fn>
    static void RunGuardedOn(RuntimeDispatcherImpl* dispatcher, Fn&& fn) {
        if (dispatcher != nullptr) {
            dispatcher->RunGuarded(fn);
            return;
        }
        try {
            fn();
        } catch (...) {
            AbortOnOrphanException(std::current_exception());
        }
    }
    // An exception out of a callback of this dispatcher's loop. Inside Run, the first one is kept
    // for Run to rethrow and the loop stops; a further one before Run returns is logged at
    // critical level and dropped. Outside Run (the application steps the context itself) it goes
    // to the exception handler at once.
    void KeepException(std::exception_ptr exception) noexcept;
    // Empty restores the default handler, which logs at critical level and aborts.
    void SetExceptionHandler(std::function<void(std::exception_ptr)> handler);
    // Logs an exception that no dispatcher can take (a bus handle or timer source without one)
    // at critical level and aborts.
    [[noreturn]] static void AbortOnOrphanException(std::exception_ptr exception) noexcept;

  private:
    // Reports every iteration of the loop to heartbeat (see LoopHeartbeat).
    void AttachHeartbeat(LoopHeartbeat* heartbeat);

    GMainContext* context_;       // One owned reference.
    GMainLoop* loop_;             // Owned.
    KVHandle* kvHandle_;          // The bus registration; null until first needed.
    VokKvClientMgr* clientMgr_;   // Owned; null until first needed.
    bool inRun_;                  // Run is driving the loop (not the application).
    std::exception_ptr pending_;  // Raised by a callback during Run, not yet rethrown by it.
    std::function<void(std::exception_ptr)> handler_;  // Empty: the default handler.
    GSource* heartbeatSource_;  // One reference; null when made on a thread without heartbeat.
    std::shared_ptr<RdPostQueue> postQueue_;  // Closed before the context goes.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
