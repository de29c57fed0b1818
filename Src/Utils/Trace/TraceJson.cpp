// The flight recorder's output: Chrome trace-event JSON, to a string or a file.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Src/Utils/Linux/AtomicFile.h"
#include "Src/Utils/Trace/TraceRecorder.h"
#include "vok/Trace.h"

namespace vok {
namespace trace {

namespace {

// Appends text as a JSON string. Bytes that do not form valid UTF-8 (a text cut in the middle
// of a character) become '?', so the document is always valid JSON.
void AppendString(std::string* out, const std::string& text) {
    out->push_back('"');
    const size_t size = text.size();
    for (size_t i = 0; i < size;) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out->push_back('\\');
            out->push_back(static_cast<char>(c));
            ++i;
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            out->append(escape);
            ++i;
        } else if (c < 0x80) {
            out->push_back(static_cast<char>(c));
            ++i;
        } else {
            const size_t length = c >= 0xF0 && c < 0xF5 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
            bool valid = length != 0 && i + length <= size && c < 0xF5;
            for (size_t k = 1; valid && k < length; ++k) {
                valid = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
            }
            if (valid) {
                out->append(text, i, length);
                i += length;
            } else {
                out->push_back('?');
                ++i;
            }
        }
    }
    out->push_back('"');
}

// Nanoseconds as microseconds with three decimals.
void AppendMicros(std::string* out, uint64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%" PRIu64 ".%03u", ns / 1000,
                  static_cast<unsigned>(ns % 1000));
    out->append(text);
}

void AppendHexId(std::string* out, uint64_t id) {
    char text[24];
    std::snprintf(text, sizeof text, "\"0x%" PRIx64 "\"", id);
    out->append(text);
}

// One event of the output, ordered by time; metadata first.
struct Entry {
    uint64_t ts;
    int order;
    std::string json;
};

// A record with the thread it came from.
struct Located {
    const TraceRecord* record;
    pid_t tid;
};

// The fields every event has: phase, category, name, pid, tid, ts.
std::string Head(const char* phase, const char* category, const std::string& name, pid_t pid,
                 pid_t tid, uint64_t ts) {
    std::string json = "{\"ph\":\"";
    json += phase;
    json += "\",\"cat\":\"";
    json += category;
    json += "\",\"name\":";
    AppendString(&json, name);
    char ids[64];
    std::snprintf(ids, sizeof ids, ",\"pid\":%ld,\"tid\":%ld,\"ts\":", static_cast<long>(pid),
                  static_cast<long>(tid));
    json += ids;
    AppendMicros(&json, ts);
    return json;
}

std::string MessageName(const char* verb, const TraceRecord& record) {
    char name[48];
    std::snprintf(name, sizeof name, "%s %lu/%lu", verb,
                  static_cast<unsigned long>(record.protocol),
                  static_cast<unsigned long>(record.msgId));
    return name;
}

std::string MessageArgs(const TraceRecord& record) {
    char args[160];
    std::snprintf(args, sizeof args,
                  ",\"args\":{\"protocol\":%lu,\"msg_id\":%lu,\"size\":%lu,\"source\":%lu,"
                  "\"dest\":%lu}",
                  static_cast<unsigned long>(record.protocol),
                  static_cast<unsigned long>(record.msgId), static_cast<unsigned long>(record.size),
                  static_cast<unsigned long>(record.source),
                  static_cast<unsigned long>(record.dest));
    return args;
}

const char* AsyncCategory(uint8_t kind) {
    return kind == kAsyncServedRequest ? "vok.bus.request" : "vok.bus.call";
}

std::string ProgramName() {
    return program_invocation_short_name != nullptr ? program_invocation_short_name : "vok";
}

}  // namespace

