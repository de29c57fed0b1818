// Ends a blade's dispatcher run when the shell's stop event arrives.
#ifndef VOK_BLADESTOPWATCHER_H
#define VOK_BLADESTOPWATCHER_H

#include <memory>

namespace vok {

class RdPortMonitor;
class RuntimeDispatcher;
class ServiceBladeEnvironment;

// The usual way for a blade to wait for its stop: watches the environment's control port on the
// blade's dispatcher, frees every message read there, and asks the dispatcher to stop when it
// reads kVokBladeStopEvtMsg. Create, use and destroy it on the blade's thread, inside Run, before
// running the dispatcher; destroy it before Run returns.
class BladeStopWatcher {
  public:
    // Starts watching environment's control port on dispatcher.
    BladeStopWatcher(ServiceBladeEnvironment* environment, RuntimeDispatcher& dispatcher);
    ~BladeStopWatcher();
    BladeStopWatcher(const BladeStopWatcher&) = delete;
    BladeStopWatcher& operator=(const BladeStopWatcher&) = delete;

    // True once the stop event has been read.
    bool StopRequested() const { return stopRequested_; }

  private:
    void ReadControlPort();

    ServiceBladeEnvironment* pEnvironment_;
    RuntimeDispatcher& dispatcher_;
    bool stopRequested_;
    std::unique_ptr<RdPortMonitor> monitor_;
};

}  // namespace vok

#endif  // VOK_BLADESTOPWATCHER_H
