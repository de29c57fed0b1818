#include "Src/Utils/Trace/TraceRecorder.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>

#include "vok/Trace.h"

#if defined(__SANITIZE_THREAD__)
#define VOK_TRACE_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VOK_TRACE_UNDER_TSAN 1
#endif
#endif

namespace vok {
namespace trace {

std::atomic<bool> gTraceEnabled(false);

namespace {

// A ring's store orders its announcement (begun_) before its words, and a copy orders its word
// loads before its second look at begun_, with a release and an acquire fence. ThreadSanitizer
// does not model fences, so under it every word is stored with release and loaded with acquire
// instead: the same orderings, at the price of a barrier per word on weakly ordered processors.
#ifdef VOK_TRACE_UNDER_TSAN
const std::memory_order kWordStore = std::memory_order_release;
const std::memory_order kWordLoad = std::memory_order_acquire;
inline void StoreFence() {}
inline void LoadFence() {}
#else
const std::memory_order kWordStore = std::memory_order_relaxed;
const std::memory_order kWordLoad = std::memory_order_relaxed;
inline void StoreFence() {
    std::atomic_thread_fence(std::memory_order_release);
}
inline void LoadFence() {
    std::atomic_thread_fence(std::memory_order_acquire);
}
#endif

// Size new rings get; rings of another size are replaced at their thread's next event.
std::atomic<uint32_t> gRingEvents(kTraceDefaultRingEvents);

// Rings of every thread that recorded. Never destroyed: threads may still record while the
// process exits.
struct Registry {
    std::mutex mutex;                // Protects everything below and every ring's name_/retired_.
    std::vector<TraceRing*> rings;   // Live and retired, in registration order.
    std::deque<TraceRing*> retired;  // The retired ones, oldest first.
};

Registry& GetRegistry() {
    static Registry* registry = new Registry;
    return *registry;
}

const size_t kNameSize = 64;

// The calling thread's ring, read on every event.
thread_local TraceRing* tRing __attribute__((tls_model("initial-exec"))) = nullptr;
// Ring size whose allocation failed on this thread: no retry until the size changes.
thread_local uint32_t tFailedCapacity = 0;
// Set once the thread's exit handler has run: the thread records nothing more.
thread_local bool tExited = false;
// Name given before the thread's first event.
thread_local char tName[kNameSize];

void CopyName(char* to, const char* from) {
    const size_t length = std::min(std::strlen(from), kNameSize - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

// Moves ring to the retired list and frees the oldest retired rings beyond the limit. Requires
// the registry lock.
void RetireLocked(Registry& registry, TraceRing* ring) {
    ring->retired_ = true;
    registry.retired.push_back(ring);
    while (registry.retired.size() > kTraceMaxRetiredRings) {
        TraceRing* oldest = registry.retired.front();
        registry.retired.pop_front();
        registry.rings.erase(std::find(registry.rings.begin(), registry.rings.end(), oldest));
        delete oldest;
    }
}

// Retires the thread's ring when the thread ends.
struct RingOwner {
    bool armed = false;
    ~RingOwner() {
        tExited = true;
        if (tRing != nullptr) {
            Registry& registry = GetRegistry();
            std::lock_guard<std::mutex> lock(registry.mutex);
            RetireLocked(registry, tRing);
            tRing = nullptr;
        }
    }
};
thread_local RingOwner tOwner;

// Gives the calling thread a ring of the current size; null when it cannot have one.
TraceRing* AttachRing() {
    const uint32_t capacity = gRingEvents.load(std::memory_order_relaxed);
    if (tExited || tFailedCapacity == capacity) {
        return nullptr;
    }
    char name[kNameSize];
    if (tName[0] != '\0') {
        CopyName(name, tName);
    } else if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) {
        name[0] = '\0';
    }
    TraceRing* ring = TraceRing::Create(capacity, static_cast<pid_t>(syscall(SYS_gettid)), name);
    if (ring == nullptr) {
        tFailedCapacity = capacity;
        return nullptr;
    }
    Registry& registry = GetRegistry();
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        if (tRing != nullptr) {
            ring->name_ = tRing->name_;
            RetireLocked(registry, tRing);
        }
        registry.rings.push_back(ring);
    }
    tOwner.armed = true;  // Constructs the exit handler with the thread's first ring.
    tRing = ring;
    return ring;
}

// Copies the last kTraceTextSize - 1 bytes of text.
void CopyText(char* to, const char* text) {
    if (text == nullptr) {
        to[0] = '\0';
        return;
    }
    size_t length = std::strlen(text);
    if (length > kTraceTextSize - 1) {
        text += length - (kTraceTextSize - 1);
        length = kTraceTextSize - 1;
    }
    std::memcpy(to, text, length);
    to[length] = '\0';
}

// Reads VOK_TRACE and VOK_TRACE_BUFFER when the library loads.
struct EnvironmentSettings {
    EnvironmentSettings() {
        const char* buffer = std::getenv("VOK_TRACE_BUFFER");
        if (buffer != nullptr && *buffer != '\0') {
            char* end = nullptr;
            const unsigned long events = std::strtoul(buffer, &end, 10);
            if (*end == '\0') {
                TraceSetRingEvents(events > UINT32_MAX ? UINT32_MAX
                                                       : static_cast<uint32_t>(events));
            }
        }
        const char* on = std::getenv("VOK_TRACE");
        if (on != nullptr && std::strcmp(on, "1") == 0) {
            TraceSetEnabled(true);
        }
    }
} gEnvironmentSettings;

}  // namespace

TraceRing* TraceRing::Create(uint32_t capacity, pid_t tid, const char* name) {
    // Left uninitialised: a copy reads only slots already stored, and the pages of a ring that
    // has not gone round yet stay untouched.
    Slot* slots = new (std::nothrow) Slot[capacity];
    if (slots == nullptr) {
        return nullptr;
    }
    return new (std::nothrow) TraceRing(capacity, tid, name, slots);
}

TraceRing::TraceRing(uint32_t capacity, pid_t tid, const char* name, Slot* slots)
    : name_(name),
      retired_(false),
      capacity_(capacity),
      tid_(tid),
      slots_(slots),
      begun_(0),
      done_(0) {}

TraceRing::~TraceRing() = default;

void TraceRing::Store(const TraceRecord& record) {
    const uint64_t index = begun_.load(std::memory_order_relaxed);
    begun_.store(index + 1, std::memory_order_relaxed);
    // A reader that sees any word of this store also sees begun_ at index + 1.
    StoreFence();
    Word words[kWords];
    std::memcpy(words, &record, sizeof words);
    Slot& slot = slots_[index & (capacity_ - 1)];
    for (unsigned i = 0; i < kWords; ++i) {
        slot.words[i].store(words[i], kWordStore);
    }
    done_.store(index + 1, std::memory_order_release);
}

void TraceRing::CopyOut(uint64_t sinceNs, std::vector<TraceRecord>* out) const {
    const uint64_t done = done_.load(std::memory_order_acquire);
    const uint64_t count = std::min<uint64_t>(done, capacity_);
    const uint64_t first = done - count;
    std::vector<TraceRecord> copies(static_cast<size_t>(count));
    for (uint64_t index = first; index < done; ++index) {
        const Slot& slot = slots_[index & (capacity_ - 1)];
        Word words[kWords];
        for (unsigned i = 0; i < kWords; ++i) {
            words[i] = slot.words[i].load(kWordLoad);
        }
        std::memcpy(&copies[static_cast<size_t>(index - first)], words, sizeof words);
    }
    LoadFence();
    // The store in progress (index begun - 1) may have overwritten the slot of begun - 1 -
    // capacity and every older index during the copy.
    const uint64_t begun = begun_.load(std::memory_order_relaxed);
    for (uint64_t index = first; index < done; ++index) {
        const TraceRecord& record = copies[static_cast<size_t>(index - first)];
        if (index + capacity_ >= begun && record.ts >= sinceNs) {
            out->push_back(record);
        }
    }
}

void TraceCollect(uint64_t sinceNs, std::vector<TraceTrack>* tracks) {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    for (const TraceRing* ring : registry.rings) {
        TraceTrack track;
        track.tid = ring->Tid();
        track.name = ring->name_;
        ring->CopyOut(sinceNs, &track.records);
        tracks->push_back(std::move(track));
    }
}

uint64_t TraceClockNow() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

void TraceStore(const TraceRecord& record) {
    TraceRing* ring = tRing;
    if (__builtin_expect(
            ring == nullptr || ring->Capacity() != gRingEvents.load(std::memory_order_relaxed),
            0)) {
        ring = AttachRing();
        if (ring == nullptr) {
            return;
        }
    }
    ring->Store(record);
}

void TraceMessage(RecordType type, uint64_t begin, uint64_t id, uint32_t protocol, uint32_t msgId,
                  uint32_t size, uint32_t source, uint32_t dest) {
    TraceRecord record;
    record.ts = begin;
    record.dur = TraceClockNow() - begin;
    record.id = id;
    record.value = 0;
    record.protocol = protocol;
    record.msgId = msgId;
    record.size = size;
    record.source = source;
    record.dest = dest;
    record.type = type;
    record.kind = 0;
    record.reserved[0] = record.reserved[1] = 0;
    record.text[0] = '\0';
    TraceStore(record);
}

void TraceCallback(uint64_t begin, CallbackKind kind) {
    TraceRecord record = TraceRecord();
    record.ts = begin;
    record.dur = TraceClockNow() - begin;
    record.type = kRecCallback;
    record.kind = kind;
    TraceStore(record);
}

void TraceAsync(RecordType type, AsyncKind kind, uint64_t id, int64_t value, const char* text) {
    TraceRecord record = TraceRecord();
    record.ts = TraceClockNow();
    record.id = id;
    record.value = value;
    record.type = type;
    record.kind = kind;
    CopyText(record.text, text);
    TraceStore(record);
}

uint64_t TraceAsyncOpen(AsyncKind kind, const char* text, int64_t value) {
    // Counted for the whole process: a call's reply or a request's end may come when other
    // threads have started slices of their own.
    static std::atomic<uint64_t> lastId(0);
    const uint64_t id = lastId.fetch_add(1, std::memory_order_relaxed) + 1;
    TraceAsync(kRecAsyncBegin, kind, id, value, text);
    return id;
}

void TraceInstantRecord(InstantKind kind, int64_t value, const char* text) {
    TraceRecord record = TraceRecord();
    record.ts = TraceClockNow();
    record.value = value;
    record.type = kRecInstant;
    record.kind = kind;
    CopyText(record.text, text);
    TraceStore(record);
}

const char* TraceCallbackName(CallbackKind kind) {
    static const char* const kNames[kCbKindCount] = {
        "timer",     "alarm",     "bridge", "port monitor", "descriptor monitor",
        "bus reply", "bus method"};
    return kind < kCbKindCount ? kNames[kind] : "callback";
}

const char* TraceAsyncName(AsyncKind kind) {
    static const char* const kNames[kAsyncKindCount] = {"bus call", "served request"};
    return kind < kAsyncKindCount ? kNames[kind] : "async";
}

const char* TraceInstantName(InstantKind kind) {
    static const char* const kNames[kInstKindCount] = {"timer late", "alarm late",  "blade start",
                                                       "blade stop", "blade stuck", "stop deadline",
                                                       "mark"};
    return kind < kInstKindCount ? kNames[kind] : "instant";
}

}  // namespace trace

void TraceSetEnabled(bool enabled) {
    trace::gTraceEnabled.store(enabled, std::memory_order_relaxed);
}

bool TraceIsEnabled() {
    return trace::gTraceEnabled.load(std::memory_order_relaxed);
}

void TraceSetRingEvents(uint32_t events) {
    uint32_t capacity = kTraceMinRingEvents;
    while (capacity < events && capacity < kTraceMaxRingEvents) {
        capacity <<= 1;
    }
    trace::gRingEvents.store(capacity, std::memory_order_relaxed);
}

uint32_t TraceGetRingEvents() {
    return trace::gRingEvents.load(std::memory_order_relaxed);
}

void TraceNameThread(const std::string& name) {
    trace::CopyName(trace::tName, name.c_str());
    if (trace::tRing != nullptr) {
        trace::Registry& registry = trace::GetRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        trace::tRing->name_ = trace::tName;
    }
}

uint64_t TraceClockNs() {
    return trace::TraceClockNow();
}

void TraceMark(const std::string& name) {
    trace::TraceInstant(trace::kInstMark, 0, name.c_str());
}

}  // namespace vok