std::string TraceJson(uint64_t sinceNs) {
    std::vector<TraceTrack> tracks;
    TraceCollect(sinceNs, &tracks);
    const pid_t pid = getpid();

    std::vector<Entry> entries;
    std::string json = "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":";
    json += std::to_string(static_cast<long>(pid)) + ",\"tid\":0,\"args\":{\"name\":";
    AppendString(&json, ProgramName());
    json += "}}";
    entries.push_back(Entry{0, 0, json});

    // One name per thread: a thread that changed ring size has several rings; the newest names it.
    std::map<pid_t, std::string> names;
    std::vector<Located> located;
    std::map<uint64_t, int> writes;
    std::map<uint64_t, int> reads;
    for (const TraceTrack& track : tracks) {
        names[track.tid] = track.name;
        for (const TraceRecord& record : track.records) {
            located.push_back(Located{&record, track.tid});
            if (record.type == kRecMessageWrite) {
                ++writes[record.id];
            } else if (record.type == kRecMessageRead) {
                ++reads[record.id];
            }
        }
    }
    for (const auto& name : names) {
        json = "{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":" +
               std::to_string(static_cast<long>(pid)) +
               ",\"tid\":" + std::to_string(static_cast<long>(name.first)) + ",\"args\":{\"name\":";
        AppendString(&json,
                     name.second.empty() ? "thread " + std::to_string(name.first) : name.second);
        json += "}}";
        entries.push_back(Entry{0, 0, json});
    }
    std::stable_sort(located.begin(), located.end(), [](const Located& a, const Located& b) {
        return a.record->ts < b.record->ts;
    });

    // A flow is drawn only when both its ends are still in the rings.
    auto paired = [&writes, &reads](uint64_t id) {
        auto write = writes.find(id);
        auto read = reads.find(id);
        return write != writes.end() && read != reads.end() && write->second == 1 &&
               read->second == 1;
    };
    // Open asynchronous slices by (kind, id), with their names: an end takes its begin's name,
    // and an end whose begin was overwritten is left out.
    std::map<std::pair<uint8_t, uint64_t>, std::string> open;
    for (const Located& item : located) {
        const TraceRecord& r = *item.record;
        switch (r.type) {
            case kRecMessageWrite:
            case kRecMessageRead: {
                const bool write = r.type == kRecMessageWrite;
                json = Head("X", "vok.message", MessageName(write ? "write" : "read", r), pid,
                            item.tid, r.ts);
                json += ",\"dur\":";
                AppendMicros(&json, r.dur);
                json += MessageArgs(r) + "}";
                entries.push_back(Entry{r.ts, 1, json});
                if (paired(r.id)) {
                    json = Head(write ? "s" : "f", "vok.message", "message", pid, item.tid,
                                r.ts + r.dur / 2);
                    json += ",\"id\":";
                    AppendHexId(&json, r.id);
                    json += write ? "}" : ",\"bp\":\"e\"}";
                    entries.push_back(Entry{r.ts + r.dur / 2, 2, json});
                }
                break;
            }
            case kRecCallback:
                json =
                    Head("X", "vok.dispatch", TraceCallbackName(static_cast<CallbackKind>(r.kind)),
                         pid, item.tid, r.ts);
                json += ",\"dur\":";
                AppendMicros(&json, r.dur);
                json += "}";
                entries.push_back(Entry{r.ts, 1, json});
                break;
            case kRecAsyncBegin: {
                const std::string name =
                    r.text[0] != '\0' ? r.text : TraceAsyncName(static_cast<AsyncKind>(r.kind));
                open[std::make_pair(r.kind, r.id)] = name;
                json = Head("b", AsyncCategory(r.kind), name, pid, item.tid, r.ts);
                json += ",\"id\":";
                AppendHexId(&json, r.id);
                json += ",\"args\":{\"kind\":";
                AppendString(&json, TraceAsyncName(static_cast<AsyncKind>(r.kind)));
                if (r.kind == kAsyncBusCall) {
                    json += ",\"timeout_ms\":" + std::to_string(static_cast<long long>(r.value));
                }
                json += "}}";
                entries.push_back(Entry{r.ts, 1, json});
                break;
            }
            case kRecAsyncEnd: {
                auto begin = open.find(std::make_pair(r.kind, r.id));
                if (begin == open.end()) {
                    break;
                }
                json = Head("e", AsyncCategory(r.kind), begin->second, pid, item.tid, r.ts);
                json += ",\"id\":";
                AppendHexId(&json, r.id);
                json += ",\"args\":{\"error\":" + std::to_string(static_cast<long long>(r.value)) +
                        "}}";
                entries.push_back(Entry{r.ts, 1, json});
                open.erase(begin);
                break;
            }
            case kRecInstant: {
                const InstantKind kind = static_cast<InstantKind>(r.kind);
                const bool lateness = kind == kInstTimerLate || kind == kInstAlarmLate;
                json = Head("i", lateness ? "vok.dispatch" : "vok.shell",
                            kind == kInstMark ? std::string(r.text) : TraceInstantName(kind), pid,
                            item.tid, r.ts);
                json += ",\"s\":\"t\"";
                if (lateness) {
                    json += ",\"args\":{\"lateness_us\":";
                    AppendMicros(&json, r.value > 0 ? static_cast<uint64_t>(r.value) : 0);
                    json += "}";
                } else if (kind != kInstMark) {
                    json += ",\"args\":{\"blade\":";
                    AppendString(&json, r.text);
                    json += "}";
                }
                json += "}";
                entries.push_back(Entry{r.ts, 1, json});
                break;
            }
            default:
                break;
        }
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return a.ts != b.ts ? a.ts < b.ts : a.order < b.order;
    });

    std::string out = "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n";
    for (size_t i = 0; i < entries.size(); ++i) {
        out += entries[i].json;
        out += i + 1 < entries.size() ? ",\n" : "\n";
    }
    out += "]}\n";
    return out;
}

}  // namespace trace

