// Manual-reset event.
#ifndef VOK_EVENT_H
#define VOK_EVENT_H

namespace vok {

class EventImpl;

// A manual-reset event: Signal wakes every waiter and leaves the event signalled, so later Waits
// return at once until Reset. A signal given before anyone waits is not lost. Any thread may use
// it; not copyable. Destroy it only when no thread waits on it.
class Event {
  public:
    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Signals the event and wakes every waiter.
    void Signal();
    // Returns once the event is signalled.
    void Wait();
    // Clears the signal; later Waits block until the next Signal.
    void Reset();

  private:
    EventImpl* pImpl_;
};

}  // namespace vok

#endif  // VOK_EVENT_H
