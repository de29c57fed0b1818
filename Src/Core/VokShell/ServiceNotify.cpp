#include "Src/Core/VokShell/ServiceNotify.h"

#include <systemd/sd-daemon.h>

#include <cstring>

#include "vok/Logger.h"

namespace vok {

void NotifyServiceManager(const Logger& logger, const std::string& state) {
    const int result = sd_notify(0, state.c_str());
    if (result < 0) {
        logger.Warning("Could not notify the service manager of <%s>: %s", state.c_str(),
                       std::strerror(-result));
    }
}

uint64_t ServiceWatchdogUsec() {
    uint64_t usec = 0;
    return sd_watchdog_enabled(0, &usec) > 0 ? usec : 0;
}

}  // namespace vok
