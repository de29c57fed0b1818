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

// Triggers from another thread before the loop runs give one run; a destroyed bridge never runs
// its pending callback.
TEST_F(AsyncBridgeTest, TriggersBeforeTheLoopRunsCoalesceIntoOneRun) {
    int runs = 0;
    auto bridge = std::make_unique<RdAsyncBridge>(dispatcher_, [&]() { ++runs; });
    std::thread other([&]() {
        for (int i = 0; i < 10; ++i) {
            bridge->Trigger();
        }
    });
    other.join();
    Drain();
    EXPECT_EQ(1, runs);
    Drain();
    EXPECT_EQ(1, runs);
    bridge->Trigger();
    bridge.reset();
    Drain();
    EXPECT_EQ(1, runs);
}

TEST_F(AsyncBridgeTest, ChangeCbAndTriggersInsideTheCallback) {
    // The running callable lives until it returns; two triggers made inside it give one run.
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> captured = token;
    bool aliveAfterChange = false;
    int second = 0;
    std::unique_ptr<RdAsyncBridge> bridge;
    bridge.reset(new RdAsyncBridge(dispatcher_, [&, token]() {
        bridge->ChangeCb([&]() { ++second; });
        aliveAfterChange = !captured.expired();
        bridge->Trigger();
        bridge->Trigger();
    }));
    token.reset();
    bridge->Trigger();
    Drain();
    EXPECT_TRUE(aliveAfterChange);
    EXPECT_TRUE(captured.expired());
    EXPECT_EQ(1, second);
}

TEST_F(AsyncBridgeTest, EveryTriggerFromManyThreadsIsCoveredByARun) {
    // Each thread records a sequence number before triggering; the last run must see them all.
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
    // The writers start from inside the loop: it must already run when the last trigger
    // arrives, or the stop would be lost.
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

// A trigger from another thread wakes the loop once: one poll returns and the callback runs.
// A source that owned a descriptor of its own would cost a second, empty wake-up per trigger,
// as GLib takes the descriptor out of the poll while the source dispatches and puts it back.
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
    // One per trigger, and at most three more for starting and stopping.
    EXPECT_GE(polls, kHops);
    EXPECT_LE(polls, kHops + 3);
}

}  // namespace
}  // namespace vok
