// Not public API. Implementation of RdAsyncBridgeBase: a GLib source that owns no descriptor.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H

#include <glib.h>

#include <functional>

#include "Src/Utils/Linux/InFlightGate.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RdFlagSource.h"
#include "vok/SimpleAsyncInterface.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Trigger runs on any thread; everything else on the dispatcher's thread. The reference count
// is touched on the dispatcher's thread only. The source, an RdFlagSource whose flag a trigger
// raises, is attached for the bridge's whole life: a run costs at most one wake-up of the
// context, and a trigger on the dispatcher's thread while its loop dispatches only raises the
// flag. Discard waits (blocking)
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
    void MarkDue() { runDue_.RaiseWithoutWake(); }
    void ChangeCb(std::function<void()> callback);
    // Waits for triggers under way, drops a pending run and the front's reference.
    void Discard();

  private:
    ~RdAsyncBridgeImpl() override;
    void Run();

    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    GMainContext* const context_;        // The dispatcher's; it outlives the bridge.
    RdCallback<void()> callback_;
    // Raised by the trigger that makes a run due, lowered just before that run calls back: any
    // trigger after the lowering makes another run due.
    RdFlagSource runDue_;
    GSource* const source_;  // Ours and the context's reference; destroyed by Discard.
    InFlightGate triggers_;  // Triggers under way; closed by Discard.
    const bool traced_;      // Whether runs are recorded as bridge callbacks.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
