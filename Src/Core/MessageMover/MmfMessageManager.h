// Not public API. Message memory: the block layout, its validation, and the manager that
// allocates, frees, rebinds and duplicates messages.
//
// One heap block per message: header, payload, then a 4-byte guard (BA BE FA CE) right after the
// last payload byte. Header bytes 0..39 are packed little-endian fields at fixed offsets on every
// platform; the handle block at offset 40 holds native pointers, so the header is 64 bytes on
// 32-bit targets and larger on 64-bit hosts. payloadOffset always holds the header size.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMANAGER_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMANAGER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Src/Core/MessageMover/MmfIntrusiveListTemplate.h"
#include "Src/Core/MessageMover/MmfTrace.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Logger.h"
#include "vok/MmMessageHandle.h"
#include "vok/Mutex.h"

namespace vok {

class MessageMoverFrameworkImpl;

// Diagnostic register paths of the MessageMover.
#define VOK_MMF_DIAG_REG_GROUP_PATH "root.vok.MessageMover."
constexpr char kMmfDiagRegGroupPath[] = VOK_MMF_DIAG_REG_GROUP_PATH;
constexpr char kMmfIfaceDiagRegGroupPath[] = VOK_MMF_DIAG_REG_GROUP_PATH "Iface.";
constexpr char kMmfOutstandingMsgsDiagRegPath[] = VOK_MMF_DIAG_REG_GROUP_PATH "outstandingMessages";
constexpr char kMmfQuarantinedMsgsDiagRegPath[] = VOK_MMF_DIAG_REG_GROUP_PATH "quarantinedMessages";
// Messages (unreachable notices included) that found no port at their destination.
constexpr char kMmfUndeliverableMsgsDiagRegPath[] =
    VOK_MMF_DIAG_REG_GROUP_PATH "undeliverableMessages";
constexpr char kMmfIfaceMsgsHeldByUserDiagRegName[] = "msgsHeldByUser";
constexpr char kMmfIfaceMsgsLeakedByUserDiagRegName[] = "msgsLeakedByUser";
constexpr char kMmfIfaceMsgsHeldByPortsDiagRegName[] = "msgsHeldByPorts";
#undef VOK_MMF_DIAG_REG_GROUP_PATH

typedef MmfIntrusiveLinkT<MmfMessageHandleBlock> MmfMessageLink;
typedef MmfIntrusiveListT<MmfMessageHandleBlock> MmfMessageList;

// What a handle names, embedded in the header at offset 40. Ports queue and trackers track a
// message by its link; a message is in at most one list at a time.
struct MmfMessageHandleBlock {
    uint8_t headerOffset;    // Distance from the header start to this block: 40.
    uint8_t reserved;        // Unused.
    uint16_t bindingNumber;  // Current binding: 1 when created, advanced on rebind, never 0.
    MmfMessageLink link;     // Owner is this block.
};

// Byte offsets of the packed header fields.
enum MmfHeaderFieldOffset : uint32_t {
    kMmfHdrSignature = 0,
    kMmfHdrVersion = 4,
    kMmfHdrPayloadOffset = 5,
    kMmfHdrPayloadSize = 6,
    kMmfHdrSequenceNumber = 10,
    kMmfHdrMsgType = 14,
    kMmfHdrProtocolId = 15,
    kMmfHdrMsgId = 19,
    kMmfHdrSerial = 23,
    kMmfHdrInResponseToSerial = 27,
    kMmfHdrSenderAddress = 31,
    kMmfHdrDestAddress = 35,
    kMmfHdrReserved = 39,
    kMmfHdrPackedSize = 40,  // Also the handle block's offset.
};

// The message header. The packed fields are read and written through memcpy at their offsets, so
// nothing depends on alignment; a setter changes only its own field.
struct MmfBaseMessageHeader {
    uint8_t packed[kMmfHdrPackedSize];
    MmfMessageHandleBlock handleBlock;

    uint32_t GetSignature() const { return LoadU32(kMmfHdrSignature); }
    void SetSignature(uint32_t value) { StoreU32(kMmfHdrSignature, value); }
    uint8_t GetVersion() const { return packed[kMmfHdrVersion]; }
    uint8_t GetPayloadOffset() const { return packed[kMmfHdrPayloadOffset]; }
    uint32_t GetPayloadSize() const { return LoadHalves(kMmfHdrPayloadSize); }
    uint32_t GetSequenceNumber() const { return LoadHalves(kMmfHdrSequenceNumber); }
    void SetSequenceNumber(uint32_t value) { StoreHalves(kMmfHdrSequenceNumber, value); }
    uint8_t GetMsgType() const { return packed[kMmfHdrMsgType]; }
    void SetMsgType(uint8_t value) { packed[kMmfHdrMsgType] = value; }
    uint32_t GetProtocolId() const { return LoadU32(kMmfHdrProtocolId); }
    void SetProtocolId(uint32_t value) { StoreU32(kMmfHdrProtocolId, value); }
    uint32_t GetMsgId() const { return LoadU32(kMmfHdrMsgId); }
    void SetMsgId(uint32_t value) { StoreU32(kMmfHdrMsgId, value); }
    uint32_t GetSerial() const { return LoadU32(kMmfHdrSerial); }
    void SetSerial(uint32_t value) { StoreU32(kMmfHdrSerial, value); }
    uint32_t GetInResponseToSerial() const { return LoadU32(kMmfHdrInResponseToSerial); }
    void SetInResponseToSerial(uint32_t value) { StoreU32(kMmfHdrInResponseToSerial, value); }
    uint32_t GetSenderAddress() const { return LoadU32(kMmfHdrSenderAddress); }
    void SetSenderAddress(uint32_t value) { StoreU32(kMmfHdrSenderAddress, value); }
    uint32_t GetDestAddress() const { return LoadU32(kMmfHdrDestAddress); }
    void SetDestAddress(uint32_t value) { StoreU32(kMmfHdrDestAddress, value); }

    uint32_t LoadU32(uint32_t offset) const {
        uint32_t value;
        std::memcpy(&value, packed + offset, sizeof value);
        return value;
    }
    void StoreU32(uint32_t offset, uint32_t value) {
        std::memcpy(packed + offset, &value, sizeof value);
    }
    // Fields stored as two 16-bit halves, low half first.
    uint32_t LoadHalves(uint32_t offset) const {
        uint16_t low;
        uint16_t high;
        std::memcpy(&low, packed + offset, sizeof low);
        std::memcpy(&high, packed + offset + 2, sizeof high);
        return static_cast<uint32_t>(low) | (static_cast<uint32_t>(high) << 16);
    }
    void StoreHalves(uint32_t offset, uint32_t value) {
        const uint16_t low = static_cast<uint16_t>(value);
        const uint16_t high = static_cast<uint16_t>(value >> 16);
        std::memcpy(packed + offset, &low, sizeof low);
        std::memcpy(packed + offset + 2, &high, sizeof high);
    }
};

static_assert(offsetof(MmfBaseMessageHeader, handleBlock) == kMmfHdrPackedSize,
              "the handle block sits at offset 40");
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(MmfMessageHandleBlock) == 24, "24-byte handle block on 32-bit targets");
static_assert(sizeof(MmfBaseMessageHeader) == 64, "64-byte message header on 32-bit targets");
#endif

constexpr uint32_t kMmfMessageHeaderSize = sizeof(MmfBaseMessageHeader);
constexpr uint32_t kMmfPayloadGuardSize = 4;
constexpr uint32_t kMmfMaxPayloadSize = 0xFFFFBB;
constexpr uint32_t kMmfMessageSignature = 0xCEFAEDFE;
constexpr uint32_t kMmfPayloadGuard = 0xCEFABEBA;  // Bytes BA BE FA CE.
constexpr uint8_t kMmfHeaderVersion = 1;
constexpr uint32_t kMmfMaxMessageDumpSize = 0x2800;
// Message type of the framework's link-control messages.
constexpr uint8_t kMmfLinkControlMsgType = 4;
// Blocks of at least this size are large: the allocator may hand their pages back to the kernel
// when they are freed, so a handle to one looks the block up among the live large blocks before
// it reads it. Smaller blocks stay in the allocator's own bins and are read directly.
constexpr uint32_t kMmfLargeBlockSize = 4096;

// Offset of the guard from the block start. Throws "paylodSize out of bounds" above 0xFFFFBB.
uint32_t calcPayloadGuardOffsetFromPayloadSize(uint32_t payloadSize);
// Sets the header offset and binding 1 and makes the link an unlinked node. Throws on NULL.
void initMessageHandleBlock(MmfMessageHandleBlock* block, uint8_t headerOffset);

// Owner of the rules of message memory, one per framework. Allocation, freeing and duplication
// count blocks in the register root.vok.MessageMover.outstandingMessages; the validating
// operations are static and need only a handle. A message is touched by one thread at a time
// (writer, then connection manager and receiving port under their locks, then reader). Messages
// found corrupt are kept in a quarantine, counted in root.vok.MessageMover.quarantinedMessages
// and never freed. Any thread may use it. Destroying the manager frees no messages; those still
// allocated stay counted.
class MmfMessageManager {
  public:
    typedef void (Logger::*DumpFunction)(const void* data, size_t length) const;

    explicit MmfMessageManager(MessageMoverFrameworkImpl& framework);
    ~MmfMessageManager();
    MmfMessageManager(const MmfMessageManager&) = delete;
    MmfMessageManager& operator=(const MmfMessageManager&) = delete;

    // Start-up hooks; nothing to do beyond tracing.
    void Init();
    void Deploy();

    // An uninitialised block for payloadSize bytes; its size goes to *allocSize unless NULL.
    void* AllocateMessageMemory(uint32_t payloadSize, uint32_t* allocSize);
    void FreeMessageMemory(MmfBaseMessageHeader* header);

    // A new message (type 0, name 0/0, no serials or addresses) with an uninitialised payload;
    // fills *handle and returns the payload.
    void* CreateMessage(uint32_t payloadSize, MmBaseMessageHandle* handle);
    // A block for a zero-payload message, allocated ahead for a step that must not fail for want
    // of memory; not counted as outstanding until CreateReservedMessage uses it.
    static void* ReserveEmptyMessage();
    // CreateMessage(0, handle) in a block from ReserveEmptyMessage, which it takes over.
    void CreateReservedMessage(void* reserved, MmBaseMessageHandle* handle);
    // Returns a block from ReserveEmptyMessage that was never used; NULL is ignored.
    static void ReleaseReservedMessage(void* reserved);
    // Refuses a message that is still in a list. Zeroes the signature and the binding number
    // before releasing the block, so a handle kept afterwards is stale.
    void FreeMessage(const MmBaseMessageHandle& handle);
    // FreeMessage of a message whose handle the caller has just checked; header is its header.
    void FreeCheckedMessage(const MmBaseMessageHandle& handle, MmfBaseMessageHeader& header);
    // Moves the message to a new owner: advances the binding number (skipping 0) so that every
    // earlier handle is stale, and rewrites *handle. Refuses a message that is in a list.
    static void RebindMessage(MmBaseMessageHandle* handle);
    // A copy without serials, addresses and sequence number. The returned handle carries the
    // source's binding number, so only a source that was never rebound yields a usable copy;
    // any other throws "binding number mismatch" before anything is allocated.
    MmBaseMessageHandle DuplicateMessage(const MmBaseMessageHandle& source);

    // Checks signature, version, payload offset and guard; logs and throws on the first failure.
    static void ValidateMessage(const MmfBaseMessageHeader& header);
    // The header, with the handle's pointer and binding checked but not the message.
    static MmfBaseMessageHeader& GetHeaderFromBindingLow(const MmBaseMessageHandle& handle);
    // The header, with handle and message checked. Every field access comes here, so a sound
    // message is checked inline; the traced out-of-line path runs while debug tracing is on and
    // for a message that fails a check, which it then reports.
    static MmfBaseMessageHeader& GetHeaderFromBinding(const MmBaseMessageHandle& handle) {
        MmfBaseMessageHeader* header = MmfIsTracing() ? nullptr : FindSoundHeader(handle);
        return header != nullptr ? *header : GetHeaderFromBindingTraced(handle);
    }
    static void ValidateMessageBinding(const MmBaseMessageHandle& handle) {
        (void)GetHeaderFromBinding(handle);
    }
    // For a handle made from a block that is allocated: checks it as it is, then sets its
    // large-block mark from the message's checked size.
    static void MarkLargeBlock(MmBaseMessageHandle* handle) {
        handle->isLargeBlock_ = false;
        const uint32_t payloadSize = GetHeaderFromBinding(*handle).GetPayloadSize();
        handle->isLargeBlock_ =
            payloadSize + kMmfMessageHeaderSize + kMmfPayloadGuardSize >= kMmfLargeBlockSize;
    }
    static void* GetPayloadPtrFromBinding(const MmBaseMessageHandle& handle,
                                          uint32_t* payloadSize) {
        MmfBaseMessageHeader& header = GetHeaderFromBinding(handle);
        if (payloadSize != nullptr) {
            *payloadSize = header.GetPayloadSize();
        }
        return reinterpret_cast<uint8_t*>(&header) + header.GetPayloadOffset();
    }
    static MmfMessageLink& GetLinkFromBinding(const MmBaseMessageHandle& handle) {
        return GetHeaderFromBinding(handle).handleBlock.link;
    }
    // A checked handle, with the current binding, of the message that owns link.
    static MmBaseMessageHandle GetBindingFromLink(MmfMessageLink& link) {
        (void)link.IsLinked();  // Checks the node's signature; the answer does not matter here.
        MmfMessageHandleBlock* block = link.GetOwner();
        return MakeHandle(block, block->bindingNumber);
    }
    // The framework's own operations check a message once, where it changes hands (creation,
    // write, delivery, read, free), and then work on the checked header: these two skip the
    // checks, for a handle or header that the calling operation has just checked.
    static MmfBaseMessageHeader& CheckedHeaderOf(const MmBaseMessageHandle& handle) {
        return *reinterpret_cast<MmfBaseMessageHeader*>(reinterpret_cast<uint8_t*>(handle.pBlock_) -
                                                        kMmfHdrPackedSize);
    }
    static MmBaseMessageHandle HandleOfCheckedHeader(MmfBaseMessageHeader& header) {
        MmBaseMessageHandle handle;
        handle.pBlock_ = &header.handleBlock;
        handle.bindingNumber_ = header.handleBlock.bindingNumber;
        handle.isLargeBlock_ =
            header.GetPayloadSize() + kMmfMessageHeaderSize + kMmfPayloadGuardSize >=
            kMmfLargeBlockSize;
        return handle;
    }

    // Dumps the whole block (at most 10240 bytes) through the given dump member of logger.
    static void LogMessage(const MmBaseMessageHandle& handle, const Logger& logger,
                           DumpFunction dump);

    // Takes over the message whose link this is, after it failed validation (which logged it
    // with its dump): it is counted and kept, never freed, since none of its memory can be
    // trusted. The caller has taken it out of every list it can.
    void Quarantine(MmfMessageLink& link);
    // Lists the quarantined messages on the leak log; they stay allocated.
    void ReportQuarantine();

  private:
    // The header when the handle is current and the message passes every check of
    // ValidateMessage, else NULL. Reports nothing.
    static MmfBaseMessageHeader* FindSoundHeader(const MmBaseMessageHandle& handle) {
        MmfMessageHandleBlock* block = handle.pBlock_;
        if (block == nullptr || (handle.isLargeBlock_ && !IsLiveLargeBlock(block)) ||
            block->bindingNumber != handle.bindingNumber_) {
            return nullptr;
        }
        MmfBaseMessageHeader* header = reinterpret_cast<MmfBaseMessageHeader*>(
            reinterpret_cast<uint8_t*>(block) - block->headerOffset);
        const uint32_t payloadSize = header->GetPayloadSize();
        uint32_t guard;
        if (header->GetSignature() != kMmfMessageSignature ||
            header->GetVersion() != kMmfHeaderVersion ||
            header->GetPayloadOffset() != kMmfMessageHeaderSize ||
            payloadSize > kMmfMaxPayloadSize) {
            return nullptr;
        }
        std::memcpy(&guard,
                    reinterpret_cast<uint8_t*>(header) + kMmfMessageHeaderSize + payloadSize,
                    sizeof guard);
        return guard == kMmfPayloadGuard ? header : nullptr;
    }
    static MmfBaseMessageHeader& GetHeaderFromBindingTraced(const MmBaseMessageHandle& handle);
    // Whether the large block whose handle block this is has not been released.
    static bool IsLiveLargeBlock(const MmfMessageHandleBlock* block);
    // Makes a new message of block, which has room for payloadSize bytes; returns the payload.
    static void* InitMessage(uint8_t* block, uint32_t payloadSize, MmBaseMessageHandle* handle);
    // The work of AllocateMessageMemory and FreeMessageMemory, for the manager's own use.
    void* AllocateBlock(uint32_t payloadSize, uint32_t* allocSize);
    // isLarge: the block may be in the set of live large blocks.
    void ReleaseBlock(MmfBaseMessageHeader* header, bool isLarge);
    // What the checking constructor of MmBaseMessageHandle does, without a call. The block is
    // allocated, so it is checked as it is and then marked large by its checked size.
    static MmBaseMessageHandle MakeHandle(MmfMessageHandleBlock* block, uint16_t bindingNumber) {
        MmBaseMessageHandle handle;
        handle.pBlock_ = block;
        handle.bindingNumber_ = bindingNumber;
        MarkLargeBlock(&handle);
        return handle;
    }

    DiagnosticRegisterCounter outstandingMsgs_;  // Blocks allocated and not yet released.
    DiagnosticRegisterCounter quarantinedMsgs_;  // Messages in quarantine_.
    Mutex quarantineLock_;  // Protects quarantine_. Taken last, after any port or tracker lock.
    std::vector<const MmfBaseMessageHeader*> quarantine_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMANAGER_H
