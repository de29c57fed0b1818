// Not public API. Implementation of RdAsyncBridgeBase on an eventfd watched by a GLib source.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H

#include <glib.h>

#include <atomic>
#include <functional>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Trigger runs on any thread; everything else on the dispatcher's thread. The reference count
// is touched on the dispatcher's thread only. The source is attached for the bridge's whole life
// and watches the bridge's eventfd; a trigger writes to it, holding no lock (not even the GLib
// context's, which the woken thread takes first), and a trigger while a run is already due only
// reads a flag. Constructing throws VokResourceException when no eventfd can be had.
class RdAsyncBridgeImpl : public RefCounted {
  public:
    RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback);

    void Trigger();
    void ChangeCb(std::function<void()> callback);
    // Drops a pending run and the front's reference.
    void Discard();

  private:
    struct BridgeSource;

    ~RdAsyncBridgeImpl() override;
    static gboolean Dispatch(GSource* source, GSourceFunc, gpointer);
    void Run();

    static GSourceFuncs sourceFuncs_;
    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    RdCallback<void()> callback_;
    const int eventFd_;
    GSource* const source_;  // Ours and the context's reference; destroyed by Discard.
    // Set by the trigger that makes a run due, cleared just before that run calls back: any
    // trigger after the clearing makes another run due.
    std::atomic<bool> runDue_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
