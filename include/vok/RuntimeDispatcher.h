// The per-thread event loop of the framework.
#ifndef VOK_RUNTIMEDISPATCHER_H
#define VOK_RUNTIMEDISPATCHER_H

#include <exception>
#include <functional>
#include <memory>

#include "vok/VokTypes.h"

typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;

namespace vok {

class RdPostQueue;
class RuntimeDispatcherImpl;

// Where closures can be posted to run on one dispatcher's thread; a copyable handle that any
// thread may hold and use, also after the dispatcher is gone (Post then returns false). Get one
// with RuntimeDispatcher::GetPostTarget and hand it to other blades or threads.
class RdPostTarget {
  public:
    // A target of no dispatcher: Post returns false.
    RdPostTarget() = default;

    // Runs closure once on the dispatcher's thread, inside its loop, after the closures posted
    // before it; returns at once. Any thread. False when the dispatcher is gone: the closure is
    // then destroyed here without running. Closures still pending when the dispatcher is
    // destroyed are destroyed on its thread without running. An exception out of a closure takes
    // the dispatcher's exception path.
    bool Post(std::function<void()> closure) const;

  private:
    friend class RuntimeDispatcher;
    std::shared_ptr<RdPostQueue> queue_;
};

// A GLib main loop on a main context. The thread that calls Run owns the dispatcher: every
// callback of every object created against it (timers, bridges, monitors, bus calls, alarms)
// runs there, from inside Run. RequestStop, Post and GetPostTarget may be called from any thread;
// everything else belongs to the owning thread. Objects created against a dispatcher must be
// destroyed before it; destroying it releases its context reference and its bus registration. A
// dispatcher created on a blade's thread tells the shell whether its loop is waiting for events or
// busy, and for how long (the shell's watchdog and stop deadline use it); that costs no wake-up.
class RuntimeDispatcher : private Uncopyable {
  public:
    // A dispatcher on a new private main context.
    RuntimeDispatcher();
    virtual ~RuntimeDispatcher();

    // Runs the loop on the calling thread until RequestStop; returns at once if it already runs.
    // An exception that leaves any callback of the loop stops the loop and is rethrown here; a
    // further one before Run returns is logged at critical level and dropped.
    void Run();
    // Makes a running Run return; does nothing when the loop is not running (a stop requested
    // before Run starts is lost).
    void RequestStop();

    // RdPostTarget::Post on this dispatcher: runs closure on its thread. Any thread, while the
    // dispatcher lives (a thread that may outlive it uses a GetPostTarget handle instead).
    bool Post(std::function<void()> closure);
    // A handle for posting to this dispatcher from any thread, valid beyond its life. Any thread.
    RdPostTarget GetPostTarget();

    // Receives, on the owning thread, each exception that leaves a callback while no Run is in
    // progress (the application steps the context or runs the GLib loop itself). It may store,
    // log or rethrow-and-catch the exception; whatever it throws ends the process. Without a
    // handler (or after setting an empty one) the exception is logged at critical level on
    // "VOK.Dispatcher" and the process aborts.
    void SetExceptionHandler(std::function<void(std::exception_ptr)> handler);

    // The dispatcher's GLib loop, for code that must drive GLib directly.
    static GMainLoop* GetInternalLoop(RuntimeDispatcher& dispatcher);
    // The implementation, for the framework's own objects.
    static RuntimeDispatcherImpl* GetImpl(RuntimeDispatcher& dispatcher) {
        return dispatcher.impl_;
    }

  protected:
    // Takes ownership of impl; for the derived dispatchers.
    explicit RuntimeDispatcher(RuntimeDispatcherImpl* impl);

  private:
    RuntimeDispatcherImpl* impl_;  // Owned.
};

// A dispatcher on a caller's main context (the dispatcher takes its own reference on it; the
// caller keeps its reference). NULL means a new private context.
class GlibRuntimeDispatcher : public RuntimeDispatcher {
  public:
    // See the class comment; NULL makes a new private context.
    explicit GlibRuntimeDispatcher(GMainContext* context);
};

}  // namespace vok

#endif  // VOK_RUNTIMEDISPATCHER_H
