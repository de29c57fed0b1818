// Cross-thread round trips through port monitors, against GLib's own cross-context wake-up and
// an eventfd ping-pong, with the threads free to use every CPU and pinned to one; and the wake-ups
// of an idle loop with a far timer.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <vector>

#include "PortMonitorPair.h"
#include "SyscallCounts.h"
#include "WakeupPairs.h"
#include "support/BenchRatio.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Trace.h"

namespace {

const int kRoundTripsPerIteration = 1000;

// Cross-thread wake-ups on a virtual machine vary from run to run with the host's scheduling;
// the fastest of several repetitions is what the code itself costs.
double Fastest(const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
}

// The pinned variants put every thread of the round trip on one CPU, as on a single-core device:
// the calling thread is pinned before it starts the others, which inherit its affinity. The
// previous affinity is restored on destruction. Context switches of the whole process per round
// trip are reported beside the time.
class OneCpu {
  public:
    explicit OneCpu(bool pin) : pinned_(pin) {
        if (!pinned_) {
            return;
        }
        pthread_getaffinity_np(pthread_self(), sizeof saved_, &saved_);
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &saved_)) {
                CPU_SET(cpu, &one);
                break;
            }
        }
        pthread_setaffinity_np(pthread_self(), sizeof one, &one);
    }
    ~OneCpu() {
        if (pinned_) {
            pthread_setaffinity_np(pthread_self(), sizeof saved_, &saved_);
        }
    }
    OneCpu(const OneCpu&) = delete;
    OneCpu& operator=(const OneCpu&) = delete;

  private:
    bool pinned_;
    cpu_set_t saved_;
};

long ContextSwitches() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

// Context switches, read and write calls and polls of the whole process per round trip.
void ReportSwitches(benchmark::State& state, long before, const vok::bench::SyscallCounts& calls) {
    const double trips = static_cast<double>(state.iterations() * kRoundTripsPerIteration);
    const vok::bench::SyscallCounts now = vok::bench::TakeSyscallCounts();
    state.counters["csw_per_trip"] = static_cast<double>(ContextSwitches() - before) / trips;
    state.counters["writes_per_trip"] = static_cast<double>(now.writes - calls.writes) / trips;
    state.counters["reads_per_trip"] = static_cast<double>(now.reads - calls.reads) / trips;
    if (now.polls >= 0) {
        state.counters["polls_per_trip"] = static_cast<double>(now.polls - calls.polls) / trips;
    }
}

// The round trips of one pair kind, kRoundTripsPerIteration per iteration.
template <class Pair>
void RoundTrips(benchmark::State& state, bool pinned) {
    OneCpu cpu(pinned);
    Pair pair;
    const long switches = ContextSwitches();
    const vok::bench::SyscallCounts calls = vok::bench::TakeSyscallCounts();
    for (auto _ : state) {
        pair.RoundTrips(kRoundTripsPerIteration);
    }
    ReportSwitches(state, switches, calls);
    state.SetItemsProcessed(state.iterations() * kRoundTripsPerIteration);
}

// ---- framework: two dispatchers, a port monitor on each end of a connected pair ----

void BM_PortMonitorRoundTrip(benchmark::State& state) {
    RoundTrips<vok::bench::PortMonitorPair>(state, false);
}
BENCHMARK(BM_PortMonitorRoundTrip)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

void BM_PortMonitorRoundTripPinned(benchmark::State& state) {
    RoundTrips<vok::bench::PortMonitorPair>(state, true);
}
BENCHMARK(BM_PortMonitorRoundTripPinned)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// The same with the flight recorder on: each hop records a write, a read and a port monitor
// callback.
void BM_PortMonitorRoundTripTraceOn(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    RoundTrips<vok::bench::PortMonitorPair>(state, false);
    vok::TraceSetEnabled(false);
}
BENCHMARK(BM_PortMonitorRoundTripTraceOn)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// ---- baseline: GLib idle sources attached to each other's context ----

void BM_GlibIdleSourceRoundTrip(benchmark::State& state) {
    RoundTrips<vok::bench::GlibIdlePair>(state, false);
}
BENCHMARK(BM_GlibIdleSourceRoundTrip)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

void BM_GlibIdleSourceRoundTripPinned(benchmark::State& state) {
    RoundTrips<vok::bench::GlibIdlePair>(state, true);
}
BENCHMARK(BM_GlibIdleSourceRoundTripPinned)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// ---- floor: eventfd ping-pong ----

void BM_EventfdRoundTrip(benchmark::State& state) {
    RoundTrips<vok::bench::EventfdPair>(state, false);
}
BENCHMARK(BM_EventfdRoundTrip)->UseRealTime()->Repetitions(5)->ComputeStatistics("min", Fastest);

void BM_EventfdRoundTripPinned(benchmark::State& state) {
    RoundTrips<vok::bench::EventfdPair>(state, true);
}
BENCHMARK(BM_EventfdRoundTripPinned)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// ---- idle cost: wake-ups per second with one timer armed 10 s ahead ----

void BM_IdleWakeupsWithFarTimer(benchmark::State& state) {
    GMainContext* context = g_main_context_new();
    double wakeupsPerSecond = 0;
    for (auto _ : state) {
        vok::GlibRuntimeDispatcher dispatcher(context);
        vok::bench::CountPollsOf(context);
        vok::RdTimerBase far(dispatcher, []() {});
        far.Schedule(10000);
        vok::RdTimerBase stop(dispatcher, [&]() { dispatcher.RequestStop(); });
        stop.Schedule(2000);
        const long before = vok::bench::PollCounter().load();
        dispatcher.Run();
        wakeupsPerSecond = static_cast<double>(vok::bench::PollCounter().load() - before) / 2.0;
        g_main_context_set_poll_func(context, &g_poll);
    }
    g_main_context_unref(context);
    state.counters["wakeups_per_s"] = wakeupsPerSecond;
}
BENCHMARK(BM_IdleWakeupsWithFarTimer)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

VOK_BENCH_RATIO("BM_PortMonitorRoundTrip/repeats:5/real_time_min",
                "BM_GlibIdleSourceRoundTrip/repeats:5/real_time_min", 1.3);
VOK_BENCH_RATIO("BM_PortMonitorRoundTrip/repeats:5/real_time_min",
                "BM_EventfdRoundTrip/repeats:5/real_time_min", 0);
// The cross-thread round trip with recording on against off.
VOK_BENCH_RATIO("BM_PortMonitorRoundTripTraceOn/repeats:5/real_time_min",
                "BM_PortMonitorRoundTrip/repeats:5/real_time_min", 1.3);
VOK_BENCH_RATIO("BM_GlibIdleSourceRoundTrip/repeats:5/real_time_min",
                "BM_EventfdRoundTrip/repeats:5/real_time_min", 0);
// On one CPU (single-core devices) the port monitor round trip aims at the eventfd floor.
VOK_BENCH_RATIO("BM_PortMonitorRoundTripPinned/repeats:5/real_time_min",
                "BM_EventfdRoundTripPinned/repeats:5/real_time_min", 1.3);
VOK_BENCH_RATIO("BM_PortMonitorRoundTripPinned/repeats:5/real_time_min",
                "BM_GlibIdleSourceRoundTripPinned/repeats:5/real_time_min", 0);
