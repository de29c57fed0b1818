// Recursive mutex and its scoped locker.
#ifndef VOK_MUTEX_H
#define VOK_MUTEX_H

#include <pthread.h>

namespace vok {

// A recursive mutex: the thread holding it may lock it again and must unlock it as many times.
// Any thread may use it; not copyable. Failures of the underlying calls throw
// VokResourceException carrying the call's result. Destroy it only while unlocked.
// The POSIX mutex is held inline and locked inline: a lock and an unlock cost one library call
// each, with no allocation and no indirection.
class Mutex {
  public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Locks, waiting while another thread holds the mutex; a holder may lock again.
    void Lock() {
        const int result = pthread_mutex_lock(&mutex_);
        if (__builtin_expect(result != 0, 0)) {
            LockFailed(result);
        }
    }
    // Undoes one Lock of the calling thread.
    void Unlock() {
        const int result = pthread_mutex_unlock(&mutex_);
        if (__builtin_expect(result != 0, 0)) {
            UnlockFailed(result);
        }
    }

  private:
    [[noreturn]] static void LockFailed(int result);
    [[noreturn]] static void UnlockFailed(int result);

    pthread_mutex_t mutex_;
};

// Holds a Mutex for the lifetime of a scope: locks on construction, unlocks on destruction.
class MutexLocker {
  public:
    // Locks mutex until the locker is destroyed.
    explicit MutexLocker(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLocker() { mutex_.Unlock(); }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace vok

#endif  // VOK_MUTEX_H
