// A private D-Bus daemon for tests and benchmarks, and child processes that use it. Nothing here
// touches the machine's own buses.
#ifndef VOK_TESTS_KELVRA_PRIVATEBUS_H
#define VOK_TESTS_KELVRA_PRIVATEBUS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace vok {
namespace test {

// A child process. When VOK_TEST_EMULATOR is set (armhf under qemu-arm, where the kernel cannot
// run ARM programs by itself), programs built here are started through it. The owner reaps it;
// should the owner's process die first, the child gets SIGTERM. That signal follows the thread
// that started the child: start children from a thread that outlives them.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts argv[0] (searched in PATH); emulated: through the emulator. Standard output goes to
    // a pipe when captureOutput, else it is inherited. Aborts the program when the start fails.
    void Start(const std::vector<std::string>& argv, bool emulated, bool captureOutput);
    // One line of the captured output, without its newline; empty at end of output.
    std::string ReadLine();
    // All captured output up to its end.
    std::string ReadAll();
    void Kill(int signal);
    // Stops the child with SIGSTOP and returns once every thread of it has stopped.
    void Pause();
    // Waits for the child and returns its wait status.
    int Wait();
    bool Running() const { return pid_ > 0; }

  private:
    pid_t pid_ = -1;
    int outFd_ = -1;
};

// dbus-daemon with a configuration of its own, listening on a socket under a temporary
// directory. Stop (or destruction) terminates and reaps it and removes the directory. Kill and
// Restart let tests take the bus away and bring it back at the same address.
class PrivateBus {
  public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Starts the daemon and returns its address.
    const std::string& Start();
    void Stop();
    const std::string& Address() const { return address_; }
    // Kills the daemon with signal (its clients lose their connections); the address stays.
    void Kill(int signal) {
        daemon_.Kill(signal);
        daemon_.Wait();
    }
    // Starts a killed daemon again at the same address.
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
