// Bus calls on a private dbus-daemon: one client library per run calls an echo service with a
// 100-byte JSON text and waits for the reply. Every client calls the same service, a kelvra one
// (method com.orvex.kelvra.Method "echo", (st) -> (sb)) in a process of its own, so that the
// figures of this process are the client's alone. Each client is used the way its documentation
// shows: KVCall and GDBus asynchronously with the reply dispatched on the caller's context,
// sd-bus with sd_bus_call_method, sdbus-c++ with a proxy's callMethod.
//
//   peer-bus CLIENT      starts a bus and the service, measures (PeerHarness's result line)
//   peer-bus CLIENT N    makes N calls on KELVRA_BUS_ADDRESS, where the service runs, and exits
//                        (peer-footprint counts their system calls)
//   peer-bus serve       the service on KELVRA_BUS_ADDRESS; prints "ready" once it serves
#include <gio/gio.h>
#include <glib-unix.h>
#include <kelvra/kelvra.h>
#include <systemd/sd-bus.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "PeerHarness.h"
#include "PrivateBus.h"
#include "support/BusEcho.h"

namespace {

const char kService[] = "com.orvex.peers";
const char kUri[] = "kelvra://com.orvex.peers/peers/echo";
const char kPath[] = "/peers";
const char kInterface[] = "com.orvex.kelvra.Method";

[[noreturn]] void Die(const char* what, const char* detail) {
    std::fprintf(stderr, "PeerBus: %s: %s\n", what, detail != nullptr ? detail : "");
    std::exit(1);
}

// Runs count calls; Measure's batch, or the calls to count.
using Calls = std::function<void(int count)>;

int Serve() {
    KVHandle* handle = nullptr;
    KVError error;
    KVErrorInit(&error);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    if (!KVRegister(kService, &handle, &error) ||
        !KVRegisterMethod(handle, "peers/echo", vok::bench::KelvraEcho, nullptr, &error) ||
        !KVGmainAttach(handle, nullptr, &error)) {
        Die("kelvra service", error.message);
    }
    g_unix_signal_add(
        SIGTERM,
        [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        loop);
    while (!KVIsConnected(handle)) {
        g_main_context_iteration(nullptr, TRUE);
    }
    std::printf("ready\n");
    std::fflush(stdout);
    g_main_loop_run(loop);
    KVUnregister(handle, nullptr);
    g_main_loop_unref(loop);
    return 0;
}

void KvCallClient(const std::string& payload, const std::function<void(const Calls&)>& run) {
    GMainContext* context = g_main_context_new();
    KVHandle* client = nullptr;
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(nullptr, &client, &error) || !KVGmainAttach(client, context, &error)) {
        Die("kelvra client", error.message);
    }
    while (!KVIsConnected(client)) {
        g_main_context_iteration(context, TRUE);
    }
    run([&](int count) {
        for (int i = 0; i < count; ++i) {
            bool done = false;
            KVReplyFunc onReply = [](KVHandle*, KVMessage*, void* flag) {
                *static_cast<bool*>(flag) = true;
                return true;
            };
            if (!KVCall(client, kUri, payload.c_str(), onReply, &done, nullptr, nullptr)) {
                Die("KVCall", nullptr);
            }
            while (!done) {
                g_main_context_iteration(context, TRUE);
            }
        }
    });
    KVUnregister(client, nullptr);
    g_main_context_unref(context);
}

void GdbusClient(const std::string& address, const std::string& payload,
                 const std::function<void(const Calls&)>& run) {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    std::string connectError;
    GDBusConnection* connection = vok::bench::ConnectToBus(address, &connectError);
    if (connection == nullptr) {
        Die("gdbus connect", connectError.c_str());
    }
    run([&](int count) {
        for (int i = 0; i < count; ++i) {
            bool done = false;
            GAsyncReadyCallback onReply = [](GObject* source, GAsyncResult* result, gpointer flag) {
                GError* error = nullptr;
                GVariant* reply =
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                if (reply == nullptr) {
                    Die("gdbus call", error->message);
                }
                g_variant_unref(reply);
                *static_cast<bool*>(flag) = true;
            };
            g_dbus_connection_call(connection, kService, kPath, kInterface, "echo",
                                   g_variant_new("(st)", payload.c_str(), guint64(i + 1)),
                                   G_VARIANT_TYPE("(sb)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                                   nullptr, onReply, &done);
            while (!done) {
                g_main_context_iteration(context, TRUE);
            }
        }
    });
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

void SdBusClient(const std::string& address, const std::string& payload,
                 const std::function<void(const Calls&)>& run) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        Die("sd-bus connect", address.c_str());
    }
    uint64_t token = 0;
    run([&](int count) {
        for (int i = 0; i < count; ++i) {
            sd_bus_error error = SD_BUS_ERROR_NULL;
            sd_bus_message* reply = nullptr;
            if (sd_bus_call_method(bus, kService, kPath, kInterface, "echo", &error, &reply, "st",
                                   payload.c_str(), ++token) < 0) {
                Die("sd_bus_call_method", error.message);
            }
            const char* text = nullptr;
            int more = 0;
            sd_bus_message_read(reply, "sb", &text, &more);
            sd_bus_message_unref(reply);
        }
    });
    sd_bus_flush_close_unref(bus);
}

void SdBusCppClient(const std::string& address, const std::string& payload,
                    const std::function<void(const Calls&)>& run) {
    std::unique_ptr<sdbus::IProxy> proxy =
        sdbus::createProxy(sdbus::createSessionBusConnectionWithAddress(address), kService, kPath);
    uint64_t token = 0;
    run([&](int count) {
        for (int i = 0; i < count; ++i) {
            std::string echoed;
            bool more = false;
            proxy->callMethod("echo")
                .onInterface(kInterface)
                .withArguments(payload, ++token)
                .storeResultsTo(echoed, more);
        }
    });
}

void RunClient(const std::string& client, const std::string& address,
               const std::function<void(const Calls&)>& run) {
    const std::string payload = vok::bench::EchoPayload();
    if (client == "kvcall") {
        KvCallClient(payload, run);
    } else if (client == "gdbus") {
        GdbusClient(address, payload, run);
    } else if (client == "sd-bus") {
        SdBusClient(address, payload, run);
    } else if (client == "sdbus-c++") {
        SdBusCppClient(address, payload, run);
    } else {
        Die("unknown client", client.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        return peers::Usage(argv[0], "kvcall|gdbus|sd-bus|sdbus-c++ [CALLS] | serve");
    }
    const std::string client = argv[1];
    if (client == "serve") {
        return Serve();
    }
    if (argc == 3) {
        const char* address = std::getenv("KELVRA_BUS_ADDRESS");
        const int calls = std::atoi(argv[2]);
        RunClient(client, address != nullptr ? address : "",
                  [&](const Calls& batch) { batch(calls); });
        return 0;
    }
    vok::test::PrivateBus bus;
    const std::string address = bus.Start();
    setenv("KELVRA_BUS_ADDRESS", address.c_str(), 1);
    vok::test::ChildProcess service;
    service.Start({"/proc/self/exe", "serve"}, false, true);
    if (service.ReadLine() != "ready") {
        Die("service", "did not start");
    }
    int rc = 0;
    RunClient(client, address, [&](const Calls& batch) { rc = peers::Measure(100, batch); });
    service.Kill(SIGTERM);
    service.Wait();
    return rc;
}
