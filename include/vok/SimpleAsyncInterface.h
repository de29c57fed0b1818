// A sink that is told, from any thread, that something happened.
#ifndef VOK_SIMPLEASYNCINTERFACE_H
#define VOK_SIMPLEASYNCINTERFACE_H

namespace vok {

// Abstract signal sink with one operation. A MessageMover port calls Trigger() on whatever thread
// made it readable, with the port's and the connection manager's locks held, so an
// implementation must only note the event and return: it must not call back into the
// MessageMover. The sink is not owned by whoever triggers it.
class SimpleAsyncInterface {
  public:
    virtual void Trigger() = 0;
    virtual ~SimpleAsyncInterface() = default;
};

}  // namespace vok

#endif  // VOK_SIMPLEASYNCINTERFACE_H
