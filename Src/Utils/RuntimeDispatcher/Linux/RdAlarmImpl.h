// Not public API. Implementation of RdAlarmBase.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vok/VokTypes.h"

typedef struct KVMessage KVMessage;

namespace vok {

class JsonToken;
class RdKvCall;
class RdTimerImpl;
class RuntimeDispatcherImpl;
class VokKvClient;

// Reference-counted alarm; everything runs on the dispatcher's thread.
class RdAlarmImpl : public RefCounted {
  public:
    // alarmState_ values.
    enum AlarmState : uint32_t { kNoRequest = 0, kAddSent = 1, kIdKnown = 2 };

    RdAlarmImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback);

    void Schedule(unsigned int milliseconds);
    void Cancel();
    void ChangeCb(std::function<void()> callback);
    void Discard();

    // "HH:MM:SS" of an interval for the power service: whole seconds, at most 23:59:59.
    static std::string RelativeTime(unsigned int milliseconds);

  private:
    ~RdAlarmImpl() override;

    void StartAlarm(bool useTimer, unsigned int milliseconds);
    void Reschedule(bool useTimer);
    void RegStatusCb(bool connected);
    void RdTimerCb();
    void MakeAlarmCall(unsigned int milliseconds);
    void RemoveAlarm();
    void RemoveAlarm(unsigned int alarmId);
    void AlarmCallbackFunc(RdKvCall* call, void* userData, KVMessage* reply);
    void AlarmRemoveCallbackFunc(RdKvCall* call, void* userData, KVMessage* reply);
    bool HasFired(const JsonToken& reply);
    void CallUserCb();
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
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDALARMIMPL_H
