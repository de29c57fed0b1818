// Not public API. Implementation of RdPortMonitorBase: an async bridge as the port's sink.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H

#include <functional>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/VokTypes.h"

namespace vok {

class PortEventInterface;
class RdAsyncBridgeImpl;
class RuntimeDispatcher;

// Everything runs on the dispatcher's thread; the port triggers the bridge from any thread.
// Only readability is watched: a MessageMover port is always writable and never raises an
// exception, so those conditions would hold for ever and the monitor would call back without
// end; SetEventMask refuses them.
class RdPortMonitorImpl : public RefCounted {
  public:
    RdPortMonitorImpl(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                      std::function<void(bool, bool, bool)> callback);

    // Throws VokProgramErrorException for write or exception, with nothing changed.
    void SetEventMask(bool read, bool write, bool exception);
    void ChangeCb(std::function<void(bool, bool, bool)> callback);
    // The port's state, masked.
    void CheckPort(bool* readable, bool* writable, bool* exception);
    // Unregisters from the port and drops the front's reference.
    void Discard();

  private:
    ~RdPortMonitorImpl() override;
    // Run by the bridge on the dispatcher's thread.
    void CallbackFunc();

    PortEventInterface& port_;  // Not owned; outlives the monitor.
    RdCallback<void(bool, bool, bool)> callback_;
    bool maskRead_;
    // The port's signal sink from construction to Discard; one reference.
    RdAsyncBridgeImpl* const bridge_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDPORTMONITORIMPL_H
