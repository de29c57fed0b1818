// Mutex, Event and Thread.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "vok/Event.h"
#include "vok/Mutex.h"
#include "vok/Thread.h"
#include "vok/VokError.h"

namespace vok {
namespace {

using test::Watchdog;

TEST(MutexTest, RecursiveOnOneThreadExclusiveAcrossThreadsAndOwned) {
    // Each thread takes the lock twice, reads a plain counter, lets go once, yields and writes
    // it back: if the lock excluded nothing, or the inner unlock released it, updates are lost.
    Watchdog watchdog;
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

TEST(EventTest, SignalWakesEveryWaiterAndStaysSignalledUntilReset) {
    Watchdog watchdog;
    Event event;
    const int kWaiters = 4;
    std::atomic<int> woken(0);
    std::vector<std::unique_ptr<ThreadBase>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back(new ThreadBase("waiter", [&]() {
            event.Wait();
            ++woken;
        }));
        waiters.back()->Start();
    }
    event.Signal();
    for (auto& waiter : waiters) {
        waiter->Join();
    }
    EXPECT_EQ(kWaiters, woken.load());
    // Still signalled: both waits return at once.
    event.Wait();
    event.Wait();
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

TEST(ThreadTest, RunsTheBoundMemberWithItsArgumentAndJoinsOnce) {
    struct Target {
        void Run(int* out) { *out = 42; }
    } target;
    int result = 0;
    Thread thread("worker", &target, &Target::Run, &result);
    try {
        thread.Join();  // Never started.
        FAIL() << "no exception";
    } catch (const VokProgramErrorException& e) {
        EXPECT_EQ(kVokErrFailed, e.GetErr());
    }
    thread.Start();
    thread.Join();
    EXPECT_EQ(42, result);
    EXPECT_THROW(thread.Join(), VokProgramErrorException);  // Joined already.
}

TEST(ThreadDeathTest, ExceptionLeavingTheEntryIsLoggedWithTheThreadName) {
    EXPECT_DEATH(
        {
            ThreadBase thrower("runner", []() { throw std::runtime_error("boom"); });
            thrower.Start();
            thrower.Join();
        },
        "crit \\[VOK.Thread\\] .*Thread <runner> ended by an exception: boom");
}

}  // namespace
}  // namespace vok
