// Not public API. The implementation of MessageMoverFramework.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MESSAGEMOVERFRAMEWORKIMPL_H
#define VOK_SRC_CORE_MESSAGEMOVER_MESSAGEMOVERFRAMEWORKIMPL_H

#include <map>
#include <string>

#include "Src/Core/MessageMover/MmfConnectionManager.h"
#include "Src/Core/MessageMover/MmfMessageManager.h"
#include "Src/Core/MessageMover/MmfObjectTrackerTemplate.h"
#include "vok/MessageMoverFramework.h"
#include "vok/Mutex.h"

namespace vok {

class MmfMessageMoverInterfaceImpl;

// The MessageMover of a process: owns the message manager, the connection manager and the
// tracker of interfaces. Interfaces may be created and discarded from any thread; ShutDown and
// destruction must not overlap any other use. Destroying it forgets leaked interfaces and ports
// and frees no messages.
class MessageMoverFrameworkImpl : public MessageMoverFramework {
  public:
    MessageMoverFrameworkImpl();
    ~MessageMoverFrameworkImpl() override;

    MessageMoverInterface* CreateInterface(const std::string& name) override;
    void DiscardInterface(MessageMoverInterface* iface) override;
    std::vector<MmPortInfo> ListPorts() override;
    // Reports the interfaces that were never discarded, then the quarantined messages; neither
    // is destroyed.
    void ShutDown();

    // For the MessageMover's own classes. Throw until both managers exist.
    MmfMessageManager& GetMessageMgr();
    MmfConnectionManager& GetConnectionMgr();

    static std::string GetIfaceInfoForObjectTracker(const MmfMessageMoverInterfaceImpl& iface);

    // Interfaces with one name share their counters. An interface takes its name when it is
    // made and gives it back when it is destroyed; taking answers whether no other live
    // interface has the name, so that only the first one resets the shared counters.
    bool TakeInterfaceName(const std::string& name);
    void GiveBackInterfaceName(const std::string& name);

  private:
    bool managersReady_;  // Set once both managers are constructed; never cleared.
    bool shutDown_;
    // Destroyed in reverse order: the tracker, then the connection manager, then the message
    // manager, whose memory the other two refer to.
    MmfMessageManager messageMgr_;
    MmfConnectionManager connectionMgr_;
    MmfObjectTrackerT<MmfMessageMoverInterfaceImpl> ifaceTracker_;
    Mutex namesLock_;                           // Protects liveNames_.
    std::map<std::string, int32_t> liveNames_;  // Live interfaces per name.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MESSAGEMOVERFRAMEWORKIMPL_H
