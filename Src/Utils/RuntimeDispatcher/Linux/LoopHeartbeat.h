// Not public API. How a blade thread shows the shell that its loop turns.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_LOOPHEARTBEAT_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_LOOPHEARTBEAT_H

#include <glib.h>

#include <atomic>
#include <cstdint>

namespace vok {

// The liveness of one thread's loops. The owning thread writes it; any thread reads it. A loop
// that waits for events is healthy however long it waits (any event would be served at once), so
// the loop marks itself waiting before it polls and busy when the poll returns: the busy time of
// a thread is how long it has gone without coming back to wait. A dispatcher created on a thread
// that has a heartbeat reports to it, with no wake-up of its own; code without a loop calls Beat.
class LoopHeartbeat {
  public:
    // The calling thread is busy from now on.
    void Beat() { busySinceUs_.store(g_get_monotonic_time(), std::memory_order_relaxed); }
    // The calling thread waits for events.
    void Waiting() { busySinceUs_.store(kWaiting, std::memory_order_relaxed); }
    // Microseconds the thread has been busy at monotonic time nowUs; 0 while it waits.
    int64_t BusyUs(int64_t nowUs) const {
        const int64_t since = busySinceUs_.load(std::memory_order_relaxed);
        return since == kWaiting || since > nowUs ? 0 : nowUs - since;
    }

    // The heartbeat of the calling thread, or null (the thread is no blade's).
    static LoopHeartbeat* ForThisThread();
    static void SetForThisThread(LoopHeartbeat* heartbeat);

  private:
    static const int64_t kWaiting = -1;
    std::atomic<int64_t> busySinceUs_{0};
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_LOOPHEARTBEAT_H
