// Mutex, Event and Thread.
#include <gtest/gtest.h>

#include <pthread.h>
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
    // Updates are lost if the lock excluded nothing or the inner unlock released it.
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
    // Unlocked by a thread that does not hold it (ThreadSanitizer stops at the misuse itself).
#if !defined(__SANITIZE_THREAD__)
    try {
        mutex.Unlock();
        FAIL() << "no exception";
    } catch (const VokResourceException& e) {
        EXPECT_EQ(EPERM, e.GetErr());
    }
#endif
}

struct ThreadFacts {
    std::string osName;
    size_t stackBytes = 0;
};

// What a thread of this name (and stack size unless 0) sees of itself.
ThreadFacts RunThread(const std::string& name, size_t bytes = 0) {
    ThreadFacts facts;
    ThreadBase thread(name, [&facts]() {
        char osName[16] = {};
        pthread_getname_np(pthread_self(), osName, sizeof osName);
        facts.osName = osName;
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &facts.stackBytes);
        pthread_attr_destroy(&attr);
    });
    if (bytes != 0) {
        thread.SetStackSize(bytes);
    }
    thread.Start();
    thread.Join();
    return facts;
}

// Threads used to run unnamed (shown as the process) on the C library's 8 MiB stacks.
TEST(ThreadTest, OsSeesTheNameCutTo15BytesAndTheChosenStackSize) {
    const ThreadFacts facts = RunThread("sensor-aggregator-main");
    EXPECT_EQ("sensor-aggregat", facts.osName);
    // Far below the C library's 8 MiB (a cached stack may be up to four times the size asked for).
    EXPECT_GE(facts.stackBytes, kVokDefaultThreadStackBytes);
    EXPECT_LE(facts.stackBytes, 2u * 1024 * 1024);
    // A UTF-8 character is never cut in two: byte 15 would split the fourth "\xc3\xa4".
    EXPECT_EQ("sensors-\xc3\xa4\xc3\xa4\xc3\xa4",
              RunThread("sensors-\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4").osName);
    EXPECT_EQ("tiny", RunThread("tiny", 1).osName);  // Raised to the system's minimum.
    EXPECT_THROW(ThreadBase("never", []() {}).Join(), VokProgramErrorException);
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

// Destroyed while its thread runs: joined after a critical line, not left with a freed callable.
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
