/* Registration: a handle is the connection core with the name tracking, client and service
 * modules on top, in that order (the order in which they hear of connection changes). */
#include "kelvra-private.h"

/* KELVRA_BUS_ADDRESS, else the session bus, else the system bus. */
static char* SelectBusAddress(void) {
    const char* names[] = {"KELVRA_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS",
                           "DBUS_SYSTEM_BUS_ADDRESS"};
    for (size_t i = 0; i < G_N_ELEMENTS(names); ++i) {
        const char* address = g_getenv(names[i]);
        if (address != NULL && address[0] != '\0') {
            return g_strdup(address);
        }
    }
    return g_strdup("unix:path=/run/dbus/system_bus_socket");
}

bool KVRegisterWithFlags(const char* serviceName, unsigned flags, KVHandle** handleOut,
                         KVError* error) {
    if (handleOut == NULL) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "NULL handle pointer");
        return false;
    }
    *handleOut = NULL;
    if (serviceName != NULL && !KvIsServiceName(serviceName)) {
        KvErrorSet(error, KV_ERROR_INVALID_ARGUMENT, "Invalid service name \"%s\"", serviceName);
        return false;
    }
    KVHandle* handle = KvCoreNew(serviceName, SelectBusAddress());
    KvNamesInit(handle);
    KvClientInit(handle);
    KvServiceInit(handle);
    handle->reportFirstUp = (flags & KV_REGISTER_REPORT_FIRST_UP) != 0;
    KVError startError;
    KVErrorInit(&startError);
    if (!KvCoreStart(handle, &startError) && (flags & KV_REGISTER_ALLOW_NO_BUS) == 0) {
        KvErrorSet(error, startError.code, "%s", startError.message);
        KVErrorFree(&startError);
        KVUnregister(handle, NULL);
        return false;
    }
    KVErrorFree(&startError);
    *handleOut = handle;
    return true;
}

bool KVRegister(const char* serviceName, KVHandle** handleOut, KVError* error) {
    return KVRegisterWithFlags(serviceName, 0, handleOut, error);
}
