// The dispatcher's loop: running, stopping, and the context it owns.
#include <glib.h>
#include <gtest/gtest.h>

#include <thread>

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "support/LogCapture.h"
#include "vok/Event.h"
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

}  // namespace
}  // namespace vok
