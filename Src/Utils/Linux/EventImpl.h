// Not public API. POSIX implementation of Event.
#ifndef VOK_SRC_UTILS_LINUX_EVENTIMPL_H
#define VOK_SRC_UTILS_LINUX_EVENTIMPL_H

#include <pthread.h>

#include <cstdint>

namespace vok {

// Manual-reset event: a flag under a plain mutex, waiters on a condition variable.
class EventImpl {
  public:
    EventImpl();
    ~EventImpl();
    EventImpl(const EventImpl&) = delete;
    EventImpl& operator=(const EventImpl&) = delete;

    void Signal();
    void Wait();
    void Reset();

  private:
    uint32_t signalled_;     // 0 or 1; protected by mutex_.
    pthread_cond_t cond_;    // Waiters for signalled_ to become 1.
    pthread_mutex_t mutex_;  // Protects signalled_.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_EVENTIMPL_H
