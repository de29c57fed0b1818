// The daemon main loop of the apps, forwarding to vok::RunDaemon.
#ifndef VOK_APPS_COMMON_DAEMONMAIN_H
#define VOK_APPS_COMMON_DAEMONMAIN_H

#include <functional>
#include <vector>

#include "vok/Daemon.h"

namespace vok {
namespace apps {

// vok::RunDaemon with the hooks given one by one; returns the signal that stopped the daemon.
inline int RunDaemon(const VokShellDaemonInfo& info,
                     const std::vector<VokBladeLoaderInterface*>& loaders,
                     const std::function<void(VokShell&)>& beforeStart,
                     const std::function<void(VokShell&)>& beforeDestroy) {
    DaemonHooks hooks;
    hooks.beforeStart = beforeStart;
    hooks.beforeDestroy = beforeDestroy;
    int signal = 0;
    vok::RunDaemon(info, loaders, hooks, &signal);
    return signal;
}

}  // namespace apps
}  // namespace vok

#endif  // VOK_APPS_COMMON_DAEMONMAIN_H
