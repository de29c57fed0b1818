// Not public API. A count of calls in flight that one thread can wait on, blocking.
#ifndef VOK_SRC_UTILS_LINUX_INFLIGHTGATE_H
#define VOK_SRC_UTILS_LINUX_INFLIGHTGATE_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>

namespace vok {

// Counts callers inside a short section (a trigger of a sink, say) so that the owner of what
// they use can wait until they have left before it lets go of it. Entering and leaving are one
// atomic operation each; a waiter sleeps in the kernel (never spins or yields, so a waiter of
// higher real-time priority cannot starve the caller it waits for) and the last caller out
// wakes it. Once closed, TryEnter refuses. Leave touches the gate for the last time with its
// atomic decrement; the wake-up that may follow only passes the address to the kernel, so the
// waiter may destroy the gate as soon as WaitIdle returns. Any thread may use it.
class InFlightGate {
  public:
    InFlightGate() : word_(0) {}
    InFlightGate(const InFlightGate&) = delete;
    InFlightGate& operator=(const InFlightGate&) = delete;

    // Enters unless closed; true must be paired with Leave.
    bool TryEnter() {
        uint32_t value = word_.load(std::memory_order_relaxed);
        do {
            if ((value & kClosed) != 0) {
                return false;
            }
        } while (!word_.compare_exchange_weak(value, value + 1, std::memory_order_acquire,
                                              std::memory_order_relaxed));
        return true;
    }
    // Enters whether closed or not; the caller keeps new callers out by other means.
    void Enter() { word_.fetch_add(1, std::memory_order_acquire); }
    void Leave() {
        std::atomic<uint32_t>* const word = &word_;
        const uint32_t before = word->fetch_sub(1, std::memory_order_release);
        if ((before & kCountMask) == 1 && (before & kWaiting) != 0) {
            // The waiter clears the flag itself; waking everyone is cheap and rare.
            (void)syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX,
                          nullptr, nullptr, 0);
        }
    }
    // Refuses later TryEnter calls, then waits as WaitIdle does.
    void CloseAndWait() {
        word_.fetch_or(kClosed, std::memory_order_acq_rel);
        WaitIdle();
    }
    // Returns once no caller is inside.
    void WaitIdle() {
        uint32_t value = word_.load(std::memory_order_acquire);
        while ((value & kCountMask) != 0) {
            if ((value & kWaiting) == 0 &&
                !word_.compare_exchange_weak(value, value | kWaiting, std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
                continue;
            }
            (void)syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word_), FUTEX_WAIT_PRIVATE,
                          value | kWaiting, nullptr, nullptr, 0);
            value = word_.load(std::memory_order_acquire);
        }
        word_.fetch_and(~kWaiting, std::memory_order_relaxed);
    }

  private:
    static constexpr uint32_t kClosed = 0x80000000u;
    static constexpr uint32_t kWaiting = 0x40000000u;
    static constexpr uint32_t kCountMask = 0x3FFFFFFFu;
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex word");

    std::atomic<uint32_t> word_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_INFLIGHTGATE_H
