// The main program of a daemon built on a VokShell.
#ifndef VOK_DAEMON_H
#define VOK_DAEMON_H

#include <functional>
#include <vector>

#include "vok/VokShell.h"

namespace vok {

// Optional steps of RunDaemon, both run on the main thread.
struct DaemonHooks {
    // After the shell is built, before it starts: blades may then use what it sets up.
    std::function<void(VokShell&)> beforeStart;
    // After every blade has stopped, before the shell is destroyed.
    std::function<void(VokShell&)> beforeDestroy;
    // Set by EnableDiagBusService; without it, RunDaemon enables the service itself when the
    // environment has VOK_DIAG_BUS=1.
    bool diagBusService = false;
};

// Runs a daemon's shell on the calling thread, which must be the main thread before any other
// thread has started: blocks SIGINT, SIGTERM and SIGUSR1 in every thread, builds and starts the
// shell, and waits. SIGINT or SIGTERM asks the shell to stop; once every blade has returned the
// shell is destroyed here and RunDaemon returns 0 (the exit status for main). The shell tells the
// service manager about readiness, the stop and its watchdog (see VokShell); a stop that passes
// the daemon's stop deadline ends the process with kVokShellStopDeadlineExitStatus instead.
// *stopSignal, when given, receives the signal that stopped the daemon.
int RunDaemon(const VokShellDaemonInfo& daemonInfo,
              const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
              const DaemonHooks& hooks = DaemonHooks(), int* stopSignal = nullptr);

}  // namespace vok

#endif  // VOK_DAEMON_H
