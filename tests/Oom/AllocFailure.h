// Allocation-failure injection for the out-of-memory sweeps, linked into the sweep program only:
// it replaces malloc and its relatives, free and every global operator new and delete. Armed, it
// numbers the counted requests from 1 and fails the chosen ones (NULL, ENOMEM or std::bad_alloc),
// and records every block a counted request obtained until it is freed.
// Counted: the arming thread's requests (kCallingThread) or every thread's (kAllThreads); never
// GLib's, nor what the C library formats for GLib (g_malloc and g_strdup_printf abort on failure
// by design). A failed malloc sets errno to ENOMEM. Sanitizer builds own malloc, so there only
// operator new and delete are counted.
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

// Requests firstFailure .. firstFailure + failCount - 1 fail; firstFailure 0 only counts.
void Arm(ArmScope scope, uint64_t firstFailure, uint32_t failCount);
// Stops counting; returns how many requests were counted. The records stay until the next Arm.
uint64_t Disarm();
uint64_t InjectedFailures();
// Blocks obtained by counted requests since the last Arm and not freed yet.
size_t LiveBlocks();
// At most limit lines, one per live block: size and the allocating caller.
std::string DescribeLiveBlocks(size_t limit);
// The caller of the first injected failure since the last Arm, or "none".
std::string DescribeFirstFailure();
// False in sanitizer builds, which count operator new and delete only.
bool CountsMalloc();

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_ALLOCFAILURE_H
