// Not public API. The implementation of MessageMoverInterface.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMOVERINTERFACEIMPL_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMOVERINTERFACEIMPL_H

#include <atomic>
#include <string>

#include "Src/Core/MessageMover/MmfMessageTrackerTemplate.h"
#include "Src/Core/MessageMover/MmfObjectTrackerTemplate.h"
#include "vok/DiagnosticRegister.h"
#include "vok/MessageMoverInterface.h"
#include "vok/Mutex.h"

namespace vok {

class MessageMoverFrameworkImpl;
class MmfCommandPortImpl;
class MmfConnectionManager;
class MmfConnectionPortImpl;
class MmfMessageManager;

// A named interface: creates and discards ports and messages for one user and accounts for what
// the user holds (trackers and the three counters under root.vok.MessageMover.Iface.NAME.). Any
// thread may use it. Created and destroyed by the framework; destruction reports leaked ports
// and messages on the leak log and frees nothing, then closes the leaked ports: they leave the
// registry and keep no way back to the interface.
class MmfMessageMoverInterfaceImpl : public MessageMoverInterface {
  public:
    // The diagnostic option word: bit 0 logs written, bit 1 delivered, bit 2 read messages.
    class OptionMgr {
      public:
        OptionMgr() : validMask_(7), options_(0) {}
        // Clears optionsToClear (0xFFFFFFFF: all), then sets optionsToSet; returns the new word.
        // Bits outside the mask are logged and thrown; the word is then unchanged.
        uint32_t Set(uint32_t optionsToClear, uint32_t optionsToSet);
        // Read on every message through the interface's ports: one atomic load, no lock.
        uint32_t Get() const { return options_.load(std::memory_order_relaxed); }

      private:
        const uint32_t validMask_;
        Mutex lock_;  // Serialises Set, so each check and update is one step.
        std::atomic<uint32_t> options_;
    };

    MmfMessageMoverInterfaceImpl(MessageMoverFrameworkImpl* framework, const std::string& name);
    ~MmfMessageMoverInterfaceImpl() override;

    MmConnectionPort* CreateConnectedPair(MessageMoverInterface* peerInterface,
                                          MmConnectionPort** peerPort) override;
    void DiscardConnectionPort(MmConnectionPort* port) override;
    MmCommandPort* CreateCommandServicePort(MmServiceIdentifier_t serviceId) override;
    MmCommandPort* CreateCommandPort() override;
    void DiscardCommandPort(MmCommandPort* port) override;
    void* CreateConnectionMessage(uint32_t payloadSize, MmConnectionMessageHandle* msg) override;
    MmConnectionMessageHandle DuplicateConnectionMessage(
        const MmConnectionMessageHandle& msg) override;
    void* CreateCommandMessage(uint32_t payloadSize, MmCommandMessageHandle* msg) override;
    MmCommandMessageHandle DuplicateCommandMessage(const MmCommandMessageHandle& msg) override;
    void FreeMessage(const MmConnectionMessageHandle& msg) override;
    void FreeMessage(const MmCommandMessageHandle& msg) override;
    uint32_t SetDiagOptions(uint32_t optionsToClear, uint32_t optionsToSet) override;

    MmCommandPort* CreateCommandPort_Helper(MmServiceIdentifier_t serviceId);

    const std::string& GetName() const { return name_; }
    OptionMgr& GetOptionMgr() { return options_; }
    DiagnosticRegisterCounter& GetMsgsHeldByPortsCounter() { return msgsHeldByPorts_; }
    // The tracker of messages of msg's kind that the user holds.
    MmfMessageTrackerT<MmConnectionMessageHandle>& GetMessageTracker(
        const MmConnectionMessageHandle& /*msg*/) {
        return connMsgTracker_;
    }
    MmfMessageTrackerT<MmCommandMessageHandle>& GetMessageTracker(
        const MmCommandMessageHandle& /*msg*/) {
        return cmdMsgTracker_;
    }

    // "portAddr=<ADDRESS>; iface=<NAME>" for the leak report.
    static std::string GetCmdPortInfoForObjectTracker(const MmfCommandPortImpl& port);
    static std::string GetConnPortInfoForObjectTracker(const MmfConnectionPortImpl& port);

  private:
    template <typename P>
    static std::string GetPortInfoForObjectTrackerT(const P& port);
    void CloseLeakedPorts();
    // Untracks a port that is to be discarded; refuses one that a monitor still watches.
    template <typename PortT, typename TrackerT>
    void UntrackForDiscard(TrackerT& tracker, PortT* port);
    template <typename HandleT>
    void* CreateMessageT(uint32_t payloadSize, HandleT* msg);
    template <typename HandleT>
    HandleT DuplicateMessageT(const HandleT& msg);
    template <typename HandleT>
    void FreeMessageT(const HandleT& msg);

    MessageMoverFrameworkImpl* const pFramework_;
    MmfConnectionManager* const pConnMgr_;
    MmfMessageManager* const pMsgMgr_;
    const std::string name_;
    OptionMgr options_;
    // The counters come before the trackers, which count in msgsHeldByUser_.
    DiagnosticRegisterCounter msgsHeldByUser_;
    DiagnosticRegisterCounter msgsLeakedByUser_;
    DiagnosticRegisterCounter msgsHeldByPorts_;
    MmfObjectTrackerT<MmfConnectionPortImpl> connPortTracker_;
    MmfObjectTrackerT<MmfCommandPortImpl> cmdPortTracker_;
    MmfMessageTrackerT<MmConnectionMessageHandle> connMsgTracker_;
    MmfMessageTrackerT<MmCommandMessageHandle> cmdMsgTracker_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFMESSAGEMOVERINTERFACEIMPL_H