std::string TraceSnapshotJson(uint64_t sinceNs) {
    return trace::TraceJson(sinceNs);
}

bool TraceWriteSnapshot(const std::string& path, uint64_t sinceNs, std::string* error) {
    return WriteFileAtomically(path, trace::TraceJson(sinceNs), error);
}

bool TraceRecordFor(double seconds, const std::string& path, std::string* error) {
    if (!(seconds >= 0 && seconds <= 86400)) {
        if (error != nullptr) {
            *error = "recording time must be between 0 and 86400 seconds";
        }
        return false;
    }
    const bool wasEnabled = TraceIsEnabled();
    const uint64_t start = trace::TraceClockNow();
    TraceSetEnabled(true);
    // Waiting out the window is the point here: nothing to wait for but the clock.
    const uint64_t end = start + static_cast<uint64_t>(std::llround(seconds * 1e9));
    for (uint64_t now = start; now < end; now = trace::TraceClockNow()) {
        const uint64_t left = end - now;
        struct timespec pause;
        pause.tv_sec = static_cast<time_t>(left / 1000000000u);
        pause.tv_nsec = static_cast<long>(left % 1000000000u);
        nanosleep(&pause, nullptr);
    }
    if (!wasEnabled) {
        TraceSetEnabled(false);
    }
    return TraceWriteSnapshot(path, start, error);
}

std::string TraceDumpForFault(const std::string& reason) {
    if (!TraceIsEnabled()) {
        return std::string();
    }
    static std::atomic<unsigned> sequence(0);
    const char* dir = std::getenv("VOK_TRACE_DIR");
    std::string tag;
    for (char c : reason) {
        tag.push_back(std::isalnum(static_cast<unsigned char>(c)) || c == '-' ? c : '_');
    }
    const std::string path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
                             "/vok-trace-" + trace::ProgramName() + "-" +
                             std::to_string(static_cast<long>(getpid())) + "-" + tag + "-" +
                             std::to_string(sequence.fetch_add(1)) + ".json";
    return TraceWriteSnapshot(path, 0, nullptr) ? path : std::string();
}

}  // namespace vok
