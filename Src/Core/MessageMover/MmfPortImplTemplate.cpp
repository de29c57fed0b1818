#include "Src/Core/MessageMover/MmfPortImplTemplate.h"

#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfMessageMoverInterfaceImpl.h"

namespace vok {

namespace {

// Protocol of the framework's link-control messages, which users may not write.
const uint32_t kLinkControlProtocolId = 1;

// Gives a message back to its writer's tracker when a write throws before delivery has taken
// the message over (a bad destination address, say), so the writer still holds it and may
// free it or write it again.
template <typename HandleT>
class HeldMessageRestorer {
  public:
    HeldMessageRestorer(MmfMessageTrackerT<HandleT>& tracker, const HandleT& msg,
                        const bool& takenOver)
        : tracker_(tracker), msg_(msg), takenOver_(takenOver) {}
    ~HeldMessageRestorer() {
        if (!takenOver_) {
            tracker_.Track(msg_);
        }
    }
    HeldMessageRestorer(const HeldMessageRestorer&) = delete;
    HeldMessageRestorer& operator=(const HeldMessageRestorer&) = delete;

  private:
    MmfMessageTrackerT<HandleT>& tracker_;
    const HandleT& msg_;
    const bool& takenOver_;
};

}  // namespace

template <typename PortBase, typename HandleT>
MmfPortImplT<PortBase, HandleT>::MmfPortImplT(MmfMessageMoverInterfaceImpl* iface,
                                              MessageMoverFrameworkImpl* framework,
                                              MmfPortAddress address, MmfPortAddress peerAddress)
    : pFramework_(framework),
      pMsgMgr_(nullptr),
      pIface_(iface),
      peerAddress_(peerAddress),
      messagePort_(iface, framework, address, peerAddress) {
    MMF_TRACE(this);
    pMsgMgr_ = &framework->GetMessageMgr();
}

template <typename PortBase, typename HandleT>
MmfPortImplT<PortBase, HandleT>::~MmfPortImplT() {
    MMF_TRACE(this);
}

template <typename PortBase, typename HandleT>
void MmfPortImplT<PortBase, HandleT>::RequireInterface() const {
    if (pIface_ == nullptr) {
        MMF_THROW("Port's interface was discarded.");
    }
}

template <typename PortBase, typename HandleT>
VokError_t MmfPortImplT<PortBase, HandleT>::WriteMessage(HandleT& msg,
                                                         MmMessageSerial_t* serialOut) {
    MMF_TRACE(this);
    RequireInterface();
    // Checked here, once, as the message leaves its writer.
    MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(msg.GetBinding());
    const uint32_t protocolId = header.GetProtocolId();
    if (protocolId == kLinkControlProtocolId) {
        gMmfLogger.Critical(
            "ERROR in %s: user <%s> attempted to write a message with internal protocolId=<%ld>.",
            __func__, pIface_->GetName().c_str(), static_cast<long>(protocolId));
        MMF_THROW("Writing a user message with internal protocolId is not allowed.");
    }
    // Only a message the writer holds is touched.
    MmfMessageTrackerT<HandleT>& tracker = pIface_->GetMessageTracker(msg);
    tracker.Untrack(header.handleBlock.link);
    bool takenOver = false;
    const HeldMessageRestorer<HandleT> restorer(tracker, msg, takenOver);
    if (peerAddress_ != 0) {
        header.SetDestAddress(peerAddress_);
    }
    const VokError_t result =
        messagePort_.WriteCheckedMessage(msg.GetBinding(), header, serialOut, &takenOver);
    if (result == kVokErrUnreachable) {
        // A connection port's only destination is its peer; a command port's writer learns of
        // the unreachable address from the kMmPortNotReachableMsg it receives.
        return peerAddress_ != 0 ? kVokErrPeerClosed : kVokErrNone;
    }
    return result;
}

template <typename PortBase, typename HandleT>
VokError_t MmfPortImplT<PortBase, HandleT>::ReadMessage(HandleT* msg) {
    MMF_TRACE(this);
    RequireInterface();
    if (msg == nullptr) {
        MMF_THROW("NULL arg.");
    }
    MmBaseMessageHandle incoming;
    const VokError_t result = messagePort_.ReadMessage(&incoming);
    if (result != kVokErrNone) {
        return result;
    }
    // The read has checked the message.
    MmfBaseMessageHeader& header = MmfMessageManager::CheckedHeaderOf(incoming);
    if (peerAddress_ != 0) {
        const MmfPortAddress sender = header.GetSenderAddress();
        if (sender != peerAddress_) {
            gMmfLogger.Critical(
                "ERROR in %s: Connection message from wrong sender; expected sender "
                "portAddr=<%ld>, but got <%ld>.",
                __func__, static_cast<long>(peerAddress_), static_cast<long>(sender));
            pMsgMgr_->FreeMessage(incoming);
            MMF_THROW("Wrong sender portAddr.");
        }
    }
    *msg = HandleT(incoming);
    pIface_->GetMessageTracker(*msg).Track(header.handleBlock.link);
    return kVokErrNone;
}

template <typename PortBase, typename HandleT>
void MmfPortImplT<PortBase, HandleT>::RegisterPortEventSignalSink(SimpleAsyncInterface& sink) {
    MMF_TRACE(this);
    RequireInterface();
    messagePort_.RegisterPortEventSignalSink(sink);
}

template <typename PortBase, typename HandleT>
void MmfPortImplT<PortBase, HandleT>::UnregisterPortEventSignalSink() {
    MMF_TRACE(this);
    RequireInterface();
    messagePort_.UnregisterPortEventSignalSink();
}

template <typename PortBase, typename HandleT>
void MmfPortImplT<PortBase, HandleT>::WatchPortEvents(bool readable, bool writable,
                                                      bool exception) {
    MMF_TRACE(this);
    RequireInterface();
    messagePort_.WatchPortEvents(readable, writable, exception);
}

template <typename PortBase, typename HandleT>
void MmfPortImplT<PortBase, HandleT>::GetPortState(bool* readable, bool* writable,
                                                   bool* exception) {
    MMF_TRACE(this);
    RequireInterface();
    messagePort_.GetPortState(readable, writable, exception);
}

template class MmfPortImplT<MmCommandPort, MmCommandMessageHandle>;
template class MmfPortImplT<MmConnectionPort, MmConnectionMessageHandle>;

}  // namespace vok
