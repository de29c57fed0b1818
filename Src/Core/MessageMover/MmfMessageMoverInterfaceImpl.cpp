#include "Src/Core/MessageMover/MmfMessageMoverInterfaceImpl.h"

#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfCommandPortImpl.h"
#include "Src/Core/MessageMover/MmfConnectionPortImpl.h"

namespace vok {

namespace {

const uint32_t kClearAllOptions = 0xFFFFFFFF;
const DiagnosticRegisterLongevity kLeakedCounterLongevity = kDiagRegLongevityLong;

std::string CounterPath(const std::string& ifaceName, const char* counterName) {
    return std::string(kMmfIfaceDiagRegGroupPath) + ifaceName + "." + counterName;
}

}  // namespace

uint32_t MmfMessageMoverInterfaceImpl::OptionMgr::Set(uint32_t optionsToClear,
                                                      uint32_t optionsToSet) {
    MMF_TRACE(this);
    MutexLocker lock(lock_);
    const Logger& logger = gMmfLogger;
    if (optionsToClear != kClearAllOptions && (optionsToClear & ~validMask_) != 0) {
        logger.Error("%s: invalid optionsToClear: <%#lx>.", __func__,
                     static_cast<unsigned long>(optionsToClear & ~validMask_));
        MMF_THROW("invalid optionsToClear");
    }
    if ((optionsToSet & ~validMask_) != 0) {
        logger.Error("%s: invalid optionsToSet: <%#lx>.", __func__,
                     static_cast<unsigned long>(optionsToSet & ~validMask_));
        MMF_THROW("invalid optionsToSet");
    }
    const uint32_t options =
        (options_.load(std::memory_order_relaxed) & ~optionsToClear) | optionsToSet;
    options_.store(options, std::memory_order_relaxed);
    return options;
}

MmfMessageMoverInterfaceImpl::MmfMessageMoverInterfaceImpl(MessageMoverFrameworkImpl* framework,
                                                           const std::string& name)
    : pFramework_(framework),
      pConnMgr_(&framework->GetConnectionMgr()),
      pMsgMgr_(&framework->GetMessageMgr()),
      name_(name),
      msgsHeldByUser_(CounterPath(name, kMmfIfaceMsgsHeldByUserDiagRegName), 0),
      msgsLeakedByUser_(CounterPath(name, kMmfIfaceMsgsLeakedByUserDiagRegName), 0),
      msgsHeldByPorts_(CounterPath(name, kMmfIfaceMsgsHeldByPortsDiagRegName), 0),
      connPortTracker_(name, "ConnectionPort", &GetConnPortInfoForObjectTracker),
      cmdPortTracker_(name, "CommandPort", &GetCmdPortInfoForObjectTracker),
      connMsgTracker_(name, "ConnectionMessage", &msgsHeldByUser_, pMsgMgr_),
      cmdMsgTracker_(name, "CommandMessage", &msgsHeldByUser_, pMsgMgr_) {
    MMF_TRACE(this);
    // The leak count outlives the interface and the prune of ended work.
    msgsLeakedByUser_.SetLongevity(kLeakedCounterLongevity);
    // Counters shared with a live interface of the same name hold its counts.
    if (pFramework_->TakeInterfaceName(name_)) {
        msgsHeldByUser_.Reset(0);
        msgsHeldByPorts_.Reset(0);
    }
}

MmfMessageMoverInterfaceImpl::~MmfMessageMoverInterfaceImpl() {
    MMF_TRACE(this);
    // What this interface's user holds; the shared counter may count other interfaces' too.
    msgsLeakedByUser_.Adjust(connMsgTracker_.GetCount() + cmdMsgTracker_.GetCount());
    pFramework_->GiveBackInterfaceName(name_);
    connPortTracker_.ReportLeaks();
    cmdPortTracker_.ReportLeaks();
    connMsgTracker_.ReportLeaks();
    cmdMsgTracker_.ReportLeaks();
    CloseLeakedPorts();
}

void MmfMessageMoverInterfaceImpl::CloseLeakedPorts() {
    MMF_TRACE(this);
    // Each port leaves the registry, so nothing is delivered to it any more; a connection port
    // first tells its peer, as a discard does. The port objects and their queued messages stay
    // allocated (they are leaked); every later call on a port throws.
    for (MmfConnectionPortImpl* port : connPortTracker_.TakeAll()) {
        try {
            port->ShutDown();
            pConnMgr_->UnregisterPort(*port->GetMessagePort());
        } catch (const std::exception& e) {
            gMmfLogger.Critical("%s: closing leaked port <%p> failed: %s", __func__,
                                static_cast<void*>(port), e.what());
        }
        port->Orphan();
    }
    for (MmfCommandPortImpl* port : cmdPortTracker_.TakeAll()) {
        try {
            pConnMgr_->UnregisterPort(*port->GetMessagePort());
        } catch (const std::exception& e) {
            gMmfLogger.Critical("%s: closing leaked port <%p> failed: %s", __func__,
                                static_cast<void*>(port), e.what());
        }
        port->Orphan();
    }
}

MmConnectionPort* MmfMessageMoverInterfaceImpl::CreateConnectedPair(
    MessageMoverInterface* peerInterface, MmConnectionPort** peerPort) {
    MMF_TRACE(this);
    if (peerInterface == nullptr || peerPort == nullptr) {
        MMF_THROW("NULL arg.");
    }
    MmfMessageMoverInterfaceImpl* peer = static_cast<MmfMessageMoverInterfaceImpl*>(peerInterface);
    MmConnectionPort* port = pConnMgr_->CreateConnectedPair(this, peer, peerPort);
    MmfConnectionPortImpl* const end = static_cast<MmfConnectionPortImpl*>(port);
    MmfConnectionPortImpl* const peerEnd = static_cast<MmfConnectionPortImpl*>(*peerPort);
    bool endTracked = false;
    try {
        connPortTracker_.Track(end);
        endTracked = true;
        peer->connPortTracker_.Track(peerEnd);
    } catch (...) {
        // Neither end reaches a user: both are closed and destroyed again (discarding never
        // fails for want of memory).
        if (endTracked) {
            connPortTracker_.Untrack(end);
        }
        *peerPort = nullptr;
        pConnMgr_->DiscardConnectionPort(end);
        pConnMgr_->DiscardConnectionPort(peerEnd);
        throw;
    }
    return port;
}

template <typename PortT, typename TrackerT>
void MmfMessageMoverInterfaceImpl::UntrackForDiscard(TrackerT& tracker, PortT* port) {
    typename TrackerT::Slot slot = tracker.Take(port);  // Before anything follows the pointer.
    if (port->GetMessagePort()->HasSignalSink()) {
        // Its monitor would go on using the port; the port stays as it was.
        tracker.Restore(std::move(slot));
        MMF_THROW(
            "Port still has a Port Event Signal Sink; destroy its monitor before discarding the "
            "port.");
    }
}

void MmfMessageMoverInterfaceImpl::DiscardConnectionPort(MmConnectionPort* port) {
    MMF_TRACE(this);
    UntrackForDiscard(connPortTracker_, static_cast<MmfConnectionPortImpl*>(port));
    pConnMgr_->DiscardConnectionPort(port);
}

MmCommandPort* MmfMessageMoverInterfaceImpl::CreateCommandServicePort(
    MmServiceIdentifier_t serviceId) {
    MMF_TRACE(this);
    return CreateCommandPort_Helper(serviceId);
}

MmCommandPort* MmfMessageMoverInterfaceImpl::CreateCommandPort() {
    MMF_TRACE(this);
    return CreateCommandPort_Helper(0);
}

MmCommandPort* MmfMessageMoverInterfaceImpl::CreateCommandPort_Helper(
    MmServiceIdentifier_t serviceId) {
    MMF_TRACE(this);
    MmCommandPort* port = pConnMgr_->CreateCommandPort(this, serviceId);
    try {
        cmdPortTracker_.Track(static_cast<MmfCommandPortImpl*>(port));
    } catch (...) {
        // The user never got the port: it leaves the registry and is destroyed.
        pConnMgr_->DiscardCommandPort(port);
        throw;
    }
    return port;
}

void MmfMessageMoverInterfaceImpl::DiscardCommandPort(MmCommandPort* port) {
    MMF_TRACE(this);
    UntrackForDiscard(cmdPortTracker_, static_cast<MmfCommandPortImpl*>(port));
    pConnMgr_->DiscardCommandPort(port);
}

template <typename HandleT>
void* MmfMessageMoverInterfaceImpl::CreateMessageT(uint32_t payloadSize, HandleT* msg) {
    MmBaseMessageHandle created;
    void* payload = pMsgMgr_->CreateMessage(payloadSize, &created);
    *msg = HandleT(created);
    GetMessageTracker(*msg).Track(MmfMessageManager::CheckedHeaderOf(created).handleBlock.link);
    return payload;
}

template <typename HandleT>
HandleT MmfMessageMoverInterfaceImpl::DuplicateMessageT(const HandleT& msg) {
    GetMessageTracker(msg).CheckHeld(msg);
    const HandleT copy(pMsgMgr_->DuplicateMessage(msg.GetBinding()));
    GetMessageTracker(copy).Track(copy);
    return copy;
}

template <typename HandleT>
void MmfMessageMoverInterfaceImpl::FreeMessageT(const HandleT& msg) {
    // Checked once; untracking counts the message out of msgsHeldByUser.
    MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(msg.GetBinding());
    GetMessageTracker(msg).Untrack(header.handleBlock.link);
    pMsgMgr_->FreeCheckedMessage(msg.GetBinding(), header);
}

void* MmfMessageMoverInterfaceImpl::CreateConnectionMessage(uint32_t payloadSize,
                                                            MmConnectionMessageHandle* msg) {
    MMF_TRACE(this);
    if (msg == nullptr) {
        MMF_THROW("NULL arg.");
    }
    return CreateMessageT(payloadSize, msg);
}

MmConnectionMessageHandle MmfMessageMoverInterfaceImpl::DuplicateConnectionMessage(
    const MmConnectionMessageHandle& msg) {
    MMF_TRACE(this);
    return DuplicateMessageT(msg);
}

void* MmfMessageMoverInterfaceImpl::CreateCommandMessage(uint32_t payloadSize,
                                                         MmCommandMessageHandle* msg) {
    MMF_TRACE(this);
    if (msg == nullptr) {
        MMF_THROW("NULL arg.");
    }
    return CreateMessageT(payloadSize, msg);
}

MmCommandMessageHandle MmfMessageMoverInterfaceImpl::DuplicateCommandMessage(
    const MmCommandMessageHandle& msg) {
    MMF_TRACE(this);
    return DuplicateMessageT(msg);
}

void MmfMessageMoverInterfaceImpl::FreeMessage(const MmConnectionMessageHandle& msg) {
    MMF_TRACE(this);
    FreeMessageT(msg);
}

void MmfMessageMoverInterfaceImpl::FreeMessage(const MmCommandMessageHandle& msg) {
    MMF_TRACE(this);
    FreeMessageT(msg);
}

uint32_t MmfMessageMoverInterfaceImpl::SetDiagOptions(uint32_t optionsToClear,
                                                      uint32_t optionsToSet) {
    MMF_TRACE(this);
    return options_.Set(optionsToClear, optionsToSet);
}

template <typename P>
std::string MmfMessageMoverInterfaceImpl::GetPortInfoForObjectTrackerT(const P& port) {
    return "portAddr=<" + std::to_string(port.GetMessagePort()->GetAddress()) + ">; " + "iface=<" +
           port.GetInterface()->GetName() + ">";
}

std::string MmfMessageMoverInterfaceImpl::GetCmdPortInfoForObjectTracker(
    const MmfCommandPortImpl& port) {
    return GetPortInfoForObjectTrackerT(port);
}

std::string MmfMessageMoverInterfaceImpl::GetConnPortInfoForObjectTracker(
    const MmfConnectionPortImpl& port) {
    return GetPortInfoForObjectTrackerT(port);
}

}  // namespace vok
