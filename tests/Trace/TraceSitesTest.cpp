// The flight recorder's event sites in the message path and the dispatcher, as a dump shows them.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "support/TraceEventCheck.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RdKvService.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Trace.h"
#include "vok/VokKvClient.h"

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

    test::TraceCheck Dump() {
        test::TraceCheck check = test::CheckTraceEvents(TraceSnapshotJson(since_));
        EXPECT_TRUE(check.Ok()) << check.Report();
        return check;
    }

    // The one async slice of category cat whose name holds text: its begin and its end.
    static std::pair<test::TraceEvent, test::TraceEvent> Async(const test::TraceCheck& check,
                                                               const std::string& cat,
                                                               const std::string& text) {
        std::pair<test::TraceEvent, test::TraceEvent> slice;
        int begins = 0;
        for (const test::TraceEvent& event : check.events) {
            if (event.cat == cat && event.ph == "b" && event.name.find(text) != std::string::npos) {
                slice.first = event;
                ++begins;
            } else if (event.cat == cat && event.ph == "e" && event.id == slice.first.id) {
                slice.second = event;
            }
        }
        EXPECT_EQ(1, begins) << text;
        EXPECT_EQ("e", slice.second.ph) << text;
        return slice;
    }

    static std::vector<test::TraceEvent> Mine(const test::TraceCheck& check,
                                              const std::string& name, double fromUs = 0) {
        std::vector<test::TraceEvent> found;
        for (const test::TraceEvent& event : check.events) {
            if (event.tid == Tid() && event.name == name && event.ts >= fromUs) {
                found.push_back(event);
            }
        }
        return found;
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
    int slices = 0;
    for (const test::TraceEvent& slice : check.Phase("X")) {
        if (slice.cat != "vok.message") {
            continue;
        }
        ++slices;
        const bool write = slice.tid == writerTid;
        EXPECT_EQ(write ? "write 10/7" : "read 10/7", slice.name);
    }
    EXPECT_EQ(2, slices);
}

TEST_F(TraceSitesTest, TimerCallbackThatBlocksIsOneLongSlice) {
    const std::chrono::milliseconds kBlock(200);
    long loopTid = 0;
    std::thread loop([&] {
        loopTid = Tid();
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
    int timers = 0;
    for (const test::TraceEvent& slice : check.Phase("X")) {
        if (slice.tid == loopTid && slice.name == "timer") {
            ++timers;
            EXPECT_GE(slice.dur, 200000.0);
        }
    }
    EXPECT_EQ(1, timers);
}

// The alarm falls back to its timer (no power service on the test bus).
TEST_F(TraceSitesTest, BusCallThatTimesOutIsAnAsyncSliceEndingWithItsError) {
    RuntimeDispatcher dispatcher;
    test::FakeService quiet(dispatcher, "com.test.trace.quiet");
    quiet.AddMethod("never/answer", [](const std::string&) {
        return std::vector<std::string>{"", ""};  // stays open, unanswered
    });
    bool replied = false;
    bool rang = false;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher), [&](KVMessage*) { replied = true; });
    RdAlarmBase alarm(dispatcher, [&] { rang = true; });
    call.Call("com.test.trace.quiet", "never/answer", "{}", 200);
    alarm.Schedule(0);
    ASSERT_TRUE(test::Pump(dispatcher, [&] { return replied && rang; }));

    const test::TraceCheck check = Dump();
    const auto slice = Async(check, "vok.bus.call", "never/answer");
    EXPECT_EQ("{\"kind\":\"bus call\",\"timeout_ms\":200}", slice.first.args);
    EXPECT_EQ("{\"error\":" + std::to_string(KV_ERROR_TIMEOUT) + "}", slice.second.args);
    EXPECT_GE(slice.second.ts - slice.first.ts, 200000.0);
    EXPECT_EQ(1u, Mine(check, "bus reply", slice.second.ts).size());
    EXPECT_EQ(1u, Mine(check, "alarm late").size());
}

// The call and the served request end with the handler's error (written with blanks by the bus).
TEST_F(TraceSitesTest, ServedRequestIsAnAsyncSliceAroundItsBusMethodSlice) {
    RuntimeDispatcher dispatcher;
    RdKvService service(dispatcher, "com.test.trace.served");
    service.AddMethod("trace/refuse", [](RdKvRequest& request) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a handler that takes time
        request.ReplyError(7, "refused");
    });
    ASSERT_TRUE(test::Pump(dispatcher, [&] { return service.IsConnected(); }));
    std::string reply;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher),
                  [&](KVMessage* message) { reply = KVMessageGetPayload(message); });
    call.Call("com.test.trace.served", "trace/refuse", "{}");
    ASSERT_TRUE(test::Pump(dispatcher, [&] { return !reply.empty(); }));

    const test::TraceCheck check = Dump();
    const auto request = Async(check, "vok.bus.request", "trace/refuse");
    EXPECT_EQ(Tid(), request.first.tid);
    EXPECT_EQ("{\"error\":7}", request.second.args);
    const auto called = Async(check, "vok.bus.call", "trace/refuse");
    EXPECT_EQ("{\"error\":7}", called.second.args);
    const std::vector<test::TraceEvent> methods = Mine(check, "bus method", request.first.ts);
    ASSERT_EQ(1u, methods.size());
    EXPECT_GE(methods[0].dur, 5000.0);
    EXPECT_LE(request.second.ts, methods[0].ts + methods[0].dur);
}

}  // namespace
}  // namespace vok
