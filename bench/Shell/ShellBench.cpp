// Start-up and full stop of a shell with 32 blades (each running a dispatcher and a port
// monitor), against creating and joining 32 bare threads, and with the service manager's watchdog
// on against off; and the wake-ups of an idle shell with the watchdog on at 30 s.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
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

// The service manager's end of the notification socket, named in NOTIFY_SOCKET while it lives
// and drained by a thread of its own; with watchdogSec non-zero it also asks for a watchdog.
class ServiceManager {
  public:
    explicit ServiceManager(int watchdogSec)
        : path_("/tmp/vok-bench-notify-" + std::to_string(getpid())) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path_.c_str());
        unlink(path_.c_str());
        if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            std::perror("bind");
        }
        setenv("NOTIFY_SOCKET", path_.c_str(), 1);
        if (watchdogSec != 0) {
            setenv("WATCHDOG_USEC", std::to_string(watchdogSec * 1000000LL).c_str(), 1);
        }
        drain_ = std::thread([this]() {
            char buffer[4096];
            while (!stop_) {
                pollfd p{fd_, POLLIN, 0};
                if (poll(&p, 1, 1000) == 1) {
                    (void)recv(fd_, buffer, sizeof buffer, 0);
                }
            }
        });
    }
    ~ServiceManager() {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        stop_ = true;
        drain_.join();
        close(fd_);
        unlink(path_.c_str());
    }

  private:
    std::string path_;
    int fd_;
    std::atomic<bool> stop_{false};
    std::thread drain_;
};

std::vector<vok::VokBladeLoaderInterface*> Loaders(std::vector<std::unique_ptr<Loader>>* owned,
                                                   int count) {
    std::vector<vok::VokBladeLoaderInterface*> raw;
    for (int i = 0; i < count; ++i) {
        owned->emplace_back(new Loader(i));
        raw.push_back(owned->back().get());
    }
    return raw;
}

// state.range(0): the watchdog interval asked for, in seconds (0: none).
void BM_ShellStartStop32Blades(benchmark::State& state) {
    std::vector<std::unique_ptr<Loader>> loaders;
    const std::vector<vok::VokBladeLoaderInterface*> raw = Loaders(&loaders, kBlades);
    ServiceManager manager(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        vok::Event done;
        vok::VokShell shell(vok::VokShellDaemonInfo("bench", ""), raw, [&]() { done.Signal(); });
        shell.StartUp();
        shell.RequestStop();
        done.Wait();
    }
}
BENCHMARK(BM_ShellStartStop32Blades)->Arg(0)->Arg(30)->Unit(benchmark::kMicrosecond)->UseRealTime();

long VoluntarySwitches() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);  // every thread of the process
    return usage.ru_nvcsw;
}

// Wake-ups per second of an idle shell with 4 blades, counted as the process's voluntary context
// switches over 16 s (the feeding runs every 15 s at WatchdogSec=30), less the bench thread's
// own sleep. state.range(0): the watchdog interval in seconds (0: none).
void BM_ShellIdleWakeups(benchmark::State& state) {
    std::vector<std::unique_ptr<Loader>> loaders;
    const std::vector<vok::VokBladeLoaderInterface*> raw = Loaders(&loaders, 4);
    ServiceManager manager(static_cast<int>(state.range(0)));
    const double seconds = 16;
    double perSecond = 0;
    for (auto _ : state) {
        vok::Event done;
        vok::VokShell shell(vok::VokShellDaemonInfo("bench", ""), raw, [&]() { done.Signal(); });
        shell.StartUp();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // blades settle
        const long before = VoluntarySwitches();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        // The drain thread wakes once a second for its own poll timeout; not the shell's.
        perSecond = (VoluntarySwitches() - before - 1 - seconds) / seconds;
        shell.RequestStop();
        done.Wait();
    }
    state.counters["wakeups_per_s"] = perSecond;
}
BENCHMARK(BM_ShellIdleWakeups)->Arg(0)->Arg(30)->Iterations(1)->Unit(benchmark::kSecond);

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

VOK_BENCH_RATIO("BM_ShellStartStop32Blades/0/real_time", "BM_Create32BareThreads/real_time", 0);
VOK_BENCH_RATIO("BM_ShellStartStop32Blades/30/real_time", "BM_ShellStartStop32Blades/0/real_time",
                1.1);
