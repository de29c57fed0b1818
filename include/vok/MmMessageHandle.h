// MessageMover message names, addresses and handles.
#ifndef VOK_MMMESSAGEHANDLE_H
#define VOK_MMMESSAGEHANDLE_H

#include <cstdint>

namespace vok {

// Port address: 0 is never valid; 1 to 49150 are service identifiers, 49152 and above are the
// dynamic addresses the framework issues, one per port.
typedef uint32_t MmPortAddress_t;
// Well-known address a command service port answers at besides its own; 0 means none.
typedef uint32_t MmServiceIdentifier_t;
// Serial number of a written message.
typedef uint32_t MmMessageSerial_t;

// A message's name. Protocols 0 to 3 are the framework's own (1 is link control), 4 to 0xBFFF
// belong to applications, 0xC000 and above are refused.
struct MmMessageName {
    // The protocol the message belongs to.
    uint32_t protocolId;
    // The message within its protocol.
    uint32_t msgId;
};

// Names are equal when both their fields are.
constexpr bool operator==(const MmMessageName& a, const MmMessageName& b) {
    return a.protocolId == b.protocolId && a.msgId == b.msgId;
}
constexpr bool operator!=(const MmMessageName& a, const MmMessageName& b) {
    return !(a == b);
}

// Link control, message type 4: the peer of a connection port has closed.
constexpr MmMessageName kMmPeerClosedMsg = {1, 1};
// Link control, message type 4: a message could not be delivered; its sender address is the
// address that was not reachable.
constexpr MmMessageName kMmPortNotReachableMsg = {1, 2};
// The shell's stop event to a blade (message type 3).
constexpr MmMessageName kVokBladeStopEvtMsg = {4, 1};

struct MmfMessageHandleBlock;
class MmfMessageManager;

// A value that names one message: the message's handle block and the binding number the handle
// was issued with. It does not own the message and is copied freely. Every accessor checks the
// binding, the header and the payload guard first and throws VokProgramErrorException when the
// handle is stale (the message changed hands or was freed) or the message is corrupt. A message
// is used by one thread at a time: its writer until it is written, then its reader.
class MmBaseMessageHandle {
  public:
    // An empty handle: every accessor throws "NULL handle block pointer".
    MmBaseMessageHandle() : pBlock_(nullptr), bindingNumber_(0), isLargeBlock_(false) {}
    // Checks the binding and the message at once.
    MmBaseMessageHandle(MmfMessageHandleBlock* block, uint16_t bindingNumber);
    // Copies are handles on the same message.
    MmBaseMessageHandle(const MmBaseMessageHandle& other) = default;
    // Makes this a handle on other's message.
    MmBaseMessageHandle& operator=(const MmBaseMessageHandle& other) = default;

    // The message type byte.
    uint8_t GetMessageType() const;
    void SetMessageType(uint8_t type);
    // Fills *name and returns name.
    MmMessageName* GetMessageName(MmMessageName* name) const;
    // Protocols above 0xBFFF throw "protocolId is out of bounds.".
    void SetMessageName(const MmMessageName& name);
    // The payload; its size goes to *size unless size is NULL. The handle does not own the
    // message, so a const handle still reaches a writable payload.
    void* GetPayloadPtr(uint32_t* size) const;
    // Header fields: the message's serial, the serial it answers, the sender and destination
    // addresses and the sequence number.
    MmMessageSerial_t GetMessageSerial() const;
    void SetMessageSerial(MmMessageSerial_t serial);
    MmMessageSerial_t GetInResponseToSerial() const;
    void SetInResponseToSerial(MmMessageSerial_t serial);
    MmPortAddress_t GetSenderAddress() const;
    void SetSenderAddress(MmPortAddress_t address);
    MmPortAddress_t GetDestinationAddress() const;
    void SetDestinationAddress(MmPortAddress_t address);
    uint32_t GetSequenceNumber() const;
    void SetSequenceNumber(uint32_t sequenceNumber);

    // This handle as a base handle.
    MmBaseMessageHandle& GetBinding() { return *this; }
    const MmBaseMessageHandle& GetBinding() const { return *this; }

  private:
    friend class MmfMessageManager;

    MmfMessageHandleBlock* pBlock_;
    uint16_t bindingNumber_;
    // Set when the message's block is large enough that freeing it may hand its pages back to the
    // kernel: such a block is looked up among the live blocks before it is read. Fits in the
    // padding after the binding number, so a handle is still two words.
    bool isLargeBlock_;
};

// What both kinds of user message handle offer: the base handle's operations except the
// addresses, the sequence number and an unchecked SetMessageName. Same rules as
// MmBaseMessageHandle.
class MmUserMessageHandle : protected MmBaseMessageHandle {
  public:
    // The base handle's operations of the same names.
    using MmBaseMessageHandle::GetInResponseToSerial;
    using MmBaseMessageHandle::GetMessageName;
    using MmBaseMessageHandle::GetMessageSerial;
    using MmBaseMessageHandle::GetMessageType;
    using MmBaseMessageHandle::GetPayloadPtr;
    using MmBaseMessageHandle::SetInResponseToSerial;
    using MmBaseMessageHandle::SetMessageSerial;
    using MmBaseMessageHandle::SetMessageType;

    // The base handle this handle wraps.
    MmBaseMessageHandle& GetBinding() { return *this; }
    const MmBaseMessageHandle& GetBinding() const { return *this; }

  protected:
    MmUserMessageHandle() = default;
    // A handle on binding's message.
    explicit MmUserMessageHandle(const MmBaseMessageHandle& binding)
        : MmBaseMessageHandle(binding) {}
};

// Handle of a message for command ports: addressed by the user, who may read the sender. Only
// application protocols (4 to 0xBFFF) may be set.
class MmCommandMessageHandle : public MmUserMessageHandle {
  public:
    MmCommandMessageHandle() = default;
    // A handle on binding's message.
    explicit MmCommandMessageHandle(const MmBaseMessageHandle& binding)
        : MmUserMessageHandle(binding) {}

    // The addresses: the destination is the user's to set, the sender only to read.
    using MmBaseMessageHandle::GetDestinationAddress;
    using MmBaseMessageHandle::GetSenderAddress;
    using MmBaseMessageHandle::SetDestinationAddress;
    // Protocols outside 4 to 0xBFFF throw "protocolId is out of end-user bounds.".
    void SetMessageName(const MmMessageName& name);
};

// Handle of a message for connection ports: always goes to the port's peer, so it carries no
// addresses for the user. Only application protocols (4 to 0xBFFF) may be set.
class MmConnectionMessageHandle : public MmUserMessageHandle {
  public:
    MmConnectionMessageHandle() = default;
    // A handle on binding's message.
    explicit MmConnectionMessageHandle(const MmBaseMessageHandle& binding)
        : MmUserMessageHandle(binding) {}

    // Protocols outside 4 to 0xBFFF throw "protocolId is out of end-user bounds.".
    void SetMessageName(const MmMessageName& name);
};

}  // namespace vok

#endif  // VOK_MMMESSAGEHANDLE_H
