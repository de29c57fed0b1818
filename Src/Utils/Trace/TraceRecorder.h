// Not public API. The flight recorder's per-thread rings and the registry dumps read them from.
#ifndef VOK_SRC_UTILS_TRACE_TRACERECORDER_H
#define VOK_SRC_UTILS_TRACE_TRACERECORDER_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Src/Utils/Trace/TraceEvents.h"

namespace vok {
namespace trace {

// What one thread recorded, copied out of its ring(s) by a dump.
struct TraceTrack {
    pid_t tid;                         // Kernel thread id.
    std::string name;                  // Track name: TraceNameThread's, else the OS thread name.
    std::vector<TraceRecord> records;  // Oldest first.
};

// One thread's ring of the last `capacity` records. Only its thread stores; dumps copy it out
// from any thread while it does. Allocated when its thread first records, registered with the
// registry for good; retired (kept, no longer written) when its thread ends or takes a ring of
// another size, and freed once more than kTraceMaxRetiredRings rings are retired.
//
// Lock-free single writer, many readers: a store announces index i in begun_, then (after a
// release fence) writes the slot's words, then publishes i + 1 in done_. A reader copies the
// slots below done_, then (after an acquire fence) reads begun_: a slot whose index is
// begun_ - capacity or older may have been overwritten during the copy and is dropped. Every
// shared word is an atomic, so a copy racing a store is defined (and ThreadSanitizer-clean).
class TraceRing {
  public:
    // Null when the slots cannot be allocated.
    static TraceRing* Create(uint32_t capacity, pid_t tid, const char* name);
    ~TraceRing();
    TraceRing(const TraceRing&) = delete;
    TraceRing& operator=(const TraceRing&) = delete;

    // The owning thread only.
    void Store(const TraceRecord& record);
    // Any thread: appends the records still intact, oldest first, stamped at or after sinceNs.
    void CopyOut(uint64_t sinceNs, std::vector<TraceRecord>* out) const;

    uint32_t Capacity() const { return capacity_; }
    pid_t Tid() const { return tid_; }

    // Requires the registry lock.
    std::string name_;  // Track name.
    bool retired_;      // No thread writes it any more.

  private:
    typedef uintptr_t Word;
    static const unsigned kWords = sizeof(TraceRecord) / sizeof(Word);
    struct Slot {
        std::atomic<Word> words[kWords];
    };

    TraceRing(uint32_t capacity, pid_t tid, const char* name, Slot* slots);

    const uint32_t capacity_;  // A power of two.
    const pid_t tid_;
    std::unique_ptr<Slot[]> slots_;
    std::atomic<uint64_t> begun_;  // Stores started; written by the owner only.
    std::atomic<uint64_t> done_;   // Stores finished; written by the owner only.
};

// At most this many rings of ended threads are kept for dumps; older ones are freed.
const unsigned kTraceMaxRetiredRings = 32;

// Copies every ring, live and retired, in registration order.
void TraceCollect(uint64_t sinceNs, std::vector<TraceTrack>* tracks);

// The Chrome trace-event JSON document of what the rings hold, stamped at or after sinceNs.
std::string TraceJson(uint64_t sinceNs);

}  // namespace trace
}  // namespace vok

#endif  // VOK_SRC_UTILS_TRACE_TRACERECORDER_H
