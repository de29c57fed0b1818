// The floor the message benchmarks are measured against: one small heap block through a
// mutex-guarded queue and back, on one thread.
#ifndef VOK_BENCH_SUPPORT_MALLOCDEQUEFLOOR_H
#define VOK_BENCH_SUPPORT_MALLOCDEQUEFLOOR_H

#include <cstdlib>
#include <deque>
#include <mutex>

namespace vok {
namespace bench {

// Allocates 68 bytes (a queued message on armhf), queues and dequeues it under the lock, frees it.
inline void MallocDequeRoundTrip(std::mutex& mutex, std::deque<void*>& queue) {
    void* block = std::malloc(68);
    {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(block);
    }
    void* got;
    {
        std::lock_guard<std::mutex> lock(mutex);
        got = queue.front();
        queue.pop_front();
    }
    std::free(got);
}

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_SUPPORT_MALLOCDEQUEFLOOR_H
