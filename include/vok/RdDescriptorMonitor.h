// Readiness of a file descriptor, reported on a dispatcher's thread.
#ifndef VOK_RDDESCRIPTORMONITOR_H
#define VOK_RDDESCRIPTORMONITOR_H

#include <functional>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class RdDescriptorMonitorImpl;

// Watches a file descriptor (not owned, never closed here) for readability, writability and
// exceptional conditions, level-triggered: the callback (readable, writable, exception) runs on
// the dispatcher's thread for as long as a watched condition holds. An error, hang-up or invalid
// descriptor reports every watched direction as ready. Use on the dispatcher's thread only; the
// callback may destroy the monitor. Destroying it removes the watch.
class RdDescriptorMonitorBase : private Uncopyable {
  public:
    // Nothing is watched until SetEventMask.
    RdDescriptorMonitorBase(int fd, RuntimeDispatcher& dispatcher,
                            std::function<void(bool, bool, bool)> callback);
    ~RdDescriptorMonitorBase();

    // Replaces the watch; all false removes it.
    void SetEventMask(bool read, bool write, bool exception);
    // Replaces the callback.
    void ChangeCb(std::function<void(bool, bool, bool)> callback);

  private:
    RdDescriptorMonitorImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDDESCRIPTORMONITOR_H
