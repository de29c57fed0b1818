#include "DemoBlades.h"

#include <kelvra/kelvra.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "vok/BladeStopWatcher.h"
#include "vok/DiagnosticRegister.h"
#include "vok/JsonToken.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RdKvService.h"
#include "vok/RdPortMonitor.h"
#include "vok/RdTimer.h"
#include "vok/VokError.h"
#include "vok/VokKvClient.h"

namespace vok {
namespace demo {

const char kDemoBusService[] = "com.orvex.vokdemo";

namespace {

const MmMessageName kEchoRequest = {200, 1};
const MmMessageName kEchoReply = {200, 2};

// The request payload: a sequence number and the send time.
struct EchoPayload {
    uint32_t sequence;
    int64_t sentNs;
};

void Say(const char* blade, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Say(const char* blade, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("[%-6s] %s\n", blade, text);
    std::fflush(stdout);
}

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The origin of the times the blades print.
const int64_t kProgramStartNs = NowNs();

// Milliseconds since the program started, with microseconds.
double SinceStartMs(int64_t ns) {
    return static_cast<double>((ns - kProgramStartNs) / 1000) / 1000.0;
}

// Prints a summary line every period (blades that report per period instead of per message).
class Reporter {
  public:
    Reporter(RuntimeDispatcher& dispatcher, unsigned periodMs, std::function<void()> report)
        : periodMs_(periodMs), report_(std::move(report)) {
        if (periodMs_ != 0) {
            timer_.reset(new RdTimerBase(dispatcher, [this]() { report_(); }));
            timer_->SchedulePeriodic(periodMs_);
        }
    }
    bool PerMessage() const { return periodMs_ == 0; }

  private:
    unsigned periodMs_;
    std::function<void()> report_;
    std::unique_ptr<RdTimerBase> timer_;
};

// ---- echo ----

class EchoBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher) override {
        iface_ = env->GetMmInterface();
        port_ = iface_->CreateCommandServicePort(kEchoServiceId);
        monitor_.reset(
            new RdPortMonitor(*port_, dispatcher, [this](bool, bool, bool) { Serve(); }));
        monitor_->SetEventMask(true, false, false);
        Say("echo", "serving MessageMover service %lu at address %lu",
            static_cast<unsigned long>(kEchoServiceId),
            static_cast<unsigned long>(port_->GetAddress()));

        try {
            bus_.reset(new RdKvService(dispatcher, kDemoBusService));
            bus_->AddMethod("demo/echo", [this](RdKvRequest& request) { BusEcho(request); });
            // The name is owned from the loop: at once when the bus is up and the name free.
            bus_->SetConnectionObserver([this](bool up) {
                if (up) {
                    Say("echo", "serving kelvra://%s/demo/echo on the bus", kDemoBusService);
                } else {
                    Say("echo", "kelvra://%s is not on the bus now", kDemoBusService);
                }
            });
        } catch (const VokResourceException& e) {
            Say("echo", "not on the bus: %s", e.what());
        }
    }

    void Finish(ServiceBladeEnvironment*) override {
        monitor_.reset();
        iface_->DiscardCommandPort(port_);
        bus_.reset();
        Say("echo", "served %ld requests on the MessageMover, %ld on the bus",
            static_cast<long>(served_.Get(nullptr)), static_cast<long>(busServed_.Get(nullptr)));
    }

  private:
    void Serve() {
        MmCommandMessageHandle request;
        while (port_->ReadMessage(&request) == kVokErrNone) {
            uint32_t size = 0;
            const void* payload = request.GetPayloadPtr(&size);
            MmCommandMessageHandle reply;
            void* copy = iface_->CreateCommandMessage(size, &reply);
            std::memcpy(copy, payload, size);
            reply.SetMessageName(kEchoReply);
            reply.SetDestinationAddress(request.GetSenderAddress());
            reply.SetInResponseToSerial(request.GetMessageSerial());
            port_->WriteMessage(reply, nullptr);
            iface_->FreeMessage(request);
            served_.Inc();
        }
    }

    void BusEcho(RdKvRequest& request) {
        JsonToken echoed;
        echoed.ParseJsonString(request.GetPayloadText().c_str());
        JsonToken reply;
        reply.MakeObject();
        reply.ObjectSetBooleanPair("returnValue", true);
        reply.ObjectSetPair("echo", &echoed);
        request.Reply(reply);
        busServed_.Inc();
    }

    MessageMoverInterface* iface_ = nullptr;
    MmCommandPort* port_ = nullptr;
    std::unique_ptr<RdPortMonitor> monitor_;  // Watches port_: destroyed before it.
    std::unique_ptr<RdKvService> bus_;
    DiagnosticRegisterCounter served_{"root.demo.echo.served", 0};
    DiagnosticRegisterCounter busServed_{"root.demo.echo.busServed", 0};
};

// ---- client ----

class ClientBlade : public DemoBlade {
  public:
    explicit ClientBlade(const DemoPace& pace) : pace_(pace) {}

  protected:
    void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher) override {
        iface_ = env->GetMmInterface();
        port_ = iface_->CreateCommandPort();
        monitor_.reset(
            new RdPortMonitor(*port_, dispatcher, [this](bool, bool, bool) { ReadReplies(); }));
        monitor_->SetEventMask(true, false, false);
        timer_.reset(new RdTimerBase(dispatcher, [this]() { SendRequests(); }));
        timer_->SchedulePeriodic(pace_.clientPeriodMs);
        reporter_.reset(new Reporter(dispatcher, pace_.reportMs, [this]() { Report(); }));
    }

    void Finish(ServiceBladeEnvironment*) override {
        timer_.reset();
        monitor_.reset();
        reporter_.reset();
        iface_->DiscardCommandPort(port_);
        Say("client", "%ld round trips", static_cast<long>(roundTrips_.Get(nullptr)));
    }

  private:
    void SendRequests() {
        for (unsigned i = 0; i < pace_.clientBurst; ++i) {
            MmCommandMessageHandle request;
            EchoPayload* payload = static_cast<EchoPayload*>(
                iface_->CreateCommandMessage(sizeof(EchoPayload), &request));
            payload->sequence = ++sequence_;
            payload->sentNs = NowNs();
            request.SetMessageName(kEchoRequest);
            request.SetDestinationAddress(kEchoServiceId);
            port_->WriteMessage(request, nullptr);
        }
    }

    void Report() {
        Say("client",
            "at +%.3f ms: %lu round trips in the last %u ms, slowest %ld us, %lu not reachable",
            SinceStartMs(NowNs()), periodTrips_, pace_.reportMs,
            static_cast<long>(periodSlowestUs_), periodUnreachable_);
        periodTrips_ = 0;
        periodSlowestUs_ = 0;
        periodUnreachable_ = 0;
    }

    void ReadReplies() {
        MmCommandMessageHandle reply;
        while (port_->ReadMessage(&reply) == kVokErrNone) {
            MmMessageName name;
            reply.GetMessageName(&name);
            if (name == kEchoReply) {
                uint32_t size = 0;
                const EchoPayload* payload =
                    static_cast<const EchoPayload*>(reply.GetPayloadPtr(&size));
                if (size == sizeof(EchoPayload)) {
                    roundTrips_.Inc();
                    const int64_t us = (NowNs() - payload->sentNs) / 1000;
                    ++periodTrips_;
                    periodSlowestUs_ = us > periodSlowestUs_ ? us : periodSlowestUs_;
                    if (reporter_->PerMessage()) {
                        Say("client", "round trip #%lu through the echo service in %ld us",
                            static_cast<unsigned long>(payload->sequence), static_cast<long>(us));
                    }
                }
            } else if (name == kMmPortNotReachableMsg) {
                ++periodUnreachable_;
                if (reporter_->PerMessage()) {
                    Say("client", "echo service not reachable (yet)");
                }
            }
            iface_->FreeMessage(reply);
        }
    }

