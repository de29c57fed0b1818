// The floors: two threads blocking on eventfd ping-pong (cross-thread), and a malloc'd block
// through a mutex-guarded deque (same thread).
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

#include "PeerHarness.h"

namespace {

const uint64_t kStop = 2;

int EventfdPingPong() {
    const int ping = eventfd(0, EFD_CLOEXEC);
    const int pong = eventfd(0, EFD_CLOEXEC);
    std::thread echo([&]() {
        uint64_t value = 0;
        while (read(ping, &value, sizeof value) == sizeof value && value != kStop) {
            value = 1;
            (void)!write(pong, &value, sizeof value);
        }
    });
    const int rc = peers::Measure(1000, [&](int count) {
        uint64_t value = 0;
        for (int i = 0; i < count; ++i) {
            value = 1;
            (void)!write(ping, &value, sizeof value);
            (void)!read(pong, &value, sizeof value);
        }
    });
    (void)!write(ping, &kStop, sizeof kStop);
    echo.join();
    close(ping);
    close(pong);
    return rc;
}

// What a message costs at the least: a 68-byte block allocated and freed, one push and one pop
// on a queue behind a mutex.
int MallocDeque() {
    std::mutex mutex;
    std::deque<void*> queue;
    return peers::Measure(100000, [&](int count) {
        for (int i = 0; i < count; ++i) {
            void* block = std::malloc(68);
            {
                std::lock_guard<std::mutex> lock(mutex);
                queue.push_back(block);
            }
            void* got;
            {
                std::lock_guard<std::mutex> lock(mutex);
                got = queue.front();
                queue.pop_front();
            }
            std::free(got);
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (peers::Is(argc, argv, "cross")) {
        return EventfdPingPong();
    }
    if (peers::Is(argc, argv, "same")) {
        return MallocDeque();
    }
    return peers::Usage(argv[0], "cross|same");
}
