// Not public API. Implementation of RdPortMonitorBase: an async bridge as the port's sink.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H

#include <functional>
#include <memory>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/VokTypes.h"

namespace vok {

class PortEventInterface;
class RdAsyncBridge;
class RuntimeDispatcher;

// Everything runs on the dispatcher's thread; the port triggers the bridge from any thread.
class RdPortMonitorImpl : public RefCounted {
  public:
    RdPortMonitorImpl(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                      std::function<void(bool, bool, bool)> callback);

    void SetEventMask(bool read, bool write, bool exception);
    void ChangeCb(std::function<void(bool, bool, bool)> callback);
    // The port's state, masked.
    void CheckPort(bool* readable, bool* writable, bool* exception);
    // Unregisters from the port and drops the front's reference.
    void Discard();

  private:
    ~RdPortMonitorImpl() override;
    // Run by the bridge on the dispatcher's thread.
    void CallbackFunc(RdAsyncBridge* bridge, void* user);

    PortEventInterface& port_;  // Not owned; outlives the monitor.
    RuntimeDispatcher& dispatcher_;
    RdCallback<void(bool, bool, bool)> callback_;
    bool maskRead_;
    bool maskWrite_;
    bool maskException_;
    // The port's signal sink from construction to Discard, so it outlives that window.
    std::unique_ptr<RdAsyncBridge> bridge_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H
