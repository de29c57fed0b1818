// two-blades: a service and its client in one daemon, plus a call on the platform bus.
//
// The "server" blade opens a command service port under a well-known service identifier and
// answers every request with a reply carrying the same number. The "client" blade sends it a
// request every half second from a timer and prints the replies. At start the client also asks
// the bus whether the power service is up; without a bus it says so and carries on.
// SIGTERM or SIGINT stops the daemon cleanly.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <kelvra/kelvra.h>
#include <vok/BladeStopWatcher.h>
#include <vok/Daemon.h>
#include <vok/MessageMoverInterface.h>
#include <vok/MmCommandPort.h>
#include <vok/RdKvCall.h>
#include <vok/RdPortMonitor.h>
#include <vok/RdTimer.h>
#include <vok/RuntimeDispatcher.h>
#include <vok/VokError.h>
#include <vok/VokKvClient.h>
#include <vok/VokShell.h>

namespace {

// Any other blade in the process reaches the service at this address.
const vok::MmServiceIdentifier_t kServiceId = 100;
// Message names are (protocol, id) pairs the two sides agree on.
const vok::MmMessageName kRequest = {300, 1};
const vok::MmMessageName kReply = {300, 2};

// The server: answers requests on the service port. Everything runs on the blade's own thread.
class ServerBlade : public vok::ServiceBlade {
  public:
    void Run(vok::ServiceBladeEnvironment* environment) override {
        vok::RuntimeDispatcher dispatcher;
        vok::BladeStopWatcher stopWatcher(environment, dispatcher);
        iface_ = environment->GetMmInterface();
        port_ = iface_->CreateCommandServicePort(kServiceId);
        {
            // Calls Serve on this thread whenever the port has messages to read.
            vok::RdPortMonitor monitor(*port_, dispatcher, [this](bool, bool, bool) { Serve(); });
            monitor.SetEventMask(true, false, false);
            dispatcher.Run();
        }                                   // The monitor goes before the port it watches.
        iface_->DiscardCommandPort(port_);  // Give back what the interface handed out.
    }

  private:
    void Serve() {
        vok::MmCommandMessageHandle request;
        while (port_->ReadMessage(&request) == vok::kVokErrNone) {
            uint32_t size = 0;
            const uint32_t* number = static_cast<const uint32_t*>(request.GetPayloadPtr(&size));
            vok::MmCommandMessageHandle reply;
            *static_cast<uint32_t*>(iface_->CreateCommandMessage(sizeof(uint32_t), &reply)) =
                size == sizeof(uint32_t) ? *number : 0;
            reply.SetMessageName(kReply);
            reply.SetDestinationAddress(request.GetSenderAddress());
            port_->WriteMessage(reply, nullptr);  // The reply now belongs to the client.
            iface_->FreeMessage(request);         // What we read is ours to free.
        }
    }

    vok::MessageMoverInterface* iface_ = nullptr;
    vok::MmCommandPort* port_ = nullptr;
};

// Sends a numbered request every 500 ms and prints each reply; asks the bus about the power
// service once.
class ClientBlade : public vok::ServiceBlade {
  public:
    void Run(vok::ServiceBladeEnvironment* environment) override {
        vok::RuntimeDispatcher dispatcher;
        vok::BladeStopWatcher stopWatcher(environment, dispatcher);
        iface_ = environment->GetMmInterface();
        port_ = iface_->CreateCommandPort();  // Gets a dynamic address of its own.
        {
            vok::RdPortMonitor monitor(*port_, dispatcher,
                                       [this](bool, bool, bool) { ReadReplies(); });
            monitor.SetEventMask(true, false, false);
            vok::RdTimerBase timer(dispatcher, [this]() { SendRequest(); });
            timer_ = &timer;
            timer.Schedule(200);
            std::unique_ptr<vok::RdKvCall> busCall = AskBus(dispatcher);
            dispatcher.Run();
            timer_ = nullptr;
        }
        iface_->DiscardCommandPort(port_);
    }

  private:
    void SendRequest() {
        vok::MmCommandMessageHandle request;
        *static_cast<uint32_t*>(iface_->CreateCommandMessage(sizeof(uint32_t), &request)) = ++sent_;
        request.SetMessageName(kRequest);
        request.SetDestinationAddress(kServiceId);
        port_->WriteMessage(request, nullptr);
        timer_->Schedule(500);
    }

    void ReadReplies() {
        vok::MmCommandMessageHandle reply;
        while (port_->ReadMessage(&reply) == vok::kVokErrNone) {
            vok::MmMessageName name;
            reply.GetMessageName(&name);
            uint32_t size = 0;
            const void* payload = reply.GetPayloadPtr(&size);
            if (name == kReply && size == sizeof(uint32_t)) {
                std::printf("[client] reply to request %lu\n",
                            static_cast<unsigned long>(*static_cast<const uint32_t*>(payload)));
            } else if (name == vok::kMmPortNotReachableMsg) {
                // The service blade may not have opened its port yet.
                std::printf("[client] service not reachable yet\n");
            }
            std::fflush(stdout);
            iface_->FreeMessage(reply);
        }
    }

    // Subscribes to the bus's status of com.orvex.power. A missing bus is an ordinary state of
    // the device, not an error of this daemon: say so and work without it.
    std::unique_ptr<vok::RdKvCall> AskBus(vok::RuntimeDispatcher& dispatcher) {
        try {
            std::unique_ptr<vok::RdKvCall> call(
                new vok::RdKvCall(vok::RdKelvraUtils::GetKvHandle(dispatcher), [](KVMessage* m) {
                    std::printf("[client] bus: com.orvex.power status %s\n",
                                KVMessageGetPayload(m));
                    std::fflush(stdout);
                }));
            call->Call("com.orvex.kelvrabus", "signal/registerServerStatus",
                       "{\"serviceName\":\"com.orvex.power\"}");
            return call;
        } catch (const vok::VokResourceException& e) {
            std::printf("[client] no bus, carrying on without it: %s\n", e.what());
            std::fflush(stdout);
            return nullptr;
        }
    }

    vok::MessageMoverInterface* iface_ = nullptr;
    vok::MmCommandPort* port_ = nullptr;
    vok::RdTimerBase* timer_ = nullptr;
    uint32_t sent_ = 0;
};

// Makes a blade of type B on the blade's thread; the shell asks it for name and start mode.
template <typename B>
class Loader : public vok::VokBladeLoaderInterface {
  public:
    explicit Loader(const std::string& name) : name_(name) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return vok::kBladeStartModeAuto; }
    void LoadBlade(const vok::VokShellDaemonInfo&) override { blade_.reset(new B); }
    void UnloadBlade() override { blade_.reset(); }
    vok::ServiceBlade* GetServiceBlade() override { return blade_.get(); }

  private:
    std::string name_;
    std::unique_ptr<B> blade_;
};

}  // namespace

int main() {
    // The same stop handling as examples/minimal: RunDaemon waits for SIGTERM or SIGINT here,
    // stops both blades and destroys the shell.
    Loader<ServerBlade> server("server");
    Loader<ClientBlade> client("client");
    const int status = vok::RunDaemon(
        vok::VokShellDaemonInfo("two-blades", "the two-blade example"), {&server, &client});
    std::printf("[two-blades] stopped\n");
    return status;
}
