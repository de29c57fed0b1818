// The MessageMover: in-process message passing between threads.
#ifndef VOK_MESSAGEMOVERFRAMEWORK_H
#define VOK_MESSAGEMOVERFRAMEWORK_H

#include <cstdint>
#include <string>
#include <vector>

#include <vok/MessageMoverInterface.h>

namespace vok {

// One open port of a MessageMover at the moment it was listed (MessageMoverFramework::ListPorts).
struct MmPortInfo {
    std::string interfaceName;        // The name of the interface that created the port.
    MmPortAddress_t address;          // The port's own dynamic address.
    MmServiceIdentifier_t serviceId;  // The service identifier it answers to; 0 when none.
    MmPortAddress_t peerAddress;      // A connection port's peer; 0 for a command port.
    uint32_t queueDepth;              // Messages delivered to the port and not yet read.
};

// The MessageMover of a process: message memory, port addresses, delivery, and the named
// interfaces its users work through. Started once and stopped once by its owner; interfaces may
// be created and discarded from any thread in between. Stopping reports the interfaces that were
// not discarded and must not overlap any other use of the MessageMover.
class MessageMoverFramework {
  public:
    // The name is for the caller's records. The caller owns the result until it passes it to
    // StopMessageMoverFramework.
    static MessageMoverFramework* StartMessageMoverFramework(const std::string& name);
    // Reports leaked interfaces, then the messages found corrupt (kept in a quarantine, counted
    // in root.vok.MessageMover.quarantinedMessages, never freed), on VOK.MessageMover.Leak; then
    // destroys the framework.
    static void StopMessageMoverFramework(MessageMoverFramework* framework);

    // Names need not be unique; interfaces of one name share their counters.
    virtual MessageMoverInterface* CreateInterface(const std::string& name) = 0;
    // Reports the ports and messages the interface's user did not give back, then destroys it.
    virtual void DiscardInterface(MessageMoverInterface* iface) = 0;
    // Every open port, in address order, for diagnostics. Any thread; each port is described
    // under the locks that deliver to it, so its entry is consistent, but ports opened or
    // discarded during the call may or may not be listed. Leaked ports, closed when their
    // interface was discarded, are not listed.
    virtual std::vector<MmPortInfo> ListPorts() = 0;

  protected:
    virtual ~MessageMoverFramework() = default;
};

}  // namespace vok

#endif  // VOK_MESSAGEMOVERFRAMEWORK_H
