// Blades serve, call and watch a bus service and keep an alarm going through vok-powerd while the
// bus is killed and restarted: all are back within a bound; alarms fire once, never early.
#include <glib.h>
#include <gtest/gtest.h>
#include <kelvra/kelvra.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "vok/BladeStopWatcher.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokKvClient.h"
#include "vok/VokShell.h"

namespace vok {
namespace {

using Clock = std::chrono::steady_clock;

const char kService[] = "com.test.restart.echo";

// What the blades report, read by the test's thread.
class Board {
  public:
    void Update(const std::function<void()>& change) {
        std::lock_guard<std::mutex> lock(mutex_);
        change();
        changed_.notify_all();
    }
    bool WaitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, done);
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

// Its own loader; Start and Finish around a dispatcher's run on the blade thread.
class Blade : public ServiceBlade, public VokBladeLoaderInterface {
  public:
    Blade(Board* board, const std::string& name) : board_(board), name_(name) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return kBladeStartModeAuto; }
    void LoadBlade(const VokShellDaemonInfo&) override {}
    void UnloadBlade() override {}
    ServiceBlade* GetServiceBlade() override { return this; }

    void Run(ServiceBladeEnvironment* environment) override {
        RuntimeDispatcher dispatcher;
        BladeStopWatcher stop(environment, dispatcher);
        Start(dispatcher);
        dispatcher.Run();
        Finish();
    }

  protected:
    virtual void Start(RuntimeDispatcher& dispatcher) = 0;
    virtual void Finish() = 0;

    Board* board_;
    std::string name_;
};

// Calls the service every 20 ms and follows its status.
class CallerBlade : public Blade {
  public:
    using Blade::Blade;
    // Guarded by the board.
    Clock::time_point lastAnswer;
    int errors = 0;
    std::vector<bool> heard;

  private:
    void Start(RuntimeDispatcher& dispatcher) override {
        call_.reset(new RdKvCall(RdKelvraUtils::GetKvHandle(dispatcher),
                                 [this](KVMessage* reply) { OnReply(reply); }));
        timer_.reset(new RdTimerBase(dispatcher, [this]() {
            call_->Call(kService, "echo/once", "{\"returnValue\":true}");
        }));
        timer_->Schedule(0);
        client_ = RdKelvraUtils::GetVokKvClient(dispatcher, kService);
        client_->AddRegStatusObserver(
            this, [this](bool up) { board_->Update([&]() { heard.push_back(up); }); });
    }
    void Finish() override {
        client_->RemoveRegStatusObserver(this);
        timer_.reset();
        call_.reset();
    }
    void OnReply(KVMessage* reply) {
        JsonToken payload;
        const bool answered = payload.ParseJsonString(KVMessageGetPayload(reply)) &&
                              payload.ObjectFindPair("returnValue")->BooleanGetValue();
        board_->Update([&]() { answered ? (void)(lastAnswer = Clock::now()) : (void)++errors; });
        timer_->Schedule(20);
    }

    std::unique_ptr<RdKvCall> call_;
    std::unique_ptr<RdTimerBase> timer_;
    VokKvClient* client_ = nullptr;
};

// Serves kService and keeps a 700 ms alarm going; a doubled firing counts as early.
class ServiceAndAlarmBlade : public Blade {
  public:
    using Blade::Blade;
    // Guarded by the board.
    int fired = 0;
    int early = 0;

  private:
    static constexpr unsigned kIntervalMs = 700;

    void Start(RuntimeDispatcher& dispatcher) override {
        service_.reset(new test::FakeService(dispatcher, kService));
        service_->AddMethod("echo/once", [](const std::string& payload) {
            return std::vector<std::string>{payload};
        });
        alarm_.reset(new RdAlarmBase(dispatcher, [this]() { OnFired(); }));
        Set();
    }
    void Finish() override {
        alarm_.reset();
        service_.reset();
    }
    void Set() {
        due_ = Clock::now() + std::chrono::milliseconds(kIntervalMs);
        alarm_->Schedule(kIntervalMs);
    }
    void OnFired() {
        const bool wasEarly = Clock::now() < due_;
        board_->Update([&]() {
            ++fired;
            early += wasEarly ? 1 : 0;
        });
        Set();
    }

    std::unique_ptr<test::FakeService> service_;
    std::unique_ptr<RdAlarmBase> alarm_;
    Clock::time_point due_;
};

TEST(BusRestartTest, EveryBladeIsBackToNormalSoonAfterTheBusReturns) {
    test::Watchdog watchdog;
    test::LogCapture log;
    Board board;
    CallerBlade callers[] = {{&board, "caller1"}, {&board, "caller2"}};
    ServiceAndAlarmBlade alarms(&board, "service");
    test::PowerDaemon powerd;
    bool stopped = false;
    VokShell shell(VokShellDaemonInfo("bus-restart", ""), {&callers[0], &callers[1], &alarms},
                   [&]() { board.Update([&]() { stopped = true; }); });
    shell.StartUp();
    // Every caller heard the status last as up (or down) and, when up, had an answer since.
    auto allHeard = [&](bool up, Clock::time_point since) {
        for (const CallerBlade& caller : callers) {
            if (caller.heard.empty() || caller.heard.back() != up ||
                (up && caller.lastAnswer <= since)) {
                return false;
            }
        }
        return true;
    };
    ASSERT_TRUE(board.WaitUntil([&]() { return allHeard(true, Clock::time_point()); },
                                std::chrono::seconds(60)));

    // A short outage, then one long enough for the waits between attempts to grow.
    for (int outage : {1, 50}) {
        int before = 0;
        board.Update([&]() { before = callers[0].errors; });
        test::TestBus().Kill(SIGKILL);
        const Clock::time_point down = Clock::now();
        ASSERT_TRUE(board.WaitUntil(
            [&]() { return callers[0].errors - before >= outage && allHeard(false, down); },
            std::chrono::seconds(60)));
        test::TestBus().Restart();
        const Clock::time_point restarted = Clock::now();
        int firedBefore = 0;
        board.Update([&]() { firedBefore = alarms.fired; });
        const int addsBefore = powerd.CountLines("alarmAdd");
        ASSERT_TRUE(board.WaitUntil(
            [&]() {
                return allHeard(true, restarted) && alarms.fired >= firedBefore + 1 &&
                       powerd.CountLines("alarmAdd") > addsBefore;
            },
            std::chrono::seconds(60)));
        // The longest wait between connection attempts is 5 s.
        EXPECT_LT(Clock::now() - restarted, std::chrono::seconds(10));
    }
    board.Update([&]() {
        for (const CallerBlade& caller : callers) {
            EXPECT_EQ((std::vector<bool>{true, false, true, false, true}), caller.heard);
        }
        EXPECT_EQ(0, alarms.early);
    });
    shell.RequestStop();
    ASSERT_TRUE(board.WaitUntil([&]() { return stopped; }, std::chrono::seconds(60)));
}

}  // namespace
}  // namespace vok
