// GLib: two threads each running a main loop on a context of its own; each hop attaches an idle
// source to the other thread's context, which wakes that loop.
#include "Dispatcher/WakeupPairs.h"
#include "PeerHarness.h"

int main(int argc, char** argv) {
    if (!peers::Is(argc, argv, "cross")) {
        return peers::Usage(argv[0], "cross");
    }
    vok::bench::GlibIdlePair pair;
    return peers::Measure(1000, [&](int count) { pair.RoundTrips(count); });
}
