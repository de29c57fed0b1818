#include "Src/Core/VokShell/VokShellImpl.h"

#include <unistd.h>

#include <cassert>
#include <exception>

#include "Src/Core/VokShell/ServiceNotify.h"
#include "Src/Utils/Linux/UncaughtException.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/DiagnosticRegister.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/Trace.h"

namespace vok {

namespace {

const char kShellLogContext[] = "VOK.Shell";
const MmServiceIdentifier_t kShellControlServiceId = 1;
const uint8_t kStopEventMessageType = 3;

// Blade code must not let exceptions escape: report which blade and what, then stop the process
// (the blade's resources and the shell's stop handshake cannot be recovered).
template <typename Fn>
void RunBladeCode(const Logger& logger, const std::string& blade, const char* step, Fn&& fn) {
    try {
        fn();
    } catch (...) {
        const std::string what = "Blade <" + blade + "> threw an exception out of " + step;
        AbortOnException(logger, what.c_str(), std::current_exception());
    }
}

long long Milliseconds(int64_t microseconds) {
    return static_cast<long long>(microseconds / 1000);
}

}  // namespace

void ServiceBladeEnvironment::Heartbeat() const {
    if (pHeartbeat_ != nullptr) {
        pHeartbeat_->Beat();
    }
}

// ---- BladeManager ----

BladeManager::BladeManager(VokBladeLoaderInterface* loader, VokShellImpl* shell)
    : pShell_(shell),
      pLoader_(loader),
      state_(kIdle),
      exited_(true),
      bladeThread_(loader->GetBladeName(), this, &BladeManager::BladeThreadRunCb,
                   static_cast<void*>(nullptr)),
      pBladeEnv_(nullptr),
      runEntered_(false),
      active_(false),
      threadId_(0) {
    bladeThread_.SetStackSize(shell->GetDaemonInfo().threadStackBytes);
}

const char* BladeManager::StateName(BladeState state) {
    switch (state) {
        case kIdle:
            return "idle";
        case kStarting:
            return "starting";
        case kRunning:
            return "running";
        case kStopping:
            return "stopping";
    }
    return "?";
}

BladeManager::~BladeManager() {
    FuncLogger trace(pShell_->GetLogger(), __func__, this);
    if (state_ != kIdle) {
        pShell_->GetLogger().Error(
            "ERROR in %s: BladeManager instance being destroyed in non-idle state; actual "
            "BladeState=<%ld>",
            "~BladeManager", static_cast<long>(state_));
    }
    if (pBladeEnv_ != nullptr) {
        pShell_->GetLogger().Error(
            "ERROR in %s: pBladeEnv not freed before BladeManager destructor invocation",
            "~BladeManager");
    }
}

MmConnectionPort* BladeManager::StartBlade() {
    FuncLogger trace(pShell_->GetLogger(), __func__, this);
    if (pLoader_->GetStartMode() == kBladeStartModeDisabled) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "Blade Start Mode is 'disabled'.");
    }
    if (state_ != kIdle) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "Blade is not in the Idle state.");
    }
    state_ = kStarting;
    MessageMoverInterface* bladeIface =
        pShell_->GetMmFramework().CreateInterface("blade_" + pLoader_->GetBladeName());
    MmConnectionPort* bladeEnd = nullptr;
    MmConnectionPort* shellEnd =
        pShell_->GetMmInterface().CreateConnectedPair(bladeIface, &bladeEnd);
    if (pBladeEnv_ != nullptr) {
        pShell_->GetLogger().Error("ERROR in %s: Old Blade Environment not freed.", "StartBlade");
    }
    pBladeEnv_ = new ServiceBladeEnvironment(pShell_->GetDaemonInfo().daemonName,
                                             pLoader_->GetBladeName(), bladeIface, bladeEnd);
    pBladeEnv_->pHeartbeat_ = &heartbeat_;
    pBladeEnv_->watchdogUsec_ = pShell_->GetWatchdogUsec();
    heartbeat_.Beat();
    runEntered_ = false;
    active_ = true;
    exited_ = false;
    bladeThread_.Start();
    state_ = kRunning;
    return shellEnd;
}

