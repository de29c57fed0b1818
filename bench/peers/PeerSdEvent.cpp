// sd-event: two threads each running an sd-event loop with an IO source on an eventfd of its
// own; each hop writes the other side's eventfd.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "PeerHarness.h"

namespace {

struct Side {
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Side* peer = nullptr;
    int remaining = 0;
    peers::Done* done = nullptr;  // the counting side only
    std::atomic<bool> stop{false};
    ~Side() { close(fd); }

    void Wake() {
        const uint64_t one = 1;
        (void)!write(fd, &one, sizeof one);
    }
};

int OnReadable(sd_event_source* source, int fd, uint32_t, void* data) {
    Side* side = static_cast<Side*>(data);
    uint64_t value = 0;
    (void)!read(fd, &value, sizeof value);
    if (side->stop.load()) {
        return sd_event_exit(sd_event_source_get_event(source), 0);
    }
    if (side->done != nullptr && --side->remaining == 0) {
        side->done->Signal();
    } else {
        side->peer->Wake();
    }
    return 0;
}

// The loop of one side, on its own thread (an sd_event object belongs to one thread).
void RunLoop(Side* side) {
    sd_event* event = nullptr;
    sd_event_default(&event);
    sd_event_add_io(event, nullptr, side->fd, EPOLLIN, &OnReadable, side);
    sd_event_loop(event);
    sd_event_unref(event);
}

}  // namespace

int main(int argc, char** argv) {
    if (!peers::Is(argc, argv, "cross")) {
        return peers::Usage(argv[0], "cross");
    }
    Side a, b;
    a.peer = &b;
    b.peer = &a;
    peers::Done done;
    a.done = &done;
    std::thread ta(RunLoop, &a), tb(RunLoop, &b);
    const int rc = peers::Measure(1000, [&](int count) {
        done.Reset();
        a.remaining = count;  // read by a's thread after the wake-up below
        b.Wake();
        done.Wait();
    });
    a.stop = b.stop = true;
    a.Wake();
    b.Wake();
    ta.join();
    tb.join();
    return rc;
}
