// Runs a VokShell as a daemon's main program: stop on SIGINT or SIGTERM, wait for the shell's
// completion, then destroy it on the main thread.
#ifndef VOK_APPS_COMMON_DAEMONMAIN_H
#define VOK_APPS_COMMON_DAEMONMAIN_H

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

#include "vok/VokShell.h"

namespace vok {
namespace apps {

// Blocks SIGINT, SIGTERM and SIGUSR1 in every thread (call before any thread starts), builds the
// shell, starts it and waits on the main thread: SIGINT or SIGTERM asks the shell to stop; the
// shell's completion (SIGUSR1 to the process) ends the wait. beforeStart runs on the main thread
// after the shell is built and before it starts (blades may then use what it sets up);
// beforeDestroy runs on the main thread
// after the shell stopped and before it is destroyed. Returns the signal that stopped the daemon
// (0 when the shell stopped by itself).
inline int RunDaemon(const VokShellDaemonInfo& info,
                     const std::vector<VokBladeLoaderInterface*>& loaders,
                     const std::function<void(VokShell&)>& beforeStart,
                     const std::function<void(VokShell&)>& beforeDestroy) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::unique_ptr<VokShell> shell(new VokShell(info, loaders, []() { kill(getpid(), SIGUSR1); }));
    if (beforeStart) {
        beforeStart(*shell);
    }
    shell->StartUp();
    int stopSignal = 0;
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) {
            continue;
        }
        if (signal == SIGUSR1) {
            break;
        }
        stopSignal = signal;
        shell->RequestStop();
    }
    if (beforeDestroy) {
        beforeDestroy(*shell);
    }
    shell.reset();
    return stopSignal;
}

}  // namespace apps
}  // namespace vok

#endif  // VOK_APPS_COMMON_DAEMONMAIN_H
