// Readiness state and signalling of a MessageMover port.
#ifndef VOK_PORTEVENTINTERFACE_H
#define VOK_PORTEVENTINTERFACE_H

namespace vok {

class SimpleAsyncInterface;

// The port-event operations of a port: one registered signal sink, a watch mask and the port's
// readable, writable and exception state. Any thread may call them. The port triggers the sink
// on every change from not readable to readable; the sink's owner decides what the watch mask
// means. The port does not own the sink: unregister it before destroying it.
class PortEventInterface {
  public:
    // Throws VokProgramErrorException when a sink is already registered.
    virtual void RegisterPortEventSignalSink(SimpleAsyncInterface& sink) = 0;
    // Also allowed when no sink is registered. Returns once no trigger of the sink is in flight,
    // so the sink may be destroyed then.
    virtual void UnregisterPortEventSignalSink() = 0;
    // Throws VokProgramErrorException when any flag is set and no sink is registered.
    virtual void WatchPortEvents(bool readable, bool writable, bool exception) = 0;
    // Each pointer may be NULL.
    virtual void GetPortState(bool* readable, bool* writable, bool* exception) = 0;
    virtual ~PortEventInterface() = default;
};

}  // namespace vok

#endif  // VOK_PORTEVENTINTERFACE_H
