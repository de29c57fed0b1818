#include "Src/Core/MessageMover/MmfMessageManager.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>

namespace vok {

namespace {

const uint8_t kGuardBytes[kMmfPayloadGuardSize] = {0xBA, 0xBE, 0xFA, 0xCE};

uint32_t DumpSize(uint32_t guardOffset) {
    const uint32_t blockSize = guardOffset + kMmfPayloadGuardSize;
    return blockSize < kMmfMaxMessageDumpSize ? blockSize : kMmfMaxMessageDumpSize;
}

void LogHeaderDump(const MmfBaseMessageHeader& header) {
    gMmfLogger.CriticalBin(&header, kMmfMessageHeaderSize);
}

void InitHandleBlock(MmfMessageHandleBlock* block, uint8_t headerOffset) {
    block->headerOffset = headerOffset;
    block->bindingNumber = 1;
    block->link.Init(block);
}

// The handle blocks of the large blocks that are allocated, in every framework of the process.
// Contains, which every access through a handle of a large block asks, takes no lock and does
// not allocate: it probes an open-addressed table of atomic slots. Add and Remove (once per
// block) serialise on a mutex. A removed entry leaves a tombstone that a later Add reuses, so
// no entry ever moves while a reader may be probing for it; the table only grows (doubling
// once a quarter of it is live), and a table that was replaced is kept, since a reader may
// still be probing it.
class LargeBlockSet {
  public:
    LargeBlockSet() : table_(NewTable(kInitialSlots).release()), live_(0) {}

    // Throws std::bad_alloc, with nothing changed, when the table has to grow and cannot.
    void Add(const MmfMessageHandleBlock* block) {
        std::lock_guard<std::mutex> lock(writeLock_);
        Table* table = table_.load(std::memory_order_relaxed);
        if ((live_ + 1) * 4 > table->mask + 1) {
            table = Grow(table);
        }
        const uintptr_t key = reinterpret_cast<uintptr_t>(block);
        for (size_t i = Home(key, table->mask);; i = (i + 1) & table->mask) {
            const uintptr_t slot = table->slots[i].load(std::memory_order_relaxed);
            if (slot == kEmpty || slot == kTombstone) {
                table->slots[i].store(key, std::memory_order_release);
                break;
            }
        }
        ++live_;
    }
    void Remove(const MmfMessageHandleBlock* block) {
        std::lock_guard<std::mutex> lock(writeLock_);
        Table* const table = table_.load(std::memory_order_relaxed);
        std::atomic<uintptr_t>* const slot = Find(table, reinterpret_cast<uintptr_t>(block));
        if (slot != nullptr) {
            slot->store(kTombstone, std::memory_order_release);
            --live_;
        }
    }
    bool Contains(const MmfMessageHandleBlock* block) const {
        return Find(table_.load(std::memory_order_acquire), reinterpret_cast<uintptr_t>(block)) !=
               nullptr;
    }

  private:
    struct Table {
        size_t mask;  // Slots - 1; the slot count is a power of two.
        std::unique_ptr<std::atomic<uintptr_t>[]> slots;
    };
    static constexpr uintptr_t kEmpty = 0;
    static constexpr uintptr_t kTombstone = 1;  // Never a block address.
    static constexpr size_t kInitialSlots = 64;

    static std::unique_ptr<Table> NewTable(size_t slots) {
        std::unique_ptr<Table> table(new Table);
        table->mask = slots - 1;
        table->slots.reset(new std::atomic<uintptr_t>[slots]);
        for (size_t i = 0; i < slots; ++i) {
            table->slots[i].store(kEmpty, std::memory_order_relaxed);
        }
        return table;
    }
    static size_t Home(uintptr_t key, size_t mask) {
        // Blocks are at least 8-byte aligned; a multiplicative hash spreads the rest.
        return static_cast<size_t>((static_cast<uint64_t>(key >> 3) * 0x9E3779B97F4A7C15ull) >>
                                   32) &
               mask;
    }
    // The slot holding key, or NULL. Stops at an empty slot or after one round.
    static std::atomic<uintptr_t>* Find(Table* table, uintptr_t key) {
        size_t i = Home(key, table->mask);
        for (size_t probed = 0; probed <= table->mask; ++probed, i = (i + 1) & table->mask) {
            const uintptr_t slot = table->slots[i].load(std::memory_order_acquire);
            if (slot == key) {
                return &table->slots[i];
            }
            if (slot == kEmpty) {
                return nullptr;
            }
        }
        return nullptr;
    }
    // Under writeLock_: a table twice the size with the live entries, published.
    Table* Grow(Table* old) {
        std::unique_ptr<Table> table = NewTable((old->mask + 1) * 2);
        for (size_t i = 0; i <= old->mask; ++i) {
            const uintptr_t key = old->slots[i].load(std::memory_order_relaxed);
            if (key == kEmpty || key == kTombstone) {
                continue;
            }
            size_t j = Home(key, table->mask);
            while (table->slots[j].load(std::memory_order_relaxed) != kEmpty) {
                j = (j + 1) & table->mask;
            }
            table->slots[j].store(key, std::memory_order_relaxed);
        }
        retired_.emplace_back(old);  // Should this throw, old stays the table in use.
        table_.store(table.get(), std::memory_order_release);
        return table.release();
    }

