#include "Src/Utils/RuntimeDispatcher/Linux/RdAlarmImpl.h"

#include <kelvra/kelvra.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "Src/Utils/RuntimeDispatcher/Linux/RdTimerImpl.h"
#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "Src/Utils/Trace/TraceEvents.h"
#include "Src/Utils/VokThrow.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/Logger.h"
#include "vok/RdAlarm.h"
#include "vok/RdKvCall.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokKvClient.h"

namespace vok {

namespace {

const char kPowerService[] = "com.orvex.power";
// The longest relative time the service takes: 23:59:59.
const unsigned kMaxRelativeSeconds = 24 * 3600 - 1;

const Logger& AlarmLogger() {
    static const Logger logger("VOK.Dispatcher.Alarm");
    return logger;
}

int64_t NowUs() {
    struct timespec ts;
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// The fields of a reply from the power service.
struct AlarmReply {
    bool hasReturnValue = false;
    bool returnValue = false;
    bool hasId = false;
    uint32_t id = 0;
    bool fired = false;
};

// Reads payload into *reply; returns what is wrong with it, or NULL when it is well formed.
const char* ParseAlarmReply(const char* payload, AlarmReply* reply) {
    JsonToken json;
    if (payload == nullptr || !json.ParseJsonString(payload) ||
        json.GetValueType() != JsonToken::kValueTypeObject) {
        return "bad json string";
    }
    JsonObjectConstFindResult returnValue = json.ObjectFindPair("returnValue");
    if (returnValue->HasValue()) {
        if (returnValue->GetValueType() != JsonToken::kValueTypeBoolean) {
            return "bad returnValue type";
        }
        reply->hasReturnValue = true;
        reply->returnValue = returnValue->BooleanGetValue();
    }
    JsonObjectConstFindResult alarmId = json.ObjectFindPair("alarmId");
    if (alarmId->HasValue()) {
        if (alarmId->GetValueType() != JsonToken::kValueTypeNumber) {
            return "bad alarmId type";
        }
        const double id = alarmId->NumberGetValue();
        // Ids are 32-bit unsigned integers; anything else would alias another alarm.
        if (!(id >= 0 && id <= 4294967295.0) ||
            id != static_cast<double>(static_cast<int64_t>(id))) {
            return "bad alarmId value";
        }
        reply->hasId = true;
        reply->id = static_cast<uint32_t>(id);
    }
    JsonObjectConstFindResult fired = json.ObjectFindPair("fired");
    if (fired->HasValue()) {
        if (fired->GetValueType() != JsonToken::kValueTypeBoolean) {
            return "bad fired type";
        }
        reply->fired = fired->BooleanGetValue();
    }
    return nullptr;
}

const char* Printable(const char* payload) {
    return payload != nullptr ? payload : "(none)";
}

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
      alarmState_(kNoRequest),
      dueUs_(0),
      serviceDueUs_(0),
      running_(0),
      firedBy_(kRdAlarmNotFired) {
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

unsigned RdAlarmImpl::RelativeSeconds(unsigned int milliseconds) {
    const uint64_t seconds = (static_cast<uint64_t>(milliseconds) + 999) / 1000;
    return seconds > kMaxRelativeSeconds ? kMaxRelativeSeconds : static_cast<unsigned>(seconds);
}

std::string RdAlarmImpl::RelativeTime(unsigned int milliseconds) {
    const unsigned seconds = RelativeSeconds(milliseconds);
    char text[16];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
    return text;
}

unsigned RdAlarmImpl::RemainingMs() const {
    const int64_t left = dueUs_ - NowUs();
    if (left <= 0) {
        return 0;
    }
    const int64_t ms = (left + 999) / 1000;
    return ms > UINT32_MAX ? UINT32_MAX : static_cast<unsigned>(ms);
}

void RdAlarmImpl::Schedule(unsigned int milliseconds) {
    StartAlarm(useTimer_, milliseconds);
}

void RdAlarmImpl::StartAlarm(bool useTimer, unsigned int milliseconds) {
    Cancel();
    intervalMs_ = milliseconds;
    dueUs_ = NowUs() + static_cast<int64_t>(milliseconds) * 1000;
    scheduled_ = true;
    firedBy_ = kRdAlarmNotFired;
    Arm(useTimer);
}

void RdAlarmImpl::Reschedule(bool useTimer) {
    if (scheduled_) {
        Arm(useTimer);
    }
}

void RdAlarmImpl::Arm(bool useTimer) {
    timer_->Cancel();
    RemoveAlarm();
    currentCall_ = nullptr;
    alarmState_ = kNoRequest;
    alarmId_ = 0;
    if (useTimer) {
        timer_->Schedule(RemainingMs());
    } else {
        MakeAlarmCall(RemainingMs());
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
    try {
        currentCall_->Call(kPowerService, "time/alarmAdd", payload);
    } catch (const VokResourceException& e) {
        AlarmLogger().Critical("alarm %p: cannot ask the power service (%s); the timer takes over",
                               static_cast<void*>(this), e.what());
        RemoveFromCallList(currentCall_);
        currentCall_ = nullptr;
        timer_->Schedule(milliseconds);
        return;
    }
    alarmState_ = kAddSent;
    serviceDueUs_ = NowUs() + static_cast<int64_t>(RelativeSeconds(milliseconds)) * 1000000;
    timer_->Schedule(kAddReplyLimitMs);  // the guard until the service answers
}

void RdAlarmImpl::AlarmCallbackFunc(RdKvCall* call, void*, KVMessage* reply) {
    Holder hold(this);  // the user's callback may destroy the alarm
    const char* payload = KVMessageGetPayload(reply);
    const bool last = KVMessageIsLastReply(reply);
    if (call != currentCall_) {
        StaleReply(call, payload, last);
        return;
    }
    CurrentReply(payload, last);
    // A request that ended but is no longer the current one (the timer took over while its id
    // was unknown) has nothing more to say.
    if (last && call != currentCall_) {
        RemoveFromCallList(call);
    }
}

void RdAlarmImpl::CurrentReply(const char* payload, bool last) {
    AlarmReply fields;
    if (const char* fault = ParseAlarmReply(payload, &fields)) {
        AlarmLogger().Critical(
            "alarm %p: malformed reply from the power service (%s): %s; the timer takes over",
            static_cast<void*>(this), fault, Printable(payload));
        Arm(true);
        return;
    }
    if (fields.hasReturnValue && !fields.returnValue) {
        // A refusal is an answer, not a fault: the timer carries this firing.
        AlarmLogger().Warning("alarm %p: the power service refused it: %s; the timer takes over",
                              static_cast<void*>(this), Printable(payload));
        Arm(true);
        return;
    }
    if (fields.hasId && alarmState_ == kAddSent) {
        alarmState_ = kIdKnown;
        alarmId_ = fields.id;
        // The guard now waits for the fired notice.
        const int64_t noticeDueUs = serviceDueUs_ - NowUs() + kNoticeOverdueMs * 1000;
        timer_->Schedule(noticeDueUs > 0 ? static_cast<unsigned>((noticeDueUs + 999) / 1000) : 0);
    }
    if (fields.fired && alarmState_ == kIdKnown && fields.hasId && fields.id == alarmId_) {
        OnServiceFired();
        return;
    }
    if (last) {
        AlarmLogger().Critical(
            "alarm %p: the power service ended the request unexpectedly: %s; the timer takes over",
            static_cast<void*>(this), Printable(payload));
        Arm(true);
    }
}

void RdAlarmImpl::StaleReply(RdKvCall* call, const char* payload, bool last) {
    // A reply to a request this alarm gave up: take its alarm back unless it already fired. A
    // late fired notice is dropped here, so the callback runs once.
    AlarmReply fields;
    const char* fault = ParseAlarmReply(payload, &fields);
    if (fault == nullptr && fields.hasId && (!fields.hasReturnValue || fields.returnValue)) {
        RemoveFromCallList(call);
        if (!fields.fired) {
            RemoveAlarm(fields.id);
        }
    } else if (last || fault != nullptr || (fields.hasReturnValue && !fields.returnValue)) {
        RemoveFromCallList(call);
    }
}

void RdAlarmImpl::OnServiceFired() {
    if (!scheduled_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "alarm fired when not scheduled");
    }
    alarmState_ = kNoRequest;  // nothing left to remove at the service
    const int64_t now = NowUs();
    if (now >= dueUs_) {
        Cancel();
        CallUserCb(kRdAlarmFiredByPowerService);
    } else if (now >= serviceDueUs_) {
        // The service kept its time, which was capped at 23:59:59: ask again for the rest.
        Arm(false);
    } else {
        AlarmLogger().Critical(
            "alarm %p: the power service fired it %lld ms early; the timer takes over",
            static_cast<void*>(this), static_cast<long long>((serviceDueUs_ - now) / 1000));
        Arm(true);
    }
}

void RdAlarmImpl::AlarmRemoveCallbackFunc(RdKvCall* call, void*, KVMessage*) {
    RemoveFromRemoveCallList(call);
}

void RdAlarmImpl::RdTimerCb() {
    if (!scheduled_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, "alarm fired when not scheduled");
    }
    if (currentCall_ != nullptr) {
        // The guard: the service is silent (a hung service still owns its bus name).
        if (alarmState_ == kAddSent) {
            AlarmLogger().Error(
                "alarm %p: no answer from the power service within %u ms; the timer takes over",
                static_cast<void*>(this), kAddReplyLimitMs);
        } else {
            AlarmLogger().Error(
                "alarm %p: the power service's notice of alarm %lu is overdue; the timer takes "
                "over",
                static_cast<void*>(this), static_cast<unsigned long>(alarmId_));
        }
        Arm(true);
        return;
    }
    if (NowUs() < dueUs_) {
        timer_->Schedule(RemainingMs());
        return;
    }
    Cancel();
    CallUserCb(kRdAlarmFiredByTimer);
}

void RdAlarmImpl::CallUserCb(RdAlarmFiredBy firedBy) {
    firedBy_ = firedBy;
    Holder hold(this);
    // Declared after hold, so it runs first: callables retired by ChangeCb during the call are
    // released once the outermost call has returned.
    struct Running {
        explicit Running(RdAlarmImpl* alarm) : alarm_(alarm) { ++alarm_->running_; }
        ~Running() {
            if (--alarm_->running_ == 0) {
                alarm_->retired_.clear();
            }
        }
        RdAlarmImpl* alarm_;
    } running(this);
    if (trace::TraceOn()) {
        const int64_t lateUs = NowUs() - dueUs_;
        trace::TraceInstant(trace::kInstAlarmLate, lateUs > 0 ? lateUs * 1000 : 0, nullptr);
    }
    trace::TraceCallbackScope scope(trace::kCbAlarm);
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
        alarmState_ = kNoRequest;
        alarmId_ = 0;
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
    if (running_ > 0) {
        retired_.push_back(std::move(callback_));  // it may be the one running
    }
    callback_ = std::move(callback);
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
RdAlarmFiredBy RdAlarmBase::GetFiredBy() const {
    return impl_->GetFiredBy();
}

}  // namespace vok
