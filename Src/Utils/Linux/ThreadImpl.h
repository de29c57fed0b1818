// Not public API. GLib implementation of ThreadBase.
#ifndef VOK_SRC_UTILS_LINUX_THREADIMPL_H
#define VOK_SRC_UTILS_LINUX_THREADIMPL_H

#include <atomic>
#include <functional>
#include <string>

typedef struct _GThread GThread;

namespace vok {

// A joinable GLib thread running a stored callable. Owned by its ThreadBase.
class ThreadImpl {
  public:
    ThreadImpl(const std::string& name, const std::function<void()>& entry);
    // A thread started and not joined is joined here, so it never outlives what it uses: after a
    // critical line when it still runs; when it is the calling thread itself, the process aborts.
    ~ThreadImpl();
    ThreadImpl(const ThreadImpl&) = delete;
    ThreadImpl& operator=(const ThreadImpl&) = delete;

    void Start();
    void Join();
    const std::string& GetName() const { return name_; }

  private:
    static void* ThreadEntry(void* data);

    std::string name_;  // For the owner's use; not given to the operating system.
    GThread* pThread_;  // Null while no thread runs and after a join.
    std::function<void()> entry_;
    std::atomic<bool> running_;  // From Start until the callable has returned.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_THREADIMPL_H
