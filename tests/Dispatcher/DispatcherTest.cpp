// The dispatcher's loop: running, stopping, and the context it owns.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/Event.h"
#include "vok/Logger.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

// Still alive with the caller's reference (a use after free for the sanitizers otherwise).
TEST(DispatcherTest, CallerContextSurvivesTheDispatcher) {
    GMainContext* context = g_main_context_new();
    { GlibRuntimeDispatcher dispatcher(context); }
    g_main_context_iteration(context, FALSE);
    g_main_context_unref(context);
}

// A stop before Run is lost; a nested Run returns at once; a stop from another thread works.
TEST(DispatcherTest, RequestStopEndsOnlyARunningLoop) {
    test::Watchdog watchdog;
    RuntimeDispatcher dispatcher;
    dispatcher.RequestStop();
    bool nestedReturned = false;
    RdTimerBase timer(dispatcher, [&]() {
        dispatcher.Run();
        nestedReturned = true;
        dispatcher.RequestStop();
    });
    timer.Schedule(20);
    dispatcher.Run();
    EXPECT_TRUE(nestedReturned);
    Event running;
    timer.ChangeCb([&]() { running.Signal(); });
    timer.Schedule(0);
    std::thread stopper([&]() {
        running.Wait();
        dispatcher.RequestStop();
    });
    dispatcher.Run();
    stopper.join();
}

// Posted closures run in order on the dispatcher's thread; a target outlives its dispatcher,
// whose pending closures die unrun.
TEST(DispatcherTest, PostedClosuresRunOnTheDispatcherThreadOrDieUnrun) {
    test::Watchdog watchdog;
    std::unique_ptr<RuntimeDispatcher> dispatcher(new RuntimeDispatcher);
    const RdPostTarget target = dispatcher->GetPostTarget();
    std::vector<int> ran;
    std::thread::id ranOn;
    std::thread poster([&]() {
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(target.Post([&, i]() {
                ran.push_back(i);
                ranOn = std::this_thread::get_id();
            }));
        }
        EXPECT_TRUE(dispatcher->Post([&]() { dispatcher->RequestStop(); }));
    });
    poster.join();
    dispatcher->Run();  // returns at the posted stop, after the 100 closures
    EXPECT_EQ(100u, ran.size());
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
    EXPECT_EQ(std::this_thread::get_id(), ranOn);

    auto witness = std::make_shared<int>(0);
    std::weak_ptr<int> pending = witness;
    EXPECT_TRUE(target.Post([witness, &ran]() { ran.push_back(-1); }));
    witness.reset();
    dispatcher.reset();
    EXPECT_TRUE(pending.expired());
    auto late = std::make_shared<int>(0);
    std::weak_ptr<int> refused = late;
    EXPECT_FALSE(target.Post([late]() {}));
    late.reset();
    EXPECT_TRUE(refused.expired());
    EXPECT_EQ(100u, ran.size());
    EXPECT_FALSE(RdPostTarget().Post([]() {}));
}

// Run rethrows the first exception and logs a second of the same iteration as critical; a stepped
// loop hands them to its handler. Nothing is left over for a later Run.
TEST(DispatcherExceptionTest, SecondExceptionBeforeRunReturnsIsLoggedAtCriticalLevel) {
    test::Watchdog watchdog;
    test::LogCapture capture;
    RuntimeDispatcher dispatcher;
    RdTimerBase first(dispatcher, []() { throw std::runtime_error("first"); });
    RdTimerBase second(dispatcher, []() { throw std::runtime_error("second"); });
    RdTimerBase stop(dispatcher, [&]() { dispatcher.RequestStop(); });
    first.Schedule(0);
    second.Schedule(0);
    std::string thrown;
    try {
        dispatcher.Run();
    } catch (const std::runtime_error& e) {
        thrown = e.what();
    }
    ASSERT_TRUE(thrown == "first" || thrown == "second") << thrown;
    auto lines = capture.Matching(thrown == "first" ? ": second" : ": first");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kLogLevelCritical, lines[0].level);
    EXPECT_EQ("VOK.Dispatcher", lines[0].context);
    stop.Schedule(0);
    EXPECT_NO_THROW(dispatcher.Run());

    std::vector<std::string> handled;
    dispatcher.SetExceptionHandler([&](std::exception_ptr exception) {
        try {
            std::rethrow_exception(exception);
        } catch (const std::exception& e) {
            handled.push_back(e.what());
        }
    });
    first.Schedule(0);
    test::Drain(dispatcher);
    EXPECT_EQ(std::vector<std::string>{"first"}, handled);
    stop.Schedule(0);
    EXPECT_NO_THROW(dispatcher.Run());
}

// The default handler of a loop the application steps itself.
TEST(DispatcherDeathTest, ExceptionWithNobodyToTakeItIsLoggedAndAborts) {
    EXPECT_DEATH(
        {
            RuntimeDispatcher dispatcher;
            RdTimerBase thrower(dispatcher, []() { throw std::runtime_error("stepped alone"); });
            thrower.Schedule(0);
            test::Drain(dispatcher);
        },
        "crit \\[VOK.Dispatcher\\] .*: stepped alone");
}

}  // namespace
}  // namespace vok
