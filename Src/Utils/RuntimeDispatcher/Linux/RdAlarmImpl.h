// Not public API. Implementation of RdAlarmBase.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vok/RdAlarm.h"
#include "vok/VokTypes.h"

typedef struct KVMessage KVMessage;

namespace vok {

class RdKvCall;
class RdTimerImpl;
class RuntimeDispatcherImpl;
class VokKvClient;

// Reference-counted alarm; everything runs on the dispatcher's thread.
//
// A scheduled alarm has a fixed due time on CLOCK_BOOTTIME (which counts suspended time, as the
// power service's timers do). Whichever mechanism carries it (the power service or the timer) is
// armed for what remains of that time, so moving between them never restarts the interval. While
// the service carries it, the timer stands guard: it takes over when the service does not answer
// the add request within kAddReplyLimitMs, or when the fired notice is kNoticeOverdueMs late.
// Whatever the service sends, the user's callback runs once per Schedule and never before the due
// time; faults of the service are logged and the timer takes over.
class RdAlarmImpl : public RefCounted {
  public:
    // alarmState_ values.
    enum AlarmState : uint32_t { kNoRequest = 0, kAddSent = 1, kIdKnown = 2 };

    // How long the service may take to answer an add request.
    static const unsigned kAddReplyLimitMs = 2000;
    // How long after the service's own due time its fired notice may arrive.
    static const unsigned kNoticeOverdueMs = 2000;

    RdAlarmImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback);

    void Schedule(unsigned int milliseconds);
    void Cancel();
    void ChangeCb(std::function<void()> callback);
    void Discard();
    RdAlarmFiredBy GetFiredBy() const { return firedBy_; }

    // "HH:MM:SS" of an interval for the power service: whole seconds rounded up (the service
    // must not fire early), at most 23:59:59.
    static std::string RelativeTime(unsigned int milliseconds);
    // Seconds RelativeTime sends for an interval.
    static unsigned RelativeSeconds(unsigned int milliseconds);

  private:
    ~RdAlarmImpl() override;

    void StartAlarm(bool useTimer, unsigned int milliseconds);
    void Reschedule(bool useTimer);
    // Drops the current mechanism and arms the given one for the time that remains.
    void Arm(bool useTimer);
    void OnServiceFired();
    // Milliseconds until the due time, rounded up; 0 when it has passed.
    unsigned RemainingMs() const;
    void RegStatusCb(bool connected);
    void RdTimerCb();
    void MakeAlarmCall(unsigned int milliseconds);
    void RemoveAlarm();
    void RemoveAlarm(unsigned int alarmId);
    void AlarmCallbackFunc(RdKvCall* call, void* userData, KVMessage* reply);
    void CurrentReply(const char* payload, bool last);
    void StaleReply(RdKvCall* call, const char* payload, bool last);
    void AlarmRemoveCallbackFunc(RdKvCall* call, void* userData, KVMessage* reply);
    // Runs the user's callback for a firing by firedBy.
    void CallUserCb(RdAlarmFiredBy firedBy);
    void RemoveFromCallList(RdKvCall* call);
    void RemoveFromRemoveCallList(RdKvCall* call);
    void RemoveAllFromCallList();
    void RemoveAllFromRemoveCallList();
    RdKvCall* NewCall(void (RdAlarmImpl::*handler)(RdKvCall*, void*, KVMessage*));

    RuntimeDispatcherImpl* dispatcher_;  // Not owned.
    std::function<void()> callback_;
    RdTimerImpl* timer_;  // Owned reference; the fallback, bound to RdTimerCb.
    bool scheduled_;      // From Schedule until the alarm fires or is cancelled.
    bool useTimer_;       // True while the power service is not connected.
    uint32_t intervalMs_;
    VokKvClient* client_;                    // The dispatcher's client of the power service.
    RdKvCall* currentCall_;                  // The add request in force, or null.
    std::vector<RdKvCall*> callList_;        // Owned: add requests not yet finished.
    std::vector<RdKvCall*> removeCallList_;  // Owned: remove requests not yet answered.
    uint32_t alarmId_;
    uint32_t alarmState_;
    int64_t dueUs_;         // CLOCK_BOOTTIME when the alarm is due.
    int64_t serviceDueUs_;  // The earliest time the service may fire the current request.
    // A callable replaced by ChangeCb while the callback runs lives here until dispatch returns.
    std::vector<std::function<void()>> retired_;
    unsigned running_;        // Nesting depth of CallUserCb.
    RdAlarmFiredBy firedBy_;  // Of the last firing since Schedule.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H
