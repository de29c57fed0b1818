// Alarms through the power service (vok-powerd or a fake) or the timer; vok-powerd's requests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AlarmBook.h"
#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokKvClient.h"

namespace vok {
namespace {

using Clock = std::chrono::steady_clock;
using test::PowerDaemon;
using test::Pump;
using ::testing::ContainsRegex;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class AlarmTest : public ::testing::Test {
  protected:
    void WaitForPower(bool up) {
        VokKvClient* power = RdKelvraUtils::GetVokKvClient(dispatcher_, "com.orvex.power");
        Pump(dispatcher_, [&]() { return power->IsConnected() == up; });
    }
    // Pumps until a timer of ms fires: anything due before it has had its chance.
    void Settle(long long ms) {
        bool done = false;
        RdTimerBase marker(dispatcher_, [&]() { done = true; });
        marker.Schedule(static_cast<unsigned>(std::max(0LL, ms)));
        Pump(dispatcher_, [&]() { return done; });
    }

    test::Watchdog watchdog_{std::chrono::seconds(240)};
    RuntimeDispatcher dispatcher_;
    int fired_ = 0;
};

TEST_F(AlarmTest, ChangeCbFromInsideTheCallbackKeepsTheRunningCallableAlive) {
    std::unique_ptr<RdAlarmBase> alarm;
    const std::string tag(64, 't');  // on the heap, inside the callable
    std::string seen;
    alarm.reset(new RdAlarmBase(dispatcher_, [&alarm, &seen, tag]() {
        alarm->ChangeCb([]() {});
        seen = tag;  // the replaced callable still runs here
    }));
    alarm->Schedule(0);
    Pump(dispatcher_, [&]() { return !seen.empty(); });
    EXPECT_EQ(tag, seen);
}

// vok-powerd killed and restarted twice within each alarm's interval: each alarm fires once, never
// early, late by at most the rounding to seconds.
TEST_F(AlarmTest, PowerServiceRestartsKeepTheDueTime) {
    const long long intervalMs = 4000;
    std::unique_ptr<PowerDaemon> powerd(new PowerDaemon);
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    for (int round = 0; round < 3; ++round) {
        fired_ = 0;
        const Clock::time_point start = Clock::now();
        alarm.Schedule(intervalMs);
        EXPECT_EQ(kRdAlarmNotFired, alarm.GetFiredBy());
        for (long long at : {1000LL, 2500LL}) {
            Settle(at - MsSince(start));
            powerd->Stop(SIGKILL);
            WaitForPower(false);
            powerd.reset(new PowerDaemon);
            WaitForPower(true);
        }
        Pump(dispatcher_, [&]() { return fired_ == 1; });
        EXPECT_EQ(kRdAlarmFiredByPowerService, alarm.GetFiredBy()) << "round " << round;
        const long long error = MsSince(start) - intervalMs;
        EXPECT_GE(error, 0) << "round " << round;
        EXPECT_LT(error, 2000) << "round " << round;  // a restarted interval is late by >= 2500
    }
    Settle(200);
    EXPECT_EQ(1, fired_);
}

TEST_F(AlarmTest, HungPowerServiceLetsTheTimerFireTheAlarmOnce) {
    test::LogCapture log;
    PowerDaemon powerd;
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    powerd.Pause();
    const Clock::time_point start = Clock::now();
    alarm.Schedule(500);
    Pump(
        dispatcher_, [&]() { return fired_ == 1; }, 20);
    EXPECT_GE(MsSince(start), 500);
    EXPECT_EQ(kRdAlarmFiredByTimer, alarm.GetFiredBy());
    EXPECT_EQ(1u, log.Matching("no answer from the power service").size());
    // Awake again, the service answers the abandoned request: the alarm is taken back there.
    powerd.Signal(SIGCONT);
    EXPECT_TRUE(powerd.WaitForLine("alarmAdd id=1"));
    EXPECT_TRUE(powerd.WaitForLine("id=1", 2));  // removed, or cancelled with its subscription
    Settle(1500);
    EXPECT_EQ(1, fired_);
}

// A service that refuses, lies or ends early: one line at the level given, and the timer fires the
// alarm once, not early. (No answer at all: the hung-service test.)
TEST_F(AlarmTest, MisbehavingPowerServiceNeverLosesTheAlarm) {
    std::vector<std::string> next;
    test::FakeService power(dispatcher_, "com.orvex.power");
    power.AddMethod("time/alarmAdd", [&](const std::string&) { return next; });
    power.AddMethod("time/alarmRemove",
                    [](const std::string&) { return std::vector<std::string>{"{}"}; });
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    const std::string id = "{\"returnValue\":true,\"alarmId\":7}";
    const int kCritical = 2, kError = 3, kWarning = 4;
    const struct {
        std::vector<std::string> replies;  // "" keeps the request open
        const char* logged;
        int level;
    } cases[] = {
        {{"{\"returnValue\":false,\"errorCode\":1,\"errorText\":\"no\"}"}, "refused", kWarning},
        {{"not json", ""}, "bad json string", kCritical},
        {{"{\"alarmId\":1.5}", ""}, "bad alarmId value", kCritical},
        {{id, "{\"alarmId\":7,\"fired\":1}", ""}, "bad fired type", kCritical},
        {{id, "{\"returnValue\":true,\"alarmId\":7,\"removed\":true}"}, "ended the", kCritical},
        {{id, "{\"returnValue\":true,\"alarmId\":7,\"fired\":true}"}, "early", kCritical},
        {{id, "{\"returnValue\":true,\"alarmId\":8,\"fired\":true}", ""}, "overdue", kError},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        next = c.replies;
        fired_ = 0;
        const Clock::time_point start = Clock::now();
        alarm.Schedule(300);
        Pump(
            dispatcher_, [&]() { return fired_ == 1; }, 20);
        EXPECT_GE(MsSince(start), 300) << c.logged;
        const std::vector<test::LogLine> lines = log.Matching(c.logged);
        ASSERT_EQ(1u, lines.size()) << c.logged;
        EXPECT_EQ(c.level, lines[0].level) << c.logged;
    }
    Settle(200);
    EXPECT_EQ(1, fired_);
    EXPECT_EQ("{\"subscribe\":true, \"key\":\"com.orvex.vok\",\"relative_time\":\"00:00:01\"}",
              power.Requests("time/alarmAdd")[0]);
}

// The power service's request handling, without a bus: clients are named by their sender.
class PowerdRequestTest : public ::testing::Test {
  protected:
    typedef powerd::AlarmBook Book;
    Book::Outcome Add(const char* sender) {
        return book_.Handle("time/alarmAdd", "{\"subscribe\":true,\"relative_time\":\"00:00:05\"}",
                            sender, 0);
    }
    Book::Outcome Remove(const char* sender, uint32_t id) {
        const std::string payload = "{\"alarmId\":" + std::to_string(id) + "}";
        return book_.Handle("time/alarmRemove", payload.c_str(), sender, 0);
    }
    // The errorCode of a refusal with a non-empty errorText, else 0.
    static int ErrorCode(const std::string& reply) {
        int code = 0;
        const char* form = "{\"returnValue\":false,\"errorCode\":%d,\"errorText\":\"%*[^\"]\"}";
        return std::sscanf(reply.c_str(), form, &code) == 1 ? code : 0;
    }

