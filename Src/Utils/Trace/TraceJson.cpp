// The flight recorder's output: Chrome trace-event JSON, to a string or a file.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
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

// Appends printf-style text.
__attribute__((format(printf, 2, 3))) void Appendf(std::string* out, const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length >= static_cast<int>(sizeof text)) {
        const size_t at = out->size();
        out->resize(at + static_cast<size_t>(length) + 1);
        std::vsnprintf(&(*out)[at], static_cast<size_t>(length) + 1, format, again);
        out->resize(at + static_cast<size_t>(length));
    } else if (length > 0) {
        out->append(text, static_cast<size_t>(length));
    }
    va_end(again);
}

// Nanoseconds as microseconds with three decimals.
void AppendMicros(std::string* out, uint64_t ns) {
    Appendf(out, "%" PRIu64 ".%03u", ns / 1000, static_cast<unsigned>(ns % 1000));
}

std::string ProgramName() {
    return program_invocation_short_name != nullptr ? program_invocation_short_name : "vok";
}

// Writes the events of a dump. Every event goes to its own string; Finish orders them by time.
class JsonWriter {
  public:
    JsonWriter() : pid_(static_cast<long>(getpid())) {}

    // An "M" event naming the process (tid 0) or a thread.
    void Metadata(const char* what, long tid, const std::string& name) {
        std::string* json = Add(0, 0);
        Appendf(json,
                "{\"ph\":\"M\",\"name\":\"%s\",\"pid\":%ld,\"tid\":%ld,\"args\":{\"name\":", what,
                pid_, tid);
        AppendString(json, name);
        json->append("}}");
    }

    // Starts an event: phase, category, name, pid, tid and ts; the caller appends the rest and
    // the closing brace.
    std::string* Event(const char* phase, const char* category, const std::string& name, long tid,
                       uint64_t ts, unsigned order = 1) {
        std::string* json = Add(ts, order);
        Appendf(json, "{\"ph\":\"%s\",\"cat\":\"%s\",\"name\":", phase, category);
        AppendString(json, name);
        Appendf(json, ",\"pid\":%ld,\"tid\":%ld,\"ts\":", pid_, tid);
        AppendMicros(json, ts);
        return json;
    }

    std::string Finish() {
        std::sort(keys_.begin(), keys_.end());
        std::string out = "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n";
        for (size_t i = 0; i < keys_.size(); ++i) {
            out += events_[keys_[i].index];
            out += i + 1 < keys_.size() ? ",\n" : "\n";
        }
        out += "]}\n";
        return out;
    }

  private:
    // Orders events by time, then metadata, slices and flows, then as written.
    struct Key {
        uint64_t ts;
        uint32_t order;
        uint32_t index;
        bool operator<(const Key& other) const {
            return ts != other.ts         ? ts < other.ts
                   : order != other.order ? order < other.order
                                          : index < other.index;
        }
    };

    std::string* Add(uint64_t ts, unsigned order) {
        keys_.push_back(Key{ts, order, static_cast<uint32_t>(events_.size())});
        events_.emplace_back();
        return &events_.back();
    }

    const long pid_;
    std::vector<std::string> events_;
    std::vector<Key> keys_;
};

// The ends of a message's flow found in the rings. A flow is drawn only when both are there,
// once each.
struct FlowEnd {
    uint32_t writes = 0;
    uint32_t reads = 0;
    uint64_t start = 0;  // The flow start's time: the write slice's first nanosecond.
};
typedef std::map<uint64_t, FlowEnd> FlowEnds;

// Open asynchronous slices by (kind, id) with their names; an end takes its begin's name, and an
// end whose begin was overwritten is left out.
typedef std::map<std::pair<uint8_t, uint64_t>, std::string> OpenSlices;

void WriteMessage(JsonWriter* out, long tid, const TraceRecord& r, const FlowEnds& flows) {
    const bool write = r.type == kRecMessageWrite;
    char name[48];
    std::snprintf(name, sizeof name, "%s %lu/%lu", write ? "write" : "read",
                  static_cast<unsigned long>(r.protocol), static_cast<unsigned long>(r.msgId));
    std::string* json = out->Event("X", "vok.message", name, tid, r.ts);
    json->append(",\"dur\":");
    AppendMicros(json, r.dur);
    Appendf(json,
            ",\"args\":{\"protocol\":%lu,\"msg_id\":%lu,\"size\":%lu,\"source\":%lu,\"dest\":%lu}}",
            static_cast<unsigned long>(r.protocol), static_cast<unsigned long>(r.msgId),
            static_cast<unsigned long>(r.size), static_cast<unsigned long>(r.source),
            static_cast<unsigned long>(r.dest));
    auto ends = flows.find(r.id);
    if (ends != flows.end() && ends->second.writes == 1 && ends->second.reads == 1) {
        // Each end lies inside its slice, which Perfetto binds it to. The start is the write's
        // first nanosecond (the message was queued after it); the end is the read's middle, or
        // the start when a read that began before the write got the message (the read then
        // still ends after the message was queued, so after the start).
        const uint64_t ts =
            write ? ends->second.start : std::max(r.ts + r.dur / 2, ends->second.start);
        json = out->Event(write ? "s" : "f", "vok.message", "message", tid, ts, 2);
        Appendf(json, ",\"id\":\"0x%" PRIx64 "\"%s}", r.id, write ? "" : ",\"bp\":\"e\"");
    }
}