void BladeManager::BladeThreadRunCb(void*) {
    const std::string& name = pLoader_->GetBladeName();
    TraceNameThread(name);
    trace::TraceInstant(trace::kInstBladeStart, 0, name.c_str());
    const Logger& logger = pShell_->GetLogger();
    FuncLogger trace(logger, __func__, this);
    // Dispatchers created on this thread from now on report to the blade's heartbeat.
    LoopHeartbeat::SetForThisThread(&heartbeat_);
    threadId_ = static_cast<int32_t>(gettid());
    logger.Debug("Loading blade <%s>", name.c_str());
    RunBladeCode(logger, name, "LoadBlade",
                 [&]() { pLoader_->LoadBlade(pShell_->GetDaemonInfo()); });
    ServiceBlade* blade = nullptr;
    RunBladeCode(logger, name, "GetServiceBlade", [&]() { blade = pLoader_->GetServiceBlade(); });
    logger.Debug("Starting blade <%s>", name.c_str());
    runEntered_ = true;
    pShell_->BladeRunEntered();
    RunBladeCode(logger, name, "Run", [&]() { blade->Run(pBladeEnv_); });
    logger.Debug("Blade <%s> exited", name.c_str());
    logger.Debug("Unloading blade <%s>", name.c_str());
    RunBladeCode(logger, name, "UnloadBlade", [&]() { pLoader_->UnloadBlade(); });
    LoopHeartbeat::SetForThisThread(nullptr);
    threadId_ = 0;
    active_ = false;
    exited_ = true;
    logger.Debug("Closing Blade Control Server Port of blade <%s>", name.c_str());
    // Closing this end is the blade's acknowledgement: the shell's end reads kVokErrPeerClosed.
    MmConnectionPort* bladeEnd = pBladeEnv_->pControlPort_;
    pBladeEnv_->pControlPort_ = nullptr;
    pBladeEnv_->pMmIface_->DiscardConnectionPort(bladeEnd);
}

void BladeManager::BladeShutDownInitiated() {
    FuncLogger trace(pShell_->GetLogger(), __func__, this);
    if (state_ != kRunning) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "Blade is not in the Running state.");
    }
    state_ = kStopping;
}

void BladeManager::BladeShutDownAck() {
    FuncLogger trace(pShell_->GetLogger(), __func__, this);
    if (state_ != kRunning && state_ != kStopping) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "Blade is not in the Running or Stopping state.");
    }
    if (!exited_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "Blade hasn't exited yet");
    }
    const std::string& name = pLoader_->GetBladeName();
    pShell_->GetLogger().Debug("Waiting for Blade Thread to exit; blade <%s>", name.c_str());
    bladeThread_.Join();
    pShell_->GetLogger().Debug("Blade Thread exited; blade <%s>", name.c_str());
    pShell_->GetMmFramework().DiscardInterface(pBladeEnv_->pMmIface_);
    delete pBladeEnv_;
    pBladeEnv_ = nullptr;
    state_ = kIdle;
}

// ---- ActiveBladeRecord ----

ActiveBladeRecord::~ActiveBladeRecord() {
    delete pMonitor;
    pMonitor = nullptr;
    if (pShellEnd != nullptr) {
        pShell->GetMmInterface().DiscardConnectionPort(pShellEnd);
        pShellEnd = nullptr;
    }
}

// ---- VokShellImpl ----

VokShellImpl::DataRaii::~DataRaii() {
    for (auto it = bladeManagers_.rbegin(); it != bladeManagers_.rend(); ++it) {
        delete *it;
    }
    bladeManagers_.clear();
    delete pControlPortMonitor_;
    pControlPortMonitor_ = nullptr;
    if (pControlPort_ != nullptr) {
        pMmIface_->DiscardCommandPort(pControlPort_);
        pControlPort_ = nullptr;
    }
    if (pMmIface_ != nullptr) {
        pMmFramework_->DiscardInterface(pMmIface_);
        pMmIface_ = nullptr;
    }
    if (pMmFramework_ != nullptr) {
        MessageMoverFramework::StopMessageMoverFramework(pMmFramework_);
        pMmFramework_ = nullptr;
    }
}

