// The logging library and the Logger over it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>
#include <ztlog/ztlog.h>

#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "vok/Logger.h"

// Stand-ins for syslog and the journal: no test line reaches the machine's log.
std::string gSyslogLine;
int gSyslogPriority = -1;

void RecordSyslog(int priority, const char* format, va_list args) {
    char line[1024];
    vsnprintf(line, sizeof line, format, args);
    gSyslogPriority = priority;
    gSyslogLine = line;
}
extern "C" void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    RecordSyslog(priority, format, args);
    va_end(args);
}
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    RecordSyslog(priority, format, args);
    va_end(args);
}
std::vector<std::string> gJournalFields;
extern "C" int sd_journal_sendv(const struct iovec* iov, int n) {
    gJournalFields.clear();
    for (int i = 0; i < n; ++i) {
        gJournalFields.emplace_back(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
    }
    return 0;
}

namespace {

long ThreadId() {
    return static_cast<long>(syscall(SYS_gettid));
}

struct Threshold {
    const char* context;
    int32_t level;
};

void ExpectThresholds(std::initializer_list<Threshold> rows) {
    for (const Threshold& row : rows) {
        ZtLogContext* ctx = nullptr;
        ASSERT_EQ(0, ZtLogGetContext(row.context, &ctx));
        EXPECT_EQ(row.level, ctx->threshold) << row.context;
    }
}

// ZTLOG_LEVELS is set in CMakeLists.txt. A prefix ends at a dot; the bad level 11 is ignored.
TEST(ZtLogTest, ThresholdComesFromLongestDottedPrefix) {
    ExpectThresholds({{"Zt.Other.Deep", 3}, {"Zt.Sub.Loud", 7}, {"Zt.Sub.Quiet.X", 2}});
    ExpectThresholds({{"Zt.Subway", 3}, {"Elsewhere", 6}, {"Zt.Bad", 3}});
    EXPECT_EQ(-1, ZtLogSetLevel("Zt.Same", 8));  // Out of range.
}

// A level set at run time covers the context and everything under it, existing or made later.
TEST(ZtLogTest, SetLevelAppliesToContextAndEverythingUnderIt) {
    ExpectThresholds({{"Rt.Sub.Deep", 6}});
    ASSERT_EQ(0, ZtLogSetLevel("Rt.Sub.Deep", 2));
    ASSERT_EQ(0, ZtLogSetLevel("Rt", 5));
    ExpectThresholds({{"Rt", 5}, {"Rt.Sub.Deep", 5}, {"Rt.Later.Made", 5}, {"Rtx", 6}});
    ASSERT_EQ(0, ZtLogSetLevel("Rt.Sub", 7));
    EXPECT_EQ(-1, ZtLogSetLevel("*", 3));
    ExpectThresholds({{"Rt.Sub.Deep", 7}, {"Rt.Sub.New", 7}, {"Rt.Later", 5}, {"Rtx", 6}});
}

TEST(ZtLogTest, ParseLevelTakesNumbersAndSyslogNames) {
    EXPECT_EQ(5, ZtLogParseLevel("NOTICE"));
    EXPECT_EQ(4, ZtLogParseLevel("warn"));
    for (const char* bad : {"8", "07", "", "information"}) {
        EXPECT_EQ(-1, ZtLogParseLevel(bad)) << bad;
    }
    EXPECT_EQ(-1, ZtLogParseLevel(nullptr));
}

TEST(ZtLogTest, LongMessagesAreWrittenWhole) {
    vok::test::LogCapture capture;
    ZtLogContext* ctx = nullptr;
    ZtLogGetContext("Zt", &ctx);
    std::string big(5000, 'x');
    ZtLogPrint(ctx, 2, "%s|", big.c_str());
    auto lines = capture.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(big + "|", lines[0].message);
}

TEST(ZtLogOutputTest, SyslogAndJournalGetContextAndThreadId) {
    ZtLogContext* ctx = nullptr;
    ZtLogGetContext("Zt", &ctx);
    ZtLogSetSyslogOutput(1);
    ZtLogPrint(ctx, 2, "to syslog");
    ZtLogSetSyslogOutput(0);
    EXPECT_EQ(LOG_CRIT, gSyslogPriority);
    EXPECT_EQ("[Zt] (tid " + std::to_string(ThreadId()) + ") to syslog", gSyslogLine);

    const std::string tid = "TID=" + std::to_string(ThreadId());
    ASSERT_EQ(0, ZtLogSetOutput("journal"));
    EXPECT_EQ(-1, ZtLogSetOutput("console"));  // unknown: the journal stays
    ZtLogPrint(ctx, 3, "to the journal");
    EXPECT_THAT(gJournalFields, ::testing::ElementsAre("MESSAGE=to the journal", "PRIORITY=3",
                                                       "ZTLOG_CONTEXT=Zt", tid));
    // Lines that name their function carry it in a field of its own.
    ZtLogPrint(ctx, 3, "ERROR in ~BladeManager: state <%d>", 2);
    EXPECT_THAT(gJournalFields, ::testing::Contains("CODE_FUNC=~BladeManager"));
    ZtLogPrint(ctx, 3, "Shell::StartUp: 0x1234: Entering");
    EXPECT_THAT(gJournalFields, ::testing::Contains("CODE_FUNC=Shell::StartUp"));
    ZtLogPrint(ctx, 3, "a plain line: Entering the loop");
    EXPECT_EQ(4u, gJournalFields.size());
    ASSERT_EQ(0, ZtLogSetOutput("stderr"));
}

TEST(ZtLogTest, ConcurrentLoggingLosesNothing) {
    vok::test::Watchdog watchdog;
    vok::test::LogCapture capture;
    const int kThreads = 4;
    const int kLines = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t]() {
            ZtLogContext* ctx = nullptr;
            ZtLogGetContext(t % 2 ? "Zt.Sub.T" : "Zt.Sub.U", &ctx);
            for (int i = 0; i < kLines; ++i) {
                ZtLogPrint(ctx, 7, "t%d line %d", t, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), capture.Lines().size());
}

// A level set takes effect at the logger's next call. Binary dumps stop at 1024 bytes.
TEST(LoggerTest, ThresholdFourPassesWarningAndDropsDebugAndTracingUntilRaised) {
    vok::test::ScopedLogLevel level("Test.Four", 4);
    vok::test::LogCapture capture;
    vok::Logger logger("Test.Four");
    logger.Critical("c%d", 1);
    logger.Error("e");
    logger.Warning("w");
    logger.Notice("n");
    logger.Info("i");
    logger.Debug("d");
    { vok::FuncLogger trace(logger, "Fn", &logger); }
    ZtLogSetLevel("Test.Four", 5);
    logger.Notice("notice");
    logger.Info("info");
    ZtLogSetLevel("Test.Four", 7);
    logger.Debug("after");
    std::vector<unsigned char> data(5000, 0x5a);
    logger.DebugBin(data.data(), data.size());
    auto lines = capture.Lines();
    ASSERT_EQ(5u + 1024 / 16, lines.size());
    EXPECT_EQ(vok::kLogLevelCritical, lines[0].level);
    EXPECT_EQ("c1", lines[0].message);
    EXPECT_EQ(vok::kLogLevelNotice, lines[3].level);
    EXPECT_EQ("notice", lines[3].message);
    EXPECT_EQ("after", lines[4].message);
    EXPECT_THAT(lines.back().message, ::testing::HasSubstr("000003f0:"));
}

}  // namespace