void WriteAsync(JsonWriter* out, long tid, const TraceRecord& r, OpenSlices* open) {
    const char* category = r.kind == kAsyncServedRequest ? "vok.bus.request" : "vok.bus.call";
    const std::pair<uint8_t, uint64_t> key(r.kind, r.id);
    std::string* json;
    if (r.type == kRecAsyncBegin) {
        const std::string name =
            r.text[0] != '\0' ? r.text : TraceAsyncName(static_cast<AsyncKind>(r.kind));
        (*open)[key] = name;
        json = out->Event("b", category, name, tid, r.ts);
        Appendf(json, ",\"id\":\"0x%" PRIx64 "\",\"args\":{\"kind\":\"%s\"", r.id,
                TraceAsyncName(static_cast<AsyncKind>(r.kind)));
        if (r.kind == kAsyncBusCall) {
            Appendf(json, ",\"timeout_ms\":%lld", static_cast<long long>(r.value));
        }
        json->append("}}");
        return;
    }
    auto begin = open->find(key);
    if (begin != open->end()) {
        json = out->Event("e", category, begin->second, tid, r.ts);
        Appendf(json, ",\"id\":\"0x%" PRIx64 "\",\"args\":{\"error\":%lld%s}}", r.id,
                static_cast<long long>(r.value),
                r.value == kTraceEndCancelled ? ",\"cancelled\":true" : "");
        open->erase(begin);
    }
}

void WriteInstant(JsonWriter* out, long tid, const TraceRecord& r) {
    const InstantKind kind = static_cast<InstantKind>(r.kind);
    const bool lateness = kind == kInstTimerLate || kind == kInstAlarmLate;
    std::string* json =
        out->Event("i", lateness ? "vok.dispatch" : "vok.shell",
                   kind == kInstMark ? std::string(r.text) : TraceInstantName(kind), tid, r.ts);
    json->append(",\"s\":\"t\"");
    if (lateness) {
        json->append(",\"args\":{\"lateness_us\":");
        AppendMicros(json, r.value > 0 ? static_cast<uint64_t>(r.value) : 0);
        json->append("}");
    } else if (kind != kInstMark) {
        json->append(",\"args\":{\"blade\":");
        AppendString(json, r.text);
        json->append("}");
    }
    json->append("}");
}

}  // namespace

__attribute__((cold)) std::string TraceJson(uint64_t sinceNs) {
    std::vector<TraceTrack> tracks;
    TraceCollect(sinceNs, &tracks);
    JsonWriter out;
    out.Metadata("process_name", 0, ProgramName());

    // One name per thread: a thread that changed ring size has several rings; the newest names it.
    std::map<pid_t, std::string> names;
    FlowEnds flows;
    for (size_t t = 0; t < tracks.size(); ++t) {
        names[tracks[t].tid] = tracks[t].name;
        for (size_t i = 0; i < tracks[t].records.size(); ++i) {
            const TraceRecord& record = tracks[t].records[i];
            if (record.type == kRecMessageWrite) {
                FlowEnd& end = flows[record.id];
                ++end.writes;
                end.start = record.ts + std::min<uint64_t>(record.dur, 1);
            } else if (record.type == kRecMessageRead) {
                ++flows[record.id].reads;
            }
        }
    }
    for (const auto& name : names) {
        out.Metadata("thread_name", name.first,
                     name.second.empty() ? "thread " + std::to_string(name.first) : name.second);
    }
    // A thread's records are in time order, and an asynchronous slice begins and ends on the
    // thread of its dispatcher, so its begin is met before its end.
    OpenSlices open;
    for (const TraceTrack& track : tracks) {
        const long tid = static_cast<long>(track.tid);
        for (const TraceRecord& r : track.records) {
            switch (r.type) {
                case kRecMessageWrite:
                case kRecMessageRead:
                    WriteMessage(&out, tid, r, flows);
                    break;
                case kRecCallback: {
                    std::string* json =
                        out.Event("X", "vok.dispatch",
                                  TraceCallbackName(static_cast<CallbackKind>(r.kind)), tid, r.ts);
                    json->append(",\"dur\":");
                    AppendMicros(json, r.dur);
                    json->append("}");
                    break;
                }
                case kRecAsyncBegin:
                case kRecAsyncEnd:
                    WriteAsync(&out, tid, r, &open);
                    break;
                case kRecInstant:
                    WriteInstant(&out, tid, r);
                    break;
                default:
                    break;
            }
        }
    }
    return out.Finish();
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

__attribute__((cold)) std::string TraceDumpForFault(const std::string& reason) {
    if (!TraceIsEnabled()) {
        return std::string();
    }
    static std::atomic<unsigned> sequence(0);
    const char* dir = std::getenv("VOK_TRACE_DIR");
    std::string tag = reason.substr(0, 64);  // The file name stays well below NAME_MAX.
    for (char& c : tag) {
        c = std::isalnum(static_cast<unsigned char>(c)) || c == '-' ? c : '_';
    }
    std::string path = dir != nullptr && *dir != '\0' ? dir : "/tmp";
    trace::Appendf(&path, "/vok-trace-%s-%ld-%s-%u.json", trace::ProgramName().c_str(),
                   static_cast<long>(getpid()), tag.c_str(), sequence.fetch_add(1));
    return TraceWriteSnapshot(path, 0, nullptr) ? path : std::string();
}

}  // namespace vok