void VokShellImpl::DataRaii::Swap(DataRaii* other) {
    std::swap(pMmFramework_, other->pMmFramework_);
    std::swap(pMmIface_, other->pMmIface_);
    std::swap(pControlPort_, other->pControlPort_);
    std::swap(pControlPortMonitor_, other->pControlPortMonitor_);
    bladeManagers_.swap(other->bladeManagers_);
}

VokShellImpl::VokShellImpl(const VokShellDaemonInfo& daemonInfo,
                           const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
                           std::function<void()> shutDownCompleteCb)
    : logger_(kShellLogContext),
      shellThread_("VokShell", this, &VokShellImpl::ShellThreadRunCb, static_cast<void*>(nullptr)),
      threadStarted_(false),
      dispatcher_(),
      stopBridge_(dispatcher_, [this]() { StopBridgeCb(); }),
      runEnteredBridge_(dispatcher_, [this]() { CheckReady(); }),
      watchdogTimer_(dispatcher_, [this]() { WatchdogTimerCb(); }),
      stopDeadlineTimer_(dispatcher_, [this]() { StopDeadlinePassed(); }),
      watchdogUsec_(ServiceWatchdogUsec()),
      readySent_(false),
      state_(kInitial),
      daemonInfo_(daemonInfo),
      shutDownCompleteCb_(std::move(shutDownCompleteCb)) {
    FuncLogger trace(logger_, __func__, this);
    shellThread_.SetStackSize(daemonInfo_.threadStackBytes);
    // Built in a temporary, so that a failure half way releases what was built.
    DataRaii data;
    data.pMmFramework_ = MessageMoverFramework::StartMessageMoverFramework("");
    data.pMmIface_ = data.pMmFramework_->CreateInterface("VokShell");
    data.pControlPort_ = data.pMmIface_->CreateCommandServicePort(kShellControlServiceId);
    data.pControlPortMonitor_ =
        new RdPortMonitor(*data.pControlPort_, dispatcher_,
                          [this](bool r, bool w, bool e) { ShellControlPortMonCb(r, w, e); });
    for (VokBladeLoaderInterface* loader : bladeLoaders) {
        data.bladeManagers_.push_back(nullptr);
        data.bladeManagers_.back() = new BladeManager(loader, this);
    }
    data_.Swap(&data);
}

VokShellImpl::~VokShellImpl() {
    FuncLogger trace(logger_, __func__, this);
    if (threadStarted_) {
        stopBridge_.Trigger();
        shellThread_.Join();
    }
    if (!activeBlades_.empty()) {
        logger_.Error("ERROR: VOK Shell Destructor: Active Blades still remain.");
    }
}

void VokShellImpl::StartUp() {
    FuncLogger trace(logger_, __func__, this);
    ShellState expected = kInitial;
    if (!state_.compare_exchange_strong(expected, kStarting)) {
        VOK_THROW_PROGRAM_ERROR(
            kVokErrFailed,
            "Shell is not in the initial state (can't re-use shell after stopping it).");
    }
    shellThread_.Start();
    threadStarted_ = true;
}

void VokShellImpl::RequestStop() {
    FuncLogger trace(logger_, __func__, this);
    stopBridge_.Trigger();
}

MessageMoverFramework& VokShellImpl::GetMmFramework() {
    assert(data_.pMmFramework_);
    return *data_.pMmFramework_;
}

MessageMoverInterface& VokShellImpl::GetMmInterface() {
    assert(data_.pMmIface_);
    return *data_.pMmIface_;
}

void VokShellImpl::ShellThreadRunCb(void*) {
    TraceNameThread("VokShell");
    FuncLogger trace(logger_, __func__, this);
    KickOffBlades();
    data_.pControlPortMonitor_->SetEventMask(true, false, false);
    state_ = kRunning;
    if (watchdogUsec_ != 0) {
        WatchdogTimerCb();
    }
    CheckReady();
    dispatcher_.Run();
    shutDownCompleteCb_();
}

