// Alarms through the power service (vok-powerd or a fake) and through the fallback timer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "BusTestSupport.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RdAlarmImpl.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "support/LogCapture.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"
#include "vok/VokKvClient.h"

namespace vok {
namespace {

using Clock = std::chrono::steady_clock;
using test::FakeService;
using test::PowerDaemon;
using test::Pump;
using ::testing::MatchesRegex;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class AlarmTest : public ::testing::Test {
  protected:
    VokKvClient* Power() { return RdKelvraUtils::GetVokKvClient(dispatcher_, "com.orvex.power"); }
    void WaitForPower(bool up) {
        Pump(dispatcher_, [&]() { return Power()->IsConnected() == up; });
    }

    test::Watchdog watchdog_{std::chrono::seconds(180)};
    RuntimeDispatcher dispatcher_;
    int fired_ = 0;
};

TEST(AlarmRelativeTimeTest, IntervalsBecomeHoursMinutesSeconds) {
    EXPECT_EQ("00:00:00", RdAlarmImpl::RelativeTime(500));
    EXPECT_EQ("00:00:59", RdAlarmImpl::RelativeTime(59999));
    EXPECT_EQ("00:01:30", RdAlarmImpl::RelativeTime(90500));
    EXPECT_EQ("01:00:00", RdAlarmImpl::RelativeTime(3600000));
    EXPECT_EQ("23:59:59", RdAlarmImpl::RelativeTime(100000000));
}

TEST_F(AlarmTest, WithoutThePowerServiceTheTimerFiresIt) {
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    const Clock::time_point start = Clock::now();
    alarm.Schedule(300);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_GE(MsSince(start), 300);
    test::PumpFor(dispatcher_, 100);
    EXPECT_EQ(1, fired_);
}

TEST_F(AlarmTest, FiresThroughThePowerService) {
    PowerDaemon powerd;
    powerd.Start();
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    alarm.Schedule(1000);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_TRUE(powerd.WaitForLine("alarmAdd id=1 relative_time=00:00:01 subscribed=1"));
    EXPECT_TRUE(powerd.WaitForLine("fired id=1"));
}

TEST_F(AlarmTest, PowerServiceDeathMovesTheAlarmToTheTimerWithItsFullInterval) {
    PowerDaemon powerd;
    powerd.Start();
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    alarm.Schedule(1500);
    ASSERT_TRUE(powerd.WaitForLine("alarmAdd id=1"));
    powerd.Kill();
    WaitForPower(false);
    const Clock::time_point moved = Clock::now();
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_GE(MsSince(moved), 1400);  // the whole interval again, measured from the move
}

TEST_F(AlarmTest, PowerServiceStartMovesAScheduledAlarmBack) {
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    alarm.Schedule(4000);  // on the timer: no power service yet
    PowerDaemon powerd;
    powerd.Start();
    WaitForPower(true);
    ASSERT_TRUE(powerd.WaitForLine("alarmAdd id=1 relative_time=00:00:04"));
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_TRUE(powerd.WaitForLine("fired id=1"));
}

TEST_F(AlarmTest, CancelBeforeTheIdArrivedRemovesThatAlarmAtTheService) {
    PowerDaemon powerd;
    powerd.Start();
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    powerd.WakeOnLine(RuntimeDispatcher::GetImpl(dispatcher_)->GetContext());
    alarm.Schedule(30000);
    alarm.Cancel();  // the add request's reply has not arrived yet
    Pump(dispatcher_, [&]() { return powerd.HasLine("alarmRemove id=1"); });
    EXPECT_EQ(0, fired_);
}

TEST_F(AlarmTest, PowerServiceAnswersMalformedRequestsAndKeepsServing) {
    PowerDaemon powerd;
    powerd.Start();
    std::vector<std::string> replies;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_),
                  [&](KVMessage* reply) { replies.push_back(KVMessageGetPayload(reply)); });
    const struct {
        const char* method;
        const char* payload;
    } bad[] = {
        {"time/alarmAdd", "{\"relative_time\":\"1:2\"}"},
        {"time/alarmAdd", "{\"relative_time\":\"24:00:00\"}"},
        {"time/alarmAdd", "{\"relative_time\":5}"},
        {"time/alarmRemove", "{\"alarmId\":\"x\"}"},
        {"time/alarmRemove", "{\"alarmId\":12345}"},
    };
    for (const auto& request : bad) {
        replies.clear();
        call.Call("com.orvex.power", request.method, request.payload);
        Pump(dispatcher_, [&]() { return !replies.empty(); });
        EXPECT_THAT(replies[0], MatchesRegex(".*\"returnValue\": *false.*\"errorCode\": *[0-9]+.*"
                                             "\"errorText\": *\".+\".*"))
            << request.payload;
    }
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    alarm.Schedule(500);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    EXPECT_TRUE(powerd.WaitForLine("fired id=1"));
}

