// Cross-thread round trips through port monitors, against GLib's own cross-context wake-up and
// an eventfd ping-pong; and the wake-ups of an idle loop with a far timer.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "support/BenchRatio.h"
#include "vok/Event.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdPortMonitor.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"

namespace {

const int kRoundTripsPerIteration = 1000;

// Cross-thread wake-ups on a virtual machine vary from run to run with the host's scheduling;
// the fastest of several repetitions is what the code itself costs.
double Fastest(const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
}

// ---- framework: two dispatchers, a port monitor on each end of a connected pair ----

// One side: reads the message and writes it back; side A counts round trips.
struct Side {
    vok::RuntimeDispatcher dispatcher;
    vok::MmConnectionPort* port = nullptr;
    vok::MessageMoverInterface* iface = nullptr;
    std::unique_ptr<vok::RdPortMonitor> monitor;
    std::unique_ptr<vok::RdAsyncBridge> kick;  // side A: starts a batch
    int remaining = 0;
    vok::Event* done = nullptr;

    void Bounce() {
        vok::MmConnectionMessageHandle msg;
        while (port->ReadMessage(&msg) == vok::kVokErrNone) {
            if (done != nullptr && --remaining == 0) {
                iface->FreeMessage(msg);
                done->Signal();
                continue;
            }
            port->WriteMessage(msg, nullptr);
        }
    }
    void Send() {
        vok::MmConnectionMessageHandle msg;
        iface->CreateConnectionMessage(0, &msg);
        port->WriteMessage(msg, nullptr);
    }
};

void BM_PortMonitorRoundTrip(benchmark::State& state) {
    vok::MessageMoverFramework* framework =
        vok::MessageMoverFramework::StartMessageMoverFramework("bench");
    vok::MessageMoverInterface* iface = framework->CreateInterface("bench");
    Side a, b;
    a.iface = b.iface = iface;
    a.port = iface->CreateConnectedPair(iface, &b.port);
    vok::Event done;
    a.done = &done;
    vok::Event ready;
    std::atomic<int> started(0);
    auto run = [&](Side* side, bool isA) {
        side->monitor.reset(new vok::RdPortMonitor(*side->port, side->dispatcher,
                                                   [side](bool, bool, bool) { side->Bounce(); }));
        side->monitor->SetEventMask(true, false, false);
        if (isA) {
            side->kick.reset(new vok::RdAsyncBridge(side->dispatcher, [side]() { side->Send(); }));
        }
        vok::RdTimerBase announce(side->dispatcher, [&]() {
            if (++started == 2) {
                ready.Signal();
            }
        });
        announce.Schedule(0);
        side->dispatcher.Run();
        side->kick.reset();
        side->monitor.reset();
    };
    std::thread ta(run, &a, true), tb(run, &b, false);
    ready.Wait();
    for (auto _ : state) {
        done.Reset();
        a.remaining = kRoundTripsPerIteration;
        a.kick->Trigger();
        done.Wait();
    }
    a.dispatcher.RequestStop();
    b.dispatcher.RequestStop();
    ta.join();
    tb.join();
    iface->DiscardConnectionPort(a.port);
    iface->DiscardConnectionPort(b.port);
    framework->DiscardInterface(iface);
    vok::MessageMoverFramework::StopMessageMoverFramework(framework);
    state.SetItemsProcessed(state.iterations() * kRoundTripsPerIteration);
}
BENCHMARK(BM_PortMonitorRoundTrip)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// ---- baseline: GLib idle sources attached to each other's context ----

struct GlibSide {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GlibSide* peer = nullptr;
    int remaining = 0;
    vok::Event* done = nullptr;
    ~GlibSide() {
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
};

gboolean GlibHop(gpointer data);

void PostTo(GlibSide* to) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &GlibHop, to, nullptr);
    g_source_attach(source, to->context);
    g_source_unref(source);
}

gboolean GlibHop(gpointer data) {
    GlibSide* side = static_cast<GlibSide*>(data);
    if (side->done != nullptr && --side->remaining == 0) {
        side->done->Signal();
    } else {
        PostTo(side->peer);
    }
    return G_SOURCE_REMOVE;
}

void BM_GlibIdleSourceRoundTrip(benchmark::State& state) {
    GlibSide a, b;
    a.peer = &b;
    b.peer = &a;
    vok::Event done;
    a.done = &done;
    std::thread ta([&]() { g_main_loop_run(a.loop); });
    std::thread tb([&]() { g_main_loop_run(b.loop); });
    for (auto _ : state) {
        done.Reset();
        a.remaining = kRoundTripsPerIteration;  // read by a's thread after the post below
        PostTo(&b);
        done.Wait();
    }
    g_main_loop_quit(a.loop);
    g_main_loop_quit(b.loop);
    ta.join();
    tb.join();
    state.SetItemsProcessed(state.iterations() * kRoundTripsPerIteration);
}
BENCHMARK(BM_GlibIdleSourceRoundTrip)
    ->UseRealTime()
    ->Repetitions(5)
    ->ComputeStatistics("min", Fastest);

// ---- floor: eventfd ping-pong ----

void BM_EventfdRoundTrip(benchmark::State& state) {
    int ping = eventfd(0, EFD_CLOEXEC);
    int pong = eventfd(0, EFD_CLOEXEC);
    std::thread echo([&]() {
        uint64_t value = 0;
        for (;;) {
            if (read(ping, &value, sizeof value) != sizeof value || value == 2) {
                return;
            }
            value = 1;
            (void)!write(pong, &value, sizeof value);
        }
    });
    uint64_t value = 1;
    for (auto _ : state) {
        for (int i = 0; i < kRoundTripsPerIteration; ++i) {
            value = 1;
            (void)!write(ping, &value, sizeof value);
            (void)!read(pong, &value, sizeof value);
        }
    }
    value = 2;
    (void)!write(ping, &value, sizeof value);
    echo.join();
    close(ping);
    close(pong);
    state.SetItemsProcessed(state.iterations() * kRoundTripsPerIteration);
}
BENCHMARK(BM_EventfdRoundTrip)->UseRealTime()->Repetitions(5)->ComputeStatistics("min", Fastest);

// ---- idle cost: wake-ups per second with one timer armed 10 s ahead ----

int gPolls = 0;
GPollFunc gRealPoll = nullptr;
gint CountingPoll(GPollFD* fds, guint nfds, gint timeout) {
    ++gPolls;
    return gRealPoll(fds, nfds, timeout);
}

void BM_IdleWakeupsWithFarTimer(benchmark::State& state) {
    GMainContext* context = g_main_context_new();
    double wakeupsPerSecond = 0;
    for (auto _ : state) {
        vok::GlibRuntimeDispatcher dispatcher(context);
        gRealPoll = g_main_context_get_poll_func(context);
        g_main_context_set_poll_func(context, &CountingPoll);
        vok::RdTimerBase far(dispatcher, []() {});
        far.Schedule(10000);
        vok::RdTimerBase stop(dispatcher, [&]() { dispatcher.RequestStop(); });
        stop.Schedule(2000);
        gPolls = 0;
        dispatcher.Run();
        wakeupsPerSecond = gPolls / 2.0;
        g_main_context_set_poll_func(context, gRealPoll);
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
VOK_BENCH_RATIO("BM_GlibIdleSourceRoundTrip/repeats:5/real_time_min",
                "BM_EventfdRoundTrip/repeats:5/real_time_min", 0);
