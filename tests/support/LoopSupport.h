// Test helpers that drive a GLib main context until something happens.
#ifndef VOK_TESTS_SUPPORT_LOOPSUPPORT_H
#define VOK_TESTS_SUPPORT_LOOPSUPPORT_H

#include <exception>
#include <functional>

typedef struct _GMainContext GMainContext;

namespace vok {

class RuntimeDispatcher;

namespace test {

// Collects the exceptions of a dispatcher's callbacks while a test steps its context itself (no
// Run in progress), so that the test can rethrow them on its own thread. Restores the default
// handler when destroyed.
class CallbackExceptions {
  public:
    explicit CallbackExceptions(RuntimeDispatcher& dispatcher);
    ~CallbackExceptions();
    CallbackExceptions(const CallbackExceptions&) = delete;
    CallbackExceptions& operator=(const CallbackExceptions&) = delete;

    // Rethrows (and forgets) the first exception collected, if any.
    void RethrowFirst();

  private:
    RuntimeDispatcher& dispatcher_;
    std::exception_ptr first_;
};

// Iterates context (blocking on its events) until done() holds or limitSeconds pass; returns
// done(). done() is checked after every iteration.
bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds = 60);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_LOOPSUPPORT_H
