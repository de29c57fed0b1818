// The blades of the demo daemon.
#ifndef VOK_APPS_VOK_DEMO_DEMOBLADES_H
#define VOK_APPS_VOK_DEMO_DEMOBLADES_H

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "vok/BladeLoader.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

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
    virtual void Start(ServiceBladeEnvironment* env, RuntimeDispatcher& dispatcher) = 0;
    virtual void Finish(ServiceBladeEnvironment* env) = 0;
};

// How fast the client and bus blades send, and how they report. The default paces the demo for
// a person to watch; LoadPace() keeps the MessageMover and the bus busy for a soak run.
struct DemoPace {
    unsigned clientPeriodMs = 500;  // The client sends clientBurst requests each period.
    unsigned clientBurst = 1;
    unsigned busPeriodMs = 1000;  // The bus blade makes busCalls calls each period.
    unsigned busCalls = 1;
    unsigned reportMs = 0;  // 0: a line per round trip and bus reply; else a summary per period.
};
DemoPace LoadPace();

// Answers requests on command service port 100 (the payload comes back to the sender) and on the
// bus as com.orvex.vokdemo demo/echo.
std::unique_ptr<DemoBlade> MakeEchoBlade();
// Sends requests to service 100 and counts the round trips.
std::unique_ptr<DemoBlade> MakeClientBlade(const DemoPace& pace);
// Keeps an alarm of 2 s going: through the power service when it is up, else the timer. Each
// alarm is set again 250 ms after it fired, and every setting and firing is printed with its due
// time and the time it fired (milliseconds since the program started), so that a firing that
// comes early, twice or not at all shows in the output.
std::unique_ptr<DemoBlade> MakeAlarmBlade();
// Calls com.orvex.vokdemo demo/echo on the bus and follows com.orvex.power's status.
std::unique_ptr<DemoBlade> MakeBusBlade(const DemoPace& pace);

// Loads one of the blades above.
typedef VokBladeLoader<DemoBlade> DemoLoader;

}  // namespace demo
}  // namespace vok

#endif  // VOK_APPS_VOK_DEMO_DEMOBLADES_H
