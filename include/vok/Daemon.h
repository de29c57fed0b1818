// The main program of a daemon built on a VokShell.
#ifndef VOK_DAEMON_H
#define VOK_DAEMON_H

#include <functional>
#include <vector>

#include "vok/VokShell.h"

namespace vok {

// Optional steps of RunDaemon, all run on the main thread (the one that called RunDaemon) while
// the blades run on theirs. An exception from a hook leaves RunDaemon once the shell has stopped.
struct DaemonHooks {
    // After the shell is built, before it starts: blades may then use what it sets up.
    std::function<void(VokShell&)> beforeStart;
    // After every blade has stopped, before the shell is destroyed.
    std::function<void(VokShell&)> beforeDestroy;
    // On SIGHUP (typically: read the configuration again). Without it, SIGHUP stops the daemon
    // as SIGTERM does.
    std::function<void(VokShell&)> onReload;
    // On SIGUSR1. Without it, the signal is logged as ignored: it never stops the daemon.
    std::function<void(VokShell&)> onUser1;
    // On SIGUSR2, as onUser1 on SIGUSR1.
    std::function<void(VokShell&)> onUser2;
    // Set by EnableDiagBusService; without it, RunDaemon enables the service itself when the
    // environment has VOK_DIAG_BUS=1.
    bool diagBusService = false;
};

// Runs a daemon's shell on the calling thread, which must be the main thread before any other
// thread has started: blocks SIGINT, SIGTERM, SIGHUP, SIGUSR1 and SIGUSR2 in every thread (they
// stay blocked after RunDaemon returns), builds and starts the shell, and waits for the shell or a
// signal. SIGINT, SIGTERM, and SIGHUP when no onReload hook is set, ask the shell to stop; SIGHUP
// with onReload, SIGUSR1 and SIGUSR2 call their hooks. Once every blade has returned the shell is
// destroyed here and RunDaemon returns 0 (the exit status for main). The shell tells the service
// manager about readiness, the stop and its watchdog (see VokShell); a stop that passes the
// daemon's stop deadline ends the process with kVokShellStopDeadlineExitStatus instead.
// *stopSignal, when given, receives the signal that stopped the daemon (0: its blades all
// returned on their own). Throws VokResourceException when the descriptors it waits on cannot be
// made.
int RunDaemon(const VokShellDaemonInfo& daemonInfo,
              const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
              const DaemonHooks& hooks = DaemonHooks(), int* stopSignal = nullptr);

}  // namespace vok

#endif  // VOK_DAEMON_H
