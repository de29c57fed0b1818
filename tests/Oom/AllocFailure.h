// Allocation-failure injection for the out-of-memory sweeps. Linked into the sweep program only:
// it replaces malloc, calloc, realloc, posix_memalign, aligned_alloc, memalign, free and every
// global operator new and delete of that program, so every library in the process allocates
// through it.
//
// Disarmed, each allocation costs one relaxed atomic load on top of the C library's. Armed, it
// numbers the counted allocation requests from 1 and makes the chosen ones fail: malloc and its
// relatives return NULL (posix_memalign ENOMEM), operator new throws std::bad_alloc and its
// nothrow forms return NULL. It also records every block a counted request obtained and drops it
// again when it is freed, so LiveBlocks() after a scenario is the number of blocks that scenario
// allocated and never gave back.
//
// Which requests count:
// - Threads: Arm(kCallingThread) counts the requests of the thread that armed it only, so a
//   single-threaded scenario numbers its allocations the same way on every run;
//   Arm(kAllThreads) counts every thread's (the order across threads then varies between runs).
// - GLib: g_malloc aborts the process when malloc fails, by design, and GLib offers no way to
//   change that. Requests made from inside GLib are passed through uncounted, so the sweeps
//   prove what the framework, json-c, the bus library and libstdc++ do, not GLib's abort.
// - Sanitizer builds (ASan, TSan): the sanitizer owns malloc and it cannot be replaced there, so
//   only operator new and delete are counted; the C-level allocations of json-c, the bus
//   library and the logging library are swept in the plain build only.
#ifndef VOK_TESTS_OOM_ALLOCFAILURE_H
#define VOK_TESTS_OOM_ALLOCFAILURE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vok {
namespace test {
namespace oom {

enum class ArmScope { kCallingThread, kAllThreads };

// Persistent: the failing request and every later one fail.
constexpr uint32_t kFailForever = UINT32_MAX;

// Starts numbering the counted requests from 1 and recording their blocks. Requests
// firstFailure .. firstFailure + failCount - 1 fail; firstFailure 0 only counts. Not nested.
void Arm(ArmScope scope, uint64_t firstFailure, uint32_t failCount);

// Stops counting; returns how many requests were counted since Arm. The recorded blocks stay
// recorded until the next Arm.
uint64_t Disarm();

// Requests that failed by injection since the last Arm.
uint64_t InjectedFailures();

// Blocks obtained by counted requests since the last Arm and not freed yet.
size_t LiveBlocks();

// One line per block LiveBlocks() counts, at most limit lines: size and the allocating caller.
std::string DescribeLiveBlocks(size_t limit);

// The caller of the first request that failed since the last Arm, or "none".
std::string DescribeFirstFailure();

// Whether operator new and delete only (sanitizer builds) or malloc too are counted.
bool CountsMalloc();

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_ALLOCFAILURE_H
