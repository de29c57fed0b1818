// Not public API. A GLib source that owns no descriptor and is ready while a flag is raised.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDFLAGSOURCE_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDFLAGSOURCE_H

#include <glib.h>

#include <atomic>

namespace vok {

// The flag of a source made by NewSource: the source's prepare and check only read it, and its
// dispatch calls run(owner), which lowers it before it does its work (so a raise from then on
// makes another dispatch due). Raising the flag wakes the context (GLib's own wake-up
// descriptor, which it polls anyway) only when the flag was down and the raising thread is not
// dispatching a source of that context, whose loop prepares its sources again before it next
// waits: at most one wake-up per hop, and no descriptor of the source's own in every poll. Raise
// and Lower run on any thread, holding no lock.
class RdFlagSource {
  public:
    using RunFunction = void (*)(void* owner);

    RdFlagSource(RunFunction run, void* owner) : run_(run), owner_(owner), raised_(false) {}
    RdFlagSource(const RdFlagSource&) = delete;
    RdFlagSource& operator=(const RdFlagSource&) = delete;

    // A new source (one reference, not attached) that reads this flag, which must outlive it.
    GSource* NewSource();

    // Raises the flag and wakes context as the class comment says.
    void Raise(GMainContext* context);
    // Raises the flag without waking: for a source not yet attached (attaching wakes), or from
    // a dispatch of its own context.
    void RaiseWithoutWake() { raised_.store(true, std::memory_order_release); }
    void Lower() { raised_.store(false, std::memory_order_seq_cst); }

  private:
    struct Source;

    static gboolean Prepare(GSource* source, gint* timeout);
    static gboolean Check(GSource* source);
    static gboolean Dispatch(GSource* source, GSourceFunc, gpointer);
    static RdFlagSource* FlagOf(GSource* source);
    bool IsRaised() const { return raised_.load(std::memory_order_acquire); }

    static GSourceFuncs sourceFuncs_;
    const RunFunction run_;
    void* const owner_;
    std::atomic<bool> raised_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDFLAGSOURCE_H
