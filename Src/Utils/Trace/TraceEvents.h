// Event sites of the flight recorder: not public API.
//
// Each site is an inline function. While recording is off it costs one relaxed load of the
// recorder's switch and a branch; while it is on it reads the monotonic clock and stores one fixed
// record into the calling thread's ring, with no lock and no allocation (the ring itself is
// allocated the first time a thread records; see TraceRecorder.h).
//
// Sites that measure a duration come in two halves: `uint64_t begin = TraceBegin();` before the
// work (0 while recording is off) and the matching `Trace...Done(begin, ...)` after it, which
// records nothing when begin is 0. So a site that was off when the work began stays silent even
// if recording is switched on in between.
//
// Code inside libvok reads the switch, a hidden variable, with one PC-relative load. Programs
// outside the library (tests, benchmarks) define VOK_TRACE_OUTSIDE_LIBRARY and read it through
// the exported TraceIsEnabled: an exported variable would be copied into an executable that reads
// it directly, and the library's own sites would no longer see it switch.
#ifndef VOK_SRC_UTILS_TRACE_TRACEEVENTS_H
#define VOK_SRC_UTILS_TRACE_TRACEEVENTS_H

#include <atomic>
#include <cstdint>

namespace vok {

bool TraceIsEnabled();

namespace trace {

#ifndef VOK_TRACE_OUTSIDE_LIBRARY
// The recorder's switch.
extern std::atomic<bool> gTraceEnabled __attribute__((visibility("hidden")));
#endif

// Kinds of dispatcher callbacks, each drawn as a complete slice named after its kind. A bus reply
// is what a client's bus call or service-status watch delivers; a bus method is what a service
// runs: a method's handler, a subscription's cancel callback, its connection observer.
enum CallbackKind : uint8_t {
    kCbTimer,
    kCbAlarm,
    kCbBridge,
    kCbPortMonitor,
    kCbDescriptorMonitor,
    kCbBusReply,
    kCbBusMethod,
    kCbKindCount
};

// Kinds of asynchronous slices: a bus call from KVCall to its last reply, and a request a
// service serves from its arrival to its last reply.
enum AsyncKind : uint8_t { kAsyncBusCall, kAsyncServedRequest, kAsyncKindCount };

// The end of an asynchronous slice closed by a cancel on the recording side (the caller
// cancelled its call, or the client of a served request cancelled or left), in place of an error
// code.
const int64_t kTraceEndCancelled = -1;

// Kinds of instants. Lateness instants carry how late the callback ran, in nanoseconds; the
// shell's instants carry the blade's name.
enum InstantKind : uint8_t {
    kInstTimerLate,
    kInstAlarmLate,
    kInstBladeStart,
    kInstBladeStop,
    kInstBladeStuck,
    kInstStopDeadline,
    kInstMark,  // An instant named by its text (tests and applications).
    kInstKindCount
};

// What a record holds.
enum RecordType : uint8_t {
    kRecMessageWrite,  // a message written: slice and flow start
    kRecMessageRead,   // a message read: slice and flow end
    kRecCallback,      // a dispatcher callback: complete slice
    kRecAsyncBegin,
    kRecAsyncEnd,
    kRecInstant,
    kRecTypeCount
};

// Longest text a record keeps (URI, blade name), terminator included. Longer texts keep their
// end, where a bus URI names its method.
const unsigned kTraceTextSize = 40;

// One event, as the writing thread fills it and a dump copies it out. Fixed 96 bytes on ILP32
// and LP64.
struct TraceRecord {
    uint64_t ts;        // Monotonic clock, nanoseconds: the start of a slice, or the instant.
    uint64_t dur;       // Nanoseconds of a slice; 0 otherwise.
    uint64_t id;        // Flow id (messages) or async id (calls, requests).
    int64_t value;      // Lateness (ns), error code (async end) or timeout (ms, async begin).
    uint32_t protocol;  // Message name: protocol id.
    uint32_t msgId;     // Message name: message id.
    uint32_t size;      // Message payload size in bytes.
    uint32_t source;    // Sender port address.
    uint32_t dest;      // Destination port address.
    uint8_t type;       // RecordType.
    uint8_t kind;       // CallbackKind, AsyncKind or InstantKind.
    uint8_t reserved[2];
    char text[kTraceTextSize];  // NUL-terminated, possibly empty.
};
static_assert(sizeof(TraceRecord) == 96, "a trace record is 96 bytes on every target");

// The monotonic clock in nanoseconds.
uint64_t TraceClockNow();

// Stores record (whose ts the caller has set) in the calling thread's ring, allocating the ring
// on the thread's first record. Called while recording is on, and to finish an event that began
// while it was.
void TraceStore(const TraceRecord& record);

// Out-of-line halves of the sites below.
void TraceMessage(RecordType type, uint64_t begin, uint64_t id, uint32_t protocol, uint32_t msgId,
                  uint32_t size, uint32_t source, uint32_t dest);
void TraceCallback(uint64_t begin, CallbackKind kind);
void TraceAsync(RecordType type, AsyncKind kind, uint64_t id, int64_t value, const char* text);
void TraceInstantRecord(InstantKind kind, int64_t value, const char* text);
uint64_t TraceAsyncOpen(AsyncKind kind, const char* text, int64_t value);

// True while recording is on: one relaxed load.
inline bool TraceOn() {
#ifdef VOK_TRACE_OUTSIDE_LIBRARY
    return TraceIsEnabled();
#else
    return gTraceEnabled.load(std::memory_order_relaxed);
#endif
}

// The start of a measured site: the clock while recording is on, else 0.
inline uint64_t TraceBegin() {
    return __builtin_expect(TraceOn(), 0) ? TraceClockNow() : 0;
}

// A message written on the writer's thread (call after the write, with the begin taken before
// it). id links it to its read: the sender's address in the high half and the sender port's
// sequence number in the low half identify a message for as long as a trace lasts.
inline void TraceMessageWritten(uint64_t begin, uint64_t id, uint32_t protocol, uint32_t msgId,
                                uint32_t size, uint32_t source, uint32_t dest) {
    if (__builtin_expect(begin != 0, 0)) {
        TraceMessage(kRecMessageWrite, begin, id, protocol, msgId, size, source, dest);
    }
}

// A message read on the reader's thread, with the same id as its write.
inline void TraceMessageRead(uint64_t begin, uint64_t id, uint32_t protocol, uint32_t msgId,
                             uint32_t size, uint32_t source, uint32_t dest) {
    if (__builtin_expect(begin != 0, 0)) {
        TraceMessage(kRecMessageRead, begin, id, protocol, msgId, size, source, dest);
    }
}

// A dispatcher callback that ran from begin until now.
inline void TraceCallbackDone(uint64_t begin, CallbackKind kind) {
    if (__builtin_expect(begin != 0, 0)) {
        TraceCallback(begin, kind);
    }
}

// Records the dispatcher callback it encloses as a slice of its kind, also when the callback
// throws: `TraceCallbackScope scope(kCbTimer);` just before the user's callable is called.
class TraceCallbackScope {
  public:
    explicit TraceCallbackScope(CallbackKind kind) : begin_(TraceBegin()), kind_(kind) {}
    ~TraceCallbackScope() { TraceCallbackDone(begin_, kind_); }
    TraceCallbackScope(const TraceCallbackScope&) = delete;
    TraceCallbackScope& operator=(const TraceCallbackScope&) = delete;

