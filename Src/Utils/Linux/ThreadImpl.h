// Not public API. GLib implementation of ThreadBase.
#ifndef VOK_SRC_UTILS_LINUX_THREADIMPL_H
#define VOK_SRC_UTILS_LINUX_THREADIMPL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

namespace vok {

// A joinable POSIX thread running a stored callable, named for the operating system after its
// owner's name. Owned by its ThreadBase.
class ThreadImpl {
  public:
    ThreadImpl(const std::string& name, const std::function<void()>& entry);
    ~ThreadImpl();
    ThreadImpl(const ThreadImpl&) = delete;
    ThreadImpl& operator=(const ThreadImpl&) = delete;

    void Start();
    void Join();
    const std::string& GetName() const { return name_; }
    void SetStackSize(size_t bytes) { stackBytes_ = bytes; }

  private:
    static void* ThreadEntry(void* data);

    std::string name_;   // The owner's; its first 15 bytes name the OS thread.
    pthread_t thread_;   // Valid while started_.
    bool started_;       // Started and not yet joined.
    size_t stackBytes_;  // For the next Start; 0: the C library's default.
    std::function<void()> entry_;
    std::atomic<bool> running_;  // From Start until the callable has returned.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_THREADIMPL_H
