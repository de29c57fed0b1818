// The reference power service "com.orvex.power": relative wake-up alarms on a real timer.
#ifndef VOK_APPS_VOK_POWERD_POWERSERVICE_H
#define VOK_APPS_VOK_POWERD_POWERSERVICE_H

#include <kelvra/kelvra.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "vok/RdDescriptorMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace powerd {

// Serves "time/alarmAdd" and "time/alarmRemove" on a bus handle attached to the dispatcher's
// context. Each alarm is a timerfd on CLOCK_BOOTTIME_ALARM (wakes a suspended device) where the
// process may use it, else on CLOCK_BOOTTIME, watched by a descriptor monitor. A subscribed add
// request gets {"returnValue":true,"alarmId":N} at once and {"returnValue":true,"alarmId":N,
// "fired":true} as its last reply when the alarm fires; a client that cancels or leaves loses its
// alarm. Everything runs on the dispatcher's thread.
class PowerService {
  public:
    // requestLog, when not NULL, receives one line per request handled (for tests and demos).
    PowerService(RuntimeDispatcher& dispatcher, KVHandle* handle, FILE* requestLog);
    ~PowerService();
    PowerService(const PowerService&) = delete;
    PowerService& operator=(const PowerService&) = delete;

    // Registers the methods; false (error filled) when the bus refuses.
    bool RegisterMethods(KVError* error);
    // The clock the alarms use.
    const char* ClockName() const;

    // "HH:MM:SS" with hours 0..23 and minutes, seconds 0..59, to seconds; -1 when malformed.
    static long ParseRelativeTime(const char* text);

  private:
    struct Alarm;

    static bool AlarmAddCb(KVHandle* handle, KVMessage* request, void* self);
    static bool AlarmRemoveCb(KVHandle* handle, KVMessage* request, void* self);
    static void SubscriptionCancelledCb(KVHandle* handle, KVMessage* request, void* alarm);
    bool AlarmAdd(KVMessage* request);
    bool AlarmRemove(KVMessage* request);
    void Fired(uint32_t id);
    void Drop(uint32_t id);
    void ReplyError(KVMessage* request, int code, const char* text);
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int NewTimerFd();

    RuntimeDispatcher& dispatcher_;
    KVHandle* handle_;  // Not owned.
    FILE* requestLog_;
    int clockId_;  // CLOCK_BOOTTIME_ALARM, or CLOCK_BOOTTIME when that is not allowed.
    uint32_t nextId_;
    std::map<uint32_t, std::unique_ptr<Alarm>> alarms_;
};

}  // namespace powerd
}  // namespace vok

#endif  // VOK_APPS_VOK_POWERD_POWERSERVICE_H
