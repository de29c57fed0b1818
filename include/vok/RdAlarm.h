// One-shot relative alarms that can wake the device, with a timer as fallback.
#ifndef VOK_RDALARM_H
#define VOK_RDALARM_H

#include <functional>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class RdAlarmImpl;

// What fired an alarm (RdAlarmBase::GetFiredBy).
enum RdAlarmFiredBy {
    kRdAlarmNotFired = 0,             // not fired since the last Schedule
    kRdAlarmFiredByPowerService = 1,  // the power service's alarm (it can wake the device)
    kRdAlarmFiredByTimer = 2,         // the fallback timer (the service was down or failed)
};

// Like a timer (Schedule, Cancel, ChangeCb), but set as an alarm of the power service
// "com.orvex.power" while that service is up, so it can wake a suspended device; while the
// service is down, or does not answer, or answers nonsense, it runs on an ordinary dispatcher
// timer. Moving between the two keeps the due time. The callback runs once per Schedule and never
// early (the service is asked for whole seconds, rounded up). Create (which registers the
// dispatcher on the bus), use and destroy on the dispatcher's thread; the callback runs there and
// may destroy the alarm or change its callback.
class RdAlarmBase : private Uncopyable {
  public:
    // An idle alarm on dispatcher's thread.
    RdAlarmBase(RuntimeDispatcher& dispatcher, std::function<void()> callback);
    virtual ~RdAlarmBase();

    // Arms the alarm to fire once after milliseconds; an earlier arming is cancelled.
    void Schedule(unsigned int milliseconds);
    // Disarms; nothing happens when idle.
    void Cancel();
    // Replaces the callback; the arming is kept.
    void ChangeCb(std::function<void()> callback);
    // How the alarm fired last: inside the callback, what fired it now; kRdAlarmNotFired from
    // Schedule until it fires.
    RdAlarmFiredBy GetFiredBy() const;

  private:
    RdAlarmImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDALARM_H
