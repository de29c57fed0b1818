// The footprint daemon on vok: a shell with one blade that serves com.orvex.peers with one
// method (peers/echo) through the bus library, on the blade's dispatcher. RunDaemon reports
// READY=1 once the blade runs and stops on SIGTERM.
#include <glib.h>
#include <kelvra/kelvra.h>

#include <cstdio>

#include "support/BusEcho.h"
#include "vok/BladeLoader.h"
#include "vok/BladeStopWatcher.h"
#include "vok/Daemon.h"
#include "vok/RuntimeDispatcher.h"

namespace {

class EchoBlade : public vok::ServiceBlade {
  public:
    void Run(vok::ServiceBladeEnvironment* environment) override {
        GMainContext* context = g_main_context_new();
        {
            vok::GlibRuntimeDispatcher dispatcher(context);
            vok::BladeStopWatcher stopWatcher(environment, dispatcher);
            KVHandle* handle = nullptr;
            KVError error;
            KVErrorInit(&error);
            if (KVRegister("com.orvex.peers", &handle, &error) &&
                KVRegisterMethod(handle, "peers/echo", vok::bench::KelvraEcho, nullptr, &error) &&
                KVGmainAttach(handle, context, &error)) {
                dispatcher.Run();
            } else {
                std::fprintf(stderr, "peer-daemon-vok: %s\n", error.message);
            }
            if (handle != nullptr) {
                KVUnregister(handle, nullptr);
            }
            KVErrorFree(&error);
        }
        g_main_context_unref(context);
    }
};

}  // namespace

int main() {
    vok::VokBladeLoader<EchoBlade> loader("echo");
    return vok::RunDaemon(vok::VokShellDaemonInfo("peer-daemon-vok", "footprint"), {&loader});
}
