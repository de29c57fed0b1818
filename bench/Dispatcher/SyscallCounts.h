// What a round trip costs in system calls: the read and write calls of the whole process (from
// /proc/self/io, every thread counted) and the polls of the GLib contexts a pair hooks. Shared by
// the dispatcher benchmarks and the peer comparison, which print them per round trip.
#ifndef VOK_BENCH_DISPATCHER_SYSCALLCOUNTS_H
#define VOK_BENCH_DISPATCHER_SYSCALLCOUNTS_H

#include <glib.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace vok {
namespace bench {

struct SyscallCounts {
    long reads = 0;
    long writes = 0;
    long polls = -1;  // -1: nothing counted polls (a loop that is not GLib's)
};

inline std::atomic<long>& PollCounter() {
    static std::atomic<long> polls(-1);
    return polls;
}

inline gint CountingPoll(GPollFD* fds, guint nfds, gint timeout) {
    PollCounter().fetch_add(1, std::memory_order_relaxed);
    return g_poll(fds, nfds, timeout);
}

// Counts the polls of context from now on (it must use GLib's default poll function).
inline void CountPollsOf(GMainContext* context) {
    long none = -1;
    PollCounter().compare_exchange_strong(none, 0);
    g_main_context_set_poll_func(context, &CountingPoll);
}

inline SyscallCounts TakeSyscallCounts() {
    SyscallCounts counts;
    counts.polls = PollCounter().load(std::memory_order_relaxed);
    FILE* io = std::fopen("/proc/self/io", "r");
    char line[128];
    while (io != nullptr && std::fgets(line, sizeof line, io) != nullptr) {
        std::sscanf(line, "syscr: %ld", &counts.reads);
        std::sscanf(line, "syscw: %ld", &counts.writes);
    }
    if (io != nullptr) {
        std::fclose(io);
    }
    return counts;
}

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_DISPATCHER_SYSCALLCOUNTS_H