    MessageMoverInterface* iface_ = nullptr;
    MmCommandPort* port_ = nullptr;
    std::unique_ptr<RdPortMonitor> monitor_;  // Watches port_: destroyed before it.
    std::unique_ptr<RdTimerBase> timer_;
    std::unique_ptr<Reporter> reporter_;
    const DemoPace pace_;
    uint32_t sequence_ = 0;
    unsigned long periodTrips_ = 0;
    int64_t periodSlowestUs_ = 0;
    unsigned long periodUnreachable_ = 0;
    DiagnosticRegisterCounter roundTrips_{"root.demo.client.roundTrips", 0};
};

// ---- alarm ----

class AlarmBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment*, RuntimeDispatcher& dispatcher) override {
        try {
            alarm_.reset(new RdAlarmBase(dispatcher, [this]() { Fired(); }));
        } catch (const VokResourceException& e) {
            // No bus at all: the alarm cannot even watch for the power service.
            Say("alarm", "no bus (%s): using a plain timer", e.what());
            alarm_.reset();
            timer_.reset(new RdTimerBase(dispatcher, [this]() { Fired(); }));
        }
        rearm_.reset(new RdTimerBase(dispatcher, [this]() { Set(); }));
        Set();
    }

    void Finish(ServiceBladeEnvironment*) override {
        const int64_t now = NowNs();
        if (pending_) {
            Say("alarm", "stopping at +%.3f ms; alarm #%lu pending, due +%.3f ms",
                SinceStartMs(now), number_, SinceStartMs(dueNs_));
        } else {
            Say("alarm", "stopping at +%.3f ms; no alarm pending", SinceStartMs(now));
        }
        rearm_.reset();
        alarm_.reset();
        timer_.reset();
        Say("alarm", "%ld alarms fired", static_cast<long>(fired_.Get(nullptr)));
    }

  private:
    static const unsigned kIntervalMs = 2000;
    static const unsigned kRearmMs = 250;

    void Set() {
        const int64_t now = NowNs();
        ++number_;
        dueNs_ = now + static_cast<int64_t>(kIntervalMs) * 1000000;
        pending_ = true;
        if (alarm_) {
            alarm_->Schedule(kIntervalMs);
        } else {
            timer_->Schedule(kIntervalMs);
        }
        Say("alarm", "alarm #%lu set for %u ms at +%.3f ms, due +%.3f ms", number_, kIntervalMs,
            SinceStartMs(now), SinceStartMs(dueNs_));
    }

    void Fired() {
        const int64_t now = NowNs();
        if (!pending_) {
            Say("alarm", "alarm #%lu fired again at +%.3f ms with no alarm pending", number_,
                SinceStartMs(now));
            return;
        }
        pending_ = false;
        fired_.Inc();
        const bool viaPower = alarm_ && alarm_->GetFiredBy() == kRdAlarmFiredByPowerService;
        const double lateMs = static_cast<double>((now - dueNs_) / 1000) / 1000.0;
        Say("alarm", "alarm #%lu fired through %s at +%.3f ms, due +%.3f ms: %.3f ms %s", number_,
            viaPower ? "the power service (com.orvex.power)" : "the fallback timer",
            SinceStartMs(now), SinceStartMs(dueNs_), lateMs < 0 ? -lateMs : lateMs,
            lateMs < 0 ? "EARLY" : "late");
        rearm_->Schedule(kRearmMs);
    }

    std::unique_ptr<RdAlarmBase> alarm_;
    std::unique_ptr<RdTimerBase> timer_;  // Instead of alarm_ when there is no bus.
    std::unique_ptr<RdTimerBase> rearm_;
    unsigned long number_ = 0;  // Of the alarm set last.
    int64_t dueNs_ = 0;
    bool pending_ = false;
    DiagnosticRegisterCounter fired_{"root.demo.alarm.fired", 0};
};

// ---- bus ----

class BusBlade : public DemoBlade {
  public:
    explicit BusBlade(const DemoPace& pace) : pace_(pace) {}

  protected:
    void Start(ServiceBladeEnvironment*, RuntimeDispatcher& dispatcher) override {
        try {
            KVHandle* handle = RdKelvraUtils::GetKvHandle(dispatcher);
            for (unsigned i = 0; i < pace_.busCalls; ++i) {
                calls_.emplace_back(
                    new RdKvCall(handle, [this, i](KVMessage* reply) { Replied(i, reply); }));
            }
            waiting_.assign(pace_.busCalls, false);
            power_ = RdKelvraUtils::GetVokKvClient(dispatcher, "com.orvex.power");
            power_->AddRegStatusObserver(
                this, [](bool up) { Say("bus", "com.orvex.power is %s", up ? "up" : "down"); });
            timer_.reset(new RdTimerBase(dispatcher, [this]() { CallEcho(); }));
            timer_->SchedulePeriodic(pace_.busPeriodMs);
            reporter_.reset(new Reporter(dispatcher, pace_.reportMs, [this]() { Report(); }));
        } catch (const VokResourceException& e) {
            Say("bus", "no bus: %s", e.what());
        }
    }

