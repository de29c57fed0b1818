// Not public API. The shell engine: shell thread, blade managers and the stop protocol.
#ifndef VOK_SRC_CORE_VOKSHELL_VOKSHELLIMPL_H
#define VOK_SRC_CORE_VOKSHELL_VOKSHELLIMPL_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Src/Utils/RuntimeDispatcher/Linux/LoopHeartbeat.h"
#include "vok/Logger.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdPortMonitor.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Thread.h"
#include "vok/VokShell.h"

namespace vok {

class MmCommandPort;
class VokShellImpl;

// One blade's life: its thread, interface and environment. Shell thread only, except that the
// blade thread sets exited_ and clears the environment's port just before closing its end of the
// control connection; the shell reads them only after that close has reached it. The blade thread
// also writes runEntered_, active_ and the heartbeat, which the shell reads at any time.
class BladeManager {
  public:
    enum BladeState : int32_t { kIdle = 0, kStarting = 1, kRunning = 2, kStopping = 3 };

    BladeManager(VokBladeLoaderInterface* loader, VokShellImpl* shell);
    ~BladeManager();
    BladeManager(const BladeManager&) = delete;
    BladeManager& operator=(const BladeManager&) = delete;

    // Creates the blade's interface, control connection and environment and starts the blade
    // thread; returns the shell's end of the control connection.
    MmConnectionPort* StartBlade();
    // The stop event was sent: Running becomes Stopping.
    void BladeShutDownInitiated();
    // The blade closed its end: joins its thread and releases it; back to Idle.
    void BladeShutDownAck();

    VokBladeLoaderInterface* GetLoader() const { return pLoader_; }
    BladeState GetState() const { return state_; }
    static const char* StateName(BladeState state);
    // The blade's Run has been entered since the last start (it may have returned since).
    bool RunEntered() const { return runEntered_.load(); }
    // The blade's thread runs blade code (from its start until UnloadBlade has returned).
    bool Active() const { return active_.load(); }
    // Microseconds the blade's thread has been busy without waiting for events (see
    // LoopHeartbeat), at monotonic time nowUs.
    int64_t BusyUs(int64_t nowUs) const { return heartbeat_.BusyUs(nowUs); }
    // The kernel's id of the blade thread while it runs blade code, else 0.
    int32_t ThreadId() const { return threadId_.load(); }

  private:
    void BladeThreadRunCb(void* unused);

    VokShellImpl* pShell_;
    VokBladeLoaderInterface* pLoader_;  // Not owned.
    BladeState state_;
    bool exited_;  // True while no blade code runs on the blade thread.
    Thread bladeThread_;
    ServiceBladeEnvironment* pBladeEnv_;  // Owned; null while the blade is not active.
    LoopHeartbeat heartbeat_;
    std::atomic<bool> runEntered_;
    std::atomic<bool> active_;
    std::atomic<int32_t> threadId_;
};

// A blade that has been activated and has not yet acknowledged its stop. Shell thread only.
struct ActiveBladeRecord {
    explicit ActiveBladeRecord(VokShellImpl* shell) : pShell(shell) {}
    // Deletes the monitor, then discards the shell's end (the monitor watches it).
    ~ActiveBladeRecord();

    BladeManager* pBladeMgr = nullptr;
    MmConnectionPort* pShellEnd = nullptr;  // The shell's end of the control connection.
    RdPortMonitor* pMonitor = nullptr;      // Owned; watches pShellEnd.
    VokShellImpl* pShell;
};

// The engine behind VokShell. All decisions run on the shell thread; the application's thread
// only constructs, starts, requests the stop and destroys.
class VokShellImpl {
  public:
    enum ShellState : int32_t {
        kInitial = 0,
        kStarting = 1,
        kRunning = 2,
        kShuttingDown = 3,
        kStopped = 4
    };

    VokShellImpl(const VokShellDaemonInfo& daemonInfo,
                 const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
                 std::function<void()> shutDownCompleteCb);
    ~VokShellImpl();
    VokShellImpl(const VokShellImpl&) = delete;
    VokShellImpl& operator=(const VokShellImpl&) = delete;

    void StartUp();
    void RequestStop();
    MessageMoverFramework& GetMmFramework();
    MessageMoverInterface& GetMmInterface();
    const VokShellDaemonInfo& GetDaemonInfo() const { return daemonInfo_; }
    const Logger& GetLogger() const { return logger_; }
    ShellState GetState() const { return state_.load(); }
    uint64_t GetWatchdogUsec() const { return watchdogUsec_; }
    // Read from atomics only, so any thread may ask while the shell lives.
    std::vector<VokBladeStatus> GetBladeStatus() const;
    // A blade thread has entered Run; any thread.
    void BladeRunEntered() { runEnteredBridge_.Trigger(); }

  private:
    // The MessageMover resources the shell owns, released in a fixed order: blade managers (last
    // first), control port monitor, control port, shell interface, framework.
    struct DataRaii {
        DataRaii() = default;
        ~DataRaii();
        DataRaii(const DataRaii&) = delete;
        DataRaii& operator=(const DataRaii&) = delete;
        void Swap(DataRaii* other);

        MessageMoverFramework* pMmFramework_ = nullptr;
        MessageMoverInterface* pMmIface_ = nullptr;
        MmCommandPort* pControlPort_ = nullptr;
        RdPortMonitor* pControlPortMonitor_ = nullptr;
        std::vector<BladeManager*> bladeManagers_;
    };

    void ShellThreadRunCb(void* unused);
    void KickOffBlades();
    void ActivateBlade(BladeManager* pBladeMgr);
    void StopBridgeCb();
    void InitiateShutDown();
    void InitiateBladeShutDown(ActiveBladeRecord* record);
    void BladeControlPortMonCb(ActiveBladeRecord* record, bool readable, bool writable,
                               bool exception);
    void ShellControlPortMonCb(bool readable, bool writable, bool exception);
    void AllBladesShutDownCompleted();
    // Sends READY=1 once every active blade has entered Run.
    void CheckReady();
    // Sends STATUS= naming the first blade that has not finished its stop.
    void ReportStopStatus();
    void WatchdogTimerCb();
    // Logs where a fault's dump of the flight recorder went (nothing when path is empty).
    void LogTracePath(const std::string& path) const;
    [[noreturn]] void StopDeadlinePassed();

    // Member order is a lifetime rule: members are destroyed last to first, so the MessageMover
    // resources (data_) go before the stop bridge and the dispatcher they use, and the shell
    // thread object goes last.
    Logger logger_;
    Thread shellThread_;
    bool threadStarted_;
    RuntimeDispatcher dispatcher_;
    RdAsyncBridge stopBridge_;
    RdAsyncBridge runEnteredBridge_;
    RdTimerBase watchdogTimer_;
    RdTimerBase stopDeadlineTimer_;
    const uint64_t watchdogUsec_;  // 0: the service manager asks for no watchdog.
    bool readySent_;               // Shell thread only.
    // Written on the shell thread; StartUp reads it on the application thread.
    std::atomic<ShellState> state_;
    VokShellDaemonInfo daemonInfo_;
    std::function<void()> shutDownCompleteCb_;
    std::set<ActiveBladeRecord*> activeBlades_;
    DataRaii data_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_VOKSHELL_VOKSHELLIMPL_H
