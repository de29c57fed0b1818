// MessageMover command port: an addressable mailbox.
#ifndef VOK_MMCOMMANDPORT_H
#define VOK_MMCOMMANDPORT_H

#include <vok/MmMessageHandle.h>
#include <vok/PortEventInterface.h>
#include <vok/VokError.h>

namespace vok {

// A mailbox with its own address (and optionally a service identifier) that receives from anyone
// who knows it and sends to any address the user puts in a message. Any thread may use it.
// Created and owned by a MessageMoverInterface and given back with its DiscardCommandPort, which
// frees the messages still queued; it cannot be deleted directly.
class MmCommandPort : public PortEventInterface {
  public:
    // Writes msg to its destination address. On return the message is no longer the writer's
    // (its handle is stale), whatever the result; the serial goes to *serialOut unless it is
    // NULL. A destination nobody holds is not an error: 0 is returned and a message named
    // kMmPortNotReachableMsg arrives on this port.
    virtual VokError_t WriteMessage(MmCommandMessageHandle& msg, MmMessageSerial_t* serialOut) = 0;
    // Takes the oldest message; the reader then holds it. kVokErrNoMessage when none waits.
    virtual VokError_t ReadMessage(MmCommandMessageHandle* msg) = 0;
    virtual MmPortAddress_t GetAddress() const = 0;

  protected:
    ~MmCommandPort() override = default;
};

}  // namespace vok

#endif  // VOK_MMCOMMANDPORT_H
