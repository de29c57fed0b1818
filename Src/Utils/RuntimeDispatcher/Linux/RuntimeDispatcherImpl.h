// Not public API. Implementation of RuntimeDispatcher.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H

#include <glib.h>

#include <exception>
#include <string>

typedef struct KVHandle KVHandle;

namespace vok {

class VokKvClient;
class VokKvClientMgr;

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

    // Runs fn, a callback given to GLib or the bus library. An exception leaving it is kept,
    // the loop is stopped, and Run rethrows it on the dispatcher's thread. C++ exceptions must
    // not unwind through those C libraries: on ARM their frames have no unwind tables (the
    // process would terminate), and elsewhere GLib's dispatch state would be left half done.
    template <typename Fn>
    void RunGuarded(Fn&& fn) noexcept {
        try {
            fn();
        } catch (...) {
            KeepException(std::current_exception());
        }
    }
    // RunGuarded on dispatcher; without one (a bus handle that no dispatcher registered), fn runs
    // as it is and its exceptions leave through the caller.
    template <typename Fn>
    static void RunGuardedOn(RuntimeDispatcherImpl* dispatcher, Fn&& fn) {
        if (dispatcher != nullptr) {
            dispatcher->RunGuarded(fn);
        } else {
            fn();
        }
    }
    // Keeps the first exception of a loop run and stops the loop.
    void KeepException(std::exception_ptr exception) noexcept;
    // Rethrows and forgets a kept exception, if any (for code that steps the context itself).
    void RethrowPending();

  private:
    GMainContext* context_;       // One owned reference.
    GMainLoop* loop_;             // Owned.
    KVHandle* kvHandle_;          // The bus registration; null until first needed.
    VokKvClientMgr* clientMgr_;   // Owned; null until first needed.
    std::exception_ptr pending_;  // Raised by a callback, not yet rethrown by Run.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
