// Test helpers that drive a GLib main context, or a dispatcher's, until something happens.
#ifndef VOK_TESTS_SUPPORT_LOOPSUPPORT_H
#define VOK_TESTS_SUPPORT_LOOPSUPPORT_H

#include <functional>

typedef struct _GMainContext GMainContext;

namespace vok {

class RuntimeDispatcher;

namespace test {

// Iterates context (blocking) until done() holds or limitSeconds pass; returns done().
bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds = 60);

// IterateUntil on the dispatcher's context (no Run in progress), rethrowing the first exception
// out of a callback; fails the test when the limit passes.
bool Pump(RuntimeDispatcher& dispatcher, const std::function<bool()>& done, int limitSeconds = 60);

// Runs what is ready on the dispatcher's context until nothing is, without blocking.
void Drain(RuntimeDispatcher& dispatcher);

GMainContext* ContextOf(RuntimeDispatcher& dispatcher);

// Runs the dispatcher while another thread calls hop() hops times (each sends one event and waits
// until the loop has handled it); returns how often the loop polled (woke) meanwhile.
int CountPollsOverHops(RuntimeDispatcher& dispatcher, int hops, const std::function<void()>& hop);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_LOOPSUPPORT_H
