// Not public API. One end of a connected pair.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONPORTIMPL_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONPORTIMPL_H

#include "Src/Core/MessageMover/MmfPortImplTemplate.h"

namespace vok {

// One end of a connected pair: writes go to the peer's address, reads accept only the peer.
// Threads, ownership and destruction as MmfPortImplT; destruction sends nothing to the peer
// (the connection manager calls ShutDown first). The port holds the block of its first
// kMmPeerClosedMsg from its creation, so closing it needs no memory.
class MmfConnectionPortImpl : public MmfPortImplT<MmConnectionPort, MmConnectionMessageHandle> {
  public:
    // Throws "NULL arg." for a NULL interface or framework.
    MmfConnectionPortImpl(MmfMessageMoverInterfaceImpl* iface, MessageMoverFrameworkImpl* framework,
                          MmPortAddress_t address, MmPortAddress_t peerAddress);
    ~MmfConnectionPortImpl() override;

    // Sends kMmPeerClosedMsg to the peer (one more on every call). The first call allocates
    // nothing and does not throw for want of memory.
    void ShutDown();

  private:
    bool isShutDown_;      // Set by ShutDown; kept for diagnostics.
    void* peerClosedMsg_;  // The first ShutDown's message block; NULL once used.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFCONNECTIONPORTIMPL_H
