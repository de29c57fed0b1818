// The reference power service "com.orvex.power": relative wake-up alarms on a real timer.
#ifndef VOK_APPS_VOK_POWERD_POWERSERVICE_H
#define VOK_APPS_VOK_POWERD_POWERSERVICE_H

#include <kelvra/kelvra.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>

#include "AlarmBook.h"
#include "vok/RdDescriptorMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace powerd {

// Serves "time/alarmAdd" and "time/alarmRemove" on a bus handle attached to the dispatcher's
// context; the requests themselves are decided by an AlarmBook. One timerfd, on
// CLOCK_BOOTTIME_ALARM (wakes a suspended device) where the process may use it, else on
// CLOCK_BOOTTIME, is armed for the earliest alarm, so the number of alarms costs no descriptors.
// An add request gets {"returnValue":true,"alarmId":N} at once and {"returnValue":true,
// "alarmId":N,"fired":true} as its last reply when the alarm fires; a client that cancels or
// leaves loses its alarm. Everything runs on the dispatcher's thread; destroying the service
// drops every alarm.
class PowerService {
  public:
    // requestLog, when not NULL, receives one line per request handled (for tests and demos).
    PowerService(RuntimeDispatcher& dispatcher, KVHandle* handle, FILE* requestLog);
    ~PowerService();
    PowerService(const PowerService&) = delete;
    PowerService& operator=(const PowerService&) = delete;

    // False when no timer could be made (the service cannot work).
    bool HasTimer() const { return timerFd_ >= 0; }
    // Registers the methods; false (error filled) when the bus refuses.
    bool RegisterMethods(KVError* error);
    // The clock the alarms use.
    const char* ClockName() const;

  private:
    static bool RequestCb(KVHandle* handle, KVMessage* request, void* self);
    static void SubscriptionCancelledCb(KVHandle* handle, KVMessage* request, void* self);
    void Serve(KVMessage* request);
    void TimerExpired();
    // Ends an alarm's request with a last reply.
    void EndRequest(uint32_t id, const std::string& reply);
    void ArmTimer();
    int64_t NowNs() const;
    void Log(const std::string& line);

    KVHandle* handle_;  // Not owned.
    FILE* requestLog_;
    int clockId_;  // CLOCK_BOOTTIME_ALARM, or CLOCK_BOOTTIME when that is not allowed.
    int timerFd_;  // Owned; -1 when none could be made.
    AlarmBook book_;
    std::map<uint32_t, KVMessage*> requests_;  // One reference each: the open add requests.
    std::unique_ptr<RdDescriptorMonitorBase> timerMonitor_;  // Watches timerFd_.
};

}  // namespace powerd
}  // namespace vok

#endif  // VOK_APPS_VOK_POWERD_POWERSERVICE_H
