// minimal: the smallest useful vok daemon.
//
// A VokShell hosts one blade. The blade runs an event loop (a RuntimeDispatcher) on its own
// thread and prints a line every second from a timer. SIGTERM or SIGINT stops the daemon
// cleanly: the shell tells the blade to stop, waits for it, and the program exits with 0.

#include <cstdio>
#include <memory>
#include <string>

#include <vok/BladeStopWatcher.h>
#include <vok/Daemon.h>
#include <vok/RdTimer.h>
#include <vok/RuntimeDispatcher.h>
#include <vok/Version.h>
#include <vok/VokShell.h>

namespace {

// A blade's whole life is Run, on a thread the shell starts for it. Everything it creates lives
// on that thread and is gone before Run returns.
class TickBlade : public vok::ServiceBlade {
  public:
    void Run(vok::ServiceBladeEnvironment* environment) override {
        vok::RuntimeDispatcher dispatcher;  // This thread's event loop.
        // Stops the loop when the shell sends the blade its stop event.
        vok::BladeStopWatcher stopWatcher(environment, dispatcher);
        // A timer fires once; the callback arms it again for the next second.
        vok::RdTimerBase timer(dispatcher, [this]() { Tick(); });
        timer_ = &timer;
        timer.Schedule(100);
        dispatcher.Run();  // Returns once the stop event has arrived.
        timer_ = nullptr;
        std::printf("[minimal] blade stopped after %u ticks\n", ticks_);
    }

  private:
    void Tick() {
        std::printf("[minimal] tick %u\n", ++ticks_);
        std::fflush(stdout);
        timer_->Schedule(1000);
    }

    vok::RdTimerBase* timer_ = nullptr;
    unsigned ticks_ = 0;
};

// Tells the shell the blade's name and start mode and makes the blade on the blade's thread.
class TickLoader : public vok::VokBladeLoaderInterface {
  public:
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return vok::kBladeStartModeAuto; }
    void LoadBlade(const vok::VokShellDaemonInfo&) override { blade_.reset(new TickBlade); }
    void UnloadBlade() override { blade_.reset(); }
    vok::ServiceBlade* GetServiceBlade() override { return blade_.get(); }

  private:
    std::string name_ = "tick";
    std::unique_ptr<TickBlade> blade_;
};

}  // namespace

int main() {
    // A program built against other headers than the library it runs with stops at once.
    if (!vok::LibraryMatchesHeaders()) {
        std::fprintf(stderr, "minimal: built for vok %s but runs with vok %s\n", VOK_VERSION_STRING,
                     vok::GetLibraryVersion().text);
        return 1;
    }
    std::printf("[minimal] vok %s\n", vok::GetLibraryVersion().text);

    // RunDaemon builds the shell, starts the blade on its own thread and waits here for SIGTERM
    // or SIGINT; then it stops the blade, destroys the shell (which reports anything leaked) and
    // returns. Under systemd it also reports readiness and feeds the watchdog.
    TickLoader loader;  // Must outlive the shell.
    vok::DaemonHooks hooks;
    hooks.beforeStart = [](vok::VokShell&) {
        std::printf("[minimal] running; stop with SIGTERM or SIGINT\n");
        std::fflush(stdout);
    };
    const int status =
        vok::RunDaemon(vok::VokShellDaemonInfo("minimal", "the minimal example"), {&loader}, hooks);
    std::printf("[minimal] stopped\n");
    return status;
}
