// vok-demo: a daemon built on the framework, to watch it work.
//
//   vok-demo [--load]
//
// A shell hosting four blades: "echo" serves requests on a MessageMover service port and on the
// bus, "client" sends it a request every 500 ms and counts round trips, "alarm" keeps a 2 s
// alarm going through the power service (or its fallback timer), "bus" calls the echo service on
// the bus every second and reports whether the power service is up. With --load the client sends
// 10 requests every 10 ms and the bus blade 4 calls every 20 ms, and both print a summary every
// 5 s instead of a line per message. SIGINT or SIGTERM stops it; it then prints its diagnostic
// registers. The bus is KELVRA_BUS_ADDRESS, else DBUS_SESSION_BUS_ADDRESS, else the system bus.
#include <cstdio>
#include <cstring>
#include <memory>

#include "DemoBlades.h"
#include "vok/Daemon.h"
#include "vok/DiagBusService.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Version.h"

namespace {

void PrintRegisters(const char* prefix) {
    std::unique_ptr<vok::DiagnosticRegisterCounter::Group> group(
        vok::DiagnosticRegisterCounter::QueryGroup(prefix));
    if (!group) {
        return;
    }
    for (const auto& entry : *group) {
        std::printf("  %-60s %8ld  (low %ld, high %ld)\n", entry.first.c_str(),
                    static_cast<long>(entry.second.value), static_cast<long>(entry.second.low),
                    static_cast<long>(entry.second.high));
    }
}

}  // namespace

int main(int argc, char** argv) {
    using vok::demo::DemoLoader;
    vok::demo::DemoPace pace;
    const char* option = argc == 2 ? argv[1] : "";
    if (std::strcmp(option, "--load") == 0) {
        pace = vok::demo::LoadPace();
    } else if (std::strcmp(option, "--help") == 0) {
        std::printf(
            "usage: vok-demo [--load]\n"
            "A VokShell with four blades (echo, client, alarm, bus) on the platform bus; stops\n"
            "on SIGTERM or SIGINT and prints its diagnostic registers. scripts/demo.sh runs it\n"
            "beside a private bus and vok-powerd.\n"
            "\n"
            "  --load     send as fast as a soak run wants, with a summary every 5 s\n"
            "  --help     show this help and exit\n"
            "  --version  show the version and exit\n");
        return 0;
    } else if (std::strcmp(option, "--version") == 0) {
        std::printf("vok-demo %s\n", VOK_VERSION_STRING);
        return 0;
    } else if (argc != 1) {
        std::fprintf(stderr, "vok-demo: unknown arguments (see vok-demo --help)\n");
        return 2;
    }
    DemoLoader echo("echo", vok::kBladeStartModeAuto, &vok::demo::MakeEchoBlade);
    DemoLoader client("client", vok::kBladeStartModeAuto,
                      [&pace]() { return vok::demo::MakeClientBlade(pace); });
    DemoLoader alarm("alarm", vok::kBladeStartModeAuto, &vok::demo::MakeAlarmBlade);
    DemoLoader bus("bus", vok::kBladeStartModeAuto,
                   [&pace]() { return vok::demo::MakeBusBlade(pace); });
    std::printf("[vok-demo] starting 4 blades: echo, client, alarm, bus\n");
    std::fflush(stdout);
    vok::DaemonHooks hooks;
    hooks.beforeDestroy = [](vok::VokShell&) {
        std::printf("[vok-demo] all blades stopped; diagnostic registers:\n");
        PrintRegisters("root.");
        std::fflush(stdout);
    };
    vok::EnableDiagBusService(&hooks);
    int signal = 0;
    const int status = vok::RunDaemon(vok::VokShellDaemonInfo("vok-demo", "demo daemon"),
                                      {&echo, &client, &alarm, &bus}, hooks, &signal);
    std::printf("[vok-demo] stopped (signal %d), framework released\n", signal);
    return status;
}
