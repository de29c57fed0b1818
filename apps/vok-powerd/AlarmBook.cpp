#include "AlarmBook.h"

#include <json-c/json.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace vok {
namespace powerd {

namespace {

struct JsonFree {
    void operator()(json_object* value) const { json_object_put(value); }
};
typedef std::unique_ptr<json_object, JsonFree> JsonPtr;

// The payload as a JSON object, parsed strictly (nothing before or after it); null otherwise.
JsonPtr ParseObject(const char* payload) {
    if (payload == nullptr) {
        return nullptr;
    }
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) {
        return nullptr;
    }
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    const size_t length = std::strlen(payload);
    JsonPtr value(json_tokener_parse_ex(tokener, payload, static_cast<int>(length)));
    const bool whole = json_tokener_get_error(tokener) == json_tokener_success &&
                       json_tokener_get_parse_end(tokener) == length;
    json_tokener_free(tokener);
    if (!whole || !json_object_is_type(value.get(), json_type_object)) {
        return nullptr;
    }
    return value;
}

json_object* Member(json_object* object, const char* name) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, name, &value) ? value : nullptr;
}

std::string Text(json_object* object) {
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN);
}

std::string IdReply(uint32_t id, const char* flag) {
    JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(1));
    json_object_object_add(reply.get(), "alarmId", json_object_new_int64(id));
    if (flag != nullptr) {
        json_object_object_add(reply.get(), flag, json_object_new_boolean(1));
    }
    return Text(reply.get());
}

std::string Line(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Line(const char* format, ...) {
    char line[160];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

AlarmBook::Outcome Refused(const char* method, int code, const char* text) {
    AlarmBook::Outcome outcome;
    outcome.reply = AlarmBook::ErrorReply(code, text);
    outcome.logLine = std::string(method) + " rejected: " + text;
    return outcome;
}

}  // namespace

std::string AlarmBook::ErrorReply(int code, const char* text) {
    JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(0));
    json_object_object_add(reply.get(), "errorCode", json_object_new_int(code));
    json_object_object_add(reply.get(), "errorText", json_object_new_string(text));
    return Text(reply.get());
}

std::string AlarmBook::FiredReply(uint32_t id) {
    return IdReply(id, "fired");
}

std::string AlarmBook::RemovedReply(uint32_t id) {
    return IdReply(id, "removed");
}

long AlarmBook::ParseRelativeTime(const char* text) {
    if (text == nullptr || std::strlen(text) != 8 || text[2] != ':' || text[5] != ':') {
        return -1;
    }
    long parts[3];
    for (int i = 0; i < 3; ++i) {
        const char tens = text[i * 3];
        const char ones = text[i * 3 + 1];
        if (tens < '0' || tens > '9' || ones < '0' || ones > '9') {
            return -1;
        }
        parts[i] = (tens - '0') * 10 + (ones - '0');
    }
    if (parts[0] > 23 || parts[1] > 59 || parts[2] > 59) {
        return -1;
    }
    return parts[0] * 3600 + parts[1] * 60 + parts[2];
}

AlarmBook::Outcome AlarmBook::Handle(const std::string& method, const char* payload,
                                     const char* sender, int64_t nowNs) {
    const std::string from = sender != nullptr ? sender : "";
    if (method == "time/alarmAdd") {
        return Add(payload, from, nowNs);
    }
    if (method == "time/alarmRemove") {
        return Remove(payload, from);
    }
    return Refused(method.c_str(), kPowerErrUnknownMethod, "no such method");
}

