#include "Src/Core/MessageMover/MmfMessagePort.h"

#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfConnectionManager.h"
#include "Src/Core/MessageMover/MmfMessageMoverInterfaceImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"

namespace vok {

namespace {

// Interface options that log every message passing a port.
const uint32_t kLogWrittenMessages = 1;
const uint32_t kLogDeliveredMessages = 2;
const uint32_t kLogReadMessages = 4;

// What the flight recorder keeps of a message: copied from its header before delivery, since
// once delivered the message belongs to its reader.
struct TracedMessage {
    uint64_t id;
    uint32_t protocol;
    uint32_t msgId;
    uint32_t size;
    uint32_t source;
    uint32_t dest;

    explicit TracedMessage(const MmfBaseMessageHeader& header)
        : id((static_cast<uint64_t>(header.GetSenderAddress()) << 32) | header.GetSequenceNumber()),
          protocol(header.GetProtocolId()),
          msgId(header.GetMsgId()),
          size(header.GetPayloadSize()),
          source(header.GetSenderAddress()),
          dest(header.GetDestAddress()) {}
};

bool IsPeerClosedMessage(const MmfBaseMessageHeader& header) {
    return header.GetMsgType() == kMmfLinkControlMsgType &&
           header.GetProtocolId() == kMmPeerClosedMsg.protocolId &&
           header.GetMsgId() == kMmPeerClosedMsg.msgId;
}

}  // namespace

// The two ends of a connected pair. lock makes each end's leaving one step, so an end never
// follows its pointer to a peer that has left.
struct MmfPairLink {
    Mutex lock;
    MmfMessagePort* ends[2];  // NULL once that end has left; protected by lock.
};

void MmfMessageListT::PushBack(MmfMessageLink& link) {
    list_.PushBack(link);
}

MmfMessageLink& MmfMessageListT::RemoveFront() {
    MmfMessageLink* const link = list_.PopFront();
    if (link == nullptr) {
        MMF_THROW("MmfMessageListT::RemoveFront: user attempted to remove message from empty list");
    }
    return *link;
}

bool MmfMessageListT::IsEmpty() {
    return list_.GetFirst() == nullptr;
}

MmfMessagePort::MmfMessagePort(MmfMessageMoverInterfaceImpl* iface,
                               MessageMoverFrameworkImpl* framework, MmfPortAddress address,
                               MmfPortAddress peerAddress)
    : sequenceGenerator_(0),
      address_(address),
      peerAddress_(peerAddress),
      pIface_(iface),
      pMsgMgr_(nullptr),
      pConnMgr_(nullptr),
      directPeer_(nullptr),
      pairSide_(0) {
    MMF_TRACE(this);
    readerInfo_.linkError = kVokErrNone;
    if (framework == nullptr) {
        MMF_THROW("NULL arg.");
    }
    pMsgMgr_ = &framework->GetMessageMgr();
    pConnMgr_ = &framework->GetConnectionMgr();
}

MmfMessagePort::~MmfMessagePort() {
    MMF_TRACE(this);
    DisconnectPair();
    int freed = 0;
    MutexLocker lock(readerInfo_.readerLock);
    while (!readerInfo_.queue.IsEmpty()) {
        try {
            pMsgMgr_->FreeMessage(TakeFront());
            ++freed;
        } catch (const VokException&) {
            // A corrupt message: TakeFront has quarantined it. The others are still freed.
        }
    }
    gMmfLogger.Debug("Freed %d leftover messages.", freed);
}

inline MmBaseMessageHandle MmfMessagePort::TakeFront() {
    MmfMessageLink& link = readerInfo_.queue.RemoveFront();
    --readerInfo_.depth;
    AdjustMsgsHeldByPorts(-1);
    try {
        return MmfMessageManager::GetBindingFromLink(link);
    } catch (const VokException&) {
        pMsgMgr_->Quarantine(link);  // The check has logged it with its dump.
        throw;
    }
}

void MmfMessagePort::ConnectPair(MmfMessagePort& a, MmfMessagePort& b) {
    std::shared_ptr<MmfPairLink> link = std::make_shared<MmfPairLink>();
    link->ends[0] = &a;
    link->ends[1] = &b;
    MutexLocker lock(link->lock);
    for (int side = 0; side < 2; ++side) {
        MmfMessagePort& end = *link->ends[side];
        MutexLocker writeLock(end.writeLock_);
        end.pairLink_ = link;
        end.pairSide_ = side;
        end.directPeer_ = link->ends[1 - side];
    }
}

void MmfMessagePort::DisconnectPair() {
    if (!pairLink_) {
        return;
    }
    MutexLocker lock(pairLink_->lock);
    MmfMessagePort* const peer = pairLink_->ends[1 - pairSide_];
    if (peer != nullptr) {
        MutexLocker peerWriteLock(peer->writeLock_);
        peer->directPeer_ = nullptr;
    }
    MutexLocker writeLock(writeLock_);
    directPeer_ = nullptr;
    pairLink_->ends[pairSide_] = nullptr;
}

void MmfMessagePort::SetInitialPortState(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    eventMgr_.SetInitialPortState(readable, writable, exception);
}

uint32_t MmfMessagePort::GetDiagOptions() const {
    return pIface_ != nullptr ? pIface_->GetOptionMgr().Get() : 0;
}

void MmfMessagePort::Describe(MmPortInfo* info) {
    info->interfaceName = pIface_ != nullptr ? pIface_->GetName() : std::string();
    info->address = address_;
    info->serviceId = 0;
    info->peerAddress = peerAddress_;
    MutexLocker lock(readerInfo_.readerLock);
    info->queueDepth = readerInfo_.depth;
}

void MmfMessagePort::AdjustMsgsHeldByPorts(int32_t delta) {
    if (pIface_ != nullptr) {
        pIface_->GetMsgsHeldByPortsCounter().Adjust(delta);
    }
}

VokError_t MmfMessagePort::WriteMessage(MmBaseMessageHandle& msg, MmMessageSerial_t* serialOut,
                                        bool* takenOver) {
    MMF_TRACE(this);
    return WriteCheckedMessage(msg, MmfMessageManager::GetHeaderFromBinding(msg), serialOut,
                               takenOver);
}

VokError_t MmfMessagePort::WriteCheckedMessage(MmBaseMessageHandle& msg,
                                               MmfBaseMessageHeader& header,
                                               MmMessageSerial_t* serialOut, bool* takenOver) {
    MMF_TRACE(this);
    const uint64_t traceBegin = trace::TraceBegin();
    header.SetSenderAddress(address_);
    // Declared before the lock, so it fires after the lock is let go, on every way out.
    MmfPendingTrigger pending;
    MutexLocker lock(writeLock_);
    const uint32_t sequenceNumber = sequenceGenerator_.GetNext();
    header.SetSequenceNumber(sequenceNumber);
    if (header.GetSerial() == 0) {
        header.SetSerial(sequenceNumber);
    }
    if (serialOut != nullptr) {
        *serialOut = header.GetSerial();
    }
    if ((GetDiagOptions() & kLogWrittenMessages) != 0) {
        MmfMessageManager::LogMessage(msg, MmfDiag::GetMsgWriteLogger(), &Logger::DebugBin);
    }
    // Link control (a closing end's notice to its peer) is not traced: no user reads it.
    if (traceBegin == 0 || header.GetMsgType() == kMmfLinkControlMsgType) {
        return Deliver(msg, header, &pending, takenOver);
    }
    const TracedMessage traced(header);
    const VokError_t result = Deliver(msg, header, &pending, takenOver);
    if (result == kVokErrNone) {
        trace::TraceMessageWritten(traceBegin, traced.id, traced.protocol, traced.msgId,
                                   traced.size, traced.source, traced.dest);
    }
    return result;
}

VokError_t MmfMessagePort::Deliver(MmBaseMessageHandle& msg, const MmfBaseMessageHeader& header,
                                   MmfPendingTrigger* pending, bool* takenOver) {
    if (directPeer_ != nullptr && header.GetDestAddress() == directPeer_->address_) {
        // The peer stays registered while this lock is held (see DisconnectPair).
        if (takenOver != nullptr) {
            *takenOver = true;
        }
        directPeer_->AcceptIncomingMessage(msg, pending);
        return kVokErrNone;
    }
    return pConnMgr_->DeliverMessage(msg, pending, takenOver);
}

void MmfMessagePort::AcceptIncomingMessage(const MmBaseMessageHandle& msg,
                                           MmfPendingTrigger* pending) {
    MMF_TRACE(this);
    MmBaseMessageHandle accepted(msg);
    MmfMessageManager::RebindMessage(&accepted);  // Checks the message as it changes hands.
    if ((GetDiagOptions() & kLogDeliveredMessages) != 0) {
        MmfMessageManager::LogMessage(accepted, MmfDiag::GetMsgDeliveryLogger(), &Logger::DebugBin);
    }
    MutexLocker lock(readerInfo_.readerLock);
    readerInfo_.queue.PushBack(MmfMessageManager::CheckedHeaderOf(accepted).handleBlock.link);
    ++readerInfo_.depth;
    AdjustMsgsHeldByPorts(1);
    eventMgr_.SetReadable(pending);
}

VokError_t MmfMessagePort::ReadMessage(MmBaseMessageHandle* out) {
    MMF_TRACE(this);
    const uint64_t traceBegin = trace::TraceBegin();
    if (out == nullptr) {
        MMF_THROW("NULL arg.");
    }
    // Readable holds from the accept that queues a message until the read that takes the last
    // one, and for good once the link error is set; so an empty port needs no lock.
    if (!eventMgr_.IsReadable()) {
        return kVokErrNoMessage;
    }
    const Logger& logger = gMmfLogger;
    MmBaseMessageHandle msg;
    {
        MutexLocker lock(readerInfo_.readerLock);
        if (readerInfo_.linkError != kVokErrNone) {
            logger.Debug("%s: Link Error is set <%#lX>, nothing read.", __func__,
                         static_cast<unsigned long>(readerInfo_.linkError));
            return readerInfo_.linkError;
        }
        if (readerInfo_.queue.IsEmpty()) {
            eventMgr_.SetNotReadable();
            return kVokErrNoMessage;
        }
        try {
            msg = TakeFront();
        } catch (const VokException&) {
            // The corrupt message is out of the way; the next read returns the next one.
            if (readerInfo_.queue.IsEmpty()) {
                eventMgr_.SetNotReadable();
            }
            throw;
        }
        if (IsPeerClosedMessage(MmfMessageManager::CheckedHeaderOf(msg))) {
            logger.Debug("%s: it's a <Peer Closed> Link Control Message.", __func__);
            readerInfo_.linkError = kVokErrPeerClosed;
            pMsgMgr_->FreeMessage(msg);
            return readerInfo_.linkError;
        }
        *out = msg;
        if ((GetDiagOptions() & kLogReadMessages) != 0) {
            MmfMessageManager::LogMessage(msg, MmfDiag::GetMsgReadLogger(), &Logger::DebugBin);
        }
        if (readerInfo_.queue.IsEmpty()) {
            eventMgr_.SetNotReadable();
        }
    }
    if (traceBegin != 0) {
        const TracedMessage traced(MmfMessageManager::CheckedHeaderOf(msg));
        trace::TraceMessageRead(traceBegin, traced.id, traced.protocol, traced.msgId, traced.size,
                                traced.source, traced.dest);
    }
    if (logger.IsEnabled(kLogLevelDebug)) {
        MmMessageName name;
        msg.GetMessageName(&name);
        logger.Debug(
            "%s: Got message; msgType=<%d>; protocol=<%ld>; msgId=<%ld>;serial=<%ld>; "
            "inRespToSerial=<%ld>; sender=<%ld>; dest=<%ld>.",
            __func__, msg.GetMessageType(), static_cast<long>(name.protocolId),
            static_cast<long>(name.msgId), static_cast<long>(msg.GetMessageSerial()),
            static_cast<long>(msg.GetInResponseToSerial()),
            static_cast<long>(msg.GetSenderAddress()),
            static_cast<long>(msg.GetDestinationAddress()));
    }
    return kVokErrNone;
}

void MmfMessagePort::RegisterPortEventSignalSink(SimpleAsyncInterface& sink) {
    MMF_TRACE(this);
    eventMgr_.RegisterPortEventSignalSink(sink);
}

void MmfMessagePort::UnregisterPortEventSignalSink() {
    MMF_TRACE(this);
    eventMgr_.UnregisterPortEventSignalSink();
}

void MmfMessagePort::WatchPortEvents(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    eventMgr_.WatchPortEvents(readable, writable, exception);
}

void MmfMessagePort::GetPortState(bool* readable, bool* writable, bool* exception) {
    MMF_TRACE(this);
    eventMgr_.GetPortState(readable, writable, exception);
}

}  // namespace vok
