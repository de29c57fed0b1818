// main() of every test program.
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    // Death tests re-execute the test program instead of forking a process that may hold other
    // threads' locks. VOK_DEATH_TEST_STYLE overrides it where re-execution is unavailable.
    const char* style = std::getenv("VOK_DEATH_TEST_STYLE");
    GTEST_FLAG_SET(death_test_style, style != nullptr ? style : "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