AlarmBook::Outcome AlarmBook::Add(const char* payload, const std::string& sender, int64_t nowNs) {
    static const char kMethod[] = "alarmAdd";
    JsonPtr request = ParseObject(payload);
    if (!request) {
        return Refused(kMethod, kPowerErrBadPayload, "payload is not a JSON object");
    }
    // An alarm lives as long as its request's subscription, so that it ends with its client.
    json_object* subscribe = Member(request.get(), "subscribe");
    if (!json_object_is_type(subscribe, json_type_boolean) || !json_object_get_boolean(subscribe)) {
        return Refused(kMethod, kPowerErrNotSubscribed, "\"subscribe\":true is required");
    }
    json_object* time = Member(request.get(), "relative_time");
    const long seconds = json_object_is_type(time, json_type_string)
                             ? ParseRelativeTime(json_object_get_string(time))
                             : -1;
    if (seconds < 0) {
        return Refused(kMethod, kPowerErrBadTime, "relative_time must be a string HH:MM:SS");
    }
    if (alarms_.size() >= kMaxAlarms) {
        return Refused(kMethod, kPowerErrTooMany, "the service has as many alarms as it can keep");
    }
    size_t& owned = perClient_[sender];
    if (owned >= kMaxAlarmsPerClient) {
        return Refused(kMethod, kPowerErrTooMany, "the client has as many alarms as it may have");
    }
    ++owned;
    const uint32_t id = NewId();
    const int64_t dueNs = nowNs + static_cast<int64_t>(seconds) * 1000000000;
    alarms_[id] = Alarm{dueNs, sender};
    queue_.insert(std::make_pair(dueNs, id));
    Outcome outcome;
    outcome.reply = IdReply(id, nullptr);
    outcome.added = id;
    outcome.logLine = Line("alarmAdd id=%lu relative_time=%s subscribed=1",
                           static_cast<unsigned long>(id), json_object_get_string(time));
    return outcome;
}

AlarmBook::Outcome AlarmBook::Remove(const char* payload, const std::string& sender) {
    static const char kMethod[] = "alarmRemove";
    JsonPtr request = ParseObject(payload);
    if (!request) {
        return Refused(kMethod, kPowerErrBadPayload, "payload is not a JSON object");
    }
    // Only integers name alarms: 1.5, 1e300 or 4294967311 would be truncated or wrapped onto
    // another alarm's id.
    json_object* idValue = Member(request.get(), "alarmId");
    const int64_t wide =
        json_object_is_type(idValue, json_type_int) ? json_object_get_int64(idValue) : 0;
    if (wide < 1 || wide > static_cast<int64_t>(UINT32_MAX)) {
        return Refused(kMethod, kPowerErrBadId, "alarmId must be an integer 1..4294967295");
    }
    const uint32_t id = static_cast<uint32_t>(wide);
    auto it = alarms_.find(id);
    if (it == alarms_.end()) {
        Outcome outcome = Refused(kMethod, kPowerErrUnknownId, "no such alarm");
        outcome.logLine =
            Line("alarmRemove id=%lu rejected: no such alarm", static_cast<unsigned long>(id));
        return outcome;
    }
    if (it->second.sender != sender) {
        Outcome outcome =
            Refused(kMethod, kPowerErrNotOwner, "the alarm belongs to another client");
        outcome.logLine =
            Line("alarmRemove id=%lu rejected: not the owner", static_cast<unsigned long>(id));
        return outcome;
    }
    Forget(it);
    Outcome outcome;
    JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(1));
    outcome.reply = Text(reply.get());
    outcome.removed = id;
    outcome.logLine = Line("alarmRemove id=%lu", static_cast<unsigned long>(id));
    return outcome;
}

uint32_t AlarmBook::NewId() {
    // Ids wrap after 2^32 - 1 alarms; skip 0 and ids still in use.
    while (nextId_ == 0 || alarms_.count(nextId_) != 0) {
        ++nextId_;
    }
    return nextId_++;
}

void AlarmBook::Forget(std::map<uint32_t, Alarm>::iterator it) {
    queue_.erase(std::make_pair(it->second.dueNs, it->first));
    auto owner = perClient_.find(it->second.sender);
    if (owner != perClient_.end() && --owner->second == 0) {
        perClient_.erase(owner);
    }
    alarms_.erase(it);
}

std::vector<uint32_t> AlarmBook::TakeDue(int64_t nowNs) {
    std::vector<uint32_t> due;
    while (!queue_.empty() && queue_.begin()->first <= nowNs) {
        const uint32_t id = queue_.begin()->second;
        due.push_back(id);
        Forget(alarms_.find(id));
    }
    return due;
}

int64_t AlarmBook::NextDue() const {
    return queue_.empty() ? -1 : queue_.begin()->first;
}

bool AlarmBook::Drop(uint32_t id) {
    auto it = alarms_.find(id);
    if (it == alarms_.end()) {
        return false;
    }
    Forget(it);
    return true;
}

}  // namespace powerd
}  // namespace vok
