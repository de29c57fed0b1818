#include "Src/Utils/RuntimeDispatcher/Linux/GlibTimerSource.h"

#include <cerrno>
#include <ctime>
#include <string>

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/VokThrow.h"

namespace vok {

namespace {

const int32_t kNsecPerSec = 1000000000;

// Reads the monotonic clock. On failure the text carries errno's low byte as a raw character.
#define VOK_READ_MONOTONIC_CLOCK(now)                                                \
    do {                                                                             \
        struct timespec ts;                                                          \
        if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {                              \
            const std::string text =                                                 \
                std::string("clock_gettime err ") + static_cast<char>(errno & 0xff); \
            VOK_THROW_PROGRAM_ERROR(kVokErrFailed, text.c_str());                    \
        }                                                                            \
        now = Normalise(ts);                                                         \
    } while (0)

Timespec Normalise(const struct timespec& ts) {
    Timespec t;
    t.tv_sec = static_cast<int32_t>(ts.tv_sec);
    t.tv_nsec = static_cast<int32_t>(ts.tv_nsec);
    if (t.tv_nsec > kNsecPerSec - 1) {
        t.tv_sec += 1 + (t.tv_nsec - kNsecPerSec) / kNsecPerSec;
        t.tv_nsec = (t.tv_nsec - kNsecPerSec) % kNsecPerSec;
    }
    return t;
}

bool Expired(const Timespec& expiry, const Timespec& now) {
    return expiry.tv_sec < now.tv_sec ||
           (expiry.tv_sec == now.tv_sec && expiry.tv_nsec <= now.tv_nsec);
}

// Hands an exception raised while GLib prepares or checks the source to its dispatcher; it must
// not unwind through GLib.
void KeepForOwner(GSource* source) {
    RuntimeDispatcherImpl* owner = reinterpret_cast<GlibTimerSource*>(source)->owner;
    if (owner == nullptr) {
        RuntimeDispatcherImpl::AbortOnOrphanException(std::current_exception());
    }
    owner->KeepException(std::current_exception());
}

gboolean GlibTimerSourcePrepare(GSource* source, gint* timeout) {
    Timespec now;
    try {
        VOK_READ_MONOTONIC_CLOCK(now);
    } catch (...) {
        KeepForOwner(source);
        *timeout = 0;
        return FALSE;
    }
    const Timespec expiry = reinterpret_cast<GlibTimerSource*>(source)->expiry;
    if (Expired(expiry, now)) {
        *timeout = 0;
        return TRUE;
    }
    const Timespec remaining = expiry - now;
    // Poll exactly until the expiry, rounded up to whole milliseconds so the source is ready
    // when the poll returns: a pending timer costs one wake-up, not one per millisecond.
    const int64_t ms =
        static_cast<int64_t>(remaining.tv_sec) * 1000 + (remaining.tv_nsec + 999999) / 1000000;
    *timeout = ms > G_MAXINT ? G_MAXINT : static_cast<gint>(ms);
    return FALSE;
}

gboolean GlibTimerSourceCheck(GSource* source) {
    Timespec now;
    try {
        VOK_READ_MONOTONIC_CLOCK(now);
    } catch (...) {
        KeepForOwner(source);
        return FALSE;
    }
    return Expired(reinterpret_cast<GlibTimerSource*>(source)->expiry, now);
}

gboolean GlibTimerSourceDispatch(GSource*, GSourceFunc callback, gpointer userData) {
    if (callback == nullptr) {
        g_log(nullptr, G_LOG_LEVEL_WARNING, "GlibTimerSourceDispatch: no callback!\n");
        return FALSE;
    }
    (void)callback(userData);
    return FALSE;  // One shot: GLib removes the source.
}

}  // namespace

GSourceFuncs glibTimerSourceFuncs = {GlibTimerSourcePrepare,
                                     GlibTimerSourceCheck,
                                     GlibTimerSourceDispatch,
                                     nullptr,
                                     nullptr,
                                     nullptr};

Timespec operator+(const Timespec& a, const Timespec& b) {
    Timespec sum{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
    while (sum.tv_nsec > kNsecPerSec - 1) {
        sum.tv_nsec -= kNsecPerSec;
        sum.tv_sec += 1;
    }
    return sum;
}

Timespec operator-(const Timespec& a, const Timespec& b) {
    Timespec diff{a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_sec -= 1;
        diff.tv_nsec += kNsecPerSec;
    }
    if (diff.tv_sec < 0) {
        diff.tv_sec = 0;
        diff.tv_nsec = 0;
    }
    return diff;
}

Timespec ReadMonotonicClock() {
    Timespec now;
    VOK_READ_MONOTONIC_CLOCK(now);
    return now;
}

GSource* NewGlibTimerSourceAt(const Timespec& expiry) {
    GSource* source = g_source_new(&glibTimerSourceFuncs, sizeof(GlibTimerSource));
    reinterpret_cast<GlibTimerSource*>(source)->owner = nullptr;
    reinterpret_cast<GlibTimerSource*>(source)->expiry = expiry;
    return source;
}

Timespec TimespecFromMs(unsigned int milliseconds) {
    return Timespec{static_cast<int32_t>(milliseconds / 1000),
                    static_cast<int32_t>((milliseconds % 1000) * 1000000)};
}

int64_t TimespecToNs(const Timespec& t) {
    return static_cast<int64_t>(t.tv_sec) * kNsecPerSec + t.tv_nsec;
}

Timespec TimespecFromNs(int64_t ns) {
    return Timespec{static_cast<int32_t>(ns / kNsecPerSec), static_cast<int32_t>(ns % kNsecPerSec)};
}

}  // namespace vok
