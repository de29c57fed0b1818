// Mutex, Event and Thread.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include "support/LogCapture.h"
#include "vok/Event.h"
#include "vok/Mutex.h"
#include "vok/Thread.h"
#include "vok/VokError.h"

namespace vok {
namespace {

TEST(MutexTest, RecursiveOnOneThreadExclusiveAcrossThreadsAndOwned) {
    // Each thread takes the lock twice, reads a plain counter, lets go once, yields and writes
    // it back: if the lock excluded nothing, or the inner unlock released it, updates are lost.
    test::Watchdog watchdog;
    Mutex mutex;
    int counter = 0;
    const int kRounds = 2000;
    auto work = [&]() {
        for (int i = 0; i < kRounds; ++i) {
            MutexLocker outer(mutex);
            int value;
            {
                MutexLocker inner(mutex);
                value = counter;
            }
            std::this_thread::yield();
            counter = value + 1;
        }
    };
    ThreadBase first("first", work);
    ThreadBase second("second", work);
    first.Start();
    second.Start();
    first.Join();
    second.Join();
    EXPECT_EQ(2 * kRounds, counter);
    // Unlocked by a thread that does not hold it, it reports EPERM. ThreadSanitizer stops at the
    // deliberate misuse itself.
#if !defined(__SANITIZE_THREAD__)
    try {
        mutex.Unlock();
        FAIL() << "no exception";
    } catch (const VokResourceException& e) {
        EXPECT_EQ(EPERM, e.GetErr());
    }
#endif
}

TEST(EventDeathTest, WaitAfterResetBlocksUntilTheNextSignal) {
    // Only the alarm ends the wait; a Reset that did nothing would let it return and exit.
    EXPECT_EXIT(
        {
            Event event;
            event.Signal();
            event.Reset();
            alarm(1);
            event.Wait();
            std::_Exit(0);
        },
        ::testing::KilledBySignal(SIGALRM), "");
}

// The owner destroys the thread object while its thread still runs: the thread is joined after
// a critical line, instead of going on with a callable that has been freed.
TEST(ThreadTest, DestroyedWhileRunningJoinsTheThreadFirst) {
    test::Watchdog watchdog;
    test::LogCapture capture;
    Event release;
    bool ended = false;
    auto thread = std::make_unique<ThreadBase>("busy", [&] {
        release.Wait();
        ended = true;
    });
    thread->Start();
    std::thread releaser([&] {
        EXPECT_TRUE(capture.WaitFor("Thread <busy> destroyed while its thread runs"));
        release.Signal();
    });
    thread.reset();
    EXPECT_TRUE(ended);
    releaser.join();
}

}  // namespace
}  // namespace vok
