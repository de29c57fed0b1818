// The footprint daemon on sd-event and sd-bus, as their manuals show: an object with one method
// on the event loop, the name requested, READY=1 by sd_notify; SIGTERM ends the loop.
#include <signal.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <cstdio>
#include <cstdlib>

namespace {

int Echo(sd_bus_message* call, void*, sd_bus_error*) {
    const char* payload = nullptr;
    uint64_t token = 0;
    const int result = sd_bus_message_read(call, "st", &payload, &token);
    return result < 0 ? result : sd_bus_reply_method_return(call, "sb", payload, 0);
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("echo", "st", "sb", Echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int main() {
    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    if (sd_event_default(&event) < 0 ||
        sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr) < 0 ||
        sd_bus_open_user(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, "/peers", "com.orvex.kelvra.Method", kVtable,
                                 nullptr) < 0 ||
        sd_bus_request_name(bus, "com.orvex.peers", 0) < 0 ||
        sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL) < 0) {
        std::fprintf(stderr, "peer-daemon-sdevent: cannot serve\n");
        return 1;
    }
    sd_notify(0, "READY=1");
    const int result = sd_event_loop(event);
    sd_bus_flush_close_unref(bus);
    sd_event_unref(event);
    return result < 0 ? 1 : 0;
}
