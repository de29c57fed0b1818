// One-shot millisecond timers on a dispatcher's thread, on the monotonic clock.
#ifndef VOK_RDTIMER_H
#define VOK_RDTIMER_H

#include <cstdint>
#include <functional>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class RdTimerImpl;

// A point or span of monotonic time; normalised nanoseconds lie in 0..999999999.
struct Timespec {
    // Seconds.
    int32_t tv_sec;
    // Nanoseconds.
    int32_t tv_nsec;
};

// Sum, with the nanoseconds carried into seconds.
Timespec operator+(const Timespec& a, const Timespec& b);
// Difference; a span is never negative, so a later b gives {0, 0}.
Timespec operator-(const Timespec& a, const Timespec& b);

// One-shot timer on the dispatcher's thread. Create, schedule, cancel and destroy it on that
// thread only; the callback runs there too and may re-arm or destroy the timer. It fires once,
// never before the interval has passed. Destroying it disarms it.
class RdTimerBase : private Uncopyable {
  public:
    // An idle timer on dispatcher's thread.
    RdTimerBase(RuntimeDispatcher& dispatcher, std::function<void()> callback);
    ~RdTimerBase();

    // Arms the timer to fire once after milliseconds; an earlier arming is cancelled.
    void Schedule(unsigned int milliseconds);
    // Disarms; nothing happens when idle.
    void Cancel();
    // Replaces the callback; the arming is kept.
    void ChangeCb(std::function<void()> callback);

  private:
    RdTimerImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDTIMER_H
