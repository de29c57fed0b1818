// Not public API. The sending and receiving end inside every command and connection port.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEPORT_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEPORT_H

#include <memory>

#include "Src/Core/MessageMover/MmfMessageManager.h"
#include "Src/Core/MessageMover/MmfPortEventManager.h"
#include "Src/Core/MessageMover/MmfSerialGenerator.h"
#include "vok/MessageMoverFramework.h"
#include "vok/Mutex.h"
#include "vok/VokError.h"

namespace vok {

class MessageMoverFrameworkImpl;
class MmfConnectionManager;
class MmfMessageMoverInterfaceImpl;

typedef MmPortAddress_t MmfPortAddress;

// A port's queue of incoming messages, oldest first. Not locked: the port uses it under its reader
// lock. It does not own the messages; the port frees what is left when it is destroyed.
class MmfMessageListT {
  public:
    void PushBack(MmfMessageLink& link);
    // Throws when the list is empty.
    MmfMessageLink& RemoveFront();
    bool IsEmpty();

  private:
    MmfMessageList list_;
};

struct MmfPairLink;

// The sending and receiving end of a port: an address, a queue, a sequence-number generator for
// what it writes and the port-event state. Any thread may write, read and use the port events.
// Owned by its command or connection port; destroying it frees the messages still queued (and
// quarantines those found corrupt; it never throws). Lock
// order on a delivery: the writer's writeLock_, the connection manager's registry lock, then the
// destination's readerLock_, then its queue lock or its event manager's state lock (never both).
// The two ends of a connected pair know each other: a write to the peer goes to it directly, its
// pointer guarded by the writer's writeLock_ instead of the registry lock, until either end
// leaves the registry.
class MmfMessagePort : public PortEventInterface {
  public:
    // Throws "NULL arg." for a NULL framework. iface is the port's owner (its options and
    // counters are used). peerAddress is a connection port's peer, kept for Describe.
    MmfMessagePort(MmfMessageMoverInterfaceImpl* iface, MessageMoverFrameworkImpl* framework,
                   MmfPortAddress address, MmfPortAddress peerAddress = 0);
    ~MmfMessagePort() override;
    MmfMessagePort(const MmfMessagePort&) = delete;
    MmfMessagePort& operator=(const MmfMessagePort&) = delete;

    void SetInitialPortState(bool readable, bool writable, bool exception);
    // Lets a and b write to each other without the registry; done before either is registered.
    // Throws (std::bad_alloc) before it changes anything.
    static void ConnectPair(MmfMessagePort& a, MmfMessagePort& b);
    // Ends the direct way to and from the peer; later writes to the peer go through the
    // registry. Called as the port leaves it; again does nothing. Takes the write locks of both
    // ends, so no write from the peer is under way when it returns.
    void DisconnectPair();
    MmfPortAddress GetAddress() const { return address_; }
    // Fills in everything but the service identifier, which the registry keeps. Takes the reader
    // lock, so it may be called under the registry lock but not under this port's locks.
    void Describe(MmPortInfo* info);

    // Stamps sender, sequence number and (when it is 0) serial, and delivers. The message leaves
    // the writer's hands on return, whatever the result: 0, or kVokErrUnreachable. The
    // destination's sink is triggered after every lock is let go. When it throws, *takenOver
    // (unless NULL) tells whether the message had left them already.
    VokError_t WriteMessage(MmBaseMessageHandle& msg, MmMessageSerial_t* serialOut,
                            bool* takenOver = nullptr);
    // WriteMessage of a message that the caller has just checked; header is its header.
    VokError_t WriteCheckedMessage(MmBaseMessageHandle& msg, MmfBaseMessageHeader& header,
                                   MmMessageSerial_t* serialOut, bool* takenOver);
    // Takes the message over (rebinds it to this port) and queues it; a trigger of the sink that
    // this makes due is armed in *pending. Called by the connection manager only, with its
    // registry lock held.
    void AcceptIncomingMessage(const MmBaseMessageHandle& msg, MmfPendingTrigger* pending);
    // The oldest message into *out, checked: 0, kVokErrNoMessage, or the sticky
    // kVokErrPeerClosed once the peer's close has been read. An empty port answers without a
    // lock. A corrupt message at the head is logged, quarantined and
    // thrown for; the next read returns the next message.
    VokError_t ReadMessage(MmBaseMessageHandle* out);

    void RegisterPortEventSignalSink(SimpleAsyncInterface& sink) override;
    void UnregisterPortEventSignalSink() override;
    void WatchPortEvents(bool readable, bool writable, bool exception) override;
    void GetPortState(bool* readable, bool* writable, bool* exception) override;
    // Whether a signal sink (a port monitor) is registered.
    bool HasSignalSink() const { return eventMgr_.HasSignalSink(); }

  private:
    // The receiving side.
    struct MsgPortReaderInfo {
        MmfMessageListT queue;  // Incoming messages; protected by readerLock.
        uint32_t depth = 0;     // Messages in queue; protected by readerLock.
        VokError_t linkError;   // Protected by readerLock; once set, every read returns it.
        Mutex readerLock;       // Makes each accept and each read one step.
    };

    // Takes the oldest message off the queue and counts it out of the port. A message that
    // fails its check is quarantined, and the check's exception goes on.
    MmBaseMessageHandle TakeFront();
    // Hands a written message to its connected peer directly, or else to the connection
    // manager. Called with writeLock_ held.
    VokError_t Deliver(MmBaseMessageHandle& msg, const MmfBaseMessageHeader& header,
                       MmfPendingTrigger* pending, bool* takenOver);
    // The interface's option word (0 without an interface).
    uint32_t GetDiagOptions() const;
    void AdjustMsgsHeldByPorts(int32_t delta);

    MmfPortEventManager eventMgr_;
    Mutex writeLock_;  // Serialises WriteMessage, delivery included.
    MsgPortReaderInfo readerInfo_;
    MmfSerialGenerator sequenceGenerator_;  // Atomic.
    const MmfPortAddress address_;
    const MmfPortAddress peerAddress_;
    MmfMessageMoverInterfaceImpl* const pIface_;
    MmfMessageManager* pMsgMgr_;
    MmfConnectionManager* pConnMgr_;
    MmfMessagePort* directPeer_;  // The connected peer while both are registered; writeLock_.
    std::shared_ptr<MmfPairLink> pairLink_;  // Shared with the peer; set once by ConnectPair.
    int pairSide_;                           // This end's index in pairLink_.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEPORT_H
