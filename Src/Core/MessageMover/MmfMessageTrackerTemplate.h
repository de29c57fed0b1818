// Not public API. Tracking of the messages a user holds, by the messages' own links.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGETRACKERTEMPLATE_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGETRACKERTEMPLATE_H

#include <string>

#include "Src/Core/MessageMover/MmfMessageManager.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Mutex.h"

namespace vok {

// The messages of one handle kind (T is MmCommandMessageHandle or MmConnectionMessageHandle)
// that a user holds, linked into a list by their own links and counted in a register. A tracked
// message is linked, so it cannot be queued, rebound or freed until it is untracked. Any thread
// may use it. It never frees messages: destroying the tracker forgets them; ReportLeaks lists
// them on the leak log and hands those found corrupt to the message manager's quarantine.
template <typename T>
class MmfMessageTrackerT {
  public:
    MmfMessageTrackerT(const std::string& containerName, const std::string& kindName,
                       DiagnosticRegisterCounter* counter, MmfMessageManager* msgMgr)
        : containerName_(containerName),
          kindName_(kindName),
          pCounter_(counter),
          pMsgMgr_(msgMgr) {}

    // Checks the message first; a message in another list stops the process.
    void Track(const T& msg) { Track(MmfMessageManager::GetLinkFromBinding(msg.GetBinding())); }
    // Track for the link of a message that the caller has just checked.
    void Track(MmfMessageLink& link) {
        MMF_TRACE(this);
        {
            MutexLocker lock(mutex_);
            list_.PushBack(link);
        }
        pCounter_->Inc();
    }

    // Checks the message first. A message that is not in this list (held by another interface
    // or as the other handle kind) throws "ERROR: link not on list or invalid link" and stays
    // where it is.
    void CheckHeld(const T& msg) {
        MMF_TRACE(this);
        MmfMessageLink& link = MmfMessageManager::GetLinkFromBinding(msg.GetBinding());
        MutexLocker lock(mutex_);
        if (!list_.Contains(link)) {
            MMF_THROW("ERROR: link not on list or invalid link");
        }
    }

    // Checks the message first; a message that is not in this list throws as CheckHeld does.
    void Untrack(const T& msg) { Untrack(MmfMessageManager::GetLinkFromBinding(msg.GetBinding())); }
    // Untrack for the link of a message that the caller has just checked.
    void Untrack(MmfMessageLink& link) {
        MMF_TRACE(this);
        {
            MutexLocker lock(mutex_);
            list_.RemoveAt(link);
        }
        pCounter_->Dec();
    }

    // The number of messages tracked.
    int32_t GetCount() {
        MutexLocker lock(mutex_);
        return list_.GetCount();
    }

    // A header line, one line and two hex dumps (the handle, the first 39 header bytes) per
    // message, and a summary; nothing when empty. The messages stay tracked and allocated.
    void ReportLeaks() {
        MMF_TRACE(this);
        int32_t count;
        {
            MutexLocker lock(mutex_);
            count = list_.GetCount();
        }
        if (count == 0) {
            return;
        }
        const Logger& leakLogger = MmfDiag::GetLeakLogger();
        leakLogger.Warning(
            "%s: Leaked %ld %s objects in %s. Hex dumps of leaked handles and message headers "
            "follow.",
            __func__, static_cast<long>(count), kindName_.c_str(), containerName_.c_str());
        for (int32_t i = 0; i < count; ++i) {
            T msg;
            {
                MutexLocker lock(mutex_);
                MmfMessageLink& link = *list_.PeekAtIndex(i);
                try {
                    msg = T(MmfMessageManager::GetBindingFromLink(link));
                } catch (const VokException&) {
                    // Logged with its dump by the check. The report goes on; the list keeps the
                    // message's link.
                    pMsgMgr_->Quarantine(link);
                    continue;
                }
            }
            uint32_t payloadSize = 0;
            (void)msg.GetPayloadPtr(&payloadSize);
            MmMessageName name;
            msg.GetMessageName(&name);
            leakLogger.Warning(
                "%s: Leaked %s # %ld in %s; payloadSize=<%ld>; msgProtocol=<%ld>; msgId=<%ld>.",
                __func__, kindName_.c_str(), static_cast<long>(i), containerName_.c_str(),
                static_cast<long>(payloadSize), static_cast<long>(name.protocolId),
                static_cast<long>(name.msgId));
            if (leakLogger.IsEnabled(kLogLevelWarning)) {
                DumpHandleAndHeader(leakLogger, msg.GetBinding());
            }
        }
        leakLogger.Warning("%s: Summary: %ld %s objects in %s were leaked.", __func__,
                           static_cast<long>(count), kindName_.c_str(), containerName_.c_str());
    }

  private:
    // The handle as the block pointer, the binding number and two zero bytes; then the header's
    // packed fields from signature to destination address.
    static void DumpHandleAndHeader(const Logger& logger, const MmBaseMessageHandle& msg) {
        const MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(msg);
        const MmfMessageHandleBlock* block = &header.handleBlock;
        unsigned char handleBytes[sizeof block + 4] = {};
        std::memcpy(handleBytes, &block, sizeof block);
        std::memcpy(handleBytes + sizeof block, &block->bindingNumber, 2);
        logger.WarningBin(handleBytes, sizeof handleBytes);
        logger.WarningBin(&header, kMmfHdrReserved);
    }

    const std::string containerName_;
    const std::string kindName_;
    DiagnosticRegisterCounter* const pCounter_;  // Not owned.
    MmfMessageManager* const pMsgMgr_;           // Not owned; its quarantine takes corrupt ones.
    Mutex mutex_;                                // Protects list_.
    MmfMessageList list_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGETRACKERTEMPLATE_H
