// Not public API. Port addresses, the port registry and delivery.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONMANAGER_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONMANAGER_H

#include <cstdint>
#include <map>
#include <vector>

#include "Src/Core/MessageMover/MmfMessagePort.h"
#include "Src/Core/MessageMover/MmfSerialGenerator.h"
#include "vok/DiagnosticRegister.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/Mutex.h"
#include "vok/VokError.h"

namespace vok {

class MessageMoverFrameworkImpl;
class MmfMessageMoverInterfaceImpl;

// The routing heart of a framework, one per framework: issues port addresses (49152 upward,
// never reused), creates and registers ports, and delivers every written message to the port
// registered at its destination (a dynamic address or a service identifier), or frees it and
// answers the sender with kMmPortNotReachableMsg. Any thread may use it. It does not own the
// ports; destroying it forgets the ports still registered. The address generator's lock is never
// taken under the registry lock.
class MmfConnectionManager {
  public:
    explicit MmfConnectionManager(MessageMoverFrameworkImpl& framework);
    ~MmfConnectionManager();
    MmfConnectionManager(const MmfConnectionManager&) = delete;
    MmfConnectionManager& operator=(const MmfConnectionManager&) = delete;

    // Fetches the framework's message manager; ports and delivery need it.
    void Init();
    void Deploy();

    // A registered command port with a new address, also registered at serviceId unless it is
    // 0. Throws for serviceId above 49150 (no address consumed) or one already taken.
    MmCommandPort* CreateCommandPort(MmfMessageMoverInterfaceImpl* iface,
                                     MmServiceIdentifier_t serviceId);
    // Two registered connection ports addressed to each other; the first (for ifaceA) is
    // returned, the second (for ifaceB) stored in *peerOut.
    MmConnectionPort* CreateConnectedPair(MmfMessageMoverInterfaceImpl* ifaceA,
                                          MmfMessageMoverInterfaceImpl* ifaceB,
                                          MmConnectionPort** peerOut);
    void RegisterPort(MmfMessagePort& port, MmServiceIdentifier_t serviceId);
    void UnregisterPort(MmfMessagePort& port);
    // Unregisters and destroys the port.
    void DiscardCommandPort(MmCommandPort* port);
    // Sends kMmPeerClosedMsg to the peer, then unregisters and destroys the port. Needs no memory
    // the first time (the port holds its peer-closed message from its creation).
    void DiscardConnectionPort(MmConnectionPort* port);

    // Hands msg to the port at its destination: 0, or kVokErrUnreachable after freeing it and
    // sending kMmPortNotReachableMsg to its sender (logged and left out when there is no memory
    // for it). Either way msg has left the caller's hands.
    // msg has just been checked by the caller. A zero sender or destination throws and leaves msg
    // with the caller. *takenOver (unless NULL) is set once the message has left the caller's
    // hands, so a caller can tell whether an exception left it the message. The trigger of the
    // receiving port's sink is armed in *pending, for the caller to fire once it holds no lock.
    VokError_t DeliverMessage(const MmBaseMessageHandle& msg, MmfPendingTrigger* pending,
                              bool* takenOver = nullptr);

    // Every registered port, in address order; each described under its reader lock.
    std::vector<MmPortInfo> ListPorts();

  private:
    // The registry entry of one key; a service port has a canonical record under its address and
    // an alias record under its service identifier.
    struct PortMapRecord {
        bool isAlias;
        MmfMessagePort* port;  // Not owned.
        MmfPortAddress portAddress;
        MmServiceIdentifier_t serviceId;
    };

    class PortRegistry {
      public:
        // Logs and throws when key is taken; nothing is changed then.
        void Register(MmfPortAddress key, const PortMapRecord& record);
        // Logs and throws unless exactly one record is filed under key.
        void Unregister(MmfPortAddress key);
        // The record filed under key, or NULL.
        const PortMapRecord* Find(MmfPortAddress key) const;
        const std::map<MmfPortAddress, PortMapRecord>& Records() const { return records_; }

      private:
        std::map<MmfPortAddress, PortMapRecord> records_;
    };

    // Requires registryLock_.
    VokError_t DeliverMessageHelper_Locked(const MmBaseMessageHandle& msg, MmfPortAddress sender,
                                           MmfPortAddress dest, MmfPendingTrigger* pending,
                                           bool* takenOver);

    MessageMoverFrameworkImpl& framework_;
    MmfMessageManager* pMsgMgr_;  // Set by Init.
    // Protects registry_, and is held for the whole of each delivery, so a
    // port cannot be unregistered while a message is handed to it. Taken after a writing port's
    // write lock and before the destination port's locks.
    Mutex registryLock_;
    MmfSerialGenerator addressGenerator_;  // Protected by its own lock.
    PortRegistry registry_;
    DiagnosticRegisterCounter undeliverableMsgs_;  // Counted on the failure path only.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONMANAGER_H
