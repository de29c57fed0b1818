// The shell: stop handshake, odd blades, cycles, and what the service manager sees of it.
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MessageMover/MmTestSupport.h"
#include "support/LogCapture.h"
#include "vok/Daemon.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

namespace vok {
namespace {

using test::LogCapture;
using ::testing::HasSubstr;

// A blade and its loader: runs a dispatcher until it reads the stop event.
class TestBlade : public ServiceBlade, public VokBladeLoaderInterface {
  public:
    explicit TestBlade(const std::string& name) : name_(name) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return mode; }
    void LoadBlade(const VokShellDaemonInfo&) override { ++loads; }
    void UnloadBlade() override {
        ++unloads;
        unloaded.Signal();
    }
    ServiceBlade* GetServiceBlade() override { return this; }

    void Run(ServiceBladeEnvironment* env) override {
        if (holdUntil != nullptr) {
            holdUntil->Wait();
            return;
        }
        RuntimeDispatcher dispatcher;
        MmConnectionPort* control = env->GetControlPort();
        RdPortMonitor monitor(*control, dispatcher, [&](bool, bool, bool) {
            MmConnectionMessageHandle msg;
            while (control->ReadMessage(&msg) == kVokErrNone) {
                MmMessageName name;
                if (*msg.GetMessageName(&name) == kVokBladeStopEvtMsg) {
                    ++stopEvents;
                    dispatcher.RequestStop();
                }
                env->GetMmInterface()->FreeMessage(msg);
            }
        });
        monitor.SetEventMask(true, false, false);
        if (onRun) {
            onRun(env, dispatcher);
        }
        dispatcher.Run();
    }

    int32_t mode = kBladeStartModeAuto;
    // Called on the blade thread before its loop runs.
    std::function<void(ServiceBladeEnvironment*, RuntimeDispatcher&)> onRun;
    Event* holdUntil = nullptr;
    std::atomic<int> loads{0};
    std::atomic<int> stopEvents{0};
    std::atomic<int> unloads{0};
    Event unloaded;

  private:
    std::string name_;
};

// A shell over blades b0, b1, ... with a completion callback that counts and signals.
class ShellHarness {
  public:
    explicit ShellHarness(int blades, uint32_t stopDeadlineMs = kVokShellDefaultStopDeadlineMs) {
        std::vector<VokBladeLoaderInterface*> base;
        for (int i = 0; i < blades; ++i) {
            loaders.emplace_back(new TestBlade("b" + std::to_string(i)));
            base.push_back(loaders.back().get());
        }
        VokShellDaemonInfo info("testd", "details");
        info.stopDeadlineMs = stopDeadlineMs;
        shell.reset(new VokShell(info, base, [this]() {
            ++completions;
            done.Signal();
        }));
    }
    TestBlade& operator[](size_t i) { return *loaders[i]; }
    void Stop() {
        shell->RequestStop();
        done.Wait();
        shell.reset();
    }

