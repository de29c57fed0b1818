// Test helpers that drive a GLib main context, or a dispatcher's, until something happens.
#ifndef VOK_TESTS_SUPPORT_LOOPSUPPORT_H
#define VOK_TESTS_SUPPORT_LOOPSUPPORT_H

#include <functional>

typedef struct _GMainContext GMainContext;

namespace vok {

class RuntimeDispatcher;

namespace test {

// Iterates context (blocking on its events) until done() holds or limitSeconds pass; returns
// done(). done() is checked after every iteration.
bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds = 60);

// IterateUntil on the dispatcher's context for a test that steps the loop itself (no Run in
// progress): the first exception out of a callback is rethrown here, on the test's thread. Fails
// the test when the limit passes.
bool Pump(RuntimeDispatcher& dispatcher, const std::function<bool()>& done, int limitSeconds = 60);

// Runs what is ready on the dispatcher's context until nothing is, without blocking.
void Drain(RuntimeDispatcher& dispatcher);

GMainContext* ContextOf(RuntimeDispatcher& dispatcher);

// Runs the dispatcher while another thread calls hop() hops times (each call sends one event to
// the loop and waits until the loop has handled it), then stops it; returns how often the loop
// polled meanwhile, i.e. its wake-ups, counted through the context's poll function.
int CountPollsOverHops(RuntimeDispatcher& dispatcher, int hops, const std::function<void()>& hop);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_LOOPSUPPORT_H
