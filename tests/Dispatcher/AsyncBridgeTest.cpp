// The async bridge: coalescing, cross-thread triggers, destruction with a pending run.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/Event.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

class AsyncBridgeTest : public ::testing::Test {
  protected:
    void Drain() { test::Drain(dispatcher_); }
    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
};

// Triggers from another thread before the loop runs give one run; two made inside the callback
// give one more; a destroyed bridge never runs its pending callback.
TEST_F(AsyncBridgeTest, TriggersCoalesceIntoOneRun) {
    int runs = 0;
    std::unique_ptr<RdAsyncBridge> bridge;
    bridge.reset(new RdAsyncBridge(dispatcher_, [&]() {
        if (++runs == 2) {
            bridge->Trigger();
            bridge->Trigger();
        }
    }));
    std::thread other([&]() {
        for (int i = 0; i < 10; ++i) {
            bridge->Trigger();
        }
    });
    other.join();
    Drain();
    EXPECT_EQ(1, runs);
    bridge->Trigger();
    Drain();
    EXPECT_EQ(3, runs);
    bridge->Trigger();
    bridge.reset();
    Drain();
    EXPECT_EQ(3, runs);
}

// Each thread counts before triggering; the last run must see every count.
TEST_F(AsyncBridgeTest, EveryTriggerFromManyThreadsIsCoveredByARun) {
    const int kThreads = 4;
    const int kTriggers = 2000;
    std::atomic<int> produced(0);
    int seen = 0;
    RdAsyncBridge bridge(dispatcher_, [&]() {
        seen = produced.load();
        if (seen == kThreads * kTriggers) {
            dispatcher_.RequestStop();
        }
    });
    // Writers start from inside the loop, or the stop might come before Run.
    std::vector<std::thread> threads;
    Event go;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&]() {
            go.Wait();
            for (int i = 0; i < kTriggers; ++i) {
                ++produced;
                bridge.Trigger();
            }
        });
    }
    RdTimerBase release(dispatcher_, [&]() { go.Signal(); });
    release.Schedule(0);
    dispatcher_.Run();
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kThreads * kTriggers, seen);
}

// A trigger from another thread wakes the loop once (not twice, as a source with a descriptor of
// its own would).
TEST_F(AsyncBridgeTest, EachTriggerFromAnotherThreadWakesTheLoopOnce) {
    const int kHops = 50;
    Event ran;
    int runs = 0;
    RdAsyncBridge bridge(dispatcher_, [&]() {
        ++runs;
        ran.Signal();
    });
    const int polls = test::CountPollsOverHops(dispatcher_, kHops, [&]() {
        bridge.Trigger();
        ran.Wait();
        ran.Reset();
    });
    EXPECT_EQ(kHops, runs);
    // One per trigger, and at most three for starting and stopping.
    EXPECT_GE(polls, kHops);
    EXPECT_LE(polls, kHops + 3);
}

}  // namespace
}  // namespace vok
