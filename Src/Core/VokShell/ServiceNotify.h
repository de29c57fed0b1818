// Not public API. The service manager's notification protocol (sd_notify).
#ifndef VOK_SRC_CORE_VOKSHELL_SERVICENOTIFY_H
#define VOK_SRC_CORE_VOKSHELL_SERVICENOTIFY_H

#include <cstdint>
#include <string>

namespace vok {

class Logger;

// Sends state ("READY=1", "STATUS=...", several separated by newlines) to the service manager.
// Does nothing when NOTIFY_SOCKET is unset; a failed send is logged at warning level.
void NotifyServiceManager(const Logger& logger, const std::string& state);

// The watchdog interval the service manager asks this process for, in microseconds; 0 for none.
uint64_t ServiceWatchdogUsec();

}  // namespace vok

#endif  // VOK_SRC_CORE_VOKSHELL_SERVICENOTIFY_H
