// Not public API. Implementation of RdTimerBase; also the alarm's fallback timer.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDTIMERIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDTIMERIMPL_H

#include <glib.h>

#include <functional>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/RdTimer.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Reference-counted one-shot timer; everything runs on the dispatcher's thread.
class RdTimerImpl : public RefCounted {
  public:
    RdTimerImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback);

    void Schedule(unsigned int milliseconds);
    // Fires every periodMs on a fixed grid: each due time is the previous one plus the period;
    // due times the loop has already missed are skipped, not made up.
    void SchedulePeriodic(unsigned int periodMs);
    void Cancel();
    void ChangeCb(std::function<void()> callback);
    // Disarms and drops the front's reference.
    void Discard();

    static gboolean CallbackFunc(void* data);

  private:
    ~RdTimerImpl() override;

    void ArmAt(const Timespec& expiry);
    // The next due time of a periodic timer after due_, skipping the ones already past.
    void AdvancePeriodic();

    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    RdCallback<void()> callback_;
    GSource* source_;    // The armed source, or null; the context holds its only reference.
    uint32_t periodMs_;  // 0: one shot.
    Timespec due_;       // The current due time.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDTIMERIMPL_H