    Book book_;
};

TEST_F(PowerdRequestTest, MalformedRequestsGetClearRefusals) {
    ASSERT_EQ(1u, Add(":1.1").added);
    const char* add = "time/alarmAdd";
    const char* remove = "time/alarmRemove";
    const struct {
        const char* method;
        const char* payload;
        int code;
    } bad[] = {
        {add, nullptr, powerd::kPowerErrBadPayload},
        {add, "{\"subscribe\":true,\"relative_time\":\"00:00:01\"} x", powerd::kPowerErrBadPayload},
        {add, "{\"relative_time\":\"00:00:01\"}", powerd::kPowerErrNotSubscribed},
        {add, "{\"subscribe\":true,\"relative_time\":\"24:00:00\"}", powerd::kPowerErrBadTime},
        {add, "{\"subscribe\":true,\"relative_time\":\"00:00:01x\"}", powerd::kPowerErrBadTime},
        {remove, "{\"alarmId\":1.5}", powerd::kPowerErrBadId},
        {remove, "{\"alarmId\":4294967297}", powerd::kPowerErrBadId},
        {remove, "{\"alarmId\":-4294967295}", powerd::kPowerErrBadId},
        {remove, "{\"alarmId\":12345}", powerd::kPowerErrUnknownId},
    };
    for (const auto& request : bad) {
        const Book::Outcome outcome = book_.Handle(request.method, request.payload, ":1.1", 0);
        EXPECT_EQ(request.code, ErrorCode(outcome.reply))
            << (request.payload ? request.payload : "NULL") << " -> " << outcome.reply;
    }
    EXPECT_EQ(1u, book_.Count());  // 4294967297 did not wrap onto alarm 1
}

TEST_F(PowerdRequestTest, OnlyTheOwnerRemovesAnAlarmAndEachClientHasALimit) {
    std::vector<uint32_t> ids;
    for (size_t i = 0; i < Book::kMaxAlarmsPerClient; ++i) {
        ids.push_back(Add(":1.1").added);
    }
    EXPECT_EQ(powerd::kPowerErrTooMany, ErrorCode(Add(":1.1").reply));
    const uint32_t other = Add(":1.2").added;
    EXPECT_NE(0u, other);  // one client's limit leaves the others alone
    EXPECT_EQ(powerd::kPowerErrNotOwner, ErrorCode(Remove(":1.2", ids[0]).reply));
    EXPECT_EQ(ids[0], Remove(":1.1", ids[0]).removed);
}

// Through vok-powerd: intervals round up; clients are told apart by bus name; an alarm ends when
// its client leaves.
TEST_F(AlarmTest, PowerServiceRoundsIntervalsUpAndKnowsWhichClientOwnsAnAlarm) {
    PowerDaemon powerd(test::ContextOf(dispatcher_));
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    const Clock::time_point start = Clock::now();
    alarm.Schedule(1500);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_GE(MsSince(start), 1500);
    EXPECT_EQ(1, powerd.CountLines("alarmAdd id=1 relative_time=00:00:02 subscribed=1"));
    EXPECT_TRUE(powerd.WaitForLine("fired id=1"));

    test::Handle owner(test::ContextOf(dispatcher_));
    test::ReplyLog added;
    ASSERT_TRUE(owner.Call("kelvra://com.orvex.power/time/alarmAdd",
                           "{\"subscribe\":true,\"relative_time\":\"00:10:00\"}", &added));
    Pump(dispatcher_, [&]() { return !added.replies.empty(); });
    ASSERT_EQ(2, added.replies[0].Number("alarmId"));
    std::vector<std::string> replies;
    RdKvCall other(RdKelvraUtils::GetKvHandle(dispatcher_),
                   [&](KVMessage* reply) { replies.push_back(KVMessageGetPayload(reply)); });
    other.Call("com.orvex.power", "time/alarmRemove", "{\"alarmId\":2}");
    Pump(dispatcher_, [&]() { return !replies.empty(); });
    EXPECT_THAT(replies[0], ContainsRegex("\"errorCode\": *6\\b"));
    EXPECT_EQ(1u, added.replies.size());  // no "removed" end for the owner
    owner.Unregister();
    Pump(dispatcher_, [&]() { return powerd.CountLines("cancelled id=2") > 0; });
}

}  // namespace
}  // namespace vok
