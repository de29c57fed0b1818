// Diagnostic registers: sharing, watermarks, lifetime, pruning and concurrent use.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Src/Utils/DiagnosticRegisterImpl.h"
#include "support/LogCapture.h"
#include "vok/DiagnosticRegister.h"

namespace vok {
namespace {

typedef DiagnosticRegisterCounter::CounterInfo Info;

Info QueryOrFail(const std::string& path) {
    Info info{};
    EXPECT_TRUE(DiagnosticRegisterCounter::Query(path, &info)) << path;
    return info;
}

class DiagnosticRegisterTest : public ::testing::Test {
  protected:
    void TearDown() override { DiagRegPruneAtAndBelow(100); }
};

// A second handle at a path keeps the register's value; a reset sets both watermarks.
TEST_F(DiagnosticRegisterTest, SecondHandleKeepsTheValueAndResetSetsTheWatermarks) {
    DiagnosticRegisterCounter c("root.marks", 0);
    DiagnosticRegisterCounter second("root.marks", 9);
    EXPECT_EQ(0, second.Get(nullptr));
    c.Adjust(-3);
    c.Reset(7);
    const Info info = QueryOrFail("root.marks");
    EXPECT_EQ(7, info.value);
    EXPECT_EQ(7, info.low);
    EXPECT_EQ(7, info.high);
}

TEST_F(DiagnosticRegisterTest, RegisterOutlivesHandlesUntilPrunedAtItsLongevity) {
    {
        DiagnosticRegisterCounter shortLived("root.life.short", 1);
        DiagnosticRegisterCounter longLived("root.life.long", 2);
        DiagnosticRegisterString text("root.life.text", "hello");
        longLived.SetLongevity(kDiagRegLongevityLong);
    }
    EXPECT_EQ(1, QueryOrFail("root.life.short").value);
    std::string value;
    EXPECT_TRUE(DiagnosticRegisterString::Query("root.life.text", &value));
    EXPECT_EQ("hello", value);

    DiagnosticRegisterCounter held("root.life.held", 3);
    DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
    Info info{};
    EXPECT_FALSE(DiagnosticRegisterCounter::Query("root.life.short", &info));
    EXPECT_FALSE(DiagnosticRegisterString::Query("root.life.text", &value));
    EXPECT_EQ(2, QueryOrFail("root.life.long").value);
    // A register still held survives any prune.
    DiagRegPruneAtAndBelow(1000);
    EXPECT_EQ(3, QueryOrFail("root.life.held").value);
    EXPECT_FALSE(DiagnosticRegisterCounter::Query("root.life.long", &info));
    // A new handle at a pruned path starts afresh.
    DiagnosticRegisterCounter again("root.life.short", 40);
    EXPECT_EQ(40, again.Get(nullptr));
}

TEST_F(DiagnosticRegisterTest, ConcurrentPublishersAndQueriesLoseNoUpdateNorWatermark) {
    test::Watchdog watchdog;
    const int kThreads = 4;
    const int kIncrements = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t]() {
            // Creation and group queries race too.
            DiagnosticRegisterCounter c("root.mt.count", 0);
            for (int i = 0; i < kIncrements; ++i) {
                c.Inc();
                Info info{};
                if (i % 100 == 0 && c.Get(&info) > info.high) {
                    ADD_FAILURE() << "value above its high watermark";
                }
                if (i % 1000 == 0) {
                    delete DiagnosticRegisterCounter::QueryGroup("root.mt.");
                    DiagnosticRegisterCounter extra("root.mt.t" + std::to_string(t), i);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const Info info = QueryOrFail("root.mt.count");
    EXPECT_EQ(kThreads * kIncrements, info.value);
    EXPECT_EQ(kThreads * kIncrements, info.high);
    EXPECT_EQ(0, info.low);
}

}  // namespace
}  // namespace vok
