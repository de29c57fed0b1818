// sensord: three blades. "sampler" reads the sensor every 200 ms and sends the value over a
// MessageMover port to "aggregator", which serves the mean of the last 10 values on the bus as
// kelvra://com.orvex.sensord/sensor/mean: once, or with "subscribe":true now and whenever it
// moves by more than 1.0. "janitor" keeps a 5 s wake-up alarm through the power service.
#include <cmath>
#include <cstdio>
#include <deque>
#include <map>
#include <string>

#include <vok/vok.h>

namespace {

const vok::MmServiceIdentifier_t kAggregatorPort = 101;  // the aggregator's MessageMover address
const vok::MmMessageName kSample = {400, 1};             // payload: one double

// A command port of the blade (at service address id, or a dynamic one for 0), read on the
// blade's dispatcher: onMessage sees every message that arrives, which is freed afterwards.
class Port {
  public:
    Port(vok::ServiceBladeEnvironment& env, vok::RuntimeDispatcher& dispatcher,
         vok::MmServiceIdentifier_t id, std::function<void(vok::MmCommandMessageHandle&)> onMessage)
        : iface_(env.GetMmInterface()),
          port_(id != 0 ? iface_->CreateCommandServicePort(id) : iface_->CreateCommandPort()),
          monitor_(new vok::RdPortMonitor(*port_, dispatcher, [this, onMessage](bool, bool, bool) {
              vok::MmCommandMessageHandle message;
              while (port_->ReadMessage(&message) == vok::kVokErrNone) {
                  onMessage(message);
                  iface_->FreeMessage(message);  // what we read is ours to free
              }
          })) {
        monitor_->SetEventMask(true, false, false);
    }
    ~Port() {
        monitor_.reset();  // before the port it watches
        iface_->DiscardCommandPort(port_);
    }

    void Send(vok::MmServiceIdentifier_t to, double value) {
        vok::MmCommandMessageHandle message;
        *static_cast<double*>(iface_->CreateCommandMessage(sizeof value, &message)) = value;
        message.SetMessageName(kSample);
        message.SetDestinationAddress(to);
        port_->WriteMessage(message, nullptr);  // the message is the receiver's now
    }

  private:
    vok::MessageMoverInterface* iface_;
    vok::MmCommandPort* port_;
    std::unique_ptr<vok::RdPortMonitor> monitor_;
};

// Reads the sensor at a fixed rate; its port only gets (and frees) notices while the aggregator's
// port is not open yet.
struct Sampler {
    Sampler(vok::ServiceBladeEnvironment& env, vok::RuntimeDispatcher& dispatcher)
        : port_(env, dispatcher, 0, [](vok::MmCommandMessageHandle&) {}),
          timer_(dispatcher,
                 [this]() { port_.Send(kAggregatorPort, 20 + 5 * std::sin(++n_ / 10.0)); }) {
        timer_.SchedulePeriodic(200);
    }
    Port port_;
    vok::RdTimerBase timer_;
    unsigned n_ = 0;
};

// Keeps the mean of the last 10 values and serves it as com.orvex.sensord sensor/mean.
class Aggregator {
  public:
    Aggregator(vok::ServiceBladeEnvironment& env, vok::RuntimeDispatcher& dispatcher)
        : port_(env, dispatcher, kAggregatorPort,
                [this](vok::MmCommandMessageHandle& message) { Add(message); }),
          service_(dispatcher, "com.orvex.sensord") {
        service_.AddMethod("sensor/mean", [this](vok::RdKvRequest& request) {
            if (!request.IsSubscription()) {
                request.Reply(MeanReply());
                return;
            }
            const unsigned id = ++lastId_;
            Subscriber& subscriber = subscribers_[id];
            subscriber.subscription = request.Subscribe([this, id]() { subscribers_.erase(id); });
            subscriber.told = Mean();
            subscriber.subscription.Reply(MeanReply());
        });
    }

  private:
    void Add(vok::MmCommandMessageHandle& message) {
        uint32_t size = 0;
        const void* payload = message.GetPayloadPtr(&size);
        if (size != sizeof(double)) {
            return;
        }
        values_.push_back(*static_cast<const double*>(payload));
        sum_ += values_.back();
        if (values_.size() > 10) {
            sum_ -= values_.front();
            values_.pop_front();
        }
        for (auto& entry : subscribers_) {
            if (std::fabs(Mean() - entry.second.told) > 1.0) {
                entry.second.told = Mean();
                entry.second.subscription.Reply(MeanReply());
            }
        }
    }

    double Mean() const { return values_.empty() ? 0 : sum_ / values_.size(); }

    std::string MeanReply() const {
        return "{\"returnValue\":true,\"mean\":" + std::to_string(Mean()) + "}";
    }

    struct Subscriber {
        vok::RdKvSubscription subscription;  // erased while open: ends with a last reply
        double told;                         // the mean it heard last
    };
    Port port_;
    std::deque<double> values_;
    double sum_ = 0;  // of values_
    std::map<unsigned, Subscriber> subscribers_;
    unsigned lastId_ = 0;
    vok::RdKvService service_;  // last: destroyed first, so no request comes in during teardown
};

// Keeps a 5 s wake-up alarm going and says what woke it.
struct Janitor {
    Janitor(vok::ServiceBladeEnvironment&, vok::RuntimeDispatcher& dispatcher)
        : alarm_(dispatcher, [this]() {
              const bool power = alarm_.GetFiredBy() == vok::kRdAlarmFiredByPowerService;
              std::printf("[janitor] woken by the %s\n",
                          power ? "power service" : "fallback timer");
              std::fflush(stdout);
              alarm_.Schedule(5000);
          }) {
        alarm_.Schedule(5000);
    }
    vok::RdAlarmBase alarm_;
};

}  // namespace

int main() {
    vok::VokBladeLoader<vok::VokLoopBlade<Sampler>> sampler("sampler");
    vok::VokBladeLoader<vok::VokLoopBlade<Aggregator>> aggregator("aggregator");
    vok::VokBladeLoader<vok::VokLoopBlade<Janitor>> janitor("janitor");
    return vok::RunDaemon(vok::VokShellDaemonInfo("sensord", "the sensor example"),
                          {&sampler, &aggregator, &janitor});
}
