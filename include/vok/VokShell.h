// The daemon host: runs each service blade on a thread of its own and stops them in order.
#ifndef VOK_VOKSHELL_H
#define VOK_VOKSHELL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vok/MmMessageHandle.h"
#include "vok/Thread.h"

namespace vok {

class MessageMoverFramework;
class MessageMoverInterface;
struct MmPortInfo;
class MmConnectionPort;
class VokShellImpl;

// Start modes a loader may report.
const int32_t kBladeStartModeAuto = 2;      // started at start-up
const int32_t kBladeStartModeDisabled = 3;  // must not be started
// Any other mode: not started.

// How long a requested stop may take by default, in milliseconds.
const uint32_t kVokShellDefaultStopDeadlineMs = 10000;
// The exit status of a process whose shell's stop passed its deadline (EX_SOFTWARE): the shell
// logs each blade that had not finished and ends the process, so the service manager restarts it.
const int kVokShellStopDeadlineExitStatus = 70;

// What the daemon says of itself. The shell copies it; blades get it through their loaders.
struct VokShellDaemonInfo {
    // Copies name and details.
    VokShellDaemonInfo(const std::string& name, const std::string& details)
        : daemonName(name), daemonDetails(details) {}
    std::string daemonName;     // Copied into every blade's environment.
    std::string daemonDetails;  // Passed to the loaders; the shell does not interpret it.
    // How long the blades may take to return once a stop is requested; 0 waits for ever.
    uint32_t stopDeadlineMs = kVokShellDefaultStopDeadlineMs;
    // Stack size of the shell thread and of every blade thread (see kVokDefaultThreadStackBytes
    // for why the default is far below the C library's 8 MiB); 0 takes the C library's default.
    size_t threadStackBytes = kVokDefaultThreadStackBytes;
};

class LoopHeartbeat;
class ServiceBladeEnvironment;

// One blade as the shell sees it at a given moment (VokShell::GetBladeStatus).
struct VokBladeStatus {
    std::string name;  // The blade's name, as its loader gives it.
    // "idle" (not started), "starting", "running", "stopping" or "stopped" (Run has returned).
    std::string state;
    int64_t busyMs;    // How long its thread has gone without waiting for events; 0 while it waits.
    int32_t threadId;  // The kernel's id of the blade's thread (as in ps -L); 0 while none runs.
};

// One blade's code. Run is its whole life, on the blade's own thread: it typically runs a
// dispatcher with a port monitor on the environment's control port, serves requests through the
// environment's interface, and must return when it reads kVokBladeStopEvtMsg on the control port
// (it may also return on its own at any time). Everything the blade created through its
// interface must be given back before Run returns, or it is reported as leaked. Run must not let
// an exception escape: the shell reports it and stops the process. Owned by its loader.
class ServiceBlade {
  public:
    // The blade's life; see the class comment.
    virtual void Run(ServiceBladeEnvironment* environment) = 0;
    virtual ~ServiceBlade() = default;
};

// Provides one blade; implemented by the application, which owns it and keeps it alive longer
// than the shell. GetBladeName and GetStartMode are called on the shell thread, the others on
// the blade's thread: LoadBlade, then GetServiceBlade, then (after Run returned) UnloadBlade.
class VokBladeLoaderInterface {
  public:
    virtual ~VokBladeLoaderInterface() = default;
    // Constant for the loader's life: names the thread, the interface ("blade_" + name) and
    // every log line about the blade.
    virtual const std::string& GetBladeName() const = 0;
    // One of the kBladeStartMode values.
    virtual int32_t GetStartMode() const = 0;
    // Prepares the blade. An exception here is reported and stops the process.
    virtual void LoadBlade(const VokShellDaemonInfo& daemonInfo) = 0;
    // Releases what LoadBlade and GetServiceBlade made, the blade included.
    virtual void UnloadBlade() = 0;
    // The blade LoadBlade prepared; the loader keeps ownership.
    virtual ServiceBlade* GetServiceBlade() = 0;
};

// What a running blade is given. Created by the shell before the blade thread starts and deleted
// after it is joined; the blade only reads it, on its own thread.
//
// Liveness: the shell's watchdog and stop deadline need to know that a blade's thread still
// serves. Every RuntimeDispatcher created on the blade's thread reports that by itself: a loop
// waiting for events is live, and one busy in a callback is live for as long as the callback
// lasts. A blade whose Run does its own loop instead calls Heartbeat at least once every quarter
// of GetWatchdogUsec (while that is not 0) and whenever it goes back to wait.
class ServiceBladeEnvironment {
  public:
    // Made by the shell for each blade.
    ServiceBladeEnvironment(const std::string& daemonName, const std::string& bladeName,
                            MessageMoverInterface* iface, MmConnectionPort* controlPort)
        : daemonName_(daemonName),
          bladeName_(bladeName),
          pMmIface_(iface),
          pControlPort_(controlPort) {}

