// Not public API. Implementation of RdDescriptorMonitorBase on a GLib I/O channel watch.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDDESCRIPTORMONITORIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDDESCRIPTORMONITORIMPL_H

#include <glib.h>

#include <cstdint>
#include <functional>

#include "Src/Utils/RuntimeDispatcher/Linux/RdCallback.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Reference-counted descriptor watch; everything runs on the dispatcher's thread.
class RdDescriptorMonitorImpl : public RefCounted {
  public:
    RdDescriptorMonitorImpl(int fd, RuntimeDispatcherImpl* dispatcher,
                            std::function<void(bool, bool, bool)> callback);

    void SetEventMask(bool read, bool write, bool exception);
    void ChangeCb(std::function<void(bool, bool, bool)> callback);
    void Cancel();
    void Discard();

    // The GLib condition for a mask: IN, OUT and PRI by flag, plus ERR, HUP and NVAL when any
    // flag is set.
    static GIOCondition ConditionFor(bool read, bool write, bool exception);
    static gboolean CallbackFunc(GIOChannel* channel, GIOCondition condition, gpointer data);

  private:
    ~RdDescriptorMonitorImpl() override;

    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    RdCallback<void(bool, bool, bool)> callback_;
    GIOChannel* channel_;  // Owned reference.
    GSource* source_;      // The current watch, or null; the context holds its only reference.
    bool watchRead_;
    bool watchWrite_;
    bool watchException_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDDESCRIPTORMONITORIMPL_H
