// A daemon's registers, blades, ports, log levels, trace and metrics served over the bus, for
// vokctl and other tools.
#ifndef VOK_DIAGBUSSERVICE_H
#define VOK_DIAGBUSSERVICE_H

#include <string>

namespace vok {

struct DaemonHooks;
class DiagBusServiceImpl;
class VokShell;

// The bus name a daemon serves its diagnostics on: "com.orvex.vok." + daemonName, with each
// character a bus name cannot hold turned into '_', and '_' put before a leading digit
// ("4g modem" is served as "com.orvex.vok._4g_modem"). Any thread.
std::string DiagBusServiceName(const std::string& daemonName);

// Serves diag/registers, diag/blades, diag/ports, diag/loglevel, diag/watch, diag/trace
// (switching the flight recorder, and its events since a time) and diag/metrics (OpenMetrics
// text) on the bus as DiagBusServiceName(shell's daemon name), from a thread and dispatcher of
// its own, so a blade that hangs does not hide itself. Long answers come as replies of at most
// 256 KiB each ({"part":I,"parts":N,"bytes":SIZE,"data":TEXT}), the text of more than one part to
// a subscribing request only. Construct and destroy on one thread (RunDaemon's hooks
// do it on the main thread); the shell must outlive the server. Construction starts the thread
// (a bus that cannot be reached is logged, not thrown); destruction ends every subscription,
// gives up the bus name and joins the thread.
class DiagBusService {
  public:
    // Starts serving shell's daemon on the bus from a new thread.
    explicit DiagBusService(const VokShell& shell);
    ~DiagBusService();
    DiagBusService(const DiagBusService&) = delete;
    DiagBusService& operator=(const DiagBusService&) = delete;

  private:
    DiagBusServiceImpl* pImpl_;  // Owned.
};

// Makes RunDaemon run a DiagBusService from just before the shell starts until every blade
// has stopped. Call it on the hooks given to RunDaemon after setting them: it chains to the
// hooks already there.
void EnableDiagBusService(DaemonHooks* hooks);

}  // namespace vok

#endif  // VOK_DIAGBUSSERVICE_H