void VokShellImpl::KickOffBlades() {
    FuncLogger trace(logger_, __func__, this);
    for (BladeManager* manager : data_.bladeManagers_) {
        if (manager->GetLoader()->GetStartMode() == kBladeStartModeAuto) {
            ActivateBlade(manager);
        }
    }
}

void VokShellImpl::ActivateBlade(BladeManager* pBladeMgr) {
    FuncLogger trace(logger_, __func__, this);
    assert(__null != pBladeMgr);
    ActiveBladeRecord* record = new ActiveBladeRecord(this);
    record->pBladeMgr = pBladeMgr;
    record->pShellEnd = pBladeMgr->StartBlade();
    record->pMonitor = new RdPortMonitor(
        *record->pShellEnd, dispatcher_,
        [this, record](bool r, bool w, bool e) { BladeControlPortMonCb(record, r, w, e); });
    record->pMonitor->SetEventMask(true, false, false);
    activeBlades_.insert(record);
}

void VokShellImpl::StopBridgeCb() {
    FuncLogger trace(logger_, __func__, this);
    if (state_ == kRunning) {
        InitiateShutDown();
        return;
    }
    logger_.Error(
        "ERROR in %s: unexpected VokShell-stop trigger received while VOK Shell is not in the "
        "'Running' state; current VOK Shell state is <%ld>.",
        "StopBridgeCb", static_cast<long>(state_.load()));
}

void VokShellImpl::InitiateShutDown() {
    FuncLogger trace(logger_, __func__, this);
    state_ = kShuttingDown;
    NotifyServiceManager(logger_, "STOPPING=1");
    if (daemonInfo_.stopDeadlineMs != 0) {
        stopDeadlineTimer_.Schedule(daemonInfo_.stopDeadlineMs);
    }
    for (ActiveBladeRecord* record : activeBlades_) {
        if (record->pBladeMgr->GetState() == BladeManager::kRunning) {
            InitiateBladeShutDown(record);
        }
    }
    if (activeBlades_.empty()) {
        AllBladesShutDownCompleted();
    } else {
        ReportStopStatus();
    }
}

void VokShellImpl::InitiateBladeShutDown(ActiveBladeRecord* record) {
    FuncLogger trace(logger_, __func__, this);
    trace::TraceInstant(trace::kInstBladeStop, 0,
                        record->pBladeMgr->GetLoader()->GetBladeName().c_str());
    MmConnectionMessageHandle msg;
    data_.pMmIface_->CreateConnectionMessage(0, &msg);
    msg.SetMessageType(kStopEventMessageType);
    msg.SetMessageName(kVokBladeStopEvtMsg);
    // kVokErrPeerClosed: the blade has just returned by itself; its acknowledgement is queued.
    const VokError_t result = record->pShellEnd->WriteMessage(msg, nullptr);
    if (result != kVokErrNone && result != kVokErrPeerClosed) {
        logger_.Error(
            "ERROR in %s: MmConnectionPort::WriteMessage returned unexpected error code=<%#lx>",
            "InitiateBladeShutDown", static_cast<unsigned long>(static_cast<uint32_t>(result)));
    }
    record->pBladeMgr->BladeShutDownInitiated();
}

void VokShellImpl::BladeControlPortMonCb(ActiveBladeRecord* record, bool, bool, bool) {
    FuncLogger trace(logger_, __func__, this);
    for (;;) {
        MmConnectionMessageHandle msg;
        const VokError_t result = record->pShellEnd->ReadMessage(&msg);
        if (result == kVokErrNoMessage) {
            return;
        }
        if (result == kVokErrPeerClosed) {
            break;
        }
        if (result != kVokErrNone) {
            logger_.Error("ERROR in %s: unexpected error code from ReadMessage <%#lx>.",
                          "BladeControlPortMonCb",
                          static_cast<unsigned long>(static_cast<uint32_t>(result)));
            return;
        }
        MmMessageName name;
        msg.GetMessageName(&name);
        logger_.Error(
            "ERROR in %s: unexpected message received from Service Blade - protocol=<%ld>; "
            "msgId=<%#lx>.",
            "BladeControlPortMonCb", static_cast<long>(name.protocolId),
            static_cast<unsigned long>(name.msgId));
        data_.pMmIface_->FreeMessage(msg);
    }
    record->pBladeMgr->BladeShutDownAck();
    if (activeBlades_.erase(record) != 1) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "set.erase failed - Active Blade Record not found.");
    }
    delete record;  // Deletes the monitor that is calling back: allowed, it holds a reference.
    if (state_ == kShuttingDown) {
        if (activeBlades_.empty()) {
            AllBladesShutDownCompleted();
        } else {
            ReportStopStatus();
        }
    }
}

