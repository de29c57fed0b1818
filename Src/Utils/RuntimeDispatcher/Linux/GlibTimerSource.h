// Not public API. A GLib event source that becomes ready at a monotonic-clock time.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_GLIBTIMERSOURCE_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_GLIBTIMERSOURCE_H

#include <glib.h>

#include <cstdint>

#include "vok/RdTimer.h"

namespace vok {

class RuntimeDispatcherImpl;

// The source: GLib's header, then the expiry.
struct GlibTimerSource {
    GSource source;
    Timespec expiry;  // Monotonic time at which the source becomes ready.
    // The dispatcher that receives a clock failure in prepare or check, which cannot be thrown
    // through GLib; null while unattached.
    RuntimeDispatcherImpl* owner;
};

extern GSourceFuncs glibTimerSourceFuncs;

// A new, unattached timer source that expires at a monotonic-clock time; the caller owns its one
// reference. Dispatching calls the source's callback once; the source is then removed.
GSource* NewGlibTimerSourceAt(const Timespec& expiry);
// The monotonic clock, normalised. Throws VokProgramErrorException when it cannot be read.
Timespec ReadMonotonicClock();
// A span of milliseconds.
Timespec TimespecFromMs(unsigned int milliseconds);
// A normalised time in nanoseconds, and back (ns not negative).
int64_t TimespecToNs(const Timespec& t);
Timespec TimespecFromNs(int64_t ns);

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_GLIBTIMERSOURCE_H
