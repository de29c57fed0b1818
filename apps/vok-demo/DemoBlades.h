// The blades of the demo daemon.
#ifndef VOK_APPS_VOK_DEMO_DEMOBLADES_H
#define VOK_APPS_VOK_DEMO_DEMOBLADES_H

#include <memory>
#include <string>

#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

typedef struct _GMainContext GMainContext;

namespace vok {

class RdPortMonitor;

namespace demo {

// The MessageMover service identifier of the echo blade.
const MmServiceIdentifier_t kEchoServiceId = 100;
// The bus service of the echo blade.
extern const char kDemoBusService[];

// Common frame of the demo blades: a dispatcher of the blade's own on the blade thread, the
// control port watched for the stop event, and Start/Finish hooks around the loop. Everything a
// blade creates in Start it gives back in Finish, on the same thread.
class DemoBlade : public ServiceBlade {
  public:
    void Run(ServiceBladeEnvironment* env) final;

  protected:
    virtual void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher,
                       GMainContext* context) = 0;
    virtual void Finish(ServiceBladeEnvironment* env) = 0;
};

// Answers requests on command service port 100 (the payload comes back to the sender) and on the
// bus as com.orvex.vokdemo demo/echo.
std::unique_ptr<DemoBlade> MakeEchoBlade();
// Sends a request to service 100 every 500 ms and counts the round trips.
std::unique_ptr<DemoBlade> MakeClientBlade();
// Keeps an alarm of 2 s going: through the power service when it is up, else the timer.
std::unique_ptr<DemoBlade> MakeAlarmBlade();
// Calls com.orvex.vokdemo demo/echo on the bus every second and follows com.orvex.power's status.
std::unique_ptr<DemoBlade> MakeBusBlade();

// Loads one of the blades above.
class DemoLoader : public VokBladeLoaderInterface {
  public:
    DemoLoader(const std::string& name, std::unique_ptr<DemoBlade> (*make)())
        : name_(name), make_(make) {}
    const std::string& GetBladeName() const override { return name_; }
    int32_t GetStartMode() const override { return kBladeStartModeAuto; }
    void LoadBlade(const VokShellDaemonInfo&) override { blade_ = make_(); }
    void UnloadBlade() override { blade_.reset(); }
    ServiceBlade* GetServiceBlade() override { return blade_.get(); }

  private:
    std::string name_;
    std::unique_ptr<DemoBlade> (*make_)();
    std::unique_ptr<DemoBlade> blade_;
};

}  // namespace demo
}  // namespace vok

#endif  // VOK_APPS_VOK_DEMO_DEMOBLADES_H
