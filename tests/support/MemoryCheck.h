// Whether the test program runs under valgrind, for tests that read freed memory or leak on
// purpose and skip those steps there.
#ifndef VOK_TESTS_SUPPORT_MEMORYCHECK_H
#define VOK_TESTS_SUPPORT_MEMORYCHECK_H

#include <cstdlib>
#include <cstring>

#if defined(__has_include)
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#define VOK_TEST_HAVE_VALGRIND_H 1
#endif
#endif

namespace vok {
namespace test {

inline bool RunningOnValgrind() {
#if defined(VOK_TEST_HAVE_VALGRIND_H)
    return RUNNING_ON_VALGRIND != 0;
#else
    // Without valgrind's headers: valgrind preloads its own libraries.
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "vgpreload") != nullptr;
#endif
}

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_MEMORYCHECK_H
