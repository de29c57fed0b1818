#include "Src/Core/MessageMover/MmfConnectionPortImpl.h"

namespace vok {

MmfConnectionPortImpl::MmfConnectionPortImpl(MmfMessageMoverInterfaceImpl* iface,
                                             MessageMoverFrameworkImpl* framework,
                                             MmPortAddress_t address, MmPortAddress_t peerAddress)
    : MmfPortImplT(iface, framework, address, peerAddress),
      isShutDown_(false),
      peerClosedMsg_(nullptr) {
    MMF_TRACE(this);
    if (framework == nullptr || iface == nullptr) {
        MMF_THROW("NULL arg.");
    }
    messagePort_.SetInitialPortState(false, true, false);
    peerClosedMsg_ = MmfMessageManager::ReserveEmptyMessage();
}

MmfConnectionPortImpl::~MmfConnectionPortImpl() {
    MmfMessageManager::ReleaseReservedMessage(peerClosedMsg_);
}

void MmfConnectionPortImpl::ShutDown() {
    MMF_TRACE(this);
    MmBaseMessageHandle msg;
    if (peerClosedMsg_ != nullptr) {
        void* const reserved = peerClosedMsg_;
        peerClosedMsg_ = nullptr;
        pMsgMgr_->CreateReservedMessage(reserved, &msg);
    } else {
        pMsgMgr_->CreateMessage(0, &msg);
    }
    msg.SetMessageType(kMmfLinkControlMsgType);
    msg.SetMessageName(kMmPeerClosedMsg);
    msg.SetDestinationAddress(peerAddress_);
    // An absent peer only yields a kMmPortNotReachableMsg on this port.
    (void)messagePort_.WriteMessage(msg, nullptr);
    isShutDown_ = true;
}

}  // namespace vok
