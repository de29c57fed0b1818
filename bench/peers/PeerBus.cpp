// Bus calls on a private dbus-daemon: one client library per run calls a trivial echo service
// with a 100-byte JSON text and waits for the reply. The services (a kelvra one for KVCall, a
// GDBus one for the D-Bus clients) run on a thread of this process; each client is used the way
// its documentation shows: KVCall and GDBus asynchronously with the reply dispatched on the
// caller's context, sd-bus with sd_bus_call_method, sdbus-c++ with a proxy's callMethod.
#include <gio/gio.h>
#include <kelvra/kelvra.h>
#include <systemd/sd-bus.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "PeerHarness.h"
#include "PrivateBus.h"
#include "support/BusEcho.h"

namespace {

const char kKelvraUri[] = "kelvra://com.orvex.peers/peers/echo";
const char kEchoService[] = "com.orvex.peersraw";
const char kEchoPath[] = "/peers";
const char kEchoInterface[] = "com.orvex.PeersRaw";

[[noreturn]] void Die(const char* what, const char* detail) {
    std::fprintf(stderr, "PeerBus: %s: %s\n", what, detail != nullptr ? detail : "");
    std::exit(1);
}

GDBusConnection* Connect(const std::string& address) {
    std::string error;
    GDBusConnection* connection = vok::bench::ConnectToBus(address, &error);
    if (connection == nullptr) {
        Die("connect", error.c_str());
    }
    return connection;
}

// Both echo services on a thread with a main loop of its own; ready once the constructor returns.
class EchoServices {
  public:
    explicit EchoServices(const std::string& address) : address_(address) {
        peers::Done ready;
        thread_ = std::thread([this, &ready]() {
            g_main_context_push_thread_default(context_);
            Start();
            ready.Signal();
            g_main_loop_run(loop_);
            Stop();
            g_main_context_pop_thread_default(context_);
        });
        ready.Wait();
    }
    ~EchoServices() {
        g_main_loop_quit(loop_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

  private:
    void Start() {
        KVError error;
        KVErrorInit(&error);
        if (!KVRegister("com.orvex.peers", &kelvra_, &error) ||
            !KVRegisterMethod(kelvra_, "peers/echo", vok::bench::KelvraEcho, nullptr, &error) ||
            !KVGmainAttach(kelvra_, context_, &error)) {
            Die("kelvra service", error.message);
        }
        gdbus_ = Connect(address_);
        std::string serveError;
        object_ = vok::bench::ServeGdbusEcho(gdbus_, kEchoInterface, kEchoPath, kEchoService,
                                             &serveError);
        if (object_ == 0) {
            Die("gdbus service", serveError.c_str());
        }
    }
    void Stop() {
        g_dbus_connection_unregister_object(gdbus_, object_);
        g_dbus_connection_close_sync(gdbus_, nullptr, nullptr);
        g_object_unref(gdbus_);
        KVUnregister(kelvra_, nullptr);
    }

    std::string address_;
    GMainContext* context_ = g_main_context_new();
    GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
    std::thread thread_;
    KVHandle* kelvra_ = nullptr;
    GDBusConnection* gdbus_ = nullptr;
    guint object_ = 0;
};

int KvCallClient(const std::string& payload) {
    GMainContext* context = g_main_context_new();
    KVHandle* client = nullptr;
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(nullptr, &client, &error) || !KVGmainAttach(client, context, &error)) {
        Die("kelvra client", error.message);
    }
    const int rc = peers::Measure(100, [&](int count) {
        for (int i = 0; i < count; ++i) {
            bool done = false;
            KVReplyFunc onReply = [](KVHandle*, KVMessage*, void* flag) {
                *static_cast<bool*>(flag) = true;
                return true;
            };
            if (!KVCall(client, kKelvraUri, payload.c_str(), onReply, &done, nullptr, nullptr)) {
                Die("KVCall", nullptr);
            }
            while (!done) {
                g_main_context_iteration(context, TRUE);
            }
        }
    });
    KVUnregister(client, nullptr);
    g_main_context_unref(context);
    return rc;
}

int GdbusClient(const std::string& address, const std::string& payload) {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GDBusConnection* connection = Connect(address);
    const int rc = peers::Measure(100, [&](int count) {
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
            g_dbus_connection_call(connection, kEchoService, kEchoPath, kEchoInterface, "Echo",
                                   g_variant_new("(s)", payload.c_str()), G_VARIANT_TYPE("(s)"),
                                   G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, onReply, &done);
            while (!done) {
                g_main_context_iteration(context, TRUE);
            }
        }
    });
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    return rc;
}

int SdBusClient(const std::string& address, const std::string& payload) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        Die("sd-bus connect", address.c_str());
    }
    const int rc = peers::Measure(100, [&](int count) {
        for (int i = 0; i < count; ++i) {
            sd_bus_error error = SD_BUS_ERROR_NULL;
            sd_bus_message* reply = nullptr;
            if (sd_bus_call_method(bus, kEchoService, kEchoPath, kEchoInterface, "Echo", &error,
                                   &reply, "s", payload.c_str()) < 0) {
                Die("sd_bus_call_method", error.message);
            }
            const char* text = nullptr;
            sd_bus_message_read(reply, "s", &text);
            sd_bus_message_unref(reply);
        }
    });
    sd_bus_flush_close_unref(bus);
    return rc;
}

int SdBusCppClient(const std::string& address, const std::string& payload) {
    std::unique_ptr<sdbus::IProxy> proxy = sdbus::createProxy(
        sdbus::createSessionBusConnectionWithAddress(address), kEchoService, kEchoPath);
    return peers::Measure(100, [&](int count) {
        for (int i = 0; i < count; ++i) {
            std::string echoed;
            proxy->callMethod("Echo")
                .onInterface(kEchoInterface)
                .withArguments(payload)
                .storeResultsTo(echoed);
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    const char* const clients = "kvcall|gdbus|sd-bus|sdbus-c++";
    if (argc != 2) {
        return peers::Usage(argv[0], clients);
    }
    const std::string client = argv[1];
    vok::test::PrivateBus bus;
    const std::string address = bus.Start();
    setenv("KELVRA_BUS_ADDRESS", address.c_str(), 1);
    const std::string payload = vok::bench::EchoPayload();
    EchoServices services(address);
    if (client == "kvcall") {
        return KvCallClient(payload);
    }
    if (client == "gdbus") {
        return GdbusClient(address, payload);
    }
    if (client == "sd-bus") {
        return SdBusClient(address, payload);
    }
    if (client == "sdbus-c++") {
        return SdBusCppClient(address, payload);
    }
    return peers::Usage(argv[0], clients);
}
