// The flight recorder's cost per event, off and on, against baselines measured in the same run;
// and a bus call through the dispatcher on a private bus with recording off and on.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <kelvra/kelvra.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "PrivateBus.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "support/BenchRatio.h"
#include "vok/RdKvCall.h"
#include "vok/RdKvService.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Trace.h"
#include "vok/VokKvClient.h"

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

const char kBenchService[] = "com.orvex.trace.bench";

// Starts the private bus and points the bus library at it, before any handle exists.
const std::string& UseBus(vok::test::PrivateBus* bus) {
    setenv("KELVRA_BUS_ADDRESS", bus->Start().c_str(), 1);
    return bus->Address();
}

// An RdKvCall on the benchmark thread's dispatcher to an echo method of an RdKvService served by
// a dispatcher on a thread of its own. Each trip records six events while recording is on: the
// call and the served request (begin and end each), the method's and the reply's slices.
class BusTrips {
  public:
    static BusTrips& Get() {
        static BusTrips trips;
        return trips;
    }

    // One round trip, with recording on or off.
    void Trip(bool record) {
        vok::TraceSetEnabled(record);
        replied_ = false;
        call_.Call(kBenchService, "bench/echo", "{\"key\":\"com.orvex.vok\"}");
        while (!replied_) {
            g_main_context_iteration(context_, TRUE);
        }
        vok::TraceSetEnabled(false);
    }

  private:
    BusTrips()
        : address_(UseBus(&bus_)),
          context_(g_main_loop_get_context(vok::RuntimeDispatcher::GetInternalLoop(client_))),
          call_(vok::RdKelvraUtils::GetKvHandle(client_), [this](KVMessage*) { replied_ = true; }),
          server_([this]() { Serve(); }) {
        std::unique_lock<std::mutex> lock(mutex_);
        served_.wait(lock, [this]() { return service_ != nullptr; });
    }

    ~BusTrips() {
        service_->RequestStop();
        server_.join();
    }

    // The service's thread: serves until the destructor stops its loop.
    void Serve() {
        vok::RuntimeDispatcher dispatcher;
        vok::RdKvService service(dispatcher, kBenchService);
        service.AddMethod("bench/echo", [](vok::RdKvRequest& request) {
            request.Reply(request.GetPayloadText());
        });
        service.SetConnectionObserver([this, &dispatcher](bool connected) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (connected && service_ == nullptr) {
                service_ = &dispatcher;
                served_.notify_one();
            }
        });
        dispatcher.Run();
    }

    vok::test::PrivateBus bus_;
    const std::string address_;
    vok::RuntimeDispatcher client_;
    GMainContext* const context_;
    bool replied_ = false;
    vok::RdKvCall call_;
    std::mutex mutex_;
    std::condition_variable served_;
    vok::RuntimeDispatcher* service_ = nullptr;  // Set once the service owns its name.
    std::thread server_;
};

// Times trips of one setting, each after an untimed trip of the other, and keeps the fastest of
// a batch: the one no other process on the shared machine delayed. Six events cost well under a
// microsecond, less than the spread of trips on a loaded machine, so the batch is long.
const int kTripBatch = 20;
void BusCallTrips(benchmark::State& state, bool record) {
    BusTrips& trips = BusTrips::Get();
    for (auto _ : state) {
        double fastest = 0;
        for (int i = 0; i < kTripBatch; ++i) {
            trips.Trip(!record);
            const auto start = std::chrono::steady_clock::now();
            trips.Trip(record);
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            fastest = i == 0 || took.count() < fastest ? took.count() : fastest;
        }
        state.SetIterationTime(fastest);
    }
}

void BM_BusCallTraceOff(benchmark::State& state) {
    BusCallTrips(state, false);
}
BENCHMARK(BM_BusCallTraceOff)->UseManualTime();

void BM_BusCallTraceOn(benchmark::State& state) {
    BusCallTrips(state, true);
}
BENCHMARK(BM_BusCallTraceOn)->UseManualTime();

}  // namespace

// Off: the call of an empty function plus one load and a branch.
VOK_BENCH_RATIO("BM_TraceSiteOff", "BM_EmptyFunction", 2.0);
// On: about 60 ns on x86-64 with a clock read of about 20 ns.
VOK_BENCH_RATIO("BM_TraceInstantOn", "BM_MonotonicClock", 3.0);
VOK_BENCH_RATIO("BM_TraceMessageOn", "BM_MonotonicClock", 4.0);
VOK_BENCH_RATIO("BM_TraceAsyncBeginOn", "BM_MonotonicClock", 3.5);
// Six events a bus call: a few hundred nanoseconds on a round trip of tens of microseconds.
VOK_BENCH_RATIO("BM_BusCallTraceOn/manual_time", "BM_BusCallTraceOff/manual_time", 1.05);