    void Finish(ServiceBladeEnvironment*) override {
        timer_.reset();
        calls_.clear();
        reporter_.reset();
        if (power_ != nullptr) {
            power_->RemoveRegStatusObserver(this);
        }
        Say("bus", "%ld bus calls answered", static_cast<long>(answered_.Get(nullptr)));
    }

  private:
    // Each call object carries one call at a time and is skipped while its call waits for the
    // answer, so that a slow service sees at most busCalls calls of this blade at once.
    void CallEcho() {
        for (size_t i = 0; i < calls_.size(); ++i) {
            if (waiting_[i]) {
                ++periodSkipped_;
                continue;
            }
            char payload[64];
            std::snprintf(payload, sizeof payload, "{\"n\":%lu}", ++n_);
            waiting_[i] = true;
            calls_[i]->Call(kDemoBusService, "demo/echo", payload);
        }
    }

    void Replied(size_t index, KVMessage* reply) {
        waiting_[index] = false;
        const char* payload = KVMessageGetPayload(reply);
        const bool failed = payload != nullptr && std::strstr(payload, "\"returnValue\":false");
        if (failed) {
            ++periodFailed_;
            lastFailure_ = payload;
        } else {
            answered_.Inc();
            ++periodAnswered_;
        }
        if (reporter_->PerMessage()) {
            Say("bus", "kelvra://%s/demo/echo answered %s", kDemoBusService, payload);
        }
    }

    void Report() {
        Say("bus",
            "at +%.3f ms: %lu bus calls answered in the last %u ms, %lu failed, %lu skipped "
            "(still waiting)%s%s",
            SinceStartMs(NowNs()), periodAnswered_, pace_.reportMs, periodFailed_, periodSkipped_,
            periodFailed_ != 0 ? "; last failure: " : "",
            periodFailed_ != 0 ? lastFailure_.c_str() : "");
        periodAnswered_ = 0;
        periodFailed_ = 0;
        periodSkipped_ = 0;
    }

    const DemoPace pace_;
    std::vector<std::unique_ptr<RdKvCall>> calls_;
    std::vector<bool> waiting_;  // Per call object: its call has not been answered yet.
    std::unique_ptr<Reporter> reporter_;
    unsigned long periodAnswered_ = 0;
    unsigned long periodFailed_ = 0;
    unsigned long periodSkipped_ = 0;
    std::string lastFailure_;
    std::unique_ptr<RdTimerBase> timer_;
    VokKvClient* power_ = nullptr;
    unsigned long n_ = 0;
    DiagnosticRegisterCounter answered_{"root.demo.bus.answered", 0};
};

}  // namespace

void DemoBlade::Run(ServiceBladeEnvironment* env) {
    RuntimeDispatcher dispatcher;
    BladeStopWatcher stopWatcher(env, dispatcher);
    Start(env, dispatcher);
    dispatcher.Run();
    Finish(env);
}

std::unique_ptr<DemoBlade> MakeEchoBlade() {
    return std::unique_ptr<DemoBlade>(new EchoBlade);
}
std::unique_ptr<DemoBlade> MakeClientBlade(const DemoPace& pace) {
    return std::unique_ptr<DemoBlade>(new ClientBlade(pace));
}
std::unique_ptr<DemoBlade> MakeAlarmBlade() {
    return std::unique_ptr<DemoBlade>(new AlarmBlade);
}
std::unique_ptr<DemoBlade> MakeBusBlade(const DemoPace& pace) {
    return std::unique_ptr<DemoBlade>(new BusBlade(pace));
}

DemoPace LoadPace() {
    DemoPace pace;
    pace.clientPeriodMs = 10;
    pace.clientBurst = 10;
    pace.busPeriodMs = 20;
    pace.busCalls = 4;
    pace.reportMs = 5000;
    return pace;
}

}  // namespace demo
}  // namespace vok
