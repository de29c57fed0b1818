// Not public API. POSIX implementation of Mutex.
#ifndef VOK_SRC_UTILS_LINUX_MUTEXIMPL_H
#define VOK_SRC_UTILS_LINUX_MUTEXIMPL_H

#include <pthread.h>

namespace vok {

// A POSIX mutex of the recursive type.
class MutexImpl {
  public:
    MutexImpl();
    ~MutexImpl();
    MutexImpl(const MutexImpl&) = delete;
    MutexImpl& operator=(const MutexImpl&) = delete;

    void Lock();
    void Unlock();

  private:
    pthread_mutex_t mutex_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_MUTEXIMPL_H
