// Joinable threads running a bound callable.
#ifndef VOK_THREAD_H
#define VOK_THREAD_H

#include <cstddef>
#include <functional>
#include <string>

namespace vok {

// Stack size of the threads the library starts, unless their owner sets another. The C library's
// default is the stack rlimit, usually 8 MiB, reserved per thread; where overcommit is strict
// (vm.overcommit_memory=2, common on devices) every byte of it counts against the commit limit,
// so ten threads would take 80 MiB. The framework's own work on a thread (a GLib loop, bus and
// JSON calls, the MessageMover) needs a few tens of KiB; 512 KiB leaves room for blade code with
// buffers of some tens of KiB on its stack and moderate recursion. A blade that needs more (deep
// recursion, big local arrays) asks for it in VokShellDaemonInfo::threadStackBytes.
const size_t kVokDefaultThreadStackBytes = 512 * 1024;

class ThreadImpl;

// A joinable thread that runs a nullary callable. The owner starts it once and joins it once,
// from any thread but the one it runs. Destroying the object joins a thread that was started and
// not joined (logging a critical line on "VOK.Thread" when it still runs; aborting when the
// thread destroys its own object), so the thread never outlives what it uses. The operating
// system shows the thread under the first 15 bytes of its name (top -H, ps -L, gdb, perf,
// /proc/self/task/*/comm). An exception that leaves the callable is logged at critical level on
// "VOK.Thread" with the thread's name, and the process aborts. Not copyable.
class ThreadBase {
  public:
    // A thread that will run entry once started; name is for the owner's messages and the
    // operating system's thread name.
    ThreadBase(const std::string& name, const std::function<void()>& entry);
    virtual ~ThreadBase();
    ThreadBase(const ThreadBase&) = delete;
    ThreadBase& operator=(const ThreadBase&) = delete;

    // Starts the thread. Throws VokResourceException (kVokErrFailed) when it cannot be created.
    void Start();
    // Waits for the thread to end. Throws VokProgramErrorException (kVokErrFailed) when no
    // thread runs: never started, or already joined.
    void Join();
    // The name given at construction, whole (the operating system's is cut to 15 bytes).
    const std::string& GetName() const;
    // Stack size for the next Start, rounded up to whole pages and at least the system's minimum;
    // 0 takes the C library's default. Default: kVokDefaultThreadStackBytes.
    void SetStackSize(size_t bytes);

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
