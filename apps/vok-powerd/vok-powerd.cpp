// vok-powerd: the reference power service "com.orvex.power" on the bus.
//
//   vok-powerd [--log]
//
// A daemon built on the framework: a shell hosting one blade that serves time/alarmAdd and
// time/alarmRemove until SIGINT or SIGTERM. With --log it prints one line per request and per
// fired alarm on standard output. The bus is KELVRA_BUS_ADDRESS, else DBUS_SESSION_BUS_ADDRESS,
// else the system bus; while it is down, or another program owns the name, the service waits
// and takes the name when it can ("ready" is printed then). Exits with 1 when it cannot serve
// (there is no bus address, no timer can be made).
#include <atomic>
#include <cstdio>
#include <cstring>

#include "PowerService.h"
#include "vok/BladeLoader.h"
#include "vok/Daemon.h"
#include "vok/DiagBusService.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Version.h"
#include "vok/VokError.h"

namespace {

using namespace vok;

std::atomic<bool> gFailed(false);
std::atomic<VokShell*> gShell(nullptr);
bool gLog = false;  // Set before the shell starts.

// The blade's work, alive while its dispatcher runs: the service on the blade's dispatcher.
class PowerBlade {
  public:
    PowerBlade(ServiceBladeEnvironment&, RuntimeDispatcher& dispatcher) {
        try {
            service_.reset(new powerd::PowerService(dispatcher, gLog ? stdout : nullptr));
        } catch (const VokResourceException& e) {
            Fail(e.what());
            return;
        }
        if (!service_->HasTimer()) {
            Fail("cannot make a timer");
            return;
        }
        // Ready once the service owns its name, which it requests from the blade's loop.
        service_->SetConnectionObserver([this](bool connected) {
            if (connected) {
                Ready();
            }
        });
    }

  private:
    void Ready() {
        if (gLog && !ready_) {
            std::printf("ready clock=%s\n", service_->ClockName());
            std::fflush(stdout);
        }
        ready_ = true;
    }

    static void Fail(const char* why) {
        std::fprintf(stderr, "vok-powerd: cannot serve com.orvex.power: %s\n", why);
        gFailed = true;
        gShell.load()->RequestStop();
    }

    std::unique_ptr<powerd::PowerService> service_;
    bool ready_ = false;
};

}  // namespace

const char kUsage[] =
    "usage: vok-powerd [--log]\n"
    "Serves com.orvex.power on the platform bus: relative wake-up alarms (time/alarmAdd,\n"
    "time/alarmRemove) on one timer. Stops on SIGTERM or SIGINT.\n"
    "\n"
    "  --log      print one line per request handled and per alarm fired\n"
    "  --help     show this help and exit\n"
    "  --version  show the version and exit\n"
    "\n"
    "The bus: KELVRA_BUS_ADDRESS, else DBUS_SESSION_BUS_ADDRESS, else the system bus.\n";

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--log") == 0) {
            gLog = true;
        } else if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("vok-powerd %s\n", VOK_VERSION_STRING);
            return 0;
        } else {
            std::fprintf(stderr, "vok-powerd: unknown option '%s' (see vok-powerd --help)\n",
                         argv[i]);
            return 2;
        }
    }
    VokBladeLoader<VokLoopBlade<PowerBlade>> loader("power");
    DaemonHooks hooks;
    hooks.beforeStart = [](VokShell& built) { gShell = &built; };
    EnableDiagBusService(&hooks);
    const int status = RunDaemon(VokShellDaemonInfo("vok-powerd", ""), {&loader}, hooks);
    return gFailed ? 1 : status;
}
