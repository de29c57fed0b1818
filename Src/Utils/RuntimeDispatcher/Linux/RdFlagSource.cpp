#include "Src/Utils/RuntimeDispatcher/Linux/RdFlagSource.h"

#include <new>

namespace vok {

struct RdFlagSource::Source {
    GSource source;
    // Set by the thread that makes the source, before the attach, and read on the dispatching
    // one: atomic, since the attach orders them only inside GLib, where a race detector cannot
    // see it.
    std::atomic<RdFlagSource*> flag;
};

GSourceFuncs RdFlagSource::sourceFuncs_ = {&RdFlagSource::Prepare,
                                           &RdFlagSource::Check,
                                           &RdFlagSource::Dispatch,
                                           nullptr,
                                           nullptr,
                                           nullptr};

GSource* RdFlagSource::NewSource() {
    GSource* const source = g_source_new(&sourceFuncs_, sizeof(Source));
    new (&reinterpret_cast<Source*>(source)->flag) std::atomic<RdFlagSource*>(nullptr);
    reinterpret_cast<Source*>(source)->flag.store(this, std::memory_order_release);
    return source;
}

void RdFlagSource::Raise(GMainContext* context) {
    if (raised_.exchange(true, std::memory_order_acq_rel)) {
        return;  // The dispatch already due covers this raise.
    }
    GSource* const current = g_main_current_source();
    if (current == nullptr || g_source_get_context(current) != context) {
        g_main_context_wakeup(context);
    }
}

RdFlagSource* RdFlagSource::FlagOf(GSource* source) {
    return reinterpret_cast<Source*>(source)->flag.load(std::memory_order_acquire);
}

gboolean RdFlagSource::Prepare(GSource* source, gint* timeout) {
    *timeout = -1;
    return FlagOf(source)->IsRaised();
}

gboolean RdFlagSource::Check(GSource* source) {
    return FlagOf(source)->IsRaised();
}

gboolean RdFlagSource::Dispatch(GSource* source, GSourceFunc, gpointer) {
    RdFlagSource* const flag = FlagOf(source);
    flag->run_(flag->owner_);
    return G_SOURCE_CONTINUE;
}

}  // namespace vok