    // Declared last: destroyed before what its blades and callback use.
    std::vector<std::unique_ptr<TestBlade>> loaders;
    Event done;
    std::atomic<int> completions{0};
    std::unique_ptr<VokShell> shell;
};

class ShellTest : public ::testing::Test {
  protected:
    test::Watchdog watchdog_{std::chrono::seconds(300)};
};

// Concurrent stop requests, or the destructor alone: each blade loaded, stopped, unloaded once.
TEST_F(ShellTest, BladesStopOnceOnConcurrentRequestsOrWhenDestroyed) {
    for (int count : {0, 4, 16}) {
        ShellHarness h(count);
        h.shell->StartUp();
        EXPECT_THROW(h.shell->StartUp(), VokProgramErrorException);
        std::vector<std::thread> stoppers;
        for (int i = 0; i < (count == 16 ? 0 : 4); ++i) {
            stoppers.emplace_back([&]() {
                h.shell->RequestStop();
                h.shell->RequestStop();
            });
        }
        for (auto& t : stoppers) {
            t.join();
        }
        if (count != 16) {
            h.done.Wait();
        }
        h.shell.reset();
        EXPECT_EQ(1, h.completions.load());
        for (auto& loader : h.loaders) {
            EXPECT_EQ(1, loader->loads.load()) << loader->GetBladeName();
            EXPECT_EQ(1, loader->stopEvents.load());
            EXPECT_EQ(1, loader->unloads.load());
        }
    }
    ShellHarness never(2);  // Never started: calls nothing.
    never.shell.reset();
    EXPECT_EQ(0, never.completions.load());
    EXPECT_EQ(0, never[0].loads.load());
}

// Not auto: never loaded. Returning early: unloaded, others run on. Ignoring the stop: waited for.
TEST_F(ShellTest, OddBladesAreSkippedUnloadedOrWaitedForAndStrayMessagesLogged) {
    LogCapture capture;
    ShellHarness h(4);
    Event early, late;
    early.Signal();
    h[0].holdUntil = &early;  // Returns from Run at once.
    h[1].onRun = [](ServiceBladeEnvironment* env, RuntimeDispatcher&) {
        MessageMoverInterface* iface = env->GetMmInterface();
        MmConnectionMessageHandle msg;
        iface->CreateConnectionMessage(4, &msg);
        msg.SetMessageName(MmMessageName{9, 0x42});
        EXPECT_EQ(kVokErrNone, env->GetControlPort()->WriteMessage(msg, nullptr));
        MmCommandPort* port = iface->CreateCommandPort();
        MmCommandMessageHandle cmd;
        iface->CreateCommandMessage(0, &cmd);
        cmd.SetMessageName(MmMessageName{7, 3});
        cmd.SetDestinationAddress(1);  // the shell's control service
        EXPECT_EQ(kVokErrNone, port->WriteMessage(cmd, nullptr));
        iface->DiscardCommandPort(port);
    };
    h[2].mode = kBladeStartModeDisabled;
    h[3].holdUntil = &late;
    h.shell->StartUp();
    h[0].unloaded.Wait();
    ASSERT_TRUE(
        capture.WaitFor("ERROR in ShellControlPortMonCb: unexpected message received "
                        "- protocol=<7>; msgId=<0x3>; sender=<"));
    ASSERT_TRUE(
        capture.WaitFor("ERROR in BladeControlPortMonCb: unexpected message received "
                        "from Service Blade - protocol=<9>; msgId=<0x42>."));
    h.shell->RequestStop();
    h[1].unloaded.Wait();
    EXPECT_EQ(0, h.completions.load());  // Still waiting for b3.
    late.Signal();
    h.done.Wait();
    h.shell.reset();
    EXPECT_EQ(1, h.completions.load());
    EXPECT_EQ(1, h[0].loads.load());
    EXPECT_EQ(1, h[0].unloads.load());
    EXPECT_EQ(0, h[0].stopEvents.load());
    EXPECT_EQ(1, h[1].stopEvents.load());
    EXPECT_EQ(0, h[2].loads.load());
    EXPECT_EQ(1, h[3].unloads.load());
    EXPECT_TRUE(capture.Matching("Leaked").empty());
}

TEST_F(ShellTest, RepeatedCyclesLeakNothing) {
    LogCapture capture;
    for (int cycle = 0; cycle < 200; ++cycle) {
        ShellHarness h(8);
        h.shell->StartUp();
        h.shell->RequestStop();
        h.done.Wait();
        EXPECT_EQ(0, test::Outstanding());
        h.shell.reset();
    }
    for (const auto& line : capture.Matching("Leak")) {
        ADD_FAILURE() << line.context << ": " << line.message;
    }
    std::unique_ptr<DiagnosticRegisterCounter::Group> group(
        DiagnosticRegisterCounter::QueryGroup("root.vok.MessageMover."));
    ASSERT_NE(nullptr, group);
    for (const auto& entry : *group) {
        EXPECT_THAT(entry.first, HasSubstr("msgsLeakedByUser"));
    }
}

TEST(ShellDeathTest, StopPastItsDeadlineEndsTheProcessNamingTheBlade) {
    EXPECT_EXIT(
        {
            Event never;
            ShellHarness h(2, 300);
            h[1].holdUntil = &never;  // Ignores the stop event.
            h.shell->StartUp();
            h.Stop();
        },
        ::testing::ExitedWithCode(kVokShellStopDeadlineExitStatus),
        "Stop deadline of 300 ms passed: blade <b1> has not finished \\(state stopping; busy "
        "outside its loop for [0-9]+ ms\\)");
}

TEST(ShellDeathTest, ExceptionsOutOfBladeOrShellThreadStopTheProcessWithTheirName) {
    EXPECT_DEATH(
        {
            ShellHarness h(1);
            h[0].onRun = [](ServiceBladeEnvironment*, RuntimeDispatcher&) {
                throw std::runtime_error("boom");
            };
            h.shell->StartUp();
            h.done.Wait();
        },
        "Blade <b0> threw an exception out of Run: boom");
    EXPECT_DEATH(  // The completion callback runs on the shell thread.
        {
            VokShell shell(VokShellDaemonInfo("testd", ""), {},
                           []() { throw std::runtime_error("completion failed"); });
            shell.StartUp();
            shell.RequestStop();
        },
        "crit \\[VOK.Thread\\] .*Thread <VokShell> ended by an exception: completion failed");
}

// The service manager's end of the notification protocol, named in NOTIFY_SOCKET while it lives.
class NotifySocket {
  public:
    NotifySocket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const std::string name = "vok-notify-" + std::to_string(getpid());
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        name.copy(addr.sun_path + 1, sizeof addr.sun_path - 1);
        const socklen_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&addr), length));
        setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    }
    ~NotifySocket() {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        close(fd_);
    }
    // Every datagram read until one contains text, as "<...>" with '|' for newlines; "" if none.
    std::string ReadUntil(const std::string& text, int limitMs = 60000) {
        std::string seen;
        const int64_t end = g_get_monotonic_time() + int64_t{limitMs} * 1000;
        pollfd p{fd_, POLLIN, 0};
        for (int64_t left; (left = (end - g_get_monotonic_time()) / 1000) > 0 &&
                           poll(&p, 1, static_cast<int>(left)) == 1;) {
            char buffer[4096];
            const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
            std::string line(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
            std::replace(line.begin(), line.end(), '\n', '|');
            seen += "<" + line + ">";
            if (line.find(text) != std::string::npos) {
                return seen;
            }
        }
        return "";
    }
    void Drain() {
        char buffer[4096];
        while (recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
        }
    }

  private:
    int fd_;
};

