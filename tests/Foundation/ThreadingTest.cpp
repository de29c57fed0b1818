// Mutex, Event and Thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "support/LogCapture.h"
#include "vok/Event.h"
#include "vok/Mutex.h"
#include "vok/Thread.h"
#include "vok/VokError.h"

namespace vok {
namespace {

using test::Watchdog;

// Runs a lambda on a vok::Thread.
class LambdaRunner {
public:
    explicit LambdaRunner(std::function<void()> fn)
        : fn_(std::move(fn)), thread_("runner", this, &LambdaRunner::Run, static_cast<void*>(nullptr)) {}
    void Start() { thread_.Start(); }
    void Join() { thread_.Join(); }

private:
    void Run(void*) { fn_(); }
    std::function<void()> fn_;
    Thread thread_;
};

TEST(MutexTest, RecursiveOnOneThreadAndExclusiveAcrossThreads) {
    Watchdog watchdog;
    Mutex mutex;
    Event tryingToLock;
    std::atomic<bool> acquired(false);
    mutex.Lock();
    mutex.Lock();  // Recursive: does not deadlock.
    LambdaRunner other([&]() {
        tryingToLock.Signal();
        MutexLocker lock(mutex);
        acquired = true;
    });
    other.Start();
    tryingToLock.Wait();
    mutex.Unlock();
    // Still held once: the other thread cannot have the lock yet.
    EXPECT_FALSE(acquired.load());
    mutex.Unlock();
    other.Join();
    EXPECT_TRUE(acquired.load());
}

TEST(MutexTest, UnlockByNonOwnerIsReportedAsResourceError) {
    // A recursive mutex reports EPERM when a thread that does not hold it unlocks it.
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer stops at the deliberate misuse itself";
#endif
    Mutex mutex;
    try {
        mutex.Unlock();
        FAIL() << "no exception";
    } catch (const VokResourceException& e) {
        EXPECT_EQ(EPERM, e.GetErr());
        EXPECT_THAT(e.what(), ::testing::MatchesRegex("Unlock:Src/Utils/Linux/MutexImpl:[0-9]+"));
    }
}

TEST(EventTest, SignalWakesEveryWaiterAndStaysSignalledUntilReset) {
    Watchdog watchdog;
    Event event;
    const int kWaiters = 4;
    std::atomic<int> woken(0);
    std::vector<std::unique_ptr<LambdaRunner>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back(new LambdaRunner([&]() {
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

TEST(EventTest, ResetMakesWaitBlockUntilTheNextSignal) {
    Watchdog watchdog;
    Event event;
    Event waiterStarted;
    std::atomic<bool> passed(false);
    event.Signal();
    event.Reset();
    LambdaRunner waiter([&]() {
        waiterStarted.Signal();
        event.Wait();
        passed = true;
    });
    waiter.Start();
    waiterStarted.Wait();
    EXPECT_FALSE(passed.load());
    event.Signal();
    waiter.Join();
    EXPECT_TRUE(passed.load());
}

TEST(ThreadTest, RunsBoundMemberFunctionWithItsArgument) {
    struct Target {
        void Run(int* out) { *out = 42; }
    } target;
    int result = 0;
    Thread thread("worker", &target, &Target::Run, &result);
    EXPECT_EQ("worker", thread.GetName());
    thread.Start();
    thread.Join();
    EXPECT_EQ(42, result);
}

TEST(ThreadTest, JoinWithoutRunningThreadIsProgramError) {
    struct Target {
        void Run(void*) {}
    } target;
    Thread thread("idle", &target, &Target::Run, static_cast<void*>(nullptr));
    try {
        thread.Join();
        FAIL() << "no exception";
    } catch (const VokProgramErrorException& e) {
        EXPECT_EQ(kVokErrFailed, e.GetErr());
        EXPECT_THAT(e.what(), ::testing::MatchesRegex("Join:Src/Utils/Linux/ThreadImpl:[0-9]+"));
    }
    thread.Start();
    thread.Join();
    // Joined once already.
    EXPECT_THROW(thread.Join(), VokProgramErrorException);
}

}  // namespace
}  // namespace vok
