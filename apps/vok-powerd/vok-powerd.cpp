// vok-powerd: the reference power service "com.orvex.power" on the bus.
//
//   vok-powerd [--log]
//
// A daemon built on the framework: a shell hosting one blade that serves time/alarmAdd and
// time/alarmRemove until SIGINT or SIGTERM. With --log it prints one line per request and per
// fired alarm on standard output. The bus is KELVRA_BUS_ADDRESS, else DBUS_SESSION_BUS_ADDRESS,
// else the system bus. Exits with 1 when it cannot serve (the name is taken, no bus).
#include <glib.h>
#include <kelvra/kelvra.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "PowerService.h"
#include "vok/BladeStopWatcher.h"
#include "vok/Daemon.h"
#include "vok/DiagBusService.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Version.h"
#include "vok/VokKvClient.h"

namespace {

using namespace vok;

std::atomic<bool> gFailed(false);

// The blade: a bus handle owning com.orvex.power on the blade's dispatcher, the service on it,
// and the control port watched for the stop event.
class PowerBlade : public ServiceBlade {
  public:
    PowerBlade(VokShell** shell, bool log) : shell_(shell), log_(log) {}

    void Run(ServiceBladeEnvironment* env) override {
        GMainContext* context = g_main_context_new();
        {
            GlibRuntimeDispatcher dispatcher(context);
            BladeStopWatcher stopWatcher(env, dispatcher);
            Serve(dispatcher, context);
        }
        g_main_context_unref(context);
    }

  private:
    void Serve(RuntimeDispatcher& dispatcher, GMainContext* context) {
        KVHandle* handle = nullptr;
        KVError error;
        KVErrorInit(&error);
        if (!KVRegister("com.orvex.power", &handle, &error)) {
            Fail(error);
            return;
        }
        {
            powerd::PowerService service(dispatcher, handle, log_ ? stdout : nullptr);
            if (!service.HasTimer()) {
                std::fprintf(stderr, "vok-powerd: cannot make a timer\n");
                gFailed = true;
                (*shell_)->RequestStop();
            } else if (!service.RegisterMethods(&error) ||
                       !KVGmainAttach(handle, context, &error)) {
                Fail(error);
            } else {
                if (log_) {
                    std::printf("ready clock=%s\n", service.ClockName());
                    std::fflush(stdout);
                }
                dispatcher.Run();
            }
        }
        KVUnregister(handle, nullptr);
        KVErrorFree(&error);
    }

    void Fail(KVError& error) {
        std::fprintf(stderr, "vok-powerd: cannot serve com.orvex.power: %s\n",
                     error.message != nullptr ? error.message : "bus error");
        KVErrorFree(&error);
        gFailed = true;
        (*shell_)->RequestStop();
    }

    VokShell** shell_;
    bool log_;
};

class PowerBladeLoader : public VokBladeLoaderInterface {
  public:
    PowerBladeLoader(VokShell** shell, bool log) : blade_(shell, log) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return kBladeStartModeAuto; }
    void LoadBlade(const VokShellDaemonInfo&) override {}
    void UnloadBlade() override {}
    ServiceBlade* GetServiceBlade() override { return &blade_; }

  private:
    const std::string name_ = "power";
    PowerBlade blade_;
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
    bool log = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--log") == 0) {
            log = true;
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
    VokShell* shell = nullptr;
    PowerBladeLoader loader(&shell, log);
    DaemonHooks hooks;
    hooks.beforeStart = [&](VokShell& built) { shell = &built; };
    EnableDiagBusService(&hooks);
    const int status = RunDaemon(VokShellDaemonInfo("vok-powerd", ""), {&loader}, hooks);
    return gFailed ? 1 : status;
}
