#include "support/TraceEventCheck.h"

#include <json-c/json.h>

#include <cmath>
#include <set>
#include <sstream>
#include <utility>

namespace vok {
namespace test {

namespace {

// Where a flow event sits: thread, time, and the category, name and id it pairs on.
struct FlowEnd {
    long tid;
    double ts;
    std::string key;
};

class Checker {
  public:
    explicit Checker(TraceCheck* result) : result_(result) {}

    void Check(const std::string& json) {
        json_tokener* tokener = json_tokener_new();
        json_tokener_set_flags(tokener, JSON_TOKENER_STRICT);
        json_object* root =
            json_tokener_parse_ex(tokener, json.c_str(), static_cast<int>(json.size()));
        const json_tokener_error parseError = json_tokener_get_error(tokener);
        json_tokener_free(tokener);
        if (root == nullptr || parseError != json_tokener_success) {
            Error(std::string("not valid JSON: ") + json_tokener_error_desc(parseError));
            json_object_put(root);
            return;
        }
        CheckRoot(root);
        json_object_put(root);
        CheckPairs();
    }

  private:
    void Error(const std::string& text) { result_->errors.push_back(text); }

    void CheckRoot(json_object* root) {
        if (!json_object_is_type(root, json_type_object)) {
            Error("top level is not an object");
            return;
        }
        json_object* events = nullptr;
        json_object_object_foreach(root, key, value) {
            const std::string name = key;
            if (name == "traceEvents") {
                events = value;
            } else if (name == "displayTimeUnit") {
                const char* unit = json_object_get_string(value);
                if (!json_object_is_type(value, json_type_string) ||
                    (std::string(unit) != "ms" && std::string(unit) != "ns")) {
                    Error("displayTimeUnit is not \"ms\" or \"ns\"");
                }
            } else {
                Error("unknown top-level key " + name);
            }
        }
        if (events == nullptr || !json_object_is_type(events, json_type_array)) {
            Error("no traceEvents array");
            return;
        }
        for (size_t i = 0; i < json_object_array_length(events); ++i) {
            CheckEvent(json_object_array_get_idx(events, i), i);
        }
    }

    void CheckEvent(json_object* event, size_t index) {
        const std::string where = "event " + std::to_string(index) + ": ";
        if (!json_object_is_type(event, json_type_object)) {
            Error(where + "not an object");
            return;
        }
        static const std::set<std::string> kKeys = {"ph",  "cat", "name", "pid", "tid", "ts",
                                                    "dur", "id",  "args", "s",   "bp"};
        json_object_object_foreach(event, key, unused) {
            (void)unused;
            if (kKeys.count(key) == 0) {
                Error(where + "unknown key " + key);
            }
        }
        TraceEvent e;
        e.ph = String(event, "ph");
        e.cat = String(event, "cat");
        e.name = String(event, "name");
        e.pid = Integer(event, "pid", where);
        e.tid = Integer(event, "tid", where);
        json_object* args = nullptr;
        if (json_object_object_get_ex(event, "args", &args)) {
            if (!json_object_is_type(args, json_type_object)) {
                Error(where + "args is not an object");
            }
            e.args = json_object_to_json_string_ext(args, JSON_C_TO_STRING_PLAIN);
        }
        json_object* id = nullptr;
        if (json_object_object_get_ex(event, "id", &id)) {
            if (!json_object_is_type(id, json_type_string) &&
                !json_object_is_type(id, json_type_int)) {
                Error(where + "id is neither a string nor an integer");
            }
            e.id = json_object_get_string(id);
        }
        static const std::set<std::string> kPhases = {"X", "i", "b", "e", "s", "f", "M"};
        if (kPhases.count(e.ph) == 0) {
            Error(where + "unknown phase \"" + e.ph + "\"");
            return;
        }
        if (e.name.empty()) {
            Error(where + "no name");
        }
        if (e.ph == "M") {
            CheckMetadata(event, e, where);
            result_->events.push_back(e);
            return;
        }
        if (e.cat.empty()) {
            Error(where + "no category");
        }
        e.ts = Number(event, "ts", where);
        if (e.ph == "X") {
            e.dur = Number(event, "dur", where);
            slices_[e.tid].push_back(std::make_pair(e.ts, e.ts + e.dur));
        } else if (HasKey(event, "dur")) {
            Error(where + "dur on a " + e.ph + " event");
        }
        if (e.ph == "i") {
            const std::string scope = String(event, "s");
            if (scope != "t" && scope != "p" && scope != "g") {
                Error(where + "instant without scope t, p or g");
            }
        }
        if ((e.ph == "b" || e.ph == "e" || e.ph == "s" || e.ph == "f") && e.id.empty()) {
            Error(where + e.ph + " event without id");
        }
        if (e.ph == "f" && String(event, "bp") != "e") {
            Error(where + "flow end without \"bp\":\"e\"");
        }
        if (e.ph != "f" && HasKey(event, "bp")) {
            Error(where + "bp on a " + e.ph + " event");
        }
        if (e.ph == "b") {
            ++open_[e.cat + "/" + e.id];
        } else if (e.ph == "e") {
            int& open = open_[e.cat + "/" + e.id];
            if (open == 0) {
                Error(where + "async end without an open begin, id " + e.id);
            } else {
                --open;
            }
        } else if (e.ph == "s") {
            const std::string key = e.cat + "/" + e.name + "/" + e.id;
            if (!flowStarts_.emplace(key, FlowEnd{e.tid, e.ts, key}).second) {
                Error(where + "flow id " + e.id + " started twice");
            }
        } else if (e.ph == "f") {
            const std::string key = e.cat + "/" + e.name + "/" + e.id;
            if (!flowEnds_.emplace(key, FlowEnd{e.tid, e.ts, key}).second) {
                Error(where + "flow id " + e.id + " ended twice");
            }
        }
        result_->events.push_back(e);
    }

    void CheckMetadata(json_object* event, const TraceEvent& e, const std::string& where) {
        json_object* args = nullptr;
        json_object* name = nullptr;
        if (!json_object_object_get_ex(event, "args", &args) ||
            !json_object_object_get_ex(args, "name", &name) ||
            !json_object_is_type(name, json_type_string) || json_object_get_string_len(name) == 0) {
            Error(where + "metadata without args.name");
            return;
        }
        if (e.name == "thread_name") {
            if (!result_->threadNames.emplace(e.tid, json_object_get_string(name)).second) {
                Error(where + "thread " + std::to_string(e.tid) + " named twice");
            }
        } else if (e.name != "process_name") {
            Error(where + "unknown metadata " + e.name);
        }
    }

    // Flow pairs, and each flow event inside a slice of its thread.
    void CheckPairs() {
        for (const auto& start : flowStarts_) {
            auto end = flowEnds_.find(start.first);
            if (end == flowEnds_.end()) {
                Error("flow " + start.first + " has no end");
            } else if (end->second.ts < start.second.ts) {
                Error("flow " + start.first + " ends before it starts");
            }
            Enclosed(start.second);
        }
        for (const auto& end : flowEnds_) {
            if (flowStarts_.count(end.first) == 0) {
                Error("flow " + end.first + " has no start");
            }
            Enclosed(end.second);
        }
        for (const auto& open : open_) {
            result_->openAsync += open.second;
        }
    }

    void Enclosed(const FlowEnd& flow) {
        for (const auto& slice : slices_[flow.tid]) {
            if (slice.first <= flow.ts && flow.ts <= slice.second) {
                return;
            }
        }
        Error("flow event " + flow.key + " is in no slice of its thread");
    }

    bool HasKey(json_object* event, const char* key) {
        json_object* value = nullptr;
        return json_object_object_get_ex(event, key, &value);
    }

    std::string String(json_object* event, const char* key) {
        json_object* value = nullptr;
        if (!json_object_object_get_ex(event, key, &value) ||
            !json_object_is_type(value, json_type_string)) {
            return std::string();
        }
        return json_object_get_string(value);
    }

    long Integer(json_object* event, const char* key, const std::string& where) {
        json_object* value = nullptr;
        if (!json_object_object_get_ex(event, key, &value) ||
            !json_object_is_type(value, json_type_int) || json_object_get_int64(value) < 0) {
            Error(where + key + " is not a non-negative integer");
            return -1;
        }
        return static_cast<long>(json_object_get_int64(value));
    }

    double Number(json_object* event, const char* key, const std::string& where) {
        json_object* value = nullptr;
        if (!json_object_object_get_ex(event, key, &value) ||
            (!json_object_is_type(value, json_type_double) &&
             !json_object_is_type(value, json_type_int))) {
            Error(where + key + " is not a number");
            return -1;
        }
        const double number = json_object_get_double(value);
        if (!std::isfinite(number) || number < 0) {
            Error(where + key + " is negative or not finite");
        }
        return number;
    }

    TraceCheck* result_;
    std::map<long, std::vector<std::pair<double, double>>> slices_;  // tid -> [begin, end] of X.
    std::map<std::string, int> open_;                                // cat/id -> open b events.
    std::map<std::string, FlowEnd> flowStarts_;
    std::map<std::string, FlowEnd> flowEnds_;
};

}  // namespace

std::string TraceCheck::Report() const {
    std::ostringstream out;
    for (const std::string& error : errors) {
        out << error << "\n";
    }
    return out.str();
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
    Checker(&result).Check(json);
    return result;
}

}  // namespace test
}  // namespace vok
