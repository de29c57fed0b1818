// Not public API. Implementation of RdAsyncBridgeBase: a GLib source that owns no descriptor.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H

#include <glib.h>

#include <atomic>
#include <functional>

#include "Src/Utils/Linux/InFlightGate.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/SimpleAsyncInterface.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Trigger runs on any thread; everything else on the dispatcher's thread. The reference count
// is touched on the dispatcher's thread only. The source is attached for the bridge's whole
// life; its prepare and check read the flag that a trigger sets, so a run costs one wake-up of
// the context (GLib's own wake-up descriptor, which it polls anyway) and nothing more: no
// descriptor of the bridge's own is added to or removed from every poll. A trigger on the
// dispatcher's thread while its loop dispatches only sets the flag. Discard waits (blocking)
// for triggers that other threads have under way, so none touches the bridge after Discard
// returns; a trigger that starts after that is the caller's use of a destroyed object. It is
// also the signal sink that a port monitor gives its port.
class RdAsyncBridgeImpl : public RefCounted, public SimpleAsyncInterface {
  public:
    // traced: whether each run is recorded as a bridge callback (a port monitor, whose bridge
    // calls it back, records its own).
    RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback,
                      bool traced = true);

    void Trigger() override;
    // Makes a run due from the dispatcher's thread while its loop dispatches: no wake-up.
    void MarkDue() { runDue_.store(true, std::memory_order_release); }
    void ChangeCb(std::function<void()> callback);
    // Waits for triggers under way, drops a pending run and the front's reference.
    void Discard();

  private:
    struct BridgeSource;

    ~RdAsyncBridgeImpl() override;
    static RdAsyncBridgeImpl* BridgeOf(GSource* source);
    static gboolean Prepare(GSource* source, gint* timeout);
    static gboolean Check(GSource* source);
    static gboolean Dispatch(GSource* source, GSourceFunc, gpointer);
    void Run();
    // Whether this thread is dispatching a source of the bridge's context, so that the loop
    // prepares its sources again before it next waits.
    bool InOwnDispatch() const;

    static GSourceFuncs sourceFuncs_;
    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    GMainContext* const context_;        // The dispatcher's; it outlives the bridge.
    RdCallback<void()> callback_;
    GSource* const source_;  // Ours and the context's reference; destroyed by Discard.
    // Set by the trigger that makes a run due, cleared just before that run calls back: any
    // trigger after the clearing makes another run due.
    std::atomic<bool> runDue_;
    InFlightGate triggers_;  // Triggers under way; closed by Discard.
    const bool traced_;      // Whether runs are recorded as bridge callbacks.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