TEST_F(AlarmTest, RejectedAddFallsBackToTheTimer) {
    FakeService power(dispatcher_, "com.orvex.power");
    power.AddMethod("time/alarmAdd", [](const std::string&) {
        return std::vector<std::string>{
            "{\"returnValue\":false,\"errorCode\":1,\"errorText\":\"no\"}"};
    });
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    alarm.Schedule(200);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
    ASSERT_EQ(1u, power.Requests("time/alarmAdd").size());
    EXPECT_EQ("{\"subscribe\":true, \"key\":\"com.orvex.vok\",\"relative_time\":\"00:00:00\"}",
              power.Requests("time/alarmAdd")[0]);
}

TEST_F(AlarmTest, MalformedRepliesRaiseAndLeaveTheAlarmUsable) {
    std::vector<std::string> next;
    FakeService power(dispatcher_, "com.orvex.power");
    power.AddMethod("time/alarmAdd", [&](const std::string&) { return next; });
    power.AddMethod("time/alarmRemove",
                    [](const std::string&) { return std::vector<std::string>{"{}"}; });
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    const struct {
        std::vector<std::string> replies;
        const char* function;
        const char* text;
    } cases[] = {
        {{"not json"}, "AlarmCallbackFunc", "bad json string"},
        {{"{\"returnValue\":1}"}, "AlarmCallbackFunc", "bad returnValue type"},
        {{"{\"alarmId\":\"7\"}"}, "AlarmCallbackFunc", "bad alarmId type"},
        {{"{\"returnValue\":true,\"alarmId\":7}", "{\"alarmId\":7,\"fired\":1}"},
         "HasFired",
         "bad fired type"},
    };
    for (const auto& c : cases) {
        next = c.replies;
        alarm.Schedule(60000);
        try {
            Pump(
                dispatcher_, [] { return false; }, 10);
            ADD_FAILURE() << "no exception for " << c.text;
        } catch (const VokProgramErrorException& e) {
            EXPECT_EQ(kVokErrFailed, e.GetErr());
            EXPECT_THAT(e.what(), MatchesRegex(std::string(c.function) +
                                               ":Src/Utils/RuntimeDispatcher/Linux/RdAlarmImpl:"
                                               "[0-9]+:" +
                                               c.text));
        }
        alarm.Cancel();
    }
    // Still usable: a good exchange fires it.
    next = {"{\"returnValue\":true,\"alarmId\":9}",
            "{\"returnValue\":true,\"alarmId\":9,\"fired\":true}"};
    alarm.Schedule(60000);
    Pump(dispatcher_, [&]() { return fired_ == 1; });
}

TEST_F(AlarmTest, FiredNotificationForAnotherIdIsIgnored) {
    FakeService power(dispatcher_, "com.orvex.power");
    power.AddMethod("time/alarmAdd", [](const std::string&) {
        return std::vector<std::string>{"{\"returnValue\":true,\"alarmId\":3}",
                                        "{\"returnValue\":true,\"alarmId\":4,\"fired\":true}", ""};
    });
    RdAlarmBase alarm(dispatcher_, [&]() { ++fired_; });
    WaitForPower(true);
    alarm.Schedule(60000);
    Pump(dispatcher_, [&]() { return power.Requests("time/alarmAdd").size() == 1; });
    test::PumpFor(dispatcher_, 200);
    EXPECT_EQ(0, fired_);
}

}  // namespace
}  // namespace vok
