#include "PowerService.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/KelvraSvcUtils.h"

namespace vok {
namespace powerd {

namespace {

// errorCode values of this service's error replies.
enum PowerError {
    kPowerErrBadPayload = 1,  // not a JSON object
    kPowerErrBadTime = 2,     // "relative_time" missing or not HH:MM:SS
    kPowerErrBadId = 3,       // "alarmId" missing or not a number
    kPowerErrUnknownId = 4,   // no alarm with that id
    kPowerErrTimer = 5,       // the timer could not be made
};

}  // namespace

// One pending alarm: its timer and, for a subscribed request, the request to answer.
struct PowerService::Alarm {
    Alarm(PowerService* service, uint32_t alarmId, int timerFd)
        : owner(service), id(alarmId), fd(timerFd) {}
    ~Alarm() {
        monitor.reset();
        if (request != nullptr) {
            KVMessageUnref(request);
        }
        close(fd);
    }
    PowerService* owner;
    uint32_t id;
    int fd;
    KVMessage* request = nullptr;  // Referenced while the subscription lasts.
    std::unique_ptr<RdDescriptorMonitorBase> monitor;
};

PowerService::PowerService(RuntimeDispatcher& dispatcher, KVHandle* handle, FILE* requestLog)
    : dispatcher_(dispatcher),
      handle_(handle),
      requestLog_(requestLog),
      clockId_(CLOCK_BOOTTIME_ALARM),
      nextId_(1) {
    // CLOCK_BOOTTIME_ALARM needs CAP_WAKE_ALARM; without it the alarms still count suspended
    // time but cannot wake the device.
    const int fd = timerfd_create(CLOCK_BOOTTIME_ALARM, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd < 0) {
        clockId_ = CLOCK_BOOTTIME;
    } else {
        close(fd);
    }
}

PowerService::~PowerService() {
    alarms_.clear();
}

const char* PowerService::ClockName() const {
    return clockId_ == CLOCK_BOOTTIME_ALARM ? "CLOCK_BOOTTIME_ALARM" : "CLOCK_BOOTTIME";
}

bool PowerService::RegisterMethods(KVError* error) {
    return KVRegisterMethod(handle_, "time/alarmAdd", &PowerService::AlarmAddCb, this, error) &&
           KVRegisterMethod(handle_, "time/alarmRemove", &PowerService::AlarmRemoveCb, this, error);
}

long PowerService::ParseRelativeTime(const char* text) {
    unsigned h = 0, m = 0, s = 0;
    int consumed = 0;
    if (text == nullptr || std::strlen(text) != 8 ||
        std::sscanf(text, "%2u:%2u:%2u%n", &h, &m, &s, &consumed) != 3 || consumed != 8 || h > 23 ||
        m > 59 || s > 59) {
        return -1;
    }
    return static_cast<long>(h) * 3600 + m * 60 + s;
}

void PowerService::Log(const char* format, ...) {
    if (requestLog_ == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(requestLog_, format, args);
    va_end(args);
    std::fputc('\n', requestLog_);
    std::fflush(requestLog_);
}

void PowerService::ReplyError(KVMessage* request, int code, const char* text) {
    JsonToken reply;
    reply.MakeObject();
    KelvraSvcUtilAddStandardReplyValues(&reply, false, code, text);
    KVReplyLast(handle_, request, reply.GenerateJsonEncodingAndPeek(), nullptr);
}

bool PowerService::AlarmAddCb(KVHandle*, KVMessage* request, void* self) {
    return static_cast<PowerService*>(self)->AlarmAdd(request);
}

bool PowerService::AlarmRemoveCb(KVHandle*, KVMessage* request, void* self) {
    return static_cast<PowerService*>(self)->AlarmRemove(request);
}

int PowerService::NewTimerFd() {
    return timerfd_create(clockId_, TFD_CLOEXEC | TFD_NONBLOCK);
}

bool PowerService::AlarmAdd(KVMessage* request) {
    JsonToken payload;
    if (!payload.ParseJsonString(KVMessageGetPayload(request)) ||
        payload.GetValueType() != JsonToken::kValueTypeObject) {
        Log("alarmAdd rejected: payload is not a JSON object");
        ReplyError(request, kPowerErrBadPayload, "payload is not a JSON object");
        return true;
    }
    JsonObjectConstFindResult time = payload.ObjectFindPair("relative_time");
    const long seconds = time->GetValueType() == JsonToken::kValueTypeString
                             ? ParseRelativeTime(time->StringPeekValue())
                             : -1;
    if (seconds < 0) {
        Log("alarmAdd rejected: bad relative_time");
        ReplyError(request, kPowerErrBadTime, "relative_time must be a string HH:MM:SS");
        return true;
    }
    const int fd = NewTimerFd();
    if (fd < 0) {
        Log("alarmAdd failed: timerfd_create: %s", std::strerror(errno));
        ReplyError(request, kPowerErrTimer, std::strerror(errno));
        return true;
    }
    // A zero interval would disarm the timer: fire after a nanosecond instead.
    struct itimerspec spec;
    std::memset(&spec, 0, sizeof spec);
    spec.it_value.tv_sec = seconds;
    spec.it_value.tv_nsec = seconds == 0 ? 1 : 0;
    if (timerfd_settime(fd, 0, &spec, nullptr) != 0) {
        const int err = errno;
        close(fd);
        Log("alarmAdd failed: timerfd_settime: %s", std::strerror(err));
        ReplyError(request, kPowerErrTimer, std::strerror(err));
        return true;
    }
    const uint32_t id = nextId_++;
    std::unique_ptr<Alarm> alarm(new Alarm(this, id, fd));
    alarm->monitor.reset(
        new RdDescriptorMonitorBase(fd, dispatcher_, [this, id](bool, bool, bool) { Fired(id); }));
    alarm->monitor->SetEventMask(true, false, false);
    if (KVMessageIsSubscription(request) &&
        KVSubscriptionAdd(handle_, request, &PowerService::SubscriptionCancelledCb, alarm.get(),
                          nullptr)) {
        alarm->request = KVMessageRef(request);
    }
    JsonToken reply;
    reply.MakeObject();
    reply.ObjectSetBooleanPair("returnValue", true);
    reply.ObjectSetNumberPair("alarmId", static_cast<int>(id));
    KVReply(handle_, request, reply.GenerateJsonEncodingAndPeek(), nullptr);
    Log("alarmAdd id=%lu relative_time=%s subscribed=%d", static_cast<unsigned long>(id),
        time->StringPeekValue(), alarm->request != nullptr ? 1 : 0);
    alarms_[id] = std::move(alarm);
    return true;
}

bool PowerService::AlarmRemove(KVMessage* request) {
    JsonToken payload;
    if (!payload.ParseJsonString(KVMessageGetPayload(request)) ||
        payload.GetValueType() != JsonToken::kValueTypeObject) {
        Log("alarmRemove rejected: payload is not a JSON object");
        ReplyError(request, kPowerErrBadPayload, "payload is not a JSON object");
        return true;
    }
    JsonObjectConstFindResult idValue = payload.ObjectFindPair("alarmId");
    if (idValue->GetValueType() != JsonToken::kValueTypeNumber || idValue->NumberGetValue() < 0) {
        Log("alarmRemove rejected: bad alarmId");
        ReplyError(request, kPowerErrBadId, "alarmId must be a number");
        return true;
    }
    const uint32_t id = static_cast<uint32_t>(idValue->NumberGetValue());
    Log("alarmRemove id=%lu", static_cast<unsigned long>(id));
    if (alarms_.find(id) == alarms_.end()) {
        ReplyError(request, kPowerErrUnknownId, "no such alarm");
        return true;
    }
    Alarm* alarm = alarms_[id].get();
    if (alarm->request != nullptr) {
        // End the add request's subscription if its client has not cancelled it yet.
        JsonToken last;
        last.MakeObject();
        last.ObjectSetBooleanPair("returnValue", true);
        last.ObjectSetNumberPair("alarmId", static_cast<int>(id));
        last.ObjectSetBooleanPair("removed", true);
        KVReplyLast(handle_, alarm->request, last.GenerateJsonEncodingAndPeek(), nullptr);
    }
    Drop(id);
    JsonToken reply;
    reply.MakeObject();
    KelvraSvcUtilAddStandardReplyValues(&reply, true, 0, nullptr);
    KVReplyLast(handle_, request, reply.GenerateJsonEncodingAndPeek(), nullptr);
    return true;
}

void PowerService::Fired(uint32_t id) {
    auto it = alarms_.find(id);
    if (it == alarms_.end()) {
        return;
    }
    uint64_t expirations = 0;
    if (read(it->second->fd, &expirations, sizeof expirations) != sizeof expirations) {
        return;  // Spurious wake-up: not expired yet.
    }
    Log("fired id=%lu", static_cast<unsigned long>(id));
    if (it->second->request != nullptr) {
        JsonToken reply;
        reply.MakeObject();
        reply.ObjectSetBooleanPair("returnValue", true);
        reply.ObjectSetNumberPair("alarmId", static_cast<int>(id));
        reply.ObjectSetBooleanPair("fired", true);
        KVReplyLast(handle_, it->second->request, reply.GenerateJsonEncodingAndPeek(), nullptr);
    }
    Drop(id);
}

void PowerService::Drop(uint32_t id) {
    alarms_.erase(id);
}

void PowerService::SubscriptionCancelledCb(KVHandle*, KVMessage*, void* alarm) {
    Alarm* a = static_cast<Alarm*>(alarm);
    a->owner->Log("cancelled id=%lu", static_cast<unsigned long>(a->id));
    a->owner->Drop(a->id);
}

}  // namespace powerd
}  // namespace vok
