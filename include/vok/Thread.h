// Joinable threads running a bound callable.
#ifndef VOK_THREAD_H
#define VOK_THREAD_H

#include <functional>
#include <string>

namespace vok {

class ThreadImpl;

// A joinable thread that runs a nullary callable. The owner starts it once and joins it once,
// from any thread but the one it runs. Destroying the object joins a thread that was started and
// not joined (logging a critical line on "VOK.Thread" when it still runs; aborting when the
// thread destroys its own object), so the thread never outlives what it uses. An exception that
// leaves the callable is logged at critical level on "VOK.Thread" with the thread's name, and the
// process aborts. Not copyable.
class ThreadBase {
  public:
    // A thread that will run entry once started; name is for the owner's messages.
    ThreadBase(const std::string& name, const std::function<void()>& entry);
    virtual ~ThreadBase();
    ThreadBase(const ThreadBase&) = delete;
    ThreadBase& operator=(const ThreadBase&) = delete;

    // Starts the thread. Throws VokResourceException (kVokErrFailed) when it cannot be created.
    void Start();
    // Waits for the thread to end. Throws VokProgramErrorException (kVokErrFailed) when no
    // thread runs: never started, or already joined.
    void Join();
    // The name given at construction; kept for the owner, not given to the operating system.
    const std::string& GetName() const;

  private:
    ThreadImpl* pImpl_;
};

// A thread that calls object->method(argument).
class Thread : public ThreadBase {
  public:
    // A thread that will run object->method(argument) once started.
    template <typename T, typename Arg>
    Thread(const std::string& name, T* object, void (T::*method)(Arg), Arg argument)
        : ThreadBase(name, [object, method, argument]() { (object->*method)(argument); }) {}
};

}  // namespace vok

#endif  // VOK_THREAD_H
