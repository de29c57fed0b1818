// The footprint daemon on GLib and GDBus, as their manuals show: g_bus_own_name on the session
// bus, the object registered from its introspection data when the bus is acquired, READY=1 by
// sd_notify once the name is owned; SIGTERM quits the main loop.
#include <gio/gio.h>
#include <glib-unix.h>
#include <systemd/sd-daemon.h>

#include <cstdio>

namespace {

const char kIntrospection[] =
    "<node><interface name='com.orvex.kelvra.Method'><method name='echo'>"
    "<arg type='s' direction='in'/><arg type='t' direction='in'/>"
    "<arg type='s' direction='out'/><arg type='b' direction='out'/>"
    "</method></interface></node>";

GDBusNodeInfo* gNode = nullptr;

void OnCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
            GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    const char* payload = nullptr;
    guint64 token = 0;
    g_variant_get(parameters, "(&st)", &payload, &token);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(sb)", payload, FALSE));
}

const GDBusInterfaceVTable kVtable = {OnCall, nullptr, nullptr, {nullptr}};

void OnBusAcquired(GDBusConnection* connection, const gchar*, gpointer) {
    g_dbus_connection_register_object(connection, "/peers", gNode->interfaces[0], &kVtable, nullptr,
                                      nullptr, nullptr);
}

void OnNameAcquired(GDBusConnection*, const gchar*, gpointer) {
    sd_notify(0, "READY=1");
}

void OnNameLost(GDBusConnection*, const gchar*, gpointer loop) {
    std::fprintf(stderr, "peer-daemon-gdbus: name lost\n");
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

gboolean OnTerm(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main() {
    gNode = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const guint owner =
        g_bus_own_name(G_BUS_TYPE_SESSION, "com.orvex.peers", G_BUS_NAME_OWNER_FLAGS_NONE,
                       OnBusAcquired, OnNameAcquired, OnNameLost, loop, nullptr);
    g_unix_signal_add(SIGTERM, OnTerm, loop);
    g_main_loop_run(loop);
    g_bus_unown_name(owner);
    g_main_loop_unref(loop);
    g_dbus_node_info_unref(gNode);
    return 0;
}
