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

struct ThreadFacts {
    std::string osName;
    size_t stackBytes = 0;
};

// Runs a thread of this name (stack size set when bytes is not 0) and returns what the thread
// itself saw: its operating-system name and its stack size.
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
    // Far below the C library's 8 MiB: it may hand out a cached stack of up to four times the
    // size asked for, and the sanitizers enlarge small stacks.
    const size_t kFarBelowDefault = 2 * 1024 * 1024;
    EXPECT_GE(facts.stackBytes, kVokDefaultThreadStackBytes);
    EXPECT_LE(facts.stackBytes, kFarBelowDefault);
    // A UTF-8 character is never cut in two: byte 15 would split the fourth "\xc3\xa4".
    EXPECT_EQ("sensors-\xc3\xa4\xc3\xa4\xc3\xa4",
              RunThread("sensors-\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4").osName);
    const ThreadFacts small = RunThread("small", 100000);
    EXPECT_EQ("small", small.osName);
    EXPECT_GE(small.stackBytes, 100000u);
    EXPECT_LE(small.stackBytes, kFarBelowDefault);
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
