// Logger thresholds and dumps, and FuncLogger tracing below the threshold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ztlog/ztlog.h>

#include "support/LogCapture.h"
#include "vok/Logger.h"
#include "vok/VokError.h"

namespace vok {
namespace {

using test::LogCapture;
using test::ScopedLogLevel;
using ::testing::HasSubstr;

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

}  // namespace
}  // namespace vok
