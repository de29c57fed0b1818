// vok-powerd's AlarmBook against a model. One request a line: byte 0 the action ('a' add, 'r'
// remove, 't' time passes, 'd' drop, else an unknown method), byte 1 the client (of four), the
// rest the payload (a number for 't' and 'd'). Properties: see the Check calls.
#include <json-c/json.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "AlarmBook.h"

namespace {

using vok::powerd::AlarmBook;

void Check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "property broken: %s\n", what);
        std::abort();
    }
}

bool Has(json_object* json, const char* name, json_type type, json_object** field) {
    return json_object_object_get_ex(json, name, field) && json_object_is_type(*field, type);
}

// Returns returnValue and, for accepted adds, the alarmId.
bool CheckReply(const std::string& reply, int64_t* alarmId) {
    json_tokener* tokener = json_tokener_new();
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_object* json =
        json_tokener_parse_ex(tokener, reply.c_str(), static_cast<int>(reply.size()));
    Check(json_tokener_get_error(tokener) == json_tokener_success &&
              json_tokener_get_parse_end(tokener) == reply.size() &&
              json_object_is_type(json, json_type_object),
          "reply is a JSON object");
    json_tokener_free(tokener);
    json_object* field = nullptr;
    Check(Has(json, "returnValue", json_type_boolean, &field), "boolean returnValue");
    const bool ok = json_object_get_boolean(field);
    Check(ok || Has(json, "errorCode", json_type_int, &field), "integer errorCode");
    Check(ok || (Has(json, "errorText", json_type_string, &field) &&
                 json_object_get_string_len(field) > 0),
          "errorText");
    *alarmId =
        json_object_object_get_ex(json, "alarmId", &field) ? json_object_get_int64(field) : -1;
    json_object_put(json);
    return ok;
}

struct ModelAlarm {
    std::string sender;
    int64_t dueNs;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    AlarmBook book;
    std::map<uint32_t, ModelAlarm> model;
    int64_t now = 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    for (size_t start = 0, end = 0; start < input.size(); start = end + 1) {
        end = std::min(input.find('\n', start), input.size());
        const std::string line = input.substr(start, end - start);
        if (line.size() < 2) {
            continue;
        }
        const std::string sender = ":1." + std::to_string(static_cast<unsigned char>(line[1]) % 4);
        const std::string payload = line.substr(2);
        if (line[0] == 't') {
            now += static_cast<int64_t>(std::strtoul(payload.c_str(), nullptr, 10) % 100000) *
                   1000000000;
            std::vector<std::pair<int64_t, uint32_t>> expected;
            for (const auto& alarm : model) {
                if (alarm.second.dueNs <= now) {
                    expected.push_back(std::make_pair(alarm.second.dueNs, alarm.first));
                }
            }
            std::sort(expected.begin(), expected.end());
            const std::vector<uint32_t> due = book.TakeDue(now);
            Check(due.size() == expected.size(), "the alarms due come due");
            for (size_t i = 0; i < due.size(); ++i) {
                Check(due[i] == expected[i].second, "in order of due time");
                model.erase(due[i]);
            }
        } else if (line[0] == 'd') {
            const uint32_t id = static_cast<uint32_t>(std::strtoul(payload.c_str(), nullptr, 10));
            Check(book.Drop(id) == (model.erase(id) == 1), "a dropped alarm existed");
        } else {
            const char* method = line[0] == 'a'   ? "time/alarmAdd"
                                 : line[0] == 'r' ? "time/alarmRemove"
                                                  : "time/alarmOther";
            // Payloads with a NUL byte end there, as they would on the bus.
            const AlarmBook::Outcome outcome =
                book.Handle(method, payload.c_str(), sender.c_str(), now);
            int64_t alarmId = -1;
            const bool ok = CheckReply(outcome.reply, &alarmId);
            Check(!(outcome.added != 0 && outcome.removed != 0), "one effect");
            if (outcome.added != 0) {
                Check(ok && alarmId == outcome.added && model.count(outcome.added) == 0,
                      "an accepted add names a new alarm");
                size_t owned = 0;
                for (const auto& alarm : model) {
                    owned += alarm.second.sender == sender ? 1 : 0;
                }
                Check(owned < AlarmBook::kMaxAlarmsPerClient, "per-client limit");
                json_object* request = json_tokener_parse(payload.c_str());
                const long seconds = AlarmBook::ParseRelativeTime(
                    json_object_get_string(json_object_object_get(request, "relative_time")));
                json_object_put(request);
                Check(seconds >= 0, "an accepted time is HH:MM:SS");
                model[outcome.added] = ModelAlarm{sender, now + seconds * 1000000000LL};
            } else if (outcome.removed != 0) {
                auto it = model.find(outcome.removed);
                Check(ok && it != model.end() && it->second.sender == sender,
                      "only the owner removes an alarm");
                model.erase(it);
            } else {
                Check(!ok, "a request without effect is refused");
            }
        }
        Check(book.Count() == model.size(), "the book holds the model's alarms");
    }
    return 0;
}