    std::mutex writeLock_;  // Serialises Add and Remove. A leaf: nothing else is taken under it.
    std::atomic<Table*> table_;
    size_t live_;                                  // Entries in table_; under writeLock_.
    std::vector<std::unique_ptr<Table>> retired_;  // Replaced tables; under writeLock_.
};

// Never destroyed, so a handle checked during exit still finds it.
LargeBlockSet& LargeBlocks() {
    static LargeBlockSet* const blocks = new LargeBlockSet;
    return *blocks;
}

const MmfMessageHandleBlock* HandleBlockOf(const void* block) {
    return reinterpret_cast<const MmfMessageHandleBlock*>(static_cast<const uint8_t*>(block) +
                                                          kMmfHdrPackedSize);
}

// Out of line, so that allocating and releasing a small block stays as short as it was.
__attribute__((noinline, cold)) void AddLargeBlock(const void* block) {
    LargeBlocks().Add(HandleBlockOf(block));
}

__attribute__((noinline, cold)) void RemoveLargeBlock(const void* block) {
    LargeBlocks().Remove(HandleBlockOf(block));
}

// calcPayloadGuardOffsetFromPayloadSize without a call for a size in bounds.
uint32_t GuardOffset(uint32_t payloadSize) {
    return payloadSize <= kMmfMaxPayloadSize ? payloadSize + kMmfMessageHeaderSize
                                             : calcPayloadGuardOffsetFromPayloadSize(payloadSize);
}

}  // namespace

uint32_t calcPayloadGuardOffsetFromPayloadSize(uint32_t payloadSize) {
    MMF_TRACE(nullptr);
    if (payloadSize > kMmfMaxPayloadSize) {
        MMF_THROW("paylodSize out of bounds");
    }
    return payloadSize + kMmfMessageHeaderSize;
}

void initMessageHandleBlock(MmfMessageHandleBlock* block, uint8_t headerOffset) {
    MMF_TRACE(nullptr);
    if (block == nullptr) {
        MMF_THROW("NULL arg.");
    }
    InitHandleBlock(block, headerOffset);
}

MmfMessageManager::MmfMessageManager(MessageMoverFrameworkImpl& /*framework*/)
    : outstandingMsgs_(kMmfOutstandingMsgsDiagRegPath, 0),
      quarantinedMsgs_(kMmfQuarantinedMsgsDiagRegPath, 0) {
    MMF_TRACE(this);
    outstandingMsgs_.Reset(0);
    quarantinedMsgs_.Reset(0);
}

MmfMessageManager::~MmfMessageManager() {
    MMF_TRACE(this);
}

void MmfMessageManager::Init() {
    MMF_TRACE(this);
}

void MmfMessageManager::Deploy() {
    MMF_TRACE(this);
}

void* MmfMessageManager::AllocateMessageMemory(uint32_t payloadSize, uint32_t* allocSize) {
    MMF_TRACE(this);
    return AllocateBlock(payloadSize, allocSize);
}

void MmfMessageManager::FreeMessageMemory(MmfBaseMessageHeader* header) {
    MMF_TRACE(this);
    // The block's size is not known here (it may have no header yet).
    ReleaseBlock(header, true);
}

void* MmfMessageManager::AllocateBlock(uint32_t payloadSize, uint32_t* allocSize) {
    const uint32_t size = GuardOffset(payloadSize) + kMmfPayloadGuardSize;
    void* block = ::operator new(size);
    if (size >= kMmfLargeBlockSize) {
        try {
            AddLargeBlock(block);
        } catch (...) {
            ::operator delete(block);
            throw;
        }
    }
    if (allocSize != nullptr) {
        *allocSize = size;
    }
    outstandingMsgs_.Inc();
    return block;
}

void MmfMessageManager::ReleaseBlock(MmfBaseMessageHeader* header, bool isLarge) {
    if (isLarge) {
        RemoveLargeBlock(header);
    }
    ::operator delete(header);
    outstandingMsgs_.Dec();
}

void* MmfMessageManager::CreateMessage(uint32_t payloadSize, MmBaseMessageHandle* handle) {
    MMF_TRACE(this);
    if (handle == nullptr) {
        MMF_THROW("NULL arg.");
    }
    return InitMessage(static_cast<uint8_t*>(AllocateBlock(payloadSize, nullptr)), payloadSize,
                       handle);
}

void* MmfMessageManager::ReserveEmptyMessage() {
    return ::operator new(kMmfMessageHeaderSize + kMmfPayloadGuardSize);
}

void MmfMessageManager::CreateReservedMessage(void* reserved, MmBaseMessageHandle* handle) {
    MMF_TRACE(this);
    outstandingMsgs_.Inc();
    InitMessage(static_cast<uint8_t*>(reserved), 0, handle);
}

void MmfMessageManager::ReleaseReservedMessage(void* reserved) {
    ::operator delete(reserved);
}

void* MmfMessageManager::InitMessage(uint8_t* block, uint32_t payloadSize,
                                     MmBaseMessageHandle* handle) {
    std::memcpy(block + payloadSize + kMmfMessageHeaderSize, kGuardBytes, sizeof kGuardBytes);
    MmfBaseMessageHeader* header = reinterpret_cast<MmfBaseMessageHeader*>(block);
    std::memset(header, 0, kMmfMessageHeaderSize);
    header->SetSignature(kMmfMessageSignature);
    header->packed[kMmfHdrVersion] = kMmfHeaderVersion;
    header->packed[kMmfHdrPayloadOffset] = static_cast<uint8_t>(kMmfMessageHeaderSize);
    header->StoreHalves(kMmfHdrPayloadSize, payloadSize);
    InitHandleBlock(&header->handleBlock, kMmfHdrPackedSize);
    *handle = HandleOfCheckedHeader(*header);
    return GetPayloadPtrFromBinding(*handle, nullptr);  // Checks the new message once.
}

void MmfMessageManager::FreeMessage(const MmBaseMessageHandle& handle) {
    MMF_TRACE(this);
    FreeCheckedMessage(handle, GetHeaderFromBinding(handle));
}

void MmfMessageManager::FreeCheckedMessage(const MmBaseMessageHandle& handle,
                                           MmfBaseMessageHeader& header) {
    if (header.handleBlock.link.IsLinked()) {
        MMF_THROW("Message being freed still in queue");
    }
    header.SetSignature(0);
    header.handleBlock.bindingNumber = 0;
    ReleaseBlock(&header, handle.isLargeBlock_);
}

void MmfMessageManager::RebindMessage(MmBaseMessageHandle* handle) {
    MMF_TRACE(nullptr);
    if (handle == nullptr) {
        MMF_THROW("NULL arg.");
    }
    MmfBaseMessageHeader& header = GetHeaderFromBinding(*handle);
    MmfMessageHandleBlock& block = header.handleBlock;
    if (block.link.IsLinked()) {
        MMF_THROW("Message being rebound is still in queue");
    }
    block.bindingNumber = block.bindingNumber == 0xFFFF ? 1 : block.bindingNumber + 1;
    *handle = HandleOfCheckedHeader(header);
}

MmBaseMessageHandle MmfMessageManager::DuplicateMessage(const MmBaseMessageHandle& source) {
    MMF_TRACE(this);
    const MmfBaseMessageHeader& sourceHeader = GetHeaderFromBinding(source);
    // The copy's handle takes the source's binding number, not the copy's own 1, so a source
    // that has been rebound yields no usable copy: refused before anything is allocated.
    if (sourceHeader.handleBlock.bindingNumber != 1) {
        MMF_THROW("binding number mismatch");
    }
    const uint32_t payloadSize = sourceHeader.GetPayloadSize();
    uint32_t blockSize = 0;
    void* block = AllocateBlock(payloadSize, &blockSize);
    std::memcpy(block, &sourceHeader, blockSize);
    MmfBaseMessageHeader* copy = static_cast<MmfBaseMessageHeader*>(block);
    copy->SetSequenceNumber(0);
    copy->SetSerial(0);
    copy->SetInResponseToSerial(0);
    copy->SetSenderAddress(0);
    copy->SetDestAddress(0);
    InitHandleBlock(&copy->handleBlock, sourceHeader.handleBlock.headerOffset);
    return MakeHandle(&copy->handleBlock, sourceHeader.handleBlock.bindingNumber);
}

void MmfMessageManager::ValidateMessage(const MmfBaseMessageHeader& header) {
    MMF_TRACE(nullptr);
    const Logger& logger = gMmfLogger;
    const uint32_t signature = header.GetSignature();
    if (signature != kMmfMessageSignature) {
        logger.Critical(
            "%s: Invalid message header signature; expected <%#lx>, but got <%#lx>; hex dump of "
            "the message header follows...",
            __func__, static_cast<unsigned long>(kMmfMessageSignature),
            static_cast<unsigned long>(signature));
        LogHeaderDump(header);
        MMF_THROW("invalid message header signature");
    }
    if (header.GetVersion() != kMmfHeaderVersion) {
        logger.Critical(
            "%s: Invalid message header version; expected <%ld>, but got <%ld>; hex dump of the "
            "message header follows...",
            __func__, static_cast<long>(kMmfHeaderVersion), static_cast<long>(header.GetVersion()));
        LogHeaderDump(header);
        MMF_THROW("invalid message header version");
    }
    if (header.GetPayloadOffset() != kMmfMessageHeaderSize) {
        logger.Critical(
            "%s: Invalid message payload offset; expected <%ld>, but got <%ld>; hex dump of the "
            "message header follows...",
            __func__, static_cast<long>(kMmfMessageHeaderSize),
            static_cast<long>(header.GetPayloadOffset()));
        LogHeaderDump(header);
        MMF_THROW("invalid message payload offset");
    }
    const uint32_t guardOffset = GuardOffset(header.GetPayloadSize());
    uint32_t guard;
    std::memcpy(&guard, reinterpret_cast<const uint8_t*>(&header) + guardOffset, sizeof guard);
    if (guard != kMmfPayloadGuard) {
        logger.Critical(
            "%s: Corrupted payload memory guard; msg ptr=<%p>;payloadOffset=<%ld>; "
            "payloadSize=<%ld>; msgProtocol=<%ld>; msgId=<%ld>; hex dump of the message "
            "follows...",
            __func__, static_cast<const void*>(&header),
            static_cast<long>(header.GetPayloadOffset()),
            static_cast<long>(header.GetPayloadSize()), static_cast<long>(header.GetProtocolId()),
            static_cast<long>(header.GetMsgId()));
        logger.CriticalBin(&header, DumpSize(guardOffset));
        MMF_THROW("Corrupted payload memory guard");
    }
}

MmfBaseMessageHeader& MmfMessageManager::GetHeaderFromBindingLow(
    const MmBaseMessageHandle& handle) {
    MMF_TRACE(nullptr);
    MmfMessageHandleBlock* block = handle.pBlock_;
    if (block == nullptr) {
        MMF_THROW("NULL handle block pointer");
    }
    // A released large block may be unmapped; it has no binding any more.
    if ((handle.isLargeBlock_ && !IsLiveLargeBlock(block)) ||
        block->bindingNumber != handle.bindingNumber_) {
        MMF_THROW("binding number mismatch");
    }
    return *reinterpret_cast<MmfBaseMessageHeader*>(reinterpret_cast<uint8_t*>(block) -
                                                    block->headerOffset);
}

MmfBaseMessageHeader& MmfMessageManager::GetHeaderFromBindingTraced(
    const MmBaseMessageHandle& handle) {
    const FuncLogger trace(gMmfLogger, "GetHeaderFromBinding", nullptr);
    MmfBaseMessageHeader& header = GetHeaderFromBindingLow(handle);
    ValidateMessage(header);
    return header;
}

bool MmfMessageManager::IsLiveLargeBlock(const MmfMessageHandleBlock* block) {
    return LargeBlocks().Contains(block);
}

void MmfMessageManager::Quarantine(MmfMessageLink& link) {
    MMF_TRACE(this);
    const MmfBaseMessageHeader* header = reinterpret_cast<const MmfBaseMessageHeader*>(
        reinterpret_cast<const uint8_t*>(link.GetOwner()) - kMmfHdrPackedSize);
    gMmfLogger.Critical("%s: message <%p> is corrupt; it is kept in quarantine and never freed.",
                        __func__, static_cast<const void*>(header));
    {
        MutexLocker lock(quarantineLock_);
        quarantine_.push_back(header);
    }
    quarantinedMsgs_.Inc();
}

void MmfMessageManager::ReportQuarantine() {
    MMF_TRACE(this);
    std::vector<const MmfBaseMessageHeader*> quarantined;
    {
        MutexLocker lock(quarantineLock_);
        quarantined = quarantine_;
    }
    if (quarantined.empty()) {
        return;
    }
    const Logger& leakLogger = MmfDiag::GetLeakLogger();
    for (const MmfBaseMessageHeader* header : quarantined) {
        leakLogger.Warning("%s: Quarantined corrupt message <%p>; never freed.", __func__,
                           static_cast<const void*>(header));
    }
    leakLogger.Warning("%s: Summary: %ld corrupt messages were kept in quarantine.", __func__,
                       static_cast<long>(quarantined.size()));
}

void MmfMessageManager::LogMessage(const MmBaseMessageHandle& handle, const Logger& logger,
                                   DumpFunction dump) {
    MMF_TRACE(nullptr);
    const MmfBaseMessageHeader& header = GetHeaderFromBinding(handle);
    (logger.*dump)(&header, DumpSize(GuardOffset(header.GetPayloadSize())));
}

}  // namespace vok
