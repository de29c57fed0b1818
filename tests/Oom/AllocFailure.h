// Replaces malloc and operator new: armed, it numbers the counted requests from 1, fails the chosen
// ones and records the blocks obtained until freed. GLib's requests (which abort on failure) are
// never counted; sanitizer builds count only operator new and delete.
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
// At most limit lines: size and allocating caller of each live block.
std::string DescribeLiveBlocks(size_t limit);
// The caller of the first injected failure since the last Arm, or "none".
std::string DescribeFirstFailure();
bool CountsMalloc();  // False in sanitizer builds.

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_ALLOCFAILURE_H