void VokShellImpl::ShellControlPortMonCb(bool, bool, bool) {
    FuncLogger trace(logger_, __func__, this);
    for (;;) {
        MmCommandMessageHandle msg;
        const VokError_t result = data_.pControlPort_->ReadMessage(&msg);
        if (result == kVokErrNoMessage) {
            return;
        }
        if (result != kVokErrNone) {
            logger_.Error("ERROR in %s: unexpected error code from ReadMessage <%#lx>.",
                          "ShellControlPortMonCb",
                          static_cast<unsigned long>(static_cast<uint32_t>(result)));
            return;
        }
        MmMessageName name;
        msg.GetMessageName(&name);
        logger_.Error(
            "ERROR in %s: unexpected message received - protocol=<%ld>; msgId=<%#lx>; "
            "sender=<%ld>",
            "ShellControlPortMonCb", static_cast<long>(name.protocolId),
            static_cast<unsigned long>(name.msgId), static_cast<long>(msg.GetSenderAddress()));
        data_.pMmIface_->FreeMessage(msg);
    }
}

void VokShellImpl::AllBladesShutDownCompleted() {
    FuncLogger trace(logger_, __func__, this);
    state_ = kStopped;
    stopDeadlineTimer_.Cancel();
    watchdogTimer_.Cancel();
    NotifyServiceManager(logger_, "STATUS=stopped");
    dispatcher_.RequestStop();
}

std::vector<VokBladeStatus> VokShellImpl::GetBladeStatus() const {
    // The managers are fixed from construction to destruction; their state_ belongs to the shell
    // thread, so the state is told from the atomics the blade thread keeps.
    const int64_t nowUs = g_get_monotonic_time();
    const bool stopping = GetState() >= kShuttingDown;
    std::vector<VokBladeStatus> result;
    for (const BladeManager* manager : data_.bladeManagers_) {
        VokBladeStatus status;
        status.name = manager->GetLoader()->GetBladeName();
        if (manager->Active()) {
            status.state = !manager->RunEntered() ? "starting" : stopping ? "stopping" : "running";
        } else {
            status.state = manager->RunEntered() ? "stopped" : "idle";
        }
        status.busyMs = manager->Active() ? manager->BusyUs(nowUs) / 1000 : 0;
        status.threadId = manager->ThreadId();
        result.push_back(status);
    }
    return result;
}

void VokShellImpl::CheckReady() {
    if (readySent_ || state_ != kRunning) {
        return;
    }
    for (ActiveBladeRecord* record : activeBlades_) {
        if (!record->pBladeMgr->RunEntered()) {
            return;
        }
    }
    readySent_ = true;
    const size_t count = activeBlades_.size();
    NotifyServiceManager(logger_, "READY=1\nSTATUS=" + std::to_string(count) +
                                      (count == 1 ? " blade running" : " blades running"));
}

void VokShellImpl::ReportStopStatus() {
    const BladeManager* first = nullptr;
    size_t waiting = 0;
    for (const BladeManager* manager : data_.bladeManagers_) {
        if (manager->GetState() != BladeManager::kIdle) {
            first = first != nullptr ? first : manager;
            ++waiting;
        }
    }
    if (first == nullptr) {
        return;
    }
    std::string status = "STATUS=stopping: waiting for blade " + first->GetLoader()->GetBladeName();
    if (waiting > 1) {
        status += " and " + std::to_string(waiting - 1) + " more";
    }
    NotifyServiceManager(logger_, status);
}

