// Start-up and full stop of a shell with 32 blades (each running a dispatcher and a port
// monitor), against creating and joining 32 bare threads.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/BenchRatio.h"
#include "vok/BladeStopWatcher.h"
#include "vok/Event.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

namespace {

const int kBlades = 32;

class WaitingBlade : public vok::ServiceBlade {
  public:
    void Run(vok::ServiceBladeEnvironment* env) override {
        vok::RuntimeDispatcher dispatcher;
        vok::BladeStopWatcher stopWatcher(env, dispatcher);
        dispatcher.Run();
    }
};

class Loader : public vok::VokBladeLoaderInterface {
  public:
    explicit Loader(int i) : name_("blade" + std::to_string(i)) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return vok::kBladeStartModeAuto; }
    void LoadBlade(const vok::VokShellDaemonInfo&) override {}
    void UnloadBlade() override {}
    vok::ServiceBlade* GetServiceBlade() override { return &blade_; }

  private:
    std::string name_;
    WaitingBlade blade_;
};

void BM_ShellStartStop32Blades(benchmark::State& state) {
    std::vector<std::unique_ptr<Loader>> loaders;
    std::vector<vok::VokBladeLoaderInterface*> raw;
    for (int i = 0; i < kBlades; ++i) {
        loaders.emplace_back(new Loader(i));
        raw.push_back(loaders.back().get());
    }
    for (auto _ : state) {
        vok::Event done;
        vok::VokShell shell(vok::VokShellDaemonInfo("bench", ""), raw, [&]() { done.Signal(); });
        shell.StartUp();
        shell.RequestStop();
        done.Wait();
    }
}
BENCHMARK(BM_ShellStartStop32Blades)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_Create32BareThreads(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kBlades; ++i) {
            threads.emplace_back([]() { benchmark::ClobberMemory(); });
        }
        for (auto& t : threads) {
            t.join();
        }
    }
}
BENCHMARK(BM_Create32BareThreads)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

VOK_BENCH_RATIO("BM_ShellStartStop32Blades/real_time", "BM_Create32BareThreads/real_time", 0);
