// The measuring loop every peer program shares. A program measures one operation per run and
// prints one line the driver reads:
//   result ops=<operations> ns=<wall time in ns> csw=<context switches of the whole process>
//          rd=<read calls> wr=<write calls> polls=<GLib polls, -1 when not counted>
// Context switches are voluntary plus involuntary ones of every thread (getrusage), read and
// write calls those of every thread (/proc/self/io), polls those of the GLib contexts a program
// hooks; all counted over the timed part only.
#ifndef VOK_BENCH_PEERS_PEERHARNESS_H
#define VOK_BENCH_PEERS_PEERHARNESS_H

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Dispatcher/BatchDone.h"
#include "Dispatcher/SyscallCounts.h"

namespace peers {

inline long ContextSwitches() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

// Seconds each measurement lasts at least: PEER_SECONDS, default 0.5.
inline double MeasureSeconds() {
    const char* text = std::getenv("PEER_SECONDS");
    const double seconds = text != nullptr ? std::atof(text) : 0.0;
    return seconds > 0 ? seconds : 0.5;
}

// The end of a batch, signalled by a loop thread to the measuring thread.
using Done = vok::bench::BatchDone;

// batch(n) performs n operations and returns once they are done. One batch warms up, then
// batches run until MeasureSeconds() have passed; the result line covers those.
template <class Batch>
int Measure(int batchSize, Batch&& batch) {
    using Clock = std::chrono::steady_clock;
    batch(batchSize);
    const double limit = MeasureSeconds();
    long long ops = 0;
    const long switches = ContextSwitches();
    const vok::bench::SyscallCounts calls = vok::bench::TakeSyscallCounts();
    const Clock::time_point start = Clock::now();
    double elapsed = 0;
    do {
        batch(batchSize);
        ops += batchSize;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    } while (elapsed < limit);
    const long switchesDone = ContextSwitches() - switches;
    const vok::bench::SyscallCounts now = vok::bench::TakeSyscallCounts();
    std::printf("result ops=%lld ns=%.0f csw=%ld rd=%ld wr=%ld polls=%ld\n", ops, elapsed * 1e9,
                switchesDone, now.reads - calls.reads, now.writes - calls.writes,
                now.polls < 0 ? -1L : now.polls - calls.polls);
    std::fflush(stdout);
    return 0;
}

// For mains: the operation named on the command line, or a usage error.
inline bool Is(int argc, char** argv, const char* what) {
    return argc > 1 && std::strcmp(argv[1], what) == 0;
}

inline int Usage(const char* program, const char* operations) {
    std::fprintf(stderr, "usage: %s %s\n", program, operations);
    return 2;
}

}  // namespace peers

#endif  // VOK_BENCH_PEERS_PEERHARNESS_H
