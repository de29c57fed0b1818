// Recursive mutex and its scoped locker.
#ifndef VOK_MUTEX_H
#define VOK_MUTEX_H

namespace vok {

class MutexImpl;

// A recursive mutex: the thread holding it may lock it again and must unlock it as many times.
// Any thread may use it; not copyable. Failures of the underlying calls throw
// VokResourceException carrying the call's result. Destroy it only while unlocked.
class Mutex {
  public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock();
    void Unlock();

  private:
    MutexImpl* pImpl_;
};

// Holds a Mutex for the lifetime of a scope: locks on construction, unlocks on destruction.
class MutexLocker {
  public:
    explicit MutexLocker(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLocker() { mutex_.Unlock(); }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace vok

#endif  // VOK_MUTEX_H