// An outside SIGUSR1 used to pass for the shell's completion and end the daemon with status 0.
TEST(ShellDeathTest, RunDaemonReportsToTheServiceManagerAndGivesUserSignalsToTheirHooks) {
    EXPECT_EXIT(
        {
            std::unique_ptr<test::Watchdog> watchdog;  // Made with the signals blocked.
            NotifySocket manager;
            LogCapture capture;
            TestBlade b0("b0");
            TestBlade b1("b1");
            std::string seen;
            std::thread serviceManager;
            DaemonHooks hooks;
            Event user2;
            Event reloaded;
            int user2Calls = 0;
            bool ignoredUser1 = false;
            hooks.onUser2 = [&](VokShell&) {
                ++user2Calls;
                user2.Signal();
            };
            hooks.onReload = [&](VokShell&) { reloaded.Signal(); };
            bool started = false;
            hooks.beforeStart = [&](VokShell&) {
                started = true;
                watchdog.reset(new test::Watchdog);
                serviceManager = std::thread([&]() {
                    seen = manager.ReadUntil("READY=1");
                    kill(getpid(), SIGUSR1);
                    ignoredUser1 = capture.WaitFor("RunDaemon: ignoring SIGUSR1");
                    kill(getpid(), SIGUSR2);
                    user2.Wait();
                    kill(getpid(), SIGHUP);
                    reloaded.Wait();
                    kill(getpid(), SIGTERM);
                    seen += manager.ReadUntil("STATUS=stopped");
                });
            };
            bool stoppedAfterStart = false;
            hooks.beforeDestroy = [&](VokShell&) { stoppedAfterStart = started; };
            int signal = 0;
            const int status =
                RunDaemon(VokShellDaemonInfo("testd", ""), {&b0, &b1}, hooks, &signal);
            serviceManager.join();
            std::fprintf(stderr, "notified %s user1 ignored %d user2 %d\n", seen.c_str(),
                         ignoredUser1, user2Calls);
            _exit(status == 0 && signal == SIGTERM && stoppedAfterStart ? 0 : 3);
        },
        ::testing::ExitedWithCode(0),
        "notified <READY=1\\|STATUS=2 blades running><STOPPING=1><STATUS=stopping: waiting for "
        "blade b0 and 1 more><STATUS=stopping: waiting for blade b[01]><STATUS=stopped> user1 "
        "ignored 1 user2 1");
}

