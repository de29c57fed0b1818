// A sink that is told, from any thread, that something happened.
#ifndef VOK_SIMPLEASYNCINTERFACE_H
#define VOK_SIMPLEASYNCINTERFACE_H

namespace vok {

// Abstract signal sink with one operation. A MessageMover port calls Trigger() on whatever thread
// made it readable, after letting go of its own and the connection manager's locks; an
// implementation should only note the event and return, and must not unregister itself from
// inside Trigger (unregistering waits for triggers in flight). Triggers of one port may come
// from several threads at once. The sink is not owned by whoever triggers it.
class SimpleAsyncInterface {
  public:
    // Notes the event and returns; see the class comment for what it must not do.
    virtual void Trigger() = 0;
    virtual ~SimpleAsyncInterface() = default;
};

}  // namespace vok

#endif  // VOK_SIMPLEASYNCINTERFACE_H
