#include "support/TraceEventCheck.h"

#include <json-c/json.h>

#include <cmath>
#include <set>
#include <utility>

#include "support/OpenMetricsCheck.h"

namespace vok {
namespace test {

namespace {

std::string Member(json_object* object, const char* key, json_type type) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, key, &value) && json_object_is_type(value, type)
               ? json_object_get_string(value)
               : std::string();
}

bool Has(json_object* object, const char* key) {
    return json_object_object_get_ex(object, key, nullptr);
}

// A non-negative finite number (an integer when integer), or -1 with an error.
double Number(json_object* event, const char* key, bool integer, std::vector<std::string>* errors,
              const std::string& where) {
    json_object* value = nullptr;
    const bool found = json_object_object_get_ex(event, key, &value) &&
                       (json_object_is_type(value, json_type_int) ||
                        (!integer && json_object_is_type(value, json_type_double)));
    const double number = found ? json_object_get_double(value) : -1;
    if (!std::isfinite(number) || number < 0) {
        errors->push_back(where + key + " is not a non-negative number");
        return -1;
    }
    return number;
}

}  // namespace

std::string TraceCheck::Report() const {
    return JoinLines(errors);
}

std::vector<TraceEvent> TraceCheck::Phase(const std::string& ph) const {
    std::vector<TraceEvent> selected;
    for (const TraceEvent& event : events) {
        if (event.ph == ph) {
            selected.push_back(event);
        }
    }
    return selected;
}

TraceCheck CheckTraceEvents(const std::string& json) {
    TraceCheck result;
    std::vector<std::string>& errors = result.errors;
    json_tokener* tokener = json_tokener_new();
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
    json_object* root = json_tokener_parse_ex(tokener, json.c_str(), static_cast<int>(json.size()));
    const bool parsed = json_tokener_get_error(tokener) == json_tokener_success;
    json_tokener_free(tokener);
    json_object* events = nullptr;
    if (!parsed || !json_object_object_get_ex(root, "traceEvents", &events) ||
        !json_object_is_type(events, json_type_array)) {
        errors.push_back("not a JSON object with a traceEvents array");
        json_object_put(root);
        return result;
    }
    const std::string unit = Member(root, "displayTimeUnit", json_type_string);
    if (Has(root, "displayTimeUnit") && unit != "ms" && unit != "ns") {
        errors.push_back("displayTimeUnit is not \"ms\" or \"ns\"");
    }
    static const std::set<std::string> kKeys = {"ph",  "cat", "name", "pid", "tid", "ts",
                                                "dur", "id",  "args", "s",   "bp"};
    std::map<std::string, int> open;                                // cat/id -> open "b" events.
    std::map<std::string, TraceEvent> starts, ends;                 // cat/name/id -> flow event.
    std::map<long, std::vector<std::pair<double, double>>> slices;  // tid -> X [begin, end].
    for (size_t i = 0; i < json_object_array_length(events); ++i) {
        json_object* event = json_object_array_get_idx(events, i);
        const std::string where = "event " + std::to_string(i) + ": ";
        if (!json_object_is_type(event, json_type_object)) {
            errors.push_back(where + "not an object");
            continue;
        }
        json_object_object_foreach(event, key, unused) {
            (void)unused;
            if (kKeys.count(key) == 0) {
                errors.push_back(where + "unknown key " + key);
            }
        }
        TraceEvent e;
        e.ph = Member(event, "ph", json_type_string);
        e.cat = Member(event, "cat", json_type_string);
        e.name = Member(event, "name", json_type_string);
        e.id = Has(event, "id") ? json_object_get_string(json_object_object_get(event, "id")) : "";
        e.pid = static_cast<long>(Number(event, "pid", true, &errors, where));
        e.tid = static_cast<long>(Number(event, "tid", true, &errors, where));
        json_object* args = nullptr;
        if (json_object_object_get_ex(event, "args", &args)) {
            e.args = json_object_to_json_string_ext(args, JSON_C_TO_STRING_PLAIN);
        }
        if (e.ph.size() != 1 || std::string("XibesfM").find(e.ph) == std::string::npos ||
            e.name.empty()) {
            errors.push_back(where + "unknown phase \"" + e.ph + "\" or no name");
            continue;
        }
        result.events.push_back(e);
        if (e.ph == "M") {
            const std::string name = Member(args, "name", json_type_string);
            if ((e.name != "thread_name" && e.name != "process_name") || name.empty() ||
                (e.name == "thread_name" && !result.threadNames.emplace(e.tid, name).second)) {
                errors.push_back(where + "bad metadata " + e.name + ", or a thread named twice");
            }
            continue;
        }
        TraceEvent& added = result.events.back();
        added.ts = Number(event, "ts", false, &errors, where);
        const std::string scope = Member(event, "s", json_type_string);
        if (e.cat.empty() || (e.ph == "X") != Has(event, "dur") ||
            (e.ph == "f") != Has(event, "bp") ||
            (e.ph == "f" && Member(event, "bp", json_type_string) != "e") ||
            (std::string("besf").find(e.ph) != std::string::npos) == e.id.empty() ||
            (e.ph == "i" && scope != "t" && scope != "p" && scope != "g")) {
            errors.push_back(where + "no category, or dur, bp, id or scope wrong");
        }
        if (e.ph == "X") {
            added.dur = Number(event, "dur", false, &errors, where);
            slices[e.tid].push_back(std::make_pair(added.ts, added.ts + added.dur));
        } else if (e.ph == "b") {
            ++open[e.cat + "/" + e.id];
        } else if (e.ph == "e" && open[e.cat + "/" + e.id]-- <= 0) {
            errors.push_back(where + "async end without an open begin, id " + e.id);
        } else if ((e.ph == "s" || e.ph == "f") &&
                   !(e.ph == "s" ? starts : ends)
                        .emplace(e.cat + "/" + e.name + "/" + e.id, added)
                        .second) {
            errors.push_back(where + "flow " + e.id + " started or ended twice");
        }
    }
    json_object_put(root);
    auto inSlice = [&slices](const TraceEvent& flow) {
        for (const auto& slice : slices[flow.tid]) {
            if (slice.first <= flow.ts && flow.ts <= slice.second) {
                return true;
            }
        }
        return false;
    };
    for (const auto& start : starts) {
        auto end = ends.find(start.first);
        if (end == ends.end() || end->second.ts < start.second.ts || !inSlice(start.second) ||
            !inSlice(end->second)) {
            errors.push_back("flow " + start.first + " unended, ending early or outside a slice");
        }
    }
    for (const auto& end : ends) {
        if (starts.count(end.first) == 0) {
            errors.push_back("flow " + end.first + " has no start");
        }
    }
    for (const auto& slice : open) {
        result.openAsync += slice.second > 0 ? slice.second : 0;
    }
    return result;
}

}  // namespace test
}  // namespace vok