// SIGHUP used to kill the daemon by its default action, without the stop handshake.
TEST(ShellDeathTest, SighupWithoutReloadHookStopsTheDaemonCleanly) {
    EXPECT_EXIT(
        {
            DaemonHooks hooks;
            hooks.beforeStart = [](VokShell&) { kill(getpid(), SIGHUP); };
            bool stoppedCleanly = false;
            hooks.beforeDestroy = [&](VokShell& shell) {
                stoppedCleanly = shell.GetBladeStatus()[0].state == "stopped";
            };
            TestBlade b0("b0");
            int signal = 0;
            const int status = RunDaemon(VokShellDaemonInfo("testd", ""), {&b0}, hooks, &signal);
            std::fprintf(stderr, "status %d signal %d clean %d\n", status, signal, stoppedCleanly);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "status 0 signal 1 clean 1");
}

// Shell and blade threads used to show as the daemon itself, on 8 MiB stacks.
TEST_F(ShellTest, ThreadsCarryTheirNamesAndTheDaemonsStackSize) {
    TestBlade blade("sensor-aggregator-main");
    char name[16] = {};
    char shellName[16] = {};
    size_t stackBytes = 0;
    Event ran;
    blade.onRun = [&](ServiceBladeEnvironment*, RuntimeDispatcher&) {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &stackBytes);
        pthread_attr_destroy(&attr);
        ran.Signal();
    };
    VokShellDaemonInfo info("testd", "");
    info.threadStackBytes = 256 * 1024;
    Event done;
    {
        VokShell shell(info, {&blade}, [&]() {  // On the shell thread.
            pthread_getname_np(pthread_self(), shellName, sizeof shellName);
            done.Signal();
        });
        shell.StartUp();
        ran.Wait();
        shell.RequestStop();
        done.Wait();
    }
    EXPECT_STREQ("sensor-aggregat", name);
    EXPECT_STREQ("VokShell", shellName);
    // The C library may hand out a cached stack of up to four times the size asked for.
    EXPECT_GE(stackBytes, info.threadStackBytes);
    EXPECT_LE(stackBytes, 2u * 1024 * 1024);
}

gboolean BlockUntilSignalled(gpointer event) {
    static_cast<Event*>(event)->Wait();
    return G_SOURCE_REMOVE;
}

TEST_F(ShellTest, WatchdogIsFedWhileEveryLoopTurnsAndStopsForAStuckOne) {
    NotifySocket manager;
    setenv("WATCHDOG_USEC", "400000", 1);  // fed every 200 ms; stuck after 200 ms busy
    LogCapture capture;
    ShellHarness h(2);  // b1 gets stuck.
    std::atomic<GMainContext*> stuckContext{nullptr};
    Event contextKnown, release;
    h[1].onRun = [&](ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher) {
        EXPECT_EQ(400000u, env->GetWatchdogUsec());  // What a blade without a loop paces by.
        stuckContext = g_main_loop_get_context(RuntimeDispatcher::GetInternalLoop(dispatcher));
        contextKnown.Signal();
    };
    h.shell->StartUp();
    // Idle loops are no reason to stop feeding.
    for (int feeds = 0; feeds < 4; ++feeds) {
        ASSERT_NE("", manager.ReadUntil("WATCHDOG=1"));
    }
    contextKnown.Wait();
    g_main_context_invoke(stuckContext, BlockUntilSignalled, &release);
    EXPECT_TRUE(capture.WaitFor("Blade <b1> (running) has not come back to its loop for "));
    EXPECT_EQ(1u, capture.Matching("has not come back to its loop").size());
    EXPECT_TRUE(capture.Matching("Blade <b0>").empty());
    // No feed after the report (one sent before it may still wait in the socket).
    manager.Drain();
    EXPECT_EQ("", manager.ReadUntil("WATCHDOG=1", 800));
    release.Signal();
    h.Stop();
}

}  // namespace
}  // namespace vok
