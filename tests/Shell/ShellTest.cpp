// The shell: blade start-up, the stop handshake, odd blades and repeated cycles.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Event.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"
#include "vok/VokShell.h"

namespace vok {
namespace {

using test::LogCapture;
using ::testing::HasSubstr;

// A blade that runs a dispatcher until it reads the stop event. Hooks let a test add work.
class TestBlade : public ServiceBlade {
  public:
    // Called on the blade thread before its loop runs; may stop the loop itself.
    std::function<void(ServiceBladeEnvironment*, RuntimeDispatcher&)> onRun;
    // When set, Run returns only once this event is signalled, ignoring the stop event.
    Event* holdUntil = nullptr;
    std::atomic<int> stopEvents{0};
    std::string daemonName;
    std::string bladeName;

    void Run(ServiceBladeEnvironment* env) override {
        daemonName = env->GetDaemonName();
        bladeName = env->GetBladeName();
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
                msg.GetMessageName(&name);
                if (name == kVokBladeStopEvtMsg) {
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
};

class TestLoader : public VokBladeLoaderInterface {
  public:
    TestLoader(const std::string& name, int32_t mode) : name_(name), mode_(mode) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return mode_; }
    void LoadBlade(const VokShellDaemonInfo& info) override {
        ++loads;
        details = info.daemonDetails;
    }
    void UnloadBlade() override {
        ++unloads;
        unloaded.Signal();
    }
    ServiceBlade* GetServiceBlade() override { return &blade; }

    TestBlade blade;
    std::atomic<int> loads{0};
    std::atomic<int> unloads{0};
    Event unloaded;
    std::string details;

  private:
    std::string name_;
    int32_t mode_;
};

// A shell over some loaders with a completion callback that counts and signals.
class ShellHarness {
  public:
    explicit ShellHarness(const std::vector<TestLoader*>& loaders) {
        std::vector<VokBladeLoaderInterface*> base(loaders.begin(), loaders.end());
        shell.reset(new VokShell(VokShellDaemonInfo("testd", "details"), base, [this]() {
            ++completions;
            done.Signal();
        }));
    }
    std::unique_ptr<VokShell> shell;
    Event done;
    std::atomic<int> completions{0};
};

std::vector<std::unique_ptr<TestLoader>> MakeLoaders(int count,
                                                     int32_t mode = kBladeStartModeAuto) {
    std::vector<std::unique_ptr<TestLoader>> loaders;
    for (int i = 0; i < count; ++i) {
        loaders.emplace_back(new TestLoader("b" + std::to_string(i), mode));
    }
    return loaders;
}

std::vector<TestLoader*> Raw(const std::vector<std::unique_ptr<TestLoader>>& loaders) {
    std::vector<TestLoader*> raw;
    for (auto& l : loaders) {
        raw.push_back(l.get());
    }
    return raw;
}

class ShellTest : public ::testing::Test {
  protected:
    test::Watchdog watchdog_{std::chrono::seconds(300)};
};

TEST_F(ShellTest, ZeroOneAndSixteenBladesStartAndStopOnRequestOrWhenDestroyed) {
    for (int count : {0, 1, 16}) {
        auto loaders = MakeLoaders(count);
        ShellHarness h(Raw(loaders));
        h.shell->StartUp();
        if (count != 16) {  // Sixteen are stopped by the destructor alone.
            h.shell->RequestStop();
            h.done.Wait();
        }
        h.shell.reset();
        EXPECT_EQ(1, h.completions.load());
        for (auto& loader : loaders) {
            EXPECT_EQ(1, loader->loads.load()) << loader->GetBladeName();
            EXPECT_EQ(1, loader->blade.stopEvents.load());
            EXPECT_EQ(1, loader->unloads.load());
            EXPECT_EQ("details", loader->details);
            EXPECT_EQ("testd", loader->blade.daemonName);
            EXPECT_EQ(loader->GetBladeName(), loader->blade.bladeName);
        }
    }
}

TEST_F(ShellTest, BladesWhoseModeIsNotAutoAreNeverLoaded) {
    TestLoader one("one", 1), disabled("disabled", kBladeStartModeDisabled), other("other", 7),
        autoStart("auto", kBladeStartModeAuto);
    ShellHarness h({&one, &disabled, &other, &autoStart});
    h.shell->StartUp();
    h.shell->RequestStop();
    h.done.Wait();
    h.shell.reset();
    EXPECT_EQ(0, one.loads.load());
    EXPECT_EQ(0, disabled.loads.load());
    EXPECT_EQ(0, other.loads.load());
    EXPECT_EQ(1, autoStart.loads.load());
}

TEST_F(ShellTest, BladeReturningByItselfIsCleanedUpAndNotRestarted) {
    TestLoader quitter("quitter", kBladeStartModeAuto), stayer("stayer", kBladeStartModeAuto);
    Event release;
    release.Signal();
    quitter.blade.holdUntil = &release;  // returns from Run at once
    ShellHarness h({&quitter, &stayer});
    h.shell->StartUp();
    quitter.unloaded.Wait();
    h.shell->RequestStop();
    h.done.Wait();
    h.shell.reset();
    EXPECT_EQ(1, quitter.loads.load());
    EXPECT_EQ(1, quitter.unloads.load());
    EXPECT_EQ(1, stayer.blade.stopEvents.load());
    EXPECT_EQ(0, quitter.blade.stopEvents.load());
}

TEST_F(ShellTest, BladeReturningByItselfDuringShutdownCompletesTheHandshake) {
    TestLoader late("late", kBladeStartModeAuto), normal("normal", kBladeStartModeAuto);
    Event release;
    late.blade.holdUntil = &release;  // ignores the stop event
    ShellHarness h({&late, &normal});
    h.shell->StartUp();
    h.shell->RequestStop();
    normal.unloaded.Wait();
    EXPECT_EQ(0, h.completions.load());  // still waiting for "late"
    release.Signal();
    h.done.Wait();
    h.shell.reset();
    EXPECT_EQ(1, h.completions.load());
    EXPECT_EQ(1, late.unloads.load());
}

TEST_F(ShellTest, ConcurrentAndRepeatedStopRequestsStopOnce) {
    auto loaders = MakeLoaders(4);
    LogCapture capture;
    ShellHarness h(Raw(loaders));
    h.shell->StartUp();
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 4; ++i) {
        stoppers.emplace_back([&]() {
            h.shell->RequestStop();
            h.shell->RequestStop();
        });
    }
    for (auto& t : stoppers) {
        t.join();
    }
    h.done.Wait();
    h.shell.reset();
    EXPECT_EQ(1, h.completions.load());
    for (auto& loader : loaders) {
        EXPECT_EQ(1, loader->blade.stopEvents.load());
    }
    for (const auto& line : capture.Matching("unexpected VokShell-stop trigger")) {
        EXPECT_THAT(line.message, HasSubstr("current VOK Shell state is <"));
    }
}

TEST_F(ShellTest, NeverStartedShellStartsNoThreadAndCallsNothing) {
    auto loaders = MakeLoaders(2);
    ShellHarness h(Raw(loaders));
    h.shell.reset();
    EXPECT_EQ(0, h.completions.load());
    EXPECT_EQ(0, loaders[0]->loads.load());
}

TEST_F(ShellTest, StartUpTwiceRaises) {
    ShellHarness h({});
    h.shell->StartUp();
    try {
        h.shell->StartUp();
        FAIL() << "no exception";
    } catch (const VokProgramErrorException& e) {
        EXPECT_EQ(kVokErrFailed, e.GetErr());
        EXPECT_THAT(e.what(),
                    ::testing::MatchesRegex(
                        "StartUp:Src/Core/VokShell/VokShellImpl:[0-9]+:Shell is not in "
                        "the initial state \\(can't re-use shell after stopping it\\)\\."));
    }
    h.shell->RequestStop();
    h.done.Wait();
}

TEST_F(ShellTest, UnexpectedControlMessagesAreLoggedAndFreed) {
    TestLoader talker("talker", kBladeStartModeAuto);
    talker.blade.onRun = [](ServiceBladeEnvironment* env, RuntimeDispatcher&) {
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
    LogCapture capture;
    ShellHarness h({&talker});
    h.shell->StartUp();
    ASSERT_TRUE(
        capture.WaitFor("ERROR in ShellControlPortMonCb: unexpected message received "
                        "- protocol=<7>; msgId=<0x3>; sender=<"));
    ASSERT_TRUE(
        capture.WaitFor("ERROR in BladeControlPortMonCb: unexpected message received "
                        "from Service Blade - protocol=<9>; msgId=<0x42>."));
    h.shell->RequestStop();
    h.done.Wait();
    h.shell.reset();
    EXPECT_TRUE(capture.Matching("Leaked").empty());
}

TEST_F(ShellTest, RepeatedCyclesLeakNothing) {
    LogCapture capture;
    for (int cycle = 0; cycle < 200; ++cycle) {
        auto loaders = MakeLoaders(8);
        ShellHarness h(Raw(loaders));
        h.shell->StartUp();
        h.shell->RequestStop();
        h.done.Wait();
        // Every blade has stopped: no message is outstanding in this shell's framework.
        DiagnosticRegisterCounter::CounterInfo info{};
        ASSERT_TRUE(
            DiagnosticRegisterCounter::Query("root.vok.MessageMover.outstandingMessages", &info));
        EXPECT_EQ(0, info.value);
        h.shell.reset();
    }
    for (const auto& line : capture.Matching("Leak")) {
        ADD_FAILURE() << line.context << ": " << line.message;
    }
    // Only the long-lived counters of the interfaces survive the shells' prunes.
    std::unique_ptr<DiagnosticRegisterCounter::Group> group(
        DiagnosticRegisterCounter::QueryGroup("root.vok.MessageMover."));
    ASSERT_NE(nullptr, group);
    for (const auto& entry : *group) {
        EXPECT_THAT(entry.first, HasSubstr("msgsLeakedByUser"));
    }
}

TEST(ShellDeathTest, ExceptionsOutOfBladeOrShellThreadStopTheProcessWithTheirName) {
    EXPECT_DEATH(
        {
            TestLoader thrower("thrower", kBladeStartModeAuto);
            thrower.blade.onRun = [](ServiceBladeEnvironment*, RuntimeDispatcher&) {
                throw std::runtime_error("boom");
            };
            ShellHarness h({&thrower});
            h.shell->StartUp();
            h.done.Wait();
        },
        "Blade <thrower> threw an exception out of Run: boom");
    // The completion callback runs on the shell thread.
    EXPECT_DEATH(
        {
            VokShell shell(VokShellDaemonInfo("testd", ""), {},
                           []() { throw std::runtime_error("completion failed"); });
            shell.StartUp();
            shell.RequestStop();
        },
        "crit \\[VOK.Thread\\] .*Thread <VokShell> ended by an exception: completion failed");
}

}  // namespace
}  // namespace vok
