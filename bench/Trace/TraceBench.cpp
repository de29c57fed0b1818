// The flight recorder's cost per event, off and on, against baselines measured in the same run.
#include <benchmark/benchmark.h>

#include <string>

#include "Src/Utils/Trace/TraceEvents.h"
#include "support/BenchRatio.h"
#include "vok/Trace.h"

namespace {

using namespace vok::trace;

// Stands for a call into the library that does nothing.
__attribute__((noinline)) void EmptyFunction(const std::string* name) {
    benchmark::DoNotOptimize(name);
}

void BM_EmptyFunction(benchmark::State& state) {
    const std::string name = "mark";
    for (auto _ : state) {
        EmptyFunction(&name);
    }
}
BENCHMARK(BM_EmptyFunction);

// TraceMark is a library function holding one event site: while recording is off it is the
// call, one relaxed load and a branch.
void BM_TraceSiteOff(benchmark::State& state) {
    vok::TraceSetEnabled(false);
    const std::string name = "mark";
    for (auto _ : state) {
        vok::TraceMark(name);
    }
}
BENCHMARK(BM_TraceSiteOff);

// What every recorded event costs at least: one read of the monotonic clock.
void BM_MonotonicClock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(vok::TraceClockNs());
    }
}
BENCHMARK(BM_MonotonicClock);

// One instant: a clock read and a 96-byte record into the thread's ring.
void BM_TraceInstantOn(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    TraceInstant(kInstTimerLate, 1, nullptr);  // The thread's ring is made here, not timed.
    for (auto _ : state) {
        TraceInstant(kInstTimerLate, 1, nullptr);
    }
    vok::TraceSetEnabled(false);
}
BENCHMARK(BM_TraceInstantOn);

// One message write as the message path records it: two clock reads (begin and end) and a record.
void BM_TraceMessageOn(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    TraceMessageWritten(TraceBegin(), 1, 4, 1, 0, 49152, 49153);
    uint64_t id = 0;
    for (auto _ : state) {
        TraceMessageWritten(TraceBegin(), ++id, 4, 1, 0, 49152, 49153);
    }
    vok::TraceSetEnabled(false);
}
BENCHMARK(BM_TraceMessageOn);

// An asynchronous begin with a URI copied into the record.
void BM_TraceAsyncBeginOn(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    TraceAsyncBegin(kAsyncBusCall, 0, "kelvra://com.orvex.vokdemo/demo/echo", 1000);
    uint64_t id = 0;
    for (auto _ : state) {
        TraceAsyncBegin(kAsyncBusCall, ++id, "kelvra://com.orvex.vokdemo/demo/echo", 1000);
    }
    vok::TraceSetEnabled(false);
}
BENCHMARK(BM_TraceAsyncBeginOn);

// A snapshot of one full default ring as JSON (a dump, not a recording cost).
void BM_SnapshotFullRing(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    const uint64_t since = vok::TraceClockNs();
    for (uint32_t i = 0; i < vok::kTraceDefaultRingEvents; ++i) {
        TraceInstant(kInstTimerLate, i, nullptr);
    }
    vok::TraceSetEnabled(false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(vok::TraceSnapshotJson(since));
    }
}
BENCHMARK(BM_SnapshotFullRing)->Unit(benchmark::kMillisecond);

}  // namespace

// Off: the call of an empty function plus one load and a branch.
VOK_BENCH_RATIO("BM_TraceSiteOff", "BM_EmptyFunction", 2.0);
// On: about 60 ns on x86-64 with a clock read of about 20 ns.
VOK_BENCH_RATIO("BM_TraceInstantOn", "BM_MonotonicClock", 3.0);
VOK_BENCH_RATIO("BM_TraceMessageOn", "BM_MonotonicClock", 4.0);
VOK_BENCH_RATIO("BM_TraceAsyncBeginOn", "BM_MonotonicClock", 3.5);
