// The floors: two threads blocking on eventfd ping-pong (cross-thread), and a malloc'd block
// through a mutex-guarded deque (same thread).
#include <cstdlib>
#include <deque>
#include <mutex>

#include "Dispatcher/WakeupPairs.h"
#include "PeerHarness.h"
#include "support/MallocDequeFloor.h"

namespace {

int EventfdPingPong() {
    vok::bench::EventfdPair pair;
    return peers::Measure(1000, [&](int count) { pair.RoundTrips(count); });
}

// What a message costs at the least: a 68-byte block allocated and freed, one push and one pop
// on a queue behind a mutex.
int MallocDeque() {
    std::mutex mutex;
    std::deque<void*> queue;
    return peers::Measure(100000, [&](int count) {
        for (int i = 0; i < count; ++i) {
            vok::bench::MallocDequeRoundTrip(mutex, queue);
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
