#include "Src/Core/MessageMover/MmfConnectionManager.h"

#include <memory>
#include <new>

#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfCommandPortImpl.h"
#include "Src/Core/MessageMover/MmfConnectionPortImpl.h"

namespace vok {

namespace {

// The address generator's start; the first address issued is 49152.
const uint32_t kAddressGeneratorStart = 0xBFFF;
const MmServiceIdentifier_t kMaxServiceId = 0xBFFE;

}  // namespace

MmfConnectionManager::MmfConnectionManager(MessageMoverFrameworkImpl& framework)
    : framework_(framework),
      pMsgMgr_(nullptr),
      addressGenerator_(kAddressGeneratorStart),
      undeliverableMsgs_(kMmfUndeliverableMsgsDiagRegPath, 0) {
    MMF_TRACE(this);
    undeliverableMsgs_.Reset(0);
}

MmfConnectionManager::~MmfConnectionManager() {
    MMF_TRACE(this);
}

void MmfConnectionManager::Init() {
    MMF_TRACE(this);
    pMsgMgr_ = &framework_.GetMessageMgr();
}

void MmfConnectionManager::Deploy() {
    MMF_TRACE(this);
}

MmCommandPort* MmfConnectionManager::CreateCommandPort(MmfMessageMoverInterfaceImpl* iface,
                                                       MmServiceIdentifier_t serviceId) {
    MMF_TRACE(this);
    if (iface == nullptr) {
        MMF_THROW("NULL arg.");
    }
    if (serviceId > kMaxServiceId) {
        MMF_THROW("Service ID out of bounds for Service CommandPort.");
    }
    // A port that cannot be registered (its service identifier is taken) is destroyed again;
    // it was never reachable and holds nothing.
    std::unique_ptr<MmfCommandPortImpl> port(
        new MmfCommandPortImpl(iface, &framework_, addressGenerator_.GetNext()));
    RegisterPort(*port->GetMessagePort(), serviceId);
    return port.release();
}

MmConnectionPort* MmfConnectionManager::CreateConnectedPair(MmfMessageMoverInterfaceImpl* ifaceA,
                                                            MmfMessageMoverInterfaceImpl* ifaceB,
                                                            MmConnectionPort** peerOut) {
    MMF_TRACE(this);
    if (ifaceA == nullptr || ifaceB == nullptr || peerOut == nullptr) {
        MMF_THROW("NULL arg.");
    }
    const MmfPortAddress addressA = addressGenerator_.GetNext();
    const MmfPortAddress addressB = addressGenerator_.GetNext();
    std::unique_ptr<MmfConnectionPortImpl> portA(
        new MmfConnectionPortImpl(ifaceA, &framework_, addressA, addressB));
    std::unique_ptr<MmfConnectionPortImpl> portB(
        new MmfConnectionPortImpl(ifaceB, &framework_, addressB, addressA));
    // Connected while neither is reachable, so that nothing is left to fail once both are.
    MmfMessagePort::ConnectPair(*portA->GetMessagePort(), *portB->GetMessagePort());
    RegisterPort(*portA->GetMessagePort(), 0);
    try {
        RegisterPort(*portB->GetMessagePort(), 0);
    } catch (...) {
        // Unregistered, portA may be destroyed: no delivery to it is under way any more.
        UnregisterPort(*portA->GetMessagePort());
        throw;
    }
    *peerOut = portB.release();
    return portA.release();
}

void MmfConnectionManager::RegisterPort(MmfMessagePort& port, MmServiceIdentifier_t serviceId) {
    MMF_TRACE(this);
    const MmfPortAddress address = port.GetAddress();
    gMmfLogger.Debug("Registering port <%p> using address <%ld>.", static_cast<void*>(&port),
                     static_cast<long>(address));
    if (address == 0) {
        MMF_THROW("Can't register - bad port address");
    }
    MutexLocker lock(registryLock_);
    const PortMapRecord canonical = {false, &port, address, serviceId};
    registry_.Register(address, canonical);
    if (serviceId != 0) {
        PortMapRecord alias = canonical;
        alias.isAlias = true;
        try {
            registry_.Register(serviceId, alias);
        } catch (...) {
            registry_.Unregister(address);
            throw;
        }
    }
}

void MmfConnectionManager::UnregisterPort(MmfMessagePort& port) {
    MMF_TRACE(this);
    const MmfPortAddress address = port.GetAddress();
    const Logger& logger = gMmfLogger;
    logger.Debug("Unregistering port <%p> using address <%ld>.", static_cast<void*>(&port),
                 static_cast<long>(address));
    if (address == 0) {
        MMF_THROW("Can't unregister - bad port address");
    }
    port.DisconnectPair();  // Before the registry lock: it takes write locks.
    MutexLocker lock(registryLock_);
    const PortMapRecord* canonical = registry_.Find(address);
    if (canonical == nullptr) {
        logger.Critical("ERROR in %s: canonical record for port addr=<%ld> not found", __func__,
                        static_cast<long>(address));
        MMF_THROW("Can't unregister port - canonical record not found");
    }
    if (canonical->serviceId != 0) {
        registry_.Unregister(canonical->serviceId);
    }
    registry_.Unregister(address);
}

void MmfConnectionManager::DiscardCommandPort(MmCommandPort* port) {
    MMF_TRACE(this);
    if (port == nullptr) {
        MMF_THROW("NULL arg.");
    }
    MmfCommandPortImpl* impl = static_cast<MmfCommandPortImpl*>(port);
    UnregisterPort(*impl->GetMessagePort());
    delete impl;
}

void MmfConnectionManager::DiscardConnectionPort(MmConnectionPort* port) {
    MMF_TRACE(this);
    if (port == nullptr) {
        MMF_THROW("NULL arg.");
    }
    MmfConnectionPortImpl* impl = static_cast<MmfConnectionPortImpl*>(port);
    impl->ShutDown();
    UnregisterPort(*impl->GetMessagePort());
    delete impl;
}

VokError_t MmfConnectionManager::DeliverMessage(const MmBaseMessageHandle& msg,
                                                MmfPendingTrigger* pending, bool* takenOver) {
    MMF_TRACE(this);
    const MmfBaseMessageHeader& header = MmfMessageManager::CheckedHeaderOf(msg);
    const MmfPortAddress sender = header.GetSenderAddress();
    const MmfPortAddress dest = header.GetDestAddress();
    MutexLocker lock(registryLock_);
    const VokError_t result = DeliverMessageHelper_Locked(msg, sender, dest, pending, takenOver);
    if (result != kVokErrNone) {
        // msg is freed; tell its sender, in the name of the address that was not reachable.
        // Without memory for the notice the sender is not told, but the write has done its
        // part: msg has left the writer's hands, and the result says so.
        MmBaseMessageHandle reply;
        try {
            pMsgMgr_->CreateMessage(0, &reply);
        } catch (const std::bad_alloc&) {
            gMmfLogger.Critical(
                "%s: out of memory; port <%ld> is not told that <%ld> is unreachable.", __func__,
                static_cast<long>(sender), static_cast<long>(dest));
            undeliverableMsgs_.Inc();
            return result;
        }
        reply.SetMessageType(kMmfLinkControlMsgType);
        reply.SetMessageName(kMmPortNotReachableMsg);
        reply.SetDestinationAddress(sender);
        reply.SetSenderAddress(dest);
        // Only a delivery that failed gets here, so *pending is still free for this one.
        (void)DeliverMessageHelper_Locked(reply, dest, sender, pending, nullptr);
    }
    return result;
}

VokError_t MmfConnectionManager::DeliverMessageHelper_Locked(const MmBaseMessageHandle& msg,
                                                             MmfPortAddress sender,
                                                             MmfPortAddress dest,
                                                             MmfPendingTrigger* pending,
                                                             bool* takenOver) {
    MMF_TRACE(this);
    const Logger& logger = gMmfLogger;
    if (MmfIsTracing()) {
        logger.Debug("Attempting to deliver message to port with address <%ld>.",
                     static_cast<long>(dest));
    }
    if (sender == 0) {
        MMF_THROW("Can't deliver - bad sender address");
    }
    if (dest == 0) {
        MMF_THROW("Can't deliver - bad destination address");
    }
    if (takenOver != nullptr) {
        *takenOver = true;
    }
    const PortMapRecord* record = registry_.Find(dest);
    if (record != nullptr) {
        record->port->AcceptIncomingMessage(msg, pending);
        return kVokErrNone;
    }
    logger.Debug("%s: Can't deliver message - dest port with address <%ld> is unreachable.",
                 __func__, static_cast<long>(dest));
    undeliverableMsgs_.Inc();
    pMsgMgr_->FreeMessage(msg);
    return kVokErrUnreachable;
}

void MmfConnectionManager::PortRegistry::Register(MmfPortAddress key, const PortMapRecord& record) {
    MMF_TRACE(this);
    if (!records_.insert(std::make_pair(key, record)).second) {
        gMmfLogger.Critical("ERROR: Can't register port; portAddr key=<%ld> was already registered",
                            static_cast<long>(key));
        MMF_THROW("Can't register - portAddr was already registered");
    }
}

void MmfConnectionManager::PortRegistry::Unregister(MmfPortAddress key) {
    MMF_TRACE(this);
    if (records_.erase(key) != 1) {
        gMmfLogger.Critical("ERROR: Can't unregister port; portAddress=<%ld> not found",
                            static_cast<long>(key));
        MMF_THROW("Can't unregister - portAddress not found");
    }
}

std::vector<MmPortInfo> MmfConnectionManager::ListPorts() {
    MMF_TRACE(this);
    std::vector<MmPortInfo> ports;
    // Holding the registry lock keeps every listed port registered, and so alive with its
    // interface, until it is described.
    MutexLocker lock(registryLock_);
    for (const auto& entry : registry_.Records()) {
        if (!entry.second.isAlias) {
            MmPortInfo info;
            entry.second.port->Describe(&info);
            info.serviceId = entry.second.serviceId;
            ports.push_back(info);
        }
    }
    return ports;
}

const MmfConnectionManager::PortMapRecord* MmfConnectionManager::PortRegistry::Find(
    MmfPortAddress key) const {
    const std::map<MmfPortAddress, PortMapRecord>::const_iterator it = records_.find(key);
    return it != records_.end() ? &it->second : nullptr;
}

}  // namespace vok
