// One KVCall round trip with a 100-byte payload, against sd_bus_call_method carrying the same
// payload to the same kelvra service (in a thread of this process) on a private bus: what the
// bus library adds to sd-bus (JSON text, the reply dispatched on the attached context). Also a
// diag/registers call to the diagnostics service of a shell carrying kDiagRegisters registers,
// against the echo call: what a vokctl user waits for beyond the bus itself.
#include <benchmark/benchmark.h>
#include <kelvra/kelvra.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PrivateBus.h"
#include "support/BenchRatio.h"
#include "support/BusEcho.h"
#include "vok/DiagBusService.h"
#include "vok/DiagnosticRegister.h"
#include "vok/VokShell.h"

namespace {

const char kKelvraService[] = "com.orvex.bench";
// About what vok-demo has: its blades' interface counters, the framework's and its own.
const int kDiagRegisters = 64;

[[noreturn]] void Die(const char* what, const char* detail) {
    std::fprintf(stderr, "KelvraBench: %s: %s\n", what, detail != nullptr ? detail : "");
    std::abort();
}

// The private bus, the service on a thread of its own, and both clients on the benchmark thread
// (the bus library's on its context). Made on first use, torn down at exit.
class BenchBus {
  public:
    BenchBus() : payload_(vok::bench::EchoPayload()), clientContext_(g_main_context_new()) {
        setenv("KELVRA_BUS_ADDRESS", bus_.Start().c_str(), 1);
        serviceContext_ = g_main_context_new();
        serviceLoop_ = g_main_loop_new(serviceContext_, FALSE);
        bool ready = false;
        GMutex mutex;
        GCond cond;
        g_mutex_init(&mutex);
        g_cond_init(&cond);
        serviceThread_ = std::thread([&]() {
            StartServices();
            g_mutex_lock(&mutex);
            ready = true;
            g_cond_signal(&cond);
            g_mutex_unlock(&mutex);
            g_main_loop_run(serviceLoop_);
            StopServices();
        });
        g_mutex_lock(&mutex);
        while (!ready) {
            g_cond_wait(&cond, &mutex);
        }
        g_mutex_unlock(&mutex);
        g_mutex_clear(&mutex);
        g_cond_clear(&cond);

        KVError error;
        KVErrorInit(&error);
        if (!KVRegister(nullptr, &client_, &error) ||
            !KVGmainAttach(client_, clientContext_, &error)) {
            Die("client", error.message);
        }
        if (sd_bus_new(&sdBus_) < 0 || sd_bus_set_address(sdBus_, bus_.Address().c_str()) < 0 ||
            sd_bus_set_bus_client(sdBus_, 1) < 0 || sd_bus_start(sdBus_) < 0) {
            Die("sd-bus client", bus_.Address().c_str());
        }

        shell_.reset(new vok::VokShell(vok::VokShellDaemonInfo("bench", ""), {}, []() {}));
        for (int i = 0; i < kDiagRegisters; ++i) {
            registers_.emplace_back(
                new vok::DiagnosticRegisterCounter("root.bench.count" + std::to_string(i), i));
        }
        diag_.reset(new vok::DiagBusService(*shell_));
        shell_->StartUp();
        // The service registers from a thread of its own: call until it answers.
        while (!DiagCall()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    ~BenchBus() {
        shell_->RequestStop();
        diag_.reset();
        shell_.reset();
        registers_.clear();
        KVUnregister(client_, nullptr);
        sd_bus_flush_close_unref(sdBus_);
        g_main_loop_quit(serviceLoop_);
        serviceThread_.join();
        g_main_loop_unref(serviceLoop_);
        g_main_context_unref(serviceContext_);
        g_main_context_unref(clientContext_);
    }

    static BenchBus& Get() {
        static BenchBus bus;
        return bus;
    }

    // One call, run until its reply.
    void KelvraRoundTrip() {
        bool done = false;
        if (!KVCall(client_, "kelvra://com.orvex.bench/bench/echo", payload_.c_str(), OnReply,
                    &done, nullptr, nullptr)) {
            Die("KVCall", nullptr);
        }
        while (!done) {
            g_main_context_iteration(clientContext_, TRUE);
        }
    }

    void DiagRoundTrip() {
        if (!DiagCall()) {
            Die("diag/registers", "no answer");
        }
    }

    void SdBusRoundTrip() {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        if (sd_bus_call_method(sdBus_, kKelvraService, "/bench", "com.orvex.kelvra.Method", "echo",
                               &error, &reply, "st", payload_.c_str(), ++sdToken_) < 0) {
            Die("sd_bus_call_method", error.message);
        }
        const char* text = nullptr;
        int more = 0;
        sd_bus_message_read(reply, "sb", &text, &more);
        benchmark::DoNotOptimize(text);
        sd_bus_message_unref(reply);
    }

  private:
    // One diag/registers call for the whole tree; true when it answered with every register.
    bool DiagCall() {
        struct Result {
            bool done = false;
            bool ok = false;
        } result;
        KVReplyFunc onReply = [](KVHandle*, KVMessage* reply, void* data) {
            Result* r = static_cast<Result*>(data);
            const std::string payload = KVMessageGetPayload(reply);
            r->ok = payload.find("root.bench.count" + std::to_string(kDiagRegisters - 1)) !=
                    std::string::npos;
            r->done = true;
            return true;
        };
        if (!KVCall(client_, "kelvra://com.orvex.vok.bench/diag/registers", "{}", onReply, &result,
                    nullptr, nullptr)) {
            Die("KVCall", nullptr);
        }
        while (!result.done) {
            g_main_context_iteration(clientContext_, TRUE);
        }
        return result.ok;
    }

    static bool OnReply(KVHandle*, KVMessage* reply, void* done) {
        benchmark::DoNotOptimize(KVMessageGetPayload(reply));
        *static_cast<bool*>(done) = true;
        return true;
    }

    // On the service thread.
    void StartServices() {
        KVError error;
        KVErrorInit(&error);
        if (!KVRegister(kKelvraService, &service_, &error) ||
            !KVRegisterMethod(service_, "bench/echo", vok::bench::KelvraEcho, nullptr, &error) ||
            !KVGmainAttach(service_, serviceContext_, &error)) {
            Die("service", error.message);
        }
        while (!KVIsConnected(service_)) {
            g_main_context_iteration(serviceContext_, TRUE);
        }
    }

    void StopServices() { KVUnregister(service_, nullptr); }

    vok::test::PrivateBus bus_;
    std::string payload_;
    GMainContext* clientContext_;
    KVHandle* client_ = nullptr;
    sd_bus* sdBus_ = nullptr;
    uint64_t sdToken_ = 0;
    GMainContext* serviceContext_ = nullptr;
    GMainLoop* serviceLoop_ = nullptr;
    std::thread serviceThread_;
    KVHandle* service_ = nullptr;
    std::unique_ptr<vok::VokShell> shell_;
    std::vector<std::unique_ptr<vok::DiagnosticRegisterCounter>> registers_;
    std::unique_ptr<vok::DiagBusService> diag_;
};

// Each iteration makes a batch of round trips of the timed kind, each after one untimed trip of
// the other kind, and counts the fastest. The machine is shared with other work: the fastest trip
// of a batch is the one no other process delayed, and alternating the kinds exposes both to the
// same load.
template <void (BenchBus::*kTimed)(), void (BenchBus::*kOther)()>
void RoundTrips(benchmark::State& state) {
    const int kBatch = 5;
    BenchBus& bus = BenchBus::Get();
    for (auto _ : state) {
        double fastest = 0;
        for (int i = 0; i < kBatch; ++i) {
            (bus.*kOther)();
            const auto start = std::chrono::steady_clock::now();
            (bus.*kTimed)();
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            fastest = (i == 0 || seconds < fastest) ? seconds : fastest;
        }
        state.SetIterationTime(fastest);
    }
}

void BM_SdBusCallRoundTrip(benchmark::State& state) {
    RoundTrips<&BenchBus::SdBusRoundTrip, &BenchBus::KelvraRoundTrip>(state);
}
BENCHMARK(BM_SdBusCallRoundTrip)->UseManualTime();

void BM_KVCallRoundTrip(benchmark::State& state) {
    RoundTrips<&BenchBus::KelvraRoundTrip, &BenchBus::SdBusRoundTrip>(state);
}
BENCHMARK(BM_KVCallRoundTrip)->UseManualTime();

void BM_DiagRegistersRoundTrip(benchmark::State& state) {
    RoundTrips<&BenchBus::DiagRoundTrip, &BenchBus::KelvraRoundTrip>(state);
}
BENCHMARK(BM_DiagRegistersRoundTrip)->UseManualTime();

}  // namespace

VOK_BENCH_RATIO("BM_KVCallRoundTrip/manual_time", "BM_SdBusCallRoundTrip/manual_time", 1.0);
// Reported, no target: the reply carries kDiagRegisters registers as JSON.
VOK_BENCH_RATIO("BM_DiagRegistersRoundTrip/manual_time", "BM_KVCallRoundTrip/manual_time", 0);
