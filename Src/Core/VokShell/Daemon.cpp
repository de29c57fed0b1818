#include "vok/Daemon.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Src/Utils/VokThrow.h"
#include "vok/DiagBusService.h"
#include "vok/Logger.h"

namespace vok {

namespace {

// A descriptor closed when it goes out of scope.
class ScopedFd {
  public:
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int Get() const { return fd_; }

  private:
    int fd_;
};

// Calls hook, or says that the signal is ignored when the daemon set none.
void CallSignalHook(const std::function<void(VokShell&)>& hook, VokShell& shell,
                    const char* signalName) {
    if (hook) {
        hook(shell);
        return;
    }
    static const Logger logger("VOK.Shell");
    logger.Warning("RunDaemon: ignoring %s: the daemon set no hook for it", signalName);
}

}  // namespace

int RunDaemon(const VokShellDaemonInfo& daemonInfo,
              const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
              const DaemonHooks& givenHooks, int* stopSignal) {
    DaemonHooks hooks = givenHooks;
    const char* wanted = std::getenv("VOK_DIAG_BUS");
    if (!hooks.diagBusService && wanted != nullptr && std::strcmp(wanted, "1") == 0) {
        EnableDiagBusService(&hooks);
    }
    // Blocked before any thread starts, so every thread inherits the mask and only the signalfd
    // below takes these signals.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // The shell's completion arrives on an eventfd of its own, so that no signal from outside
    // can pass for it.
    const ScopedFd signalFd(signalfd(-1, &signals, SFD_CLOEXEC));
    const ScopedFd doneFd(eventfd(0, EFD_CLOEXEC));
    if (signalFd.Get() < 0 || doneFd.Get() < 0) {
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, "no descriptor for the daemon's signals");
    }

    const int done = doneFd.Get();
    // The shell is destroyed (and its thread joined) before doneFd closes.
    std::unique_ptr<VokShell> shell(new VokShell(daemonInfo, bladeLoaders, [done]() {
        const uint64_t one = 1;
        while (write(done, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }));
    if (hooks.beforeStart) {
        hooks.beforeStart(*shell);
    }
    shell->StartUp();
    int received = 0;
    for (;;) {
        pollfd fds[2] = {{done, POLLIN, 0}, {signalFd.Get(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;  // Another signal's handler ran on this thread.
            }
            VOK_THROW_RESOURCE_ERROR(kVokErrFailed, "waiting for the daemon's signals failed");
        }
        if (fds[0].revents != 0) {
            break;
        }
        signalfd_siginfo info;
        if (read(signalFd.Get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
            continue;
        }
        const int signal = static_cast<int>(info.ssi_signo);
        if (signal == SIGUSR1) {
            CallSignalHook(hooks.onUser1, *shell, "SIGUSR1");
        } else if (signal == SIGUSR2) {
            CallSignalHook(hooks.onUser2, *shell, "SIGUSR2");
        } else if (signal == SIGHUP && hooks.onReload) {
            hooks.onReload(*shell);
        } else {
            received = signal;
            shell->RequestStop();
        }
    }
    if (hooks.beforeDestroy) {
        hooks.beforeDestroy(*shell);
    }
    shell.reset();
    if (stopSignal != nullptr) {
        *stopSignal = received;
    }
    return 0;
}

}  // namespace vok