// Runs every half watchdog interval: feeds the service manager's watchdog while no blade's thread
// has been busy for half the interval. A blade stuck once stops the feeding for good; the
// service manager then restarts the daemon.
void VokShellImpl::WatchdogTimerCb() {
    const int64_t now = g_get_monotonic_time();
    const int64_t limit = static_cast<int64_t>(watchdogUsec_ / 2);
    bool stuck = false;
    for (const BladeManager* manager : data_.bladeManagers_) {
        const int64_t busy = manager->Active() ? manager->BusyUs(now) : 0;
        if (busy < limit) {
            continue;
        }
        stuck = true;
        const std::string& name = manager->GetLoader()->GetBladeName();
        trace::TraceInstant(trace::kInstBladeStuck, busy * 1000, name.c_str());
        const std::string tracePath = TraceDumpForFault("blade-stuck-" + name);
        logger_.Critical(
            "Blade <%s> (%s) has not come back to its loop for %lld ms; no longer feeding the "
            "service manager's watchdog (interval %lld ms)",
            name.c_str(), BladeManager::StateName(manager->GetState()), Milliseconds(busy),
            Milliseconds(static_cast<int64_t>(watchdogUsec_)));
        LogTracePath(tracePath);
    }
    if (stuck) {
        NotifyServiceManager(logger_, "STATUS=a blade is stuck; watchdog no longer fed");
        return;
    }
    NotifyServiceManager(logger_, "WATCHDOG=1");
    const uint64_t periodMs = watchdogUsec_ / 2000;
    watchdogTimer_.Schedule(periodMs > 0 ? static_cast<unsigned int>(periodMs) : 1u);
}

void VokShellImpl::LogTracePath(const std::string& path) const {
    if (!path.empty()) {
        logger_.Critical("Flight recorder written to %s", path.c_str());
    }
}

void VokShellImpl::StopDeadlinePassed() {
    const int64_t now = g_get_monotonic_time();
    for (const BladeManager* manager : data_.bladeManagers_) {
        if (manager->GetState() == BladeManager::kIdle) {
            continue;
        }
        const int64_t busy = manager->BusyUs(now);
        const std::string& name = manager->GetLoader()->GetBladeName();
        const char* state = BladeManager::StateName(manager->GetState());
        trace::TraceInstant(trace::kInstStopDeadline, busy * 1000, name.c_str());
        if (busy == 0) {
            logger_.Critical(
                "Stop deadline of %lu ms passed: blade <%s> has not finished (state %s; its loop "
                "waits for events)",
                static_cast<unsigned long>(daemonInfo_.stopDeadlineMs), name.c_str(), state);
        } else {
            logger_.Critical(
                "Stop deadline of %lu ms passed: blade <%s> has not finished (state %s; busy "
                "outside its loop for %lld ms)",
                static_cast<unsigned long>(daemonInfo_.stopDeadlineMs), name.c_str(), state,
                Milliseconds(busy));
        }
    }
    LogTracePath(TraceDumpForFault("stop-deadline"));
    NotifyServiceManager(logger_, "STATUS=stop deadline passed; exiting");
    logger_.Critical("Ending the process with exit status %d", kVokShellStopDeadlineExitStatus);
    _exit(kVokShellStopDeadlineExitStatus);
}

// ---- VokShell ----

VokShell::VokShell(const VokShellDaemonInfo& daemonInfo,
                   const std::vector<VokBladeLoaderInterface*>& bladeLoaders,
                   std::function<void()> shutDownCompleteCb)
    : pImpl_(new VokShellImpl(daemonInfo, bladeLoaders, std::move(shutDownCompleteCb))) {}

VokShell::~VokShell() {
    delete pImpl_;
    DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
}

void VokShell::StartUp() {
    pImpl_->StartUp();
}
void VokShell::RequestStop() {
    pImpl_->RequestStop();
}
const std::string& VokShell::GetDaemonName() const {
    return pImpl_->GetDaemonInfo().daemonName;
}
std::vector<VokBladeStatus> VokShell::GetBladeStatus() const {
    return pImpl_->GetBladeStatus();
}

std::vector<MmPortInfo> VokShell::ListPorts() const {
    return pImpl_->GetMmFramework().ListPorts();
}
MessageMoverFramework& VokShell::GetMmFramework() {
    return pImpl_->GetMmFramework();
}

}  // namespace vok
