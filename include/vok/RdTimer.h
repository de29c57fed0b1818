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

// Timer on the dispatcher's thread: one shot (Schedule) or periodic at a fixed rate
// (SchedulePeriodic). Create, schedule, cancel and destroy it on that thread only; the callback
// runs there too and may re-arm, cancel or destroy the timer. It never fires before it is due.
// Destroying it disarms it.
class RdTimerBase : private Uncopyable {
  public:
    // An idle timer on dispatcher's thread.
    RdTimerBase(RuntimeDispatcher& dispatcher, std::function<void()> callback);
    ~RdTimerBase();

    // Arms the timer to fire once after milliseconds; an earlier arming is cancelled.
    void Schedule(unsigned int milliseconds);
    // Arms the timer to fire every periodMs from now on, until Cancel or another Schedule. The
    // rate does not drift: each due time is the previous due time plus the period, whenever the
    // callback actually ran. When the loop was late by more than a period, the beats it missed
    // are skipped, not run in a burst. Throws VokProgramErrorException (kVokErrFailed) for 0.
    void SchedulePeriodic(unsigned int periodMs);
    // Disarms; nothing happens when idle.
    void Cancel();
    // Replaces the callback; the arming is kept.
    void ChangeCb(std::function<void()> callback);

  private:
    RdTimerImpl* impl_;  // One reference.
};

}  // namespace vok

#endif  // VOK_RDTIMER_H
