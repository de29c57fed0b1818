// MessageMover connection port: one end of a connected pair.
#ifndef VOK_MMCONNECTIONPORT_H
#define VOK_MMCONNECTIONPORT_H

#include <vok/MmMessageHandle.h>
#include <vok/PortEventInterface.h>
#include <vok/VokError.h>

namespace vok {

// One end of a connected pair: everything written goes to the peer, only the peer's messages are
// accepted, and the peer learns when this end is discarded. Any thread may use it. Created and
// owned by a MessageMoverInterface and given back with its DiscardConnectionPort, which tells
// the peer and frees the messages still queued; it cannot be deleted directly.
class MmConnectionPort : public PortEventInterface {
  public:
    // Writes msg to the peer. On return the message is no longer the writer's (its handle is
    // stale), whatever the result. kVokErrPeerClosed when the peer is gone.
    virtual VokError_t WriteMessage(MmConnectionMessageHandle& msg,
                                    MmMessageSerial_t* serialOut) = 0;
    // Takes the oldest message; the reader then holds it. kVokErrNoMessage when none waits;
    // kVokErrPeerClosed, now and on every later read, once the peer's close has been read.
    virtual VokError_t ReadMessage(MmConnectionMessageHandle* msg) = 0;

  protected:
    ~MmConnectionPort() override = default;
};

}  // namespace vok

#endif  // VOK_MMCONNECTIONPORT_H
