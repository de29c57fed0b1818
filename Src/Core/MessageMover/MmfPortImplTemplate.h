// Not public API. What command and connection ports have in common.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFPORTIMPLTEMPLATE_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFPORTIMPLTEMPLATE_H

#include "Src/Core/MessageMover/MmfMessagePort.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"

namespace vok {

class MessageMoverFrameworkImpl;
class MmfMessageMoverInterfaceImpl;

// A user's port of one kind (PortBase is MmCommandPort or MmConnectionPort, HandleT its message
// handle) around an MmfMessagePort. It keeps the interface's record of held messages in step: a
// message read becomes held by the user, a message written stops being so. Any thread may use
// it. Created by the connection manager for an interface, destroyed by the interface's discard
// operation after unregistering; destroying it frees the messages still queued. A port still
// open when its interface is discarded is orphaned instead: unregistered and never destroyed,
// and every call on it throws.
template <typename PortBase, typename HandleT>
class MmfPortImplT : public PortBase {
  public:
    ~MmfPortImplT() override;

    // Refuses protocol 1 (link control, the framework's own). A connection port addresses the
    // message to its peer. kVokErrUnreachable becomes 0 on a command port (the writer gets
    // kMmPortNotReachableMsg instead) and kVokErrPeerClosed on a connection port.
    VokError_t WriteMessage(HandleT& msg, MmMessageSerial_t* serialOut) override;
    // A connection port refuses (frees, then throws) a message not sent by its peer.
    VokError_t ReadMessage(HandleT* msg) override;

    void RegisterPortEventSignalSink(SimpleAsyncInterface& sink) override;
    void UnregisterPortEventSignalSink() override;
    void WatchPortEvents(bool readable, bool writable, bool exception) override;
    void GetPortState(bool* readable, bool* writable, bool* exception) override;

    MmfMessagePort* GetMessagePort() { return &messagePort_; }
    const MmfMessagePort* GetMessagePort() const { return &messagePort_; }
    // NULL once orphaned.
    MmfMessageMoverInterfaceImpl* GetInterface() const { return pIface_; }
    // Cuts the port from its interface, which is being destroyed; the port must be unregistered
    // already. Its queue stays as it is.
    void Orphan() { pIface_ = nullptr; }

  protected:
    // Throws "Port's interface was discarded." for an orphaned port.
    void RequireInterface() const;

    // peerAddress is 0 for a command port, which may write to any address and read from anyone.
    MmfPortImplT(MmfMessageMoverInterfaceImpl* iface, MessageMoverFrameworkImpl* framework,
                 MmfPortAddress address, MmfPortAddress peerAddress);

    MessageMoverFrameworkImpl* const pFramework_;
    MmfMessageManager* pMsgMgr_;  // Set once the message port has accepted the framework.
    // Set until the port is orphaned; used by the user's calls only, which check it first.
    MmfMessageMoverInterfaceImpl* pIface_;
    const MmfPortAddress peerAddress_;
    MmfMessagePort messagePort_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFPORTIMPLTEMPLATE_H
