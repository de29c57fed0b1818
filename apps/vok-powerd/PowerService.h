// The reference power service "com.orvex.power": relative wake-up alarms on a real timer.
#ifndef VOK_APPS_VOK_POWERD_POWERSERVICE_H
#define VOK_APPS_VOK_POWERD_POWERSERVICE_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>

#include "AlarmBook.h"
#include "vok/RdDescriptorMonitor.h"
#include "vok/RdKvService.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace powerd {

// Serves "time/alarmAdd" and "time/alarmRemove" as com.orvex.power from the dispatcher's thread;
// the requests themselves are decided by an AlarmBook. One timerfd, on
// CLOCK_BOOTTIME_ALARM (wakes a suspended device) where the process may use it, else on
// CLOCK_BOOTTIME, is armed for the earliest alarm, so the number of alarms costs no descriptors.
// An add request gets {"returnValue":true,"alarmId":N} at once and {"returnValue":true,
// "alarmId":N,"fired":true} as its last reply when the alarm fires; a client that cancels or
// leaves loses its alarm. Everything runs on the dispatcher's thread; destroying the service
// drops every alarm.
class PowerService {
  public:
    // Owns com.orvex.power on the bus; throws VokResourceException when another connection owns
    // it. requestLog, when not NULL, receives one line per request handled (for tests and
    // demos).
    PowerService(RuntimeDispatcher& dispatcher, FILE* requestLog);
    ~PowerService();
    PowerService(const PowerService&) = delete;
    PowerService& operator=(const PowerService&) = delete;

    // False when no timer could be made (the service cannot work).
    bool HasTimer() const { return timerFd_ >= 0; }
    // The clock the alarms use.
    const char* ClockName() const;
    // True while the service owns its name on the bus.
    bool IsConnected() const { return service_.IsConnected(); }
    // Called with true when the service owns its name (again), false when it lost the bus.
    void SetConnectionObserver(std::function<void(bool)> observer) {
        service_.SetConnectionObserver(std::move(observer));
    }

  private:
    void Serve(RdKvRequest& request);
    void SubscriptionCancelled(uint32_t id);
    void TimerExpired();
    // Ends an alarm's request with a last reply.
    void EndRequest(uint32_t id, const std::string& reply);
    void ArmTimer();
    int64_t NowNs() const;
    void Log(const std::string& line);

    FILE* requestLog_;
    int clockId_;  // CLOCK_BOOTTIME_ALARM, or CLOCK_BOOTTIME when that is not allowed.
    int timerFd_;  // Owned; -1 when none could be made.
    AlarmBook book_;
    std::map<uint32_t, RdKvSubscription> requests_;          // The open add requests, by alarm.
    std::unique_ptr<RdDescriptorMonitorBase> timerMonitor_;  // Watches timerFd_.
    // Declared last, so destroyed first: the name is given up before requests_ goes, and the
    // open requests end as their clients see a service leave, without a reply of their own.
    RdKvService service_;
};

}  // namespace powerd
}  // namespace vok

#endif  // VOK_APPS_VOK_POWERD_POWERSERVICE_H
