// vok-powerd: the reference power service "com.orvex.power" on the bus.
//
//   vok-powerd [--log]
//
// Serves time/alarmAdd and time/alarmRemove until SIGINT or SIGTERM. With --log it prints one
// line per request and per fired alarm on standard output. The bus is KELVRA_BUS_ADDRESS, else
// DBUS_SESSION_BUS_ADDRESS, else the system bus.
#include <glib-unix.h>
#include <glib.h>
#include <kelvra/kelvra.h>

#include <cstdio>
#include <cstring>

#include "PowerService.h"
#include "vok/RuntimeDispatcher.h"

namespace {

gboolean StopOnSignal(gpointer dispatcher) {
    static_cast<vok::RuntimeDispatcher*>(dispatcher)->RequestStop();
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
    bool log = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--log") == 0) {
            log = true;
        } else {
            std::fprintf(stderr, "usage: vok-powerd [--log]\n");
            return 2;
        }
    }
    GMainContext* context = g_main_context_new();
    int status = 0;
    {
        vok::GlibRuntimeDispatcher dispatcher(context);
        KVHandle* handle = nullptr;
        KVError error;
        KVErrorInit(&error);
        if (!KVRegister("com.orvex.power", &handle, &error)) {
            std::fprintf(stderr, "vok-powerd: cannot register com.orvex.power: %s\n",
                         error.message != nullptr ? error.message : "");
            KVErrorFree(&error);
            g_main_context_unref(context);
            return 1;
        }
        {
            vok::powerd::PowerService service(dispatcher, handle, log ? stdout : nullptr);
            if (!service.RegisterMethods(&error) || !KVGmainAttach(handle, context, &error)) {
                std::fprintf(stderr, "vok-powerd: %s\n",
                             error.message != nullptr ? error.message : "bus error");
                status = 1;
            } else {
                for (int signal : {SIGINT, SIGTERM}) {
                    GSource* source = g_unix_signal_source_new(signal);
                    g_source_set_callback(source, &StopOnSignal, &dispatcher, nullptr);
                    g_source_attach(source, context);
                    g_source_unref(source);
                }
                if (log) {
                    std::printf("ready clock=%s\n", service.ClockName());
                    std::fflush(stdout);
                }
                dispatcher.Run();
            }
        }
        KVUnregister(handle, nullptr);
        KVErrorFree(&error);
    }
    g_main_context_unref(context);
    return status;
}
