// Test helpers that drive a GLib main context until something happens.
#ifndef VOK_TESTS_SUPPORT_LOOPSUPPORT_H
#define VOK_TESTS_SUPPORT_LOOPSUPPORT_H

#include <functional>

typedef struct _GMainContext GMainContext;

namespace vok {
namespace test {

// Iterates context (blocking on its events) until done() holds or limitSeconds pass; returns
// done(). done() is checked after every iteration.
bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds = 60);

// Iterates context for milliseconds (to let what should not happen show up).
void IterateFor(GMainContext* context, unsigned milliseconds);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_LOOPSUPPORT_H
