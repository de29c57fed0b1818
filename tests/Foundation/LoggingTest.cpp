// Logger thresholds and dumps, FuncLogger tracing, and the logged throw.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ztlog/ztlog.h>

#include "Src/Utils/VokThrow.h"
#include "support/LogCapture.h"
#include "vok/Logger.h"
#include "vok/VokError.h"

namespace vok {
namespace {

using test::LogCapture;
using test::ScopedLogLevel;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// Raised to debug, the logger dumps binary data up to 1024 bytes.
TEST(LoggerTest, ThresholdFourPassesWarningAndDropsDebugAndTracingUntilRaised) {
    ScopedLogLevel level("Test.Four", 4);
    LogCapture capture;
    Logger logger("Test.Four");
    logger.Critical("c%d", 1);
    logger.Error("e");
    logger.Warning("w");
    logger.Debug("d");
    { FuncLogger trace(logger, "Fn", &logger); }
    ZtLogSetLevel("Test.Four", 7);  // Read at every call: the next one passes.
    logger.Debug("after");
    std::vector<unsigned char> data(5000, 0x5a);
    logger.DebugBin(data.data(), data.size());
    auto lines = capture.Lines();
    ASSERT_EQ(4u + 1024 / 16, lines.size());
    EXPECT_EQ(kLogLevelCritical, lines[0].level);
    EXPECT_EQ("c1", lines[0].message);
    EXPECT_EQ(kLogLevelError, lines[1].level);
    EXPECT_EQ(kLogLevelWarning, lines[2].level);
    EXPECT_EQ("after", lines[3].message);
    EXPECT_THAT(lines.back().message, HasSubstr("000003f0:"));
}

void TracedThrowingFunction(const Logger& logger, const void* object) {
    FuncLogger trace(logger, __func__, object);
    VOK_THROW_LOGGED_PROGRAM_ERROR(logger, "not ready for access");
}

// A traced function writes Entering and Leaving even when it throws. A logged throw writes one
// critical line, then throws the program error named after its function, file and line.
TEST(FuncLoggerTest, WritesEnteringAndLeavingAroundALoggedThrow) {
    ScopedLogLevel level("Test.Trace", 7);
    LogCapture capture;
    Logger logger("Test.Trace");
    int object = 0;
    try {
        TracedThrowingFunction(logger, &object);
        FAIL() << "no exception";
    } catch (const VokProgramErrorException& e) {
        EXPECT_EQ(kVokErrUnspecified, e.GetErr());
        EXPECT_THAT(e.what(), MatchesRegex("TracedThrowingFunction:tests/Foundation/LoggingTest:"
                                           "[0-9]+:not ready for access"));
    }
    EXPECT_THROW(TracedThrowingFunction(logger, nullptr), VokProgramErrorException);
    auto lines = capture.Lines();
    ASSERT_EQ(6u, lines.size());
    char expected[64];
    snprintf(expected, sizeof expected, "TracedThrowingFunction: %p: Entering",
             static_cast<void*>(&object));
    EXPECT_EQ(expected, lines[0].message);
    EXPECT_EQ(kLogLevelCritical, lines[1].level);
    EXPECT_THAT(lines[1].message,
                MatchesRegex("THROWING EXCEPTION VokProgramErrorExceptionmsg<not ready for access> "
                             "err<0XFFFFFFFF> : .*TracedThrowingFunction.* : "
                             "tests/Foundation/LoggingTest : line [0-9]+"));
    snprintf(expected, sizeof expected, "TracedThrowingFunction: %p: Leaving",
             static_cast<void*>(&object));
    EXPECT_EQ(expected, lines[2].message);
    EXPECT_EQ("TracedThrowingFunction: Entering", lines[3].message);
    EXPECT_EQ("TracedThrowingFunction: Leaving", lines[5].message);
    EXPECT_EQ(kLogLevelDebug, lines[5].level);
}

}  // namespace
}  // namespace vok