    // The daemon's name, from VokShellDaemonInfo.
    const std::string& GetDaemonName() const { return daemonName_; }
    // The loader's blade name.
    const std::string& GetBladeName() const { return bladeName_; }
    // The blade's own interface ("blade_" + blade name), owned by the shell.
    MessageMoverInterface* GetMmInterface() const { return pMmIface_; }
    // The blade's end of its control connection, owned by the shell; the stop event arrives here.
    MmConnectionPort* GetControlPort() const { return pControlPort_; }
    // The blade's thread is alive now (needed only by blades that run no dispatcher).
    void Heartbeat() const;
    // The service manager's watchdog interval in microseconds, 0 when it asks for none.
    uint64_t GetWatchdogUsec() const { return watchdogUsec_; }

  private:
    friend class BladeManager;

    LoopHeartbeat* pHeartbeat_ = nullptr;  // The blade manager's; set before Run.
    uint64_t watchdogUsec_ = 0;

    std::string daemonName_;
    std::string bladeName_;
    MessageMoverInterface* pMmIface_;
    MmConnectionPort* pControlPort_;  // Set to null by the shell when the blade has returned.
};

// The host of a daemon's blades. Construct, StartUp and destroy on the application's thread;
// RequestStop from any thread. Construction starts the MessageMover framework; StartUp starts the
// shell thread, which starts every auto-start blade on a thread of its own and runs the shell's
// dispatcher. RequestStop makes the shell send kVokBladeStopEvtMsg to every running blade and
// wait until each has returned from Run; then the shell thread calls shutDownCompleteCb and ends.
// Destroying the shell requests the stop if it was started, joins the shell thread, stops the
// framework (reporting leaks) and prunes the diagnostic registers of longevity 0. Do not destroy
// it from shutDownCompleteCb (that runs on the shell thread).
//
// A stop that outlasts the daemon's stopDeadlineMs is logged blade by blade at critical level and
// ends the process with kVokShellStopDeadlineExitStatus. When NOTIFY_SOCKET is set the shell
// tells the service manager READY=1 once every auto-start blade has entered Run, STOPPING=1 when
// the stop begins, and STATUS= lines for people. When the service manager asks for a watchdog
// (WATCHDOG_USEC), the shell sends WATCHDOG=1 every half interval, but only while no blade's
// thread has been busy for half the interval; the first time one has, it logs which blade at
// critical level and feeds no more, so the service manager restarts the daemon.
class VokShell {
  public:
    // shutDownCompleteCb must not be empty.
    VokShell(const VokShellDaemonInfo& daemonInfo,
             const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
             std::function<void()> shutDownCompleteCb);
    ~VokShell();
    VokShell(const VokShell&) = delete;
    VokShell& operator=(const VokShell&) = delete;

    // Once; throws VokProgramErrorException (kVokErrFailed) on a second call.
    void StartUp();
    void RequestStop();
    MessageMoverFramework& GetMmFramework();
    // Any thread, while the shell lives.
    const std::string& GetDaemonName() const;
    std::vector<VokBladeStatus> GetBladeStatus() const;
    // Every open port of the shell's MessageMover (MessageMoverFramework::ListPorts).
    std::vector<MmPortInfo> ListPorts() const;

  private:
    VokShellImpl* pImpl_;  // Owned.
};

}  // namespace vok

#endif  // VOK_VOKSHELL_H
