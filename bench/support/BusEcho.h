// What the bus benchmarks share: the payload they carry and the echo methods that answer it, for
// the bus library's service API and for a raw GDBus object.
#ifndef VOK_BENCH_SUPPORT_BUSECHO_H
#define VOK_BENCH_SUPPORT_BUSECHO_H

#include <gio/gio.h>
#include <kelvra/kelvra.h>

#include <string>

namespace vok {
namespace bench {

// A JSON object of exactly 100 bytes.
inline std::string EchoPayload() {
    std::string payload = "{\"key\":\"com.orvex.vok\",\"relative_time\":\"00:01:30\",\"pad\":\"";
    payload += std::string(100 - payload.size() - 2, 'x');
    payload += "\"}";
    return payload;
}

// A message-bus connection to address, or null with *error set.
inline GDBusConnection* ConnectToBus(const std::string& address, std::string* error) {
    GError* gerror = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &gerror);
    if (connection == nullptr) {
        *error = gerror->message;
        g_error_free(gerror);
    }
    return connection;
}

// A bus-library method that answers with the request's own payload.
inline bool KelvraEcho(KVHandle* handle, KVMessage* request, void*) {
    return KVReply(handle, request, KVMessageGetPayload(request), nullptr);
}

// A GDBus method "(s) -> (s)" that answers with its argument.
inline void GdbusEcho(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                      GVariant* parameters, GDBusMethodInvocation* invocation, gpointer) {
    const char* text = nullptr;
    g_variant_get(parameters, "(&s)", &text);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", text));
}

// Serves GdbusEcho as method Echo of interfaceName at path on connection, and owns service;
// returns the object's registration id, or 0 with *error set.
inline guint ServeGdbusEcho(GDBusConnection* connection, const char* interfaceName,
                            const char* path, const char* service, std::string* error) {
    const std::string xml = std::string("<node><interface name='") + interfaceName +
                            "'><method name='Echo'><arg type='s' direction='in'/>"
                            "<arg type='s' direction='out'/></method></interface></node>";
    GError* gerror = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), &gerror);
    static const GDBusInterfaceVTable vtable = {GdbusEcho, nullptr, nullptr, {nullptr}};
    const guint object =
        node == nullptr ? 0
                        : g_dbus_connection_register_object(connection, path, node->interfaces[0],
                                                            &vtable, nullptr, nullptr, &gerror);
    if (node != nullptr) {
        g_dbus_node_info_unref(node);
    }
    GVariant* owned =
        object == 0 ? nullptr
                    : g_dbus_connection_call_sync(
                          connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                          "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", service, 4u),
                          G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &gerror);
    if (owned == nullptr) {
        *error = gerror != nullptr ? gerror->message : "cannot serve";
        g_clear_error(&gerror);
        return 0;
    }
    g_variant_unref(owned);
    return object;
}

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_SUPPORT_BUSECHO_H
