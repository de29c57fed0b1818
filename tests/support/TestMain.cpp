// main() of every test program.
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    // Death tests re-execute the program: a plain fork may hold other threads' locks.
    const char* style = std::getenv("VOK_DEATH_TEST_STYLE");
    GTEST_FLAG_SET(death_test_style, style != nullptr ? style : "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
