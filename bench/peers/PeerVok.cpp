// vok: the port monitor round trip between two dispatcher threads (cross), and one connection
// message created, written, read and freed on a connected pair by one thread (same). Both are the
// code of vok's own benchmarks, run through the public API.
#include "Dispatcher/PortMonitorPair.h"
#include "MessageMover/BenchPair.h"
#include "PeerHarness.h"

int main(int argc, char** argv) {
    if (peers::Is(argc, argv, "cross")) {
        vok::bench::PortMonitorPair pair;
        return peers::Measure(1000, [&](int count) { pair.RoundTrips(count); });
    }
    if (peers::Is(argc, argv, "same")) {
        vok::bench::BenchPair pair;
        bool ok = true;
        const int rc = peers::Measure(100000, [&](int count) {
            for (int i = 0; i < count; ++i) {
                ok = pair.RoundTrip() && ok;
            }
        });
        return ok ? rc : 1;
    }
    return peers::Usage(argv[0], "cross|same");
}
