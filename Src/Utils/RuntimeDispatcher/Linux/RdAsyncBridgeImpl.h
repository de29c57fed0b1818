// Not public API. Implementation of RdAsyncBridgeBase on a GLib idle source.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H

#include <glib.h>

#include <functional>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/Mutex.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Trigger runs on any thread; everything else on the dispatcher's thread. The reference count
// is touched on the dispatcher's thread only.
class RdAsyncBridgeImpl : public RefCounted {
  public:
    RdAsyncBridgeImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback);

    void Trigger();
    void ChangeCb(std::function<void()> callback);
    // Drops a pending run and the front's reference.
    void Discard();

    static gboolean CallbackFunc(void* data);

  private:
    ~RdAsyncBridgeImpl() override = default;

    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    RdCallback<void()> callback_;
    Mutex lock_;       // Protects source_: makes the test-and-create atomic with its clearing.
    GSource* source_;  // The pending idle source, or null; the context holds its only reference.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDASYNCBRIDGEIMPL_H
