// The flight recorder's event sites in the message path and the dispatcher, as a dump shows them.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/LogCapture.h"
#include "support/TraceEventCheck.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Trace.h"

namespace vok {
namespace {

long Tid() {
    return static_cast<long>(syscall(SYS_gettid));
}

class TraceSitesTest : public testing::Test {
  protected:
    void SetUp() override {
        since_ = TraceClockNs();
        TraceSetEnabled(true);
    }
    void TearDown() override { TraceSetEnabled(false); }

    // The dump of this test's window, checked.
    test::TraceCheck Dump() {
        test::TraceCheck check = test::CheckTraceEvents(TraceSnapshotJson(since_));
        EXPECT_TRUE(check.Ok()) << check.Report();
        return check;
    }

    uint64_t since_ = 0;
    test::Watchdog watchdog_;
};

TEST_F(TraceSitesTest, MessageIsAFlowFromItsWritersThreadToItsReaders) {
    MessageMoverFramework* framework = MessageMoverFramework::StartMessageMoverFramework("trace");
    MessageMoverInterface* iface = framework->CreateInterface("trace");
    MmConnectionPort* b = nullptr;
    MmConnectionPort* a = iface->CreateConnectedPair(iface, &b);
    long writerTid = 0;
    std::thread writer([&] {
        writerTid = Tid();
        MmConnectionMessageHandle msg;
        iface->CreateConnectionMessage(24, &msg);
        msg.SetMessageName({10, 7});
        EXPECT_EQ(kVokErrNone, a->WriteMessage(msg, nullptr));
    });
    writer.join();
    std::string addresses;
    for (const MmPortInfo& port : framework->ListPorts()) {
        if (port.queueDepth == 1) {  // The reading end, holding the message.
            addresses = ",\"source\":" + std::to_string(port.peerAddress) +
                        ",\"dest\":" + std::to_string(port.address) + "}";
        }
    }
    ASSERT_FALSE(addresses.empty());
    MmConnectionMessageHandle msg;
    ASSERT_EQ(kVokErrNone, b->ReadMessage(&msg));
    iface->FreeMessage(msg);
    iface->DiscardConnectionPort(a);
    iface->DiscardConnectionPort(b);
    framework->DiscardInterface(iface);
    MessageMoverFramework::StopMessageMoverFramework(framework);

    const test::TraceCheck check = Dump();
    ASSERT_EQ(1u, check.Phase("s").size());
    ASSERT_EQ(1u, check.Phase("f").size());
    EXPECT_EQ(writerTid, check.Phase("s")[0].tid);
    EXPECT_EQ(Tid(), check.Phase("f")[0].tid);
    EXPECT_EQ(check.Phase("s")[0].id, check.Phase("f")[0].id);
    int slices = 0;
    for (const test::TraceEvent& slice : check.Phase("X")) {
        if (slice.cat != "vok.message") {
            continue;
        }
        ++slices;
        const bool write = slice.tid == writerTid;
        EXPECT_EQ(write ? "write 10/7" : "read 10/7", slice.name);
        EXPECT_EQ("{\"protocol\":10,\"msg_id\":7,\"size\":24" + addresses, slice.args);
    }
    EXPECT_EQ(2, slices);
}

TEST_F(TraceSitesTest, TimerCallbackThatBlocksIsOneLongSliceOnItsNamedTrack) {
    const std::chrono::milliseconds kBlock(200);
    long loopTid = 0;
    std::thread loop([&] {
        loopTid = Tid();
        TraceNameThread("blocker");
        RuntimeDispatcher dispatcher;
        RdTimerBase timer(dispatcher, [&] {
            std::this_thread::sleep_for(kBlock);  // The fault under test: a callback that blocks.
            dispatcher.RequestStop();
        });
        timer.Schedule(0);
        dispatcher.Run();
    });
    loop.join();

    const test::TraceCheck check = Dump();
    EXPECT_EQ("blocker", check.threadNames.at(loopTid));
    int timers = 0;
    for (const test::TraceEvent& slice : check.Phase("X")) {
        if (slice.tid == loopTid && slice.name == "timer") {
            ++timers;
            EXPECT_GE(slice.dur, 200000.0);
        }
    }
    EXPECT_EQ(1, timers);
    int late = 0;
    for (const test::TraceEvent& instant : check.Phase("i")) {
        late += instant.tid == loopTid && instant.name == "timer late";
    }
    EXPECT_EQ(1, late);
}

}  // namespace
}  // namespace vok
