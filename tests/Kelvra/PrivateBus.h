// A private D-Bus daemon for tests and benchmarks, and child processes that use it.
#ifndef VOK_TESTS_KELVRA_PRIVATEBUS_H
#define VOK_TESTS_KELVRA_PRIVATEBUS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace vok {
namespace test {

// A child process, reaped by its owner; it gets SIGTERM when the thread that started it dies first.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts argv[0] (from PATH), when emulated through VOK_TEST_EMULATOR (qemu-arm); standard
    // output to a pipe when captureOutput. Aborts when the start fails.
    void Start(const std::vector<std::string>& argv, bool emulated, bool captureOutput);
    // One line of the output, without its newline (empty at its end); or all of it.
    std::string ReadLine();
    std::string ReadAll();
    void Kill(int signal);
    // SIGSTOP; returns once every thread of the child has stopped.
    void Pause();
    int Wait();  // the wait status
    bool Running() const { return pid_ > 0; }

  private:
    pid_t pid_ = -1;
    int outFd_ = -1;
};

// dbus-daemon on a socket in a temporary directory, which Stop (or destruction) removes.
class PrivateBus {
  public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& Start();  // returns the address
    void Stop();
    const std::string& Address() const { return address_; }
    // Kills the daemon (its clients lose their connections); Restart brings it back there.
    void Kill(int signal) {
        daemon_.Kill(signal);
        daemon_.Wait();
    }
    void Restart() { Launch(); }

  private:
    void Launch();

    ChildProcess daemon_;
    std::string dir_;
    std::string address_;
};

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_KELVRA_PRIVATEBUS_H
