#include "Src/Utils/RuntimeDispatcher/Linux/RdAlarmImpl.h"

#include <kelvra/kelvra.h>

#include <algorithm>
#include <cstdio>

#include "Src/Utils/RuntimeDispatcher/Linux/RdTimerImpl.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/VokThrow.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokKvClient.h"

namespace vok {

namespace {

const char kPowerService[] = "com.orvex.power";

}  // namespace

RdAlarmImpl::RdAlarmImpl(RuntimeDispatcherImpl* dispatcher, std::function<void()> callback)
    : dispatcher_(dispatcher),
      callback_(std::move(callback)),
      timer_(nullptr),
      scheduled_(false),
      useTimer_(true),
      intervalMs_(0),
      client_(nullptr),
      currentCall_(nullptr),
      alarmId_(0),
      alarmState_(kNoRequest) {
    client_ = dispatcher_->GetVokKvClient(kPowerService);
    timer_ = new RdTimerImpl(dispatcher_, [this]() { RdTimerCb(); });
    client_->AddRegStatusObserver(this, [this](bool connected) { RegStatusCb(connected); });
    useTimer_ = !client_->IsConnected();
}

RdAlarmImpl::~RdAlarmImpl() {
    client_->RemoveRegStatusObserver(this);
    RemoveAllFromCallList();
    RemoveAllFromRemoveCallList();
}

std::string RdAlarmImpl::RelativeTime(unsigned int milliseconds) {
    unsigned hours = 0;
    unsigned minutes = 0;
    unsigned seconds = milliseconds / 1000;
    if (seconds > 59) {
        const unsigned m = seconds / 60;
        seconds %= 60;
        if (m <= 59) {
            minutes = m;
        } else if (m / 60 > 23) {
            hours = 23;
            minutes = 59;
            seconds = 59;
        } else {
            hours = m / 60;
            minutes = m % 60;
        }
    }
    char text[16];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u", hours, minutes, seconds);
    return text;
}

void RdAlarmImpl::Schedule(unsigned int milliseconds) {
    StartAlarm(useTimer_, milliseconds);
}

void RdAlarmImpl::StartAlarm(bool useTimer, unsigned int milliseconds) {
    Cancel();
    intervalMs_ = milliseconds;
    if (useTimer) {
        timer_->Schedule(milliseconds);
    } else {
        MakeAlarmCall(milliseconds);
    }
    scheduled_ = true;
}

void RdAlarmImpl::Reschedule(bool useTimer) {
    // The whole interval starts again from now.
    if (scheduled_) {
        StartAlarm(useTimer, intervalMs_);
    }
}

RdKvCall* RdAlarmImpl::NewCall(void (RdAlarmImpl::*handler)(RdKvCall*, void*, KVMessage*)) {
    RdKvCall* call = new RdKvCall(dispatcher_->GetKvHandle(), nullptr);
    call->ChangeCb(
        [this, call, handler](KVMessage* reply) { (this->*handler)(call, nullptr, reply); });
    return call;
}

void RdAlarmImpl::MakeAlarmCall(unsigned int milliseconds) {
    const std::string payload =
        "{\"subscribe\":true, \"key\":\"com.orvex.vok\",\"relative_time\":\"" +
        RelativeTime(milliseconds) + "\"}";
    currentCall_ = NewCall(&RdAlarmImpl::AlarmCallbackFunc);
    callList_.push_back(currentCall_);
    currentCall_->Call(kPowerService, "time/alarmAdd", payload);
    alarmState_ = kAddSent;
}

void RdAlarmImpl::AlarmCallbackFunc(RdKvCall* call, void*, KVMessage* reply) {
    JsonToken json;
    const char* payload = KVMessageGetPayload(reply);
    if (payload == nullptr || !json.ParseJsonString(payload) ||
        json.GetValueType() != JsonToken::kValueTypeObject) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "bad json string");
    }
    JsonObjectConstFindResult returnValue = json.ObjectFindPair("returnValue");
    if (returnValue->HasValue()) {
        if (returnValue->GetValueType() != JsonToken::kValueTypeBoolean) {
            VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "bad returnValue type");
        }
        if (!returnValue->BooleanGetValue()) {
            const bool wasCurrent = call == currentCall_;
            RemoveFromCallList(call);
            if (wasCurrent) {
                // The service rejected the alarm: the timer takes over with the full interval.
                currentCall_ = nullptr;
                Reschedule(true);
            }
            return;
        }
    }
    uint32_t id = 0;
    JsonObjectConstFindResult alarmId = json.ObjectFindPair("alarmId");
    if (alarmId->HasValue()) {
        if (alarmId->GetValueType() != JsonToken::kValueTypeNumber) {
            VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "bad alarmId type");
        }
        id = static_cast<uint32_t>(static_cast<int64_t>(alarmId->NumberGetValue()));
        if (call != currentCall_) {
            // A reply to an abandoned request: take its alarm back unless it already fired.
            const bool fired = HasFired(json);
            RemoveFromCallList(call);
            if (!fired) {
                RemoveAlarm(id);
            }
            return;
        }
        if (alarmState_ == kAddSent) {
            alarmState_ = kIdKnown;
            alarmId_ = id;
        }
    }
    if (alarmState_ != kIdKnown || alarmId_ != id) {
        return;
    }
    if (HasFired(json)) {
        if (!scheduled_) {
            VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "alarm fired when not scheduled");
        }
        alarmState_ = kNoRequest;
        Cancel();
        CallUserCb();
    }
}

void RdAlarmImpl::AlarmRemoveCallbackFunc(RdKvCall* call, void*, KVMessage*) {
    RemoveFromRemoveCallList(call);
}

bool RdAlarmImpl::HasFired(const JsonToken& reply) {
    JsonObjectConstFindResult fired = reply.ObjectFindPair("fired");
    if (!fired->HasValue()) {
        return false;
    }
    if (fired->GetValueType() != JsonToken::kValueTypeBoolean) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "bad fired type");
    }
    return fired->BooleanGetValue();
}

void RdAlarmImpl::RdTimerCb() {
    if (!scheduled_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "alarm fired when not scheduled");
    }
    Cancel();
    CallUserCb();
}

void RdAlarmImpl::CallUserCb() {
    Holder hold(this);
    callback_();  // std::bad_function_call when empty.
}

void RdAlarmImpl::Cancel() {
    if (timer_ != nullptr) {
        timer_->Cancel();
    }
    RemoveAlarm();
    scheduled_ = false;
    currentCall_ = nullptr;
    alarmState_ = kNoRequest;
    alarmId_ = 0;
}

void RdAlarmImpl::RemoveAlarm() {
    // While the id is unknown the request stays listed: its reply is then handled as one to an
    // abandoned request, which removes the alarm.
    if (currentCall_ == nullptr || alarmState_ == kAddSent) {
        return;
    }
    RemoveFromCallList(currentCall_);
    if (alarmState_ == kIdKnown) {
        RemoveAlarm(alarmId_);
    }
}

void RdAlarmImpl::RemoveAlarm(unsigned int alarmId) {
    RdKvCall* call = NewCall(&RdAlarmImpl::AlarmRemoveCallbackFunc);
    removeCallList_.push_back(call);
    call->Call(kPowerService, "time/alarmRemove", "{\"alarmId\":" + std::to_string(alarmId) + "}");
}

namespace {

// Erases call from list and destroys it (cancelling its bus call); null or unlisted calls are
// left alone.
void RemoveCall(std::vector<RdKvCall*>* list, RdKvCall* call) {
    if (call == nullptr) {
        return;
    }
    auto it = std::find(list->begin(), list->end(), call);
    if (it != list->end()) {
        list->erase(it);
        delete call;
    }
}

void RemoveAllCalls(std::vector<RdKvCall*>* list) {
    std::vector<RdKvCall*> calls;
    calls.swap(*list);
    for (RdKvCall* call : calls) {
        delete call;
    }
}

}  // namespace

void RdAlarmImpl::RemoveFromCallList(RdKvCall* call) {
    RemoveCall(&callList_, call);
}
void RdAlarmImpl::RemoveFromRemoveCallList(RdKvCall* call) {
    RemoveCall(&removeCallList_, call);
}
void RdAlarmImpl::RemoveAllFromCallList() {
    RemoveAllCalls(&callList_);
}
void RdAlarmImpl::RemoveAllFromRemoveCallList() {
    RemoveAllCalls(&removeCallList_);
}

void RdAlarmImpl::RegStatusCb(bool connected) {
    if (!connected) {
        currentCall_ = nullptr;
        RemoveAllFromCallList();
        RemoveAllFromRemoveCallList();
        if (useTimer_) {
            return;
        }
        useTimer_ = true;
        Reschedule(true);
        return;
    }
    if (!useTimer_) {
        return;
    }
    useTimer_ = false;
    Reschedule(false);
}

void RdAlarmImpl::ChangeCb(std::function<void()> callback) {
    callback_.swap(callback);
}

void RdAlarmImpl::Discard() {
    Cancel();
    timer_->Discard();
    timer_ = nullptr;
    DropRef();
}

RdAlarmBase::RdAlarmBase(RuntimeDispatcher& dispatcher, std::function<void()> callback)
    : impl_(new RdAlarmImpl(RuntimeDispatcher::GetImpl(dispatcher), std::move(callback))) {}
RdAlarmBase::~RdAlarmBase() {
    impl_->Discard();
}
void RdAlarmBase::Schedule(unsigned int milliseconds) {
    impl_->Schedule(milliseconds);
}
void RdAlarmBase::Cancel() {
    impl_->Cancel();
}
void RdAlarmBase::ChangeCb(std::function<void()> callback) {
    impl_->ChangeCb(std::move(callback));
}

}  // namespace vok
