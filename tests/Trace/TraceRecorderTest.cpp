// The flight recorder: event sites, per-thread rings, dumps while threads record, and its JSON.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/Trace/TraceRecorder.h"
#include "support/LogCapture.h"
#include "support/TraceEventCheck.h"
#include "vok/Trace.h"

namespace vok {
namespace {

using namespace trace;

pid_t Tid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

test::TraceCheck CheckFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return test::CheckTraceEvents(text.str());
}

class TraceRecorderTest : public testing::Test {
  protected:
    void SetUp() override {
        TraceSetEnabled(false);
        TraceSetRingEvents(kTraceDefaultRingEvents);
        since_ = TraceClockNs();
    }
    void TearDown() override { SetUp(); }

    // This test's non-empty tracks of thread tid (0: all).
    std::vector<TraceTrack> Tracks(pid_t tid) {
        std::vector<TraceTrack> all;
        std::vector<TraceTrack> selected;
        TraceCollect(since_, &all);
        for (TraceTrack& track : all) {
            if ((tid == 0 || track.tid == tid) && !track.records.empty()) {
                selected.push_back(track);
            }
        }
        return selected;
    }

    uint64_t since_ = 0;
    test::Watchdog watchdog_;
};

TEST_F(TraceRecorderTest, SitesRecordNothingAndAllocateNoRingWhileOff) {
    std::thread thread([] {
        TraceMessageWritten(TraceBegin(), 1, 4, 1, 0, 49152, 49153);
        { TraceCallbackScope scope(kCbAlarm); }
        TraceAsyncBegin(kAsyncBusCall, 1, "kelvra://a/b/c", 100);
        TraceInstant(kInstBladeStart, 0, "blade");
    });
    thread.join();
    EXPECT_TRUE(Tracks(0).empty());
}

// A callback left by an exception ends its slice; an async end without its begin is left out.
TEST_F(TraceRecorderTest, CallbacksCallsAndInstantsMakeAValidTimeline) {
    TraceSetEnabled(true);
    try {
        TraceCallbackScope scope(kCbBusReply);
        throw std::runtime_error("out of a callback");
    } catch (const std::runtime_error&) {
    }
    TraceAsyncBegin(kAsyncBusCall, 1, "kelvra://com.orvex.power/time/alarmAdd", 1000);
    TraceAsyncBegin(kAsyncBusCall, 2, "kelvra://com.orvex.power/time/alarmAdd", 0);
    TraceAsyncEnd(kAsyncBusCall, 3, -1);  // Its begin is not in the rings: left out.
    TraceAsyncEnd(kAsyncBusCall, 1, -5);
    TraceInstant(kInstBladeStuck, 0, "echo");

    const test::TraceCheck check = test::CheckTraceEvents(TraceSnapshotJson(since_));
    ASSERT_TRUE(check.Ok()) << check.Report();
    EXPECT_EQ(1u, check.Phase("X").size());
    EXPECT_EQ(2u, check.Phase("b").size());
    ASSERT_EQ(1u, check.Phase("e").size());
    EXPECT_EQ("{\"error\":-5}", check.Phase("e")[0].args);
    EXPECT_EQ(1, check.openAsync);
    ASSERT_EQ(1u, check.Phase("i").size());
    EXPECT_EQ("{\"blade\":\"echo\"}", check.Phase("i")[0].args);
}

// A read that began before its write still ends the flow after its start.
TEST_F(TraceRecorderTest, FlowEndFollowsItsStartWhenTheReadBeganFirst) {
    TraceSetEnabled(true);
    const uint64_t readBegin = TraceClockNs() - 10000000;
    TraceMessageWritten(TraceBegin(), 5, 4, 1, 0, 49152, 49153);
    TraceMessageRead(readBegin, 5, 4, 1, 0, 49152, 49153);
    TraceMessageRead(TraceBegin(), 99, 4, 2, 0, 49152, 49153);  // Its write was overwritten.
    const test::TraceCheck check = test::CheckTraceEvents(TraceSnapshotJson(readBegin));
    ASSERT_TRUE(check.Ok()) << check.Report();
    int ends = 0;
    for (const test::TraceEvent& end : check.Phase("f")) {
        ends += end.id == "0x5";
    }
    EXPECT_EQ(1, ends);
}

// Rings of 64 overwritten by four threads while dumped: only whole records, in order.
TEST_F(TraceRecorderTest, DumpsRacingOverwritingWritersSeeOnlyWholeRecords) {
    TraceSetRingEvents(64);
    TraceSetEnabled(true);
    const int kWriters = 4;
    const int kDumps = 50;
    std::atomic<int> ready(0);
    std::atomic<int> dumps(0);
    std::vector<pid_t> tids(kWriters);
    std::vector<int64_t> last(kWriters);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            tids[w] = Tid();
            ready.fetch_add(1);
            int64_t seq = 1;
            for (; seq <= 128 || dumps.load() < kDumps; ++seq) {
                TraceInstant(kInstTimerLate, seq, std::to_string(seq).c_str());
            }
            last[w] = seq - 1;
        });
    }
    while (ready.load() < kWriters) {
        sched_yield();
    }
    auto checkTracks = [&](bool final) {
        for (int w = 0; w < kWriters; ++w) {
            for (const TraceTrack& track : Tracks(tids[w])) {
                ASSERT_LE(track.records.size(), 64u);
                for (size_t i = 0; i < track.records.size(); ++i) {
                    const TraceRecord& record = track.records[i];
                    ASSERT_EQ(std::to_string(record.value), record.text);
                    ASSERT_TRUE(i == 0 || track.records[i - 1].value + 1 == record.value);
                    ASSERT_TRUE(i == 0 || track.records[i - 1].ts <= record.ts);
                }
                ASSERT_TRUE(!final ||
                            (track.records.size() == 64u && track.records.back().value == last[w]));
            }
        }
    };
    for (int i = 0; i < kDumps; ++i) {
        checkTracks(false);
        dumps.fetch_add(1);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    checkTracks(true);
}

TEST_F(TraceRecorderTest, RetiredRingsStayDumpableUpToTheirLimit) {
    TraceSetEnabled(true);
    const unsigned kThreads = kTraceMaxRetiredRings + 8;
    for (unsigned i = 0; i < kThreads; ++i) {
        std::thread thread([i] {
            TraceNameThread("gone-" + std::to_string(i));
            TraceMark("ended");
        });
        thread.join();
    }
    std::vector<std::string> kept;
    for (const TraceTrack& track : Tracks(0)) {
        kept.push_back(track.name);
    }
    ASSERT_EQ(kTraceMaxRetiredRings, kept.size());
    EXPECT_EQ("gone-8", kept.front());

    // A new ring size retires the live ring at its next event; the thread keeps one name.
    EXPECT_EQ(128u, (TraceSetRingEvents(100), TraceGetRingEvents()));
    TraceSetRingEvents(64);
    TraceNameThread("resized");
    for (int i = 0; i < 100; ++i) {
        TraceMark("small");
    }
    TraceSetRingEvents(128);
    TraceMark("large");
    const std::vector<TraceTrack> tracks = Tracks(Tid());
    ASSERT_EQ(2u, tracks.size());
    EXPECT_EQ(64u, tracks[0].records.size());
    EXPECT_EQ(1u, tracks[1].records.size());
    const test::TraceCheck check = test::CheckTraceEvents(TraceSnapshotJson(since_));
    ASSERT_TRUE(check.Ok()) << check.Report();
    EXPECT_EQ("resized", check.threadNames.at(Tid()));
}

TEST_F(TraceRecorderTest, FilesHoldTheirWindowAndFaultDumpsOnlyRecordings) {
    TraceSetEnabled(true);
    TraceMark("before");
    TraceSetEnabled(false);
    char dir[] = "/tmp/vok-trace-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string path = std::string(dir) + "/window.json";
    bool written = false;
    std::string error;
    std::thread recorder([&] { written = TraceRecordFor(0.3, path, &error); });
    while (!TraceIsEnabled()) {
        sched_yield();
    }
    TraceMark("inside");
    recorder.join();
    ASSERT_TRUE(written) << error;
    EXPECT_FALSE(TraceIsEnabled());
    test::TraceCheck check = CheckFile(path);
    ASSERT_TRUE(check.Ok()) << check.Report();
    ASSERT_EQ(1u, check.Phase("i").size());
    EXPECT_EQ("inside", check.Phase("i")[0].name);
    unlink(path.c_str());

    setenv("VOK_TRACE_DIR", dir, 1);
    EXPECT_EQ("", TraceDumpForFault("blade stuck"));
    TraceSetEnabled(true);
    const std::string fault = TraceDumpForFault("blade stuck");
    unsetenv("VOK_TRACE_DIR");
    EXPECT_EQ(0u, fault.find(std::string(dir) + "/vok-trace-")) << fault;
    check = CheckFile(fault);
    EXPECT_TRUE(check.Ok()) << check.Report();
    unlink(fault.c_str());
    EXPECT_EQ(0, rmdir(dir));  // Nothing else was left there.
}

// Runs with VOK_TRACE=1 and VOK_TRACE_BUFFER=100 (see CMakeLists.txt).
TEST(TraceEnvironmentTest, SettingsApplyFromLibraryLoad) {
    if (std::getenv("VOK_TRACE") == nullptr) {
        GTEST_SKIP() << "runs with VOK_TRACE=1 only";
    }
    EXPECT_TRUE(TraceIsEnabled());
    EXPECT_EQ(128u, TraceGetRingEvents());
}

}  // namespace
}  // namespace vok
