#include "vok/Daemon.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "vok/DiagBusService.h"

namespace vok {

int RunDaemon(const VokShellDaemonInfo& daemonInfo,
              const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
              const DaemonHooks& givenHooks, int* stopSignal) {
    DaemonHooks hooks = givenHooks;
    const char* wanted = std::getenv("VOK_DIAG_BUS");
    if (!hooks.diagBusService && wanted != nullptr && std::strcmp(wanted, "1") == 0) {
        EnableDiagBusService(&hooks);
    }
    // Blocked before any thread starts, so every thread inherits the mask and only sigwait below
    // takes these signals. The shell's completion is reported with SIGUSR1 to the process.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::unique_ptr<VokShell> shell(
        new VokShell(daemonInfo, bladeLoaders, []() { kill(getpid(), SIGUSR1); }));
    if (hooks.beforeStart) {
        hooks.beforeStart(*shell);
    }
    shell->StartUp();
    int received = 0;
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) {
            continue;
        }
        if (signal == SIGUSR1) {
            break;
        }
        received = signal;
        shell->RequestStop();
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
