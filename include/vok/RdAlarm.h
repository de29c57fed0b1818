// One-shot relative alarms that can wake the device, with a timer as fallback.
#ifndef VOK_RDALARM_H
#define VOK_RDALARM_H

#include <functional>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class RdAlarmImpl;

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

  private:
    RdAlarmImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDALARM_H
