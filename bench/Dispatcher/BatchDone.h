// Completion of a batch of round trips, handed from a loop thread to the measuring thread.
#ifndef VOK_BENCH_DISPATCHER_BATCHDONE_H
#define VOK_BENCH_DISPATCHER_BATCHDONE_H

#include <condition_variable>
#include <mutex>

namespace vok {
namespace bench {

// The end of a batch, signalled by a loop thread to the measuring thread. Reset before the batch
// starts; any thread may signal; one thread waits.
class BatchDone {
  public:
    void Reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = false;
    }
    void Signal() {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
        cond_.notify_one();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this]() { return done_; });
    }

  private:
    std::mutex mutex_;  // guards done_
    std::condition_variable cond_;
    bool done_ = false;
};

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_DISPATCHER_BATCHDONE_H