  private:
    const uint64_t begin_;
    const CallbackKind kind_;
};

// The start of an asynchronous slice: a bus call (text: its URI, value: its timeout in ms, 0 for
// none) or a served request (text: its method). id is unique among open slices of the kind.
inline void TraceAsyncBegin(AsyncKind kind, uint64_t id, const char* text, int64_t value) {
    if (__builtin_expect(TraceOn(), 0)) {
        TraceAsync(kRecAsyncBegin, kind, id, value, text);
    }
}

// The end of an asynchronous slice, with its error code (0 for success).
inline void TraceAsyncEnd(AsyncKind kind, uint64_t id, int64_t error) {
    if (__builtin_expect(TraceOn(), 0)) {
        TraceAsync(kRecAsyncEnd, kind, id, error, nullptr);
    }
}

// Starts an asynchronous slice with an id of its own, unique in the process (text and value as
// for TraceAsyncBegin). Returns the id, to keep with the call or request until TraceAsyncFinish;
// 0 while recording is off.
inline uint64_t TraceAsyncStart(AsyncKind kind, const char* text, int64_t value) {
    return __builtin_expect(TraceOn(), 0) ? TraceAsyncOpen(kind, text, value) : 0;
}

// Ends the slice *id names, with its error code (0 for success, kTraceEndCancelled), and sets
// *id to 0, so that a slice ends once. Nothing when *id is 0. A slice that began is ended also
// when recording has been switched off meanwhile, as the halves of measured sites are.
inline void TraceAsyncFinish(AsyncKind kind, uint64_t* id, int64_t error) {
    if (__builtin_expect(*id != 0, 0)) {
        TraceAsync(kRecAsyncEnd, kind, *id, error, nullptr);
        *id = 0;
    }
}

// An instant: lateness in nanoseconds for timers and alarms, the blade's name (text) for the
// shell's instants.
inline void TraceInstant(InstantKind kind, int64_t value, const char* text) {
    if (__builtin_expect(TraceOn(), 0)) {
        TraceInstantRecord(kind, value, text);
    }
}

// Names of the kinds, as they appear in a trace.
const char* TraceCallbackName(CallbackKind kind);
const char* TraceAsyncName(AsyncKind kind);
const char* TraceInstantName(InstantKind kind);

}  // namespace trace
}  // namespace vok

#endif  // VOK_SRC_UTILS_TRACE_TRACEEVENTS_H
