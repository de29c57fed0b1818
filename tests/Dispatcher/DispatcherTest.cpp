// The dispatcher's loop: running, stopping, and the context it owns.
#include <glib.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "support/LogCapture.h"
#include "vok/Event.h"
#include "vok/Logger.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

TEST(DispatcherTest, CallerContextSurvivesTheDispatcher) {
    GMainContext* context = g_main_context_new();
    {
        GlibRuntimeDispatcher dispatcher(context);
        EXPECT_EQ(context, RuntimeDispatcher::GetImpl(dispatcher)->GetContext());
        EXPECT_EQ(context, g_main_loop_get_context(RuntimeDispatcher::GetInternalLoop(dispatcher)));
    }
    // Still alive with the caller's reference: usable, and the sanitizer run would see a
    // use after free otherwise.
    g_main_context_iteration(context, FALSE);
    g_main_context_unref(context);

    GlibRuntimeDispatcher privateContext(nullptr);
    EXPECT_NE(nullptr, RuntimeDispatcher::GetImpl(privateContext)->GetContext());
}

TEST(DispatcherTest, RunInsideRunReturnsAtOnceAndRequestStopEndsIt) {
    test::Watchdog watchdog;
    RuntimeDispatcher dispatcher;
    bool nestedReturned = false;
    RdTimerBase timer(dispatcher, [&]() {
        dispatcher.Run();  // Already running: returns at once.
        nestedReturned = true;
        dispatcher.RequestStop();
    });
    timer.Schedule(0);
    dispatcher.Run();
    EXPECT_TRUE(nestedReturned);
}

TEST(DispatcherTest, StopRequestedBeforeRunIsLost) {
    test::Watchdog watchdog;
    RuntimeDispatcher dispatcher;
    dispatcher.RequestStop();
    bool fired = false;
    RdTimerBase timer(dispatcher, [&]() {
        fired = true;
        dispatcher.RequestStop();
    });
    timer.Schedule(20);
    dispatcher.Run();  // Would return at once if the early stop had counted.
    EXPECT_TRUE(fired);
    // The loop may run again after a stop.
    fired = false;
    timer.Schedule(0);
    dispatcher.Run();
    EXPECT_TRUE(fired);
}

TEST(DispatcherTest, RequestStopFromAnotherThread) {
    test::Watchdog watchdog;
    RuntimeDispatcher dispatcher;
    Event running;
    RdTimerBase timer(dispatcher, [&]() { running.Signal(); });
    timer.Schedule(0);
    std::thread stopper([&]() {
        running.Wait();
        dispatcher.RequestStop();
    });
    dispatcher.Run();
    stopper.join();
}

std::string TextOf(std::exception_ptr exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        return e.what();
    }
}

TEST(DispatcherExceptionTest, SecondExceptionBeforeRunReturnsIsLoggedAtCriticalLevel) {
    test::Watchdog watchdog;
    test::LogCapture capture;
    RuntimeDispatcher dispatcher;
    // Both expire in the same iteration, so both run before the loop can stop.
    RdTimerBase first(dispatcher, []() { throw std::runtime_error("first"); });
    RdTimerBase second(dispatcher, []() { throw std::runtime_error("second"); });
    first.Schedule(0);
    second.Schedule(0);
    std::string thrown;
    try {
        dispatcher.Run();
    } catch (const std::runtime_error& e) {
        thrown = e.what();
    }
    ASSERT_TRUE(thrown == "first" || thrown == "second") << thrown;
    const std::string dropped = thrown == "first" ? "second" : "first";
    auto lines = capture.Matching(": " + dropped);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kLogLevelCritical, lines[0].level);
    EXPECT_EQ("VOK.Dispatcher", lines[0].context);
    // Nothing is left over: the loop runs again normally.
    RdTimerBase stop(dispatcher, [&]() { dispatcher.RequestStop(); });
    stop.Schedule(0);
    EXPECT_NO_THROW(dispatcher.Run());
}

TEST(DispatcherExceptionTest, LoopSteppedByTheApplicationHandsExceptionsToItsHandler) {
    test::Watchdog watchdog;
    RuntimeDispatcher dispatcher;
    std::vector<std::string> handled;
    dispatcher.SetExceptionHandler(
        [&](std::exception_ptr exception) { handled.push_back(TextOf(exception)); });
    RdTimerBase thrower(dispatcher, []() { throw std::runtime_error("stepped"); });
    thrower.Schedule(0);
    g_main_context_iteration(RuntimeDispatcher::GetImpl(dispatcher)->GetContext(), FALSE);
    EXPECT_EQ(std::vector<std::string>{"stepped"}, handled);
    // Nothing stale is left for a later Run.
    RdTimerBase stop(dispatcher, [&]() { dispatcher.RequestStop(); });
    stop.Schedule(0);
    EXPECT_NO_THROW(dispatcher.Run());
}

TEST(DispatcherDeathTest, ExceptionWithNobodyToTakeItIsLoggedAndAborts) {
    // The default handler of a loop the application steps itself.
    EXPECT_DEATH(
        {
            RuntimeDispatcher dispatcher;
            RdTimerBase thrower(dispatcher, []() { throw std::runtime_error("stepped alone"); });
            thrower.Schedule(0);
            g_main_context_iteration(RuntimeDispatcher::GetImpl(dispatcher)->GetContext(), FALSE);
        },
        "crit \\[VOK.Dispatcher\\] .*: stepped alone");
    // A bus callback of a handle that no dispatcher registered.
    EXPECT_DEATH(RuntimeDispatcherImpl::RunGuardedOn(
                     nullptr, []() { throw std::runtime_error("no dispatcher"); }),
                 "crit \\[VOK.Dispatcher\\] .*: no dispatcher");
}

}  // namespace
}  // namespace vok
