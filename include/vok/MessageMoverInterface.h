// A client's handle on the MessageMover.
#ifndef VOK_MESSAGEMOVERINTERFACE_H
#define VOK_MESSAGEMOVERINTERFACE_H

#include <cstdint>

#include <vok/MmCommandPort.h>
#include <vok/MmConnectionPort.h>
#include <vok/MmMessageHandle.h>

namespace vok {

// What one user of the MessageMover (a blade, the shell, a tool) does everything through: ports,
// messages and message logging. It accounts for what its user holds: the counters
// root.vok.MessageMover.Iface.NAME.msgsHeldByUser, .msgsLeakedByUser and .msgsHeldByPorts, and
// a leak report of ports and messages not given back when it is discarded. Ports still open
// then are closed (unreachable, their peers told) and left inert: every call on them throws. Any
// thread may use it. Created by MessageMoverFramework::CreateInterface and destroyed by its
// DiscardInterface, never while another thread still uses it or its ports.
class MessageMoverInterface {
  public:
    // A connected pair: this interface holds the returned end, peerInterface (which may be this
    // interface) the end stored in *peerPort.
    virtual MmConnectionPort* CreateConnectedPair(MessageMoverInterface* peerInterface,
                                                  MmConnectionPort** peerPort) = 0;
    // Tells the peer (it reads kVokErrPeerClosed), frees what is queued, destroys the port.
    virtual void DiscardConnectionPort(MmConnectionPort* port) = 0;
    // A command port that also answers at serviceId (1 to 49150, one port per identifier).
    virtual MmCommandPort* CreateCommandServicePort(MmServiceIdentifier_t serviceId) = 0;
    virtual MmCommandPort* CreateCommandPort() = 0;
    virtual void DiscardCommandPort(MmCommandPort* port) = 0;
    // New message of payloadSize bytes (at most 0xFFFFBB) held by the user; returns the payload.
    virtual void* CreateConnectionMessage(uint32_t payloadSize, MmConnectionMessageHandle* msg) = 0;
    // A copy with name, type and payload, held by the user. The source must never have changed
    // hands (a message that has been read cannot be duplicated).
    virtual MmConnectionMessageHandle DuplicateConnectionMessage(
        const MmConnectionMessageHandle& msg) = 0;
    virtual void* CreateCommandMessage(uint32_t payloadSize, MmCommandMessageHandle* msg) = 0;
    virtual MmCommandMessageHandle DuplicateCommandMessage(const MmCommandMessageHandle& msg) = 0;
    // Gives back a message the user holds (created, duplicated or read, and not written). Freeing,
    // writing or duplicating a message this interface's user does not hold (held elsewhere or as
    // the other handle kind) throws "ERROR: link not on list or invalid link" and changes
    // nothing; a handle kept after its message was freed or written throws as stale.
    virtual void FreeMessage(const MmConnectionMessageHandle& msg) = 0;
    virtual void FreeMessage(const MmCommandMessageHandle& msg) = 0;
    // Message logging of this interface's ports: bit 0 (1) written, bit 1 (2) delivered, bit 2
    // (4) read messages, on the contexts VOK.MessageMover.Msg.Write, .Deliver and .Read. Clears
    // optionsToClear (0xFFFFFFFF clears all), then sets optionsToSet; returns the new word.
    virtual uint32_t SetDiagOptions(uint32_t optionsToClear, uint32_t optionsToSet) = 0;

  protected:
    virtual ~MessageMoverInterface() = default;
};

}  // namespace vok

#endif  // VOK_MESSAGEMOVERINTERFACE_H
