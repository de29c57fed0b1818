// Not public API. Implementation of RuntimeDispatcher.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H

#include <glib.h>

namespace vok {

// Owns one reference on its main context and the loop on it. Used on the dispatcher's thread,
// except RequestStop.
class RuntimeDispatcherImpl {
  public:
    // Takes a reference on context, or makes a new context when it is NULL.
    explicit RuntimeDispatcherImpl(GMainContext* context);
    ~RuntimeDispatcherImpl();
    RuntimeDispatcherImpl(const RuntimeDispatcherImpl&) = delete;
    RuntimeDispatcherImpl& operator=(const RuntimeDispatcherImpl&) = delete;

    void Run();
    void RequestStop();

    GMainContext* GetContext() const { return context_; }
    GMainLoop* GetLoop() const { return loop_; }

  private:
    GMainContext* context_;  // One owned reference.
    GMainLoop* loop_;        // Owned.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RUNTIMEDISPATCHERIMPL_H
