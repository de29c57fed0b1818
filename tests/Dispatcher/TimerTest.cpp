// The timer source and one-shot timers.
#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>

#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"

namespace vok {
namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class TimerTest : public ::testing::Test {
  protected:
    GMainContext* Context() { return test::ContextOf(dispatcher_); }
    void Step() { g_main_context_iteration(Context(), FALSE); }

    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
};

TEST_F(TimerTest, SecondScheduleReplacesTheFirstNeverEarlyAndCancelDisarms) {
    std::vector<long long> fired;
    const Clock::time_point start = Clock::now();
    RdTimerBase timer(dispatcher_, [&]() { fired.push_back(MsSince(start)); });
    timer.Schedule(0);
    timer.Schedule(120);
    test::Pump(dispatcher_, [&]() { return !fired.empty(); });
    EXPECT_GE(fired[0], 120);

    timer.Schedule(0);
    timer.Cancel();
    timer.Cancel();  // idle: nothing happens
    Step();
    EXPECT_EQ(1u, fired.size());
}

TEST_F(TimerTest, CallbackMayRearmOrDestroyItsTimer) {
    int count = 0;
    std::unique_ptr<RdTimerBase> timer;
    timer.reset(new RdTimerBase(dispatcher_, [&]() {
        if (++count < 3) {
            timer->Schedule(0);
        } else {
            timer.reset();
        }
    }));
    timer->Schedule(0);
    for (int i = 0; i < 5; ++i) {
        Step();
    }
    EXPECT_EQ(3, count);
    EXPECT_EQ(nullptr, timer);

    // An empty callback raises out of Run; the timer may be destroyed afterwards.
    auto empty = std::make_unique<RdTimerBase>(dispatcher_, std::function<void()>());
    empty->Schedule(0);
    EXPECT_THROW(dispatcher_.Run(), std::bad_function_call);
    empty.reset();
}

TEST_F(TimerTest, ChangeCbKeepsTheArmingAndMayRunInsideTheCallback) {
    int first = 0;
    int second = 0;
    RdTimerBase timer(dispatcher_, [&]() { ++first; });
    timer.Schedule(0);
    timer.ChangeCb([&]() { ++second; });
    Step();
    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);

    // Replaced from inside its own call: the running callable lives until the dispatch returns.
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> captured = token;
    bool aliveAfterChange = false;
    timer.ChangeCb([&, token]() {
        timer.ChangeCb([&]() { ++second; });
        aliveAfterChange = !captured.expired();
        timer.Schedule(0);
    });
    token.reset();
    timer.Schedule(0);
    Step();
    EXPECT_TRUE(aliveAfterChange);
    EXPECT_TRUE(captured.expired());
    Step();
    EXPECT_EQ(2, second);
}

// Beats stay on the grid start + k * period whatever the callback costs; missed ones are skipped.
TEST_F(TimerTest, PeriodicTimerKeepsItsRateAndSkipsMissedBeats) {
    const long long kPeriod = 500;
    std::vector<long long> fired;
    const Clock::time_point start = Clock::now();
    RdTimerBase timer(dispatcher_, [&]() {
        fired.push_back(MsSince(start));
        // Work: 100 ms at the first beats, one and a half periods at the fifth.
        const long long workMs = fired.size() < 4 ? 100 : fired.size() == 5 ? 750 : 0;
        while (MsSince(start) < fired.back() + workMs) {
        }
        if (fired.size() == 7) {
            timer.Cancel();
        }
    });
    timer.SchedulePeriodic(kPeriod);
    test::Pump(dispatcher_, [&]() { return fired.size() == 7; });
    for (size_t k = 0; k < 4; ++k) {
        EXPECT_GE(fired[k], kPeriod * static_cast<long long>(k + 1)) << "beat " << k;
    }
    // Drifting by the 100 ms of work per beat would put the fourth beat at 2300 ms or later.
    EXPECT_LT(fired[3], 2250);
    // The fifth beat's work ends past the sixth grid point: the next beat is on the grid after it.
    const long long afterWork = fired[4] + 750;
    EXPECT_GE(fired[5], ((afterWork - 1) / kPeriod + 1) * kPeriod);
    EXPECT_GE(fired[6] - fired[5], kPeriod / 2);
    Step();
    EXPECT_EQ(7u, fired.size());

    timer.SchedulePeriodic(kPeriod);
    timer.Schedule(0);  // one shot again
    test::Pump(dispatcher_, [&]() { return fired.size() == 8; });
    EXPECT_THROW(timer.SchedulePeriodic(0), VokProgramErrorException);
}

int gPolls = 0;
GPollFunc gRealPoll = nullptr;
gint CountingPoll(GPollFD* fds, guint nfds, gint timeout) {
    ++gPolls;
    return gRealPoll(fds, nfds, timeout);
}

TEST_F(TimerTest, PendingTimerDoesNotWakeTheLoopEveryMillisecond) {
    gRealPoll = g_main_context_get_poll_func(Context());
    g_main_context_set_poll_func(Context(), &CountingPoll);
    RdTimerBase far(dispatcher_, []() {});
    far.Schedule(10000);
    bool done = false;
    RdTimerBase stop(dispatcher_, [&]() { done = true; });
    stop.Schedule(500);
    gPolls = 0;
    test::Pump(dispatcher_, [&]() { return done; });
    // Polling every millisecond would give about 500.
    EXPECT_LE(gPolls, 10);
    g_main_context_set_poll_func(Context(), gRealPoll);
}

}  // namespace
}  // namespace vok
