// Readiness of a MessageMover port, reported on a dispatcher's thread.
#ifndef VOK_RDPORTMONITOR_H
#define VOK_RDPORTMONITOR_H

#include <functional>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class PortEventInterface;
class RdPortMonitorImpl;

// Watches a MessageMover port (not owned; it must outlive the monitor) and calls back
// (readable, writable, exception) on the dispatcher's thread for the conditions in the mask.
// The callback is called again on later loop iterations for as long as a watched condition
// holds, so it need not drain the port in one call. The port signals the monitor from whatever
// thread changes it; everything else happens on the dispatcher's thread, where the monitor is
// created, used and destroyed. The callback may destroy the monitor. Destroying it unregisters
// it from the port; discarding the port first is refused with VokProgramErrorException.
class RdPortMonitorBase : private Uncopyable {
  public:
    // Registers with port; nothing is watched until SetEventMask.
    RdPortMonitorBase(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                      std::function<void(bool, bool, bool)> callback);
    virtual ~RdPortMonitorBase();

    // Sets the watched conditions; a condition that already holds is reported without waiting
    // for a new port event. Only readability can be watched: a port is always writable and
    // raises no exceptions, so write or exception throws VokProgramErrorException.
    void SetEventMask(bool read, bool write, bool exception);
    // Replaces the callback.
    void ChangeCb(std::function<void(bool, bool, bool)> callback);

  private:
    RdPortMonitorImpl* impl_;  // One reference.
};

// The port monitor a dispatcher's users create; see RdPortMonitorBase.
class RdPortMonitor : public RdPortMonitorBase {
  public:
    // See RdPortMonitorBase.
    RdPortMonitor(PortEventInterface& port, RuntimeDispatcher& dispatcher,
                  std::function<void(bool, bool, bool)> callback)
        : RdPortMonitorBase(port, dispatcher, std::move(callback)) {}
    ~RdPortMonitor() override = default;
};

}  // namespace vok

#endif  // VOK_RDPORTMONITOR_H
