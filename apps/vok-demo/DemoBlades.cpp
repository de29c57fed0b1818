#include "DemoBlades.h"

#include <glib.h>
#include <kelvra/kelvra.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vok/BladeStopWatcher.h"
#include "vok/DiagnosticRegister.h"
#include "vok/JsonToken.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmCommandPort.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
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

// ---- echo ----

class EchoBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher,
               GMainContext* context) override {
        iface_ = env->GetMmInterface();
        port_ = iface_->CreateCommandServicePort(kEchoServiceId);
        monitor_.reset(
            new RdPortMonitor(*port_, dispatcher, [this](bool, bool, bool) { Serve(); }));
        monitor_->SetEventMask(true, false, false);
        Say("echo", "serving MessageMover service %lu at address %lu",
            static_cast<unsigned long>(kEchoServiceId),
            static_cast<unsigned long>(port_->GetAddress()));

        KVError error;
        KVErrorInit(&error);
        if (KVRegister(kDemoBusService, &bus_, &error) &&
            KVRegisterMethod(bus_, "demo/echo", &EchoBlade::BusEcho, this, &error) &&
            KVGmainAttach(bus_, context, &error)) {
            Say("echo", "serving kelvra://%s/demo/echo on the bus", kDemoBusService);
        } else {
            Say("echo", "not on the bus: %s", error.message != nullptr ? error.message : "");
        }
        KVErrorFree(&error);
    }

    void Finish(ServiceBladeEnvironment*) override {
        monitor_.reset();
        iface_->DiscardCommandPort(port_);
        if (bus_ != nullptr) {
            KVUnregister(bus_, nullptr);
        }
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

    static bool BusEcho(KVHandle* handle, KVMessage* request, void* self) {
        JsonToken echoed;
        echoed.ParseJsonString(KVMessageGetPayload(request));
        JsonToken reply;
        reply.MakeObject();
        reply.ObjectSetBooleanPair("returnValue", true);
        reply.ObjectSetPair("echo", &echoed);
        KVReply(handle, request, reply.GenerateJsonEncodingAndPeek(), nullptr);
        static_cast<EchoBlade*>(self)->busServed_.Inc();
        return true;
    }

    MessageMoverInterface* iface_ = nullptr;
    MmCommandPort* port_ = nullptr;
    std::unique_ptr<RdPortMonitor> monitor_;  // Watches port_: destroyed before it.
    KVHandle* bus_ = nullptr;
    DiagnosticRegisterCounter served_{"root.demo.echo.served", 0};
    DiagnosticRegisterCounter busServed_{"root.demo.echo.busServed", 0};
};

// ---- client ----

class ClientBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher,
               GMainContext*) override {
        iface_ = env->GetMmInterface();
        port_ = iface_->CreateCommandPort();
        monitor_.reset(
            new RdPortMonitor(*port_, dispatcher, [this](bool, bool, bool) { ReadReplies(); }));
        monitor_->SetEventMask(true, false, false);
        timer_.reset(new RdTimerBase(dispatcher, [this]() { SendRequest(); }));
        timer_->Schedule(200);
    }

    void Finish(ServiceBladeEnvironment*) override {
        timer_.reset();
        monitor_.reset();
        iface_->DiscardCommandPort(port_);
        Say("client", "%ld round trips", static_cast<long>(roundTrips_.Get(nullptr)));
    }

  private:
    void SendRequest() {
        MmCommandMessageHandle request;
        EchoPayload* payload =
            static_cast<EchoPayload*>(iface_->CreateCommandMessage(sizeof(EchoPayload), &request));
        payload->sequence = ++sequence_;
        payload->sentNs = NowNs();
        request.SetMessageName(kEchoRequest);
        request.SetDestinationAddress(kEchoServiceId);
        port_->WriteMessage(request, nullptr);
        timer_->Schedule(500);
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
                    Say("client", "round trip #%lu through the echo service in %ld us",
                        static_cast<unsigned long>(payload->sequence),
                        static_cast<long>((NowNs() - payload->sentNs) / 1000));
                }
            } else if (name == kMmPortNotReachableMsg) {
                Say("client", "echo service not reachable (yet)");
            }
            iface_->FreeMessage(reply);
        }
    }

    MessageMoverInterface* iface_ = nullptr;
    MmCommandPort* port_ = nullptr;
    std::unique_ptr<RdPortMonitor> monitor_;  // Watches port_: destroyed before it.
    std::unique_ptr<RdTimerBase> timer_;
    uint32_t sequence_ = 0;
    DiagnosticRegisterCounter roundTrips_{"root.demo.client.roundTrips", 0};
};

// ---- alarm ----

class AlarmBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment*, RuntimeDispatcher& dispatcher, GMainContext*) override {
        try {
            alarm_.reset(new RdAlarmBase(dispatcher, [this]() { Fired(); }));
            power_ = RdKelvraUtils::GetVokKvClient(dispatcher, "com.orvex.power");
            alarm_->Schedule(kIntervalMs);
        } catch (const VokResourceException& e) {
            // No bus at all: the alarm cannot even watch for the power service.
            Say("alarm", "no bus (%s): using a plain timer", e.what());
            timer_.reset(new RdTimerBase(dispatcher, [this]() { Fired(); }));
            timer_->Schedule(kIntervalMs);
        }
        Say("alarm", "alarm set for %u ms", kIntervalMs);
    }

    void Finish(ServiceBladeEnvironment*) override {
        alarm_.reset();
        timer_.reset();
        Say("alarm", "%ld alarms fired", static_cast<long>(fired_.Get(nullptr)));
    }

  private:
    static const unsigned kIntervalMs = 2000;

    void Fired() {
        fired_.Inc();
        const bool viaPower = power_ != nullptr && power_->IsConnected();
        Say("alarm", "alarm #%ld fired through %s", static_cast<long>(fired_.Get(nullptr)),
            viaPower ? "the power service (com.orvex.power)" : "the fallback timer");
        if (alarm_) {
            alarm_->Schedule(kIntervalMs);
        } else {
            timer_->Schedule(kIntervalMs);
        }
    }

    VokKvClient* power_ = nullptr;
    std::unique_ptr<RdAlarmBase> alarm_;
    std::unique_ptr<RdTimerBase> timer_;
    DiagnosticRegisterCounter fired_{"root.demo.alarm.fired", 0};
};

// ---- bus ----

class BusBlade : public DemoBlade {
  protected:
    void Start(ServiceBladeEnvironment*, RuntimeDispatcher& dispatcher, GMainContext*) override {
        try {
            KVHandle* handle = RdKelvraUtils::GetKvHandle(dispatcher);
            call_.reset(new RdKvCall(handle, [this](KVMessage* reply) { Replied(reply); }));
            power_ = RdKelvraUtils::GetVokKvClient(dispatcher, "com.orvex.power");
            power_->AddRegStatusObserver(
                this, [](bool up) { Say("bus", "com.orvex.power is %s", up ? "up" : "down"); });
            timer_.reset(new RdTimerBase(dispatcher, [this]() { CallEcho(); }));
            timer_->Schedule(1000);
        } catch (const VokResourceException& e) {
            Say("bus", "no bus: %s", e.what());
        }
    }

    void Finish(ServiceBladeEnvironment*) override {
        timer_.reset();
        call_.reset();
        if (power_ != nullptr) {
            power_->RemoveRegStatusObserver(this);
        }
        Say("bus", "%ld bus calls answered", static_cast<long>(answered_.Get(nullptr)));
    }

  private:
    void CallEcho() {
        char payload[64];
        std::snprintf(payload, sizeof payload, "{\"n\":%lu}", static_cast<unsigned long>(++n_));
        call_->Call(kDemoBusService, "demo/echo", payload);
        timer_->Schedule(1000);
    }

    void Replied(KVMessage* reply) {
        answered_.Inc();
        Say("bus", "kelvra://%s/demo/echo answered %s", kDemoBusService,
            KVMessageGetPayload(reply));
    }

    std::unique_ptr<RdKvCall> call_;
    std::unique_ptr<RdTimerBase> timer_;
    VokKvClient* power_ = nullptr;
    unsigned long n_ = 0;
    DiagnosticRegisterCounter answered_{"root.demo.bus.answered", 0};
};

}  // namespace

void DemoBlade::Run(ServiceBladeEnvironment* env) {
    GMainContext* context = g_main_context_new();
    {
        GlibRuntimeDispatcher dispatcher(context);
        BladeStopWatcher stopWatcher(env, dispatcher);
        Start(env, dispatcher, context);
        dispatcher.Run();
        Finish(env);
    }
    g_main_context_unref(context);
}

std::unique_ptr<DemoBlade> MakeEchoBlade() {
    return std::unique_ptr<DemoBlade>(new EchoBlade);
}
std::unique_ptr<DemoBlade> MakeClientBlade() {
    return std::unique_ptr<DemoBlade>(new ClientBlade);
}
std::unique_ptr<DemoBlade> MakeAlarmBlade() {
    return std::unique_ptr<DemoBlade>(new AlarmBlade);
}
std::unique_ptr<DemoBlade> MakeBusBlade() {
    return std::unique_ptr<DemoBlade>(new BusBlade);
}

}  // namespace demo
}  // namespace vok
