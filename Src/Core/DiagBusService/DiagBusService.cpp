#include "vok/DiagBusService.h"

#include <json-c/json.h>
#include <kelvra/kelvra.h>
#include <ztlog/ztlog.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "vok/Daemon.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Logger.h"
#include "vok/MessageMoverFramework.h"
#include "vok/Metrics.h"
#include "vok/RdKvService.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/Thread.h"
#include "vok/Trace.h"
#include "vok/VokShell.h"

namespace vok {

namespace {

const char* const kServicePrefix = "com.orvex.vok.";
const unsigned kWatchPeriodMs = 1000;
// Each watcher costs a snapshot a second; a client that opens more gets an error reply.
const size_t kMaxWatchers = 16;
// A recording window's longest length, and how long after its end its closing call may come.
const int64_t kMaxWindowSeconds = 86400;
const unsigned kWindowGraceMs = 2000;

// Error codes of the diagnostics replies.
const int kErrBadPayload = 1;
const int kErrBadContext = 2;
const int kErrBadLevel = 3;
const int kErrTooManyWatchers = 4;
const int kErrTooLarge = 5;

// A long text (a trace runs to megabytes) travels in parts of at most kPartBytes each. Escaping
// in a JSON string at most doubles a part, so every reply stays within the bus's payload limit.
const size_t kPartBytes = 256 * 1024;
static_assert(2 * kPartBytes + 1024 <= KV_MAX_PAYLOAD_SIZE, "a part must fit in one reply");
// Longest text sent in parts; past it the request gets an error instead of a cut text.
const size_t kMaxPartedBytes = 64u << 20;

// Owns one json-c reference.
struct JsonDeleter {
    void operator()(json_object* object) const { json_object_put(object); }
};
typedef std::unique_ptr<json_object, JsonDeleter> JsonPtr;

std::string ToString(json_object* object) {
    return json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN);
}

std::string ErrorReply(int code, const std::string& text) {
    JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(false));
    json_object_object_add(reply.get(), "errorCode", json_object_new_int(code));
    json_object_object_add(reply.get(), "errorText", json_object_new_string(text.c_str()));
    return ToString(reply.get());
}

json_object* NewReply() {
    json_object* reply = json_object_new_object();
    json_object_object_add(reply, "returnValue", json_object_new_boolean(true));
    return reply;
}

// The request's payload when it is a JSON object (an empty payload counts as {}), else null.
JsonPtr ParseRequest(const RdKvRequest& request) {
    const char* text = request.GetPayloadText().c_str();
    if (*text == '\0') {
        return JsonPtr(json_object_new_object());
    }
    JsonPtr parsed(json_tokener_parse(text));
    if (!parsed || !json_object_is_type(parsed.get(), json_type_object)) {
        return JsonPtr();
    }
    return parsed;
}

// A string member: true with *value set when present as a string, or absent (then *present
// false); false when present with another type.
bool StringMember(json_object* object, const char* key, std::string* value, bool* present) {
    json_object* member = nullptr;
    *present = json_object_object_get_ex(object, key, &member);
    if (!*present) {
        return true;
    }
    if (!json_object_is_type(member, json_type_string)) {
        return false;
    }
    *value = json_object_get_string(member);
    return true;
}

// The "prefix" of a registers or watch request ("root." when it names none); false when the
// payload is not an object or the prefix not a string.
bool RequestPrefix(const RdKvRequest& request, std::string* prefix) {
    JsonPtr payload = ParseRequest(request);
    bool present = false;
    *prefix = "root.";
    return payload && StringMember(payload.get(), "prefix", prefix, &present);
}

// Every register under prefix: counters as {value, low, high}, strings as {value}.
typedef std::map<std::string, std::string> RegisterSnapshot;  // path -> JSON of its entry

RegisterSnapshot TakeSnapshot(const std::string& prefix) {
    RegisterSnapshot snapshot;
    std::unique_ptr<DiagnosticRegisterCounter::Group> counters(
        DiagnosticRegisterCounter::QueryGroup(prefix));
    if (counters) {
        for (const auto& entry : *counters) {
            JsonPtr item(json_object_new_object());
            json_object_object_add(item.get(), "value", json_object_new_int(entry.second.value));
            json_object_object_add(item.get(), "low", json_object_new_int(entry.second.low));
            json_object_object_add(item.get(), "high", json_object_new_int(entry.second.high));
            snapshot[entry.first] = ToString(item.get());
        }
    }
    std::unique_ptr<DiagnosticRegisterString::Group> strings(
        DiagnosticRegisterString::QueryGroup(prefix));
    if (strings) {
        for (const auto& entry : *strings) {
            JsonPtr item(json_object_new_object());
            json_object_object_add(item.get(), "value",
                                   json_object_new_string(entry.second.c_str()));
            snapshot[entry.first] = ToString(item.get());
        }
    }
    return snapshot;
}

// Adds the message counts of the blade's interface ("msgsHeldByUser", "msgsLeakedByUser",
// "msgsHeldByPorts"), which the MessageMover keeps as registers under the interface's name.
void AddInterfaceCounts(json_object* blade, const std::string& bladeName) {
    const std::string prefix = "root.vok.MessageMover.Iface.blade_" + bladeName + ".";
    std::unique_ptr<DiagnosticRegisterCounter::Group> counters(
        DiagnosticRegisterCounter::QueryGroup(prefix));
    if (!counters) {
        return;
    }
    for (const auto& entry : *counters) {
        const std::string key = entry.first.substr(prefix.size());
        if (key.find('.') == std::string::npos) {
            json_object_object_add(blade, key.c_str(), json_object_new_int(entry.second.value));
        }
    }
}

// Adds one context's "context", "level" and "levelName" to entry; returns entry.
json_object* AddContextLevel(json_object* entry, const char* name, int threshold) {
    json_object_object_add(entry, "context", json_object_new_string(name));
    json_object_object_add(entry, "level", json_object_new_int(threshold));
    json_object_object_add(entry, "levelName", json_object_new_string(ZtLogLevelName(threshold)));
    return entry;
}

// {"returnValue":true,"contexts":[...]}: every logging context, by name.
std::string ContextList() {
    std::map<std::string, int> contexts;
    ZtLogForEachContext(
        [](const char* name, int threshold, void* user) {
            (*static_cast<std::map<std::string, int>*>(user))[name] = threshold;
        },
        &contexts);
    JsonPtr reply(NewReply());
    json_object* list = json_object_new_array();
    for (const auto& context : contexts) {
        json_object_array_add(
            list, AddContextLevel(json_object_new_object(), context.first.c_str(), context.second));
    }
    json_object_object_add(reply.get(), "contexts", list);
    return ToString(reply.get());
}

// {"returnValue":true,"registers":{path:entry,...}} of the entries given.
std::string RegistersReply(const RegisterSnapshot& snapshot) {
    JsonPtr reply(NewReply());
    json_object* registers = json_object_new_object();
    for (const auto& entry : snapshot) {
        json_object_object_add(registers, entry.first.c_str(),
                               json_tokener_parse(entry.second.c_str()));
    }
    json_object_object_add(reply.get(), "registers", registers);
    return ToString(reply.get());
}

// Answers request with text in parts, each cut between UTF-8 characters:
// {"returnValue":true,"part":I,"parts":N,"bytes":SIZE,"data":"..."}, the last one closing the
// request. A text of more than one part needs a subscription ("subscribe":true).
void ReplyInParts(RdKvRequest& request, const std::string& text) {
    if (text.size() > kMaxPartedBytes) {
        request.Reply(ErrorReply(kErrTooLarge, std::to_string(text.size()) +
                                                   " bytes are more than the " +
                                                   std::to_string(kMaxPartedBytes >> 20) +
                                                   " MiB a reply carries in parts"));
        return;
    }
    std::vector<size_t> cuts{0};
    do {
        size_t cut = std::min(text.size(), cuts.back() + kPartBytes);
        while (cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
            --cut;
        }
        cuts.push_back(cut);
    } while (cuts.back() < text.size());
    const size_t parts = cuts.size() - 1;
    if (parts > 1 && !request.IsSubscription()) {
        request.Reply(ErrorReply(kErrTooLarge, "the answer comes in " + std::to_string(parts) +
                                                   " parts: ask with \"subscribe\":true"));
        return;
    }
    RdKvSubscription subscription;
    if (request.IsSubscription()) {
        subscription = request.Subscribe();
    }
    for (size_t i = 0; i < parts; ++i) {
        JsonPtr reply(NewReply());
        json_object_object_add(reply.get(), "part", json_object_new_int64(static_cast<int64_t>(i)));
        json_object_object_add(reply.get(), "parts",
                               json_object_new_int64(static_cast<int64_t>(parts)));
        json_object_object_add(reply.get(), "bytes",
                               json_object_new_int64(static_cast<int64_t>(text.size())));
        json_object_object_add(reply.get(), "data",
                               json_object_new_string_len(text.data() + cuts[i],
                                                          static_cast<int>(cuts[i + 1] - cuts[i])));
        const std::string replyText = ToString(reply.get());
        const bool last = i + 1 == parts;
        const bool sent = !subscription.IsOpen() ? request.Reply(replyText)
                          : last                 ? subscription.ReplyLast(replyText)
                                                 : subscription.Reply(replyText);
        if (!sent) {
            return;  // the client left
        }
    }
}

}  // namespace

std::string DiagBusServiceName(const std::string& daemonName) {
    // An element of a bus name holds only ASCII letters, digits, '_' and '-', does not start
    // with a digit, and the whole name stays within 255 bytes.
    std::string element;
    for (const char c : daemonName) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '_' || c == '-';
        element += allowed ? c : '_';
    }
    if (element.empty() || (element[0] >= '0' && element[0] <= '9')) {
        element.insert(0, "_");
    }
    return (kServicePrefix + element).substr(0, 255);
}

// The server's state. Everything but the constructor and the destructor runs on the server
// thread, inside the dispatcher's loop (the destructor wakes it to stop, then joins it).
class DiagBusServiceImpl {
  public:
    explicit DiagBusServiceImpl(const VokShell& shell)
        : logger_("VOK.DiagBus"),
          shell_(shell),
          thread_("diag-bus", this, &DiagBusServiceImpl::ThreadRun, 0),
          watchTimer_(dispatcher_, [this]() { WatchTick(); }),
          windowTimer_(dispatcher_, [this]() { EndForgottenWindow(); }) {
        thread_.Start();
    }

    ~DiagBusServiceImpl() {
        // Waits in the queue when the loop has not started yet.
        dispatcher_.Post([this]() { dispatcher_.RequestStop(); });
        thread_.Join();
    }

  private:
    void ThreadRun(int) {
        TraceNameThread("diag-bus");
        const std::string name = DiagBusServiceName(shell_.GetDaemonName());
        std::unique_ptr<RdKvService> service;
        try {
            service.reset(new RdKvService(dispatcher_, name));
            service->AddMethod("diag/registers", &Registers);
            service->AddMethod("diag/blades", [this](RdKvRequest& r) { Blades(r); });
            service->AddMethod("diag/ports", [this](RdKvRequest& r) { Ports(r); });
            service->AddMethod("diag/loglevel", &LogLevel);
            service->AddMethod("diag/watch", [this](RdKvRequest& r) { Watch(r); });
            service->AddMethod("diag/trace", [this](RdKvRequest& r) { Trace(r); });
            service->AddMethod("diag/metrics", [this](RdKvRequest& r) { Metrics(r); });
            logger_.Debug("serving %s", name.c_str());
        } catch (const VokException& e) {
            logger_.Error("cannot serve %s on the bus: %s", name.c_str(), e.what());
        }
        dispatcher_.Run();
        watchTimer_.Cancel();
        windowTimer_.Cancel();
        for (auto& watcher : watchers_) {
            watcher.second.subscription.ReplyLast("{\"returnValue\":true,\"stopped\":true}");
        }
        watchers_.clear();
    }

    // diag/registers {"prefix":P}: every register whose path starts with P (default "root.").
    static void Registers(RdKvRequest& request) {
        std::string prefix;
        if (!RequestPrefix(request, &prefix)) {
            request.Reply(ErrorReply(kErrBadPayload, "expected {\"prefix\":string}"));
            return;
        }
        request.Reply(RegistersReply(TakeSnapshot(prefix)));
    }

    // diag/blades: name, state and busy time of every blade.
    void Blades(RdKvRequest& request) const {
        if (!ParseRequest(request)) {
            request.Reply(ErrorReply(kErrBadPayload, "expected a JSON object"));
            return;
        }
        JsonPtr reply(NewReply());
        json_object_object_add(reply.get(), "daemon",
                               json_object_new_string(shell_.GetDaemonName().c_str()));
        json_object* blades = json_object_new_array();
        for (const VokBladeStatus& status : shell_.GetBladeStatus()) {
            json_object* blade = json_object_new_object();
            json_object_object_add(blade, "name", json_object_new_string(status.name.c_str()));
            json_object_object_add(blade, "state", json_object_new_string(status.state.c_str()));
            json_object_object_add(blade, "busyMs", json_object_new_int64(status.busyMs));
            json_object_object_add(blade, "threadId", json_object_new_int(status.threadId));
            AddInterfaceCounts(blade, status.name);
            json_object_array_add(blades, blade);
        }
        json_object_object_add(reply.get(), "blades", blades);
        request.Reply(ToString(reply.get()));
    }

    // diag/ports: every open MessageMover port with its interface, addresses and queue depth.
    void Ports(RdKvRequest& request) const {
        if (!ParseRequest(request)) {
            request.Reply(ErrorReply(kErrBadPayload, "expected a JSON object"));
            return;
        }
        JsonPtr reply(NewReply());
        json_object* ports = json_object_new_array();
        for (const MmPortInfo& info : shell_.ListPorts()) {
            json_object* port = json_object_new_object();
            json_object_object_add(port, "interface",
                                   json_object_new_string(info.interfaceName.c_str()));
            json_object_object_add(port, "address", json_object_new_int64(info.address));
            json_object_object_add(port, "serviceId", json_object_new_int64(info.serviceId));
            json_object_object_add(port, "peer", json_object_new_int64(info.peerAddress));
            json_object_object_add(port, "queued", json_object_new_int64(info.queueDepth));
            json_object_array_add(ports, port);
        }
        json_object_object_add(reply.get(), "ports", ports);
        request.Reply(ToString(reply.get()));
    }

    // A "level" member as a number 0..7 or a syslog name ("info"); -1 when it is neither.
    static int RequestedLevel(json_object* level) {
        if (json_object_is_type(level, json_type_string)) {
            return ZtLogParseLevel(json_object_get_string(level));
        }
        const int64_t value = json_object_get_int64(level);
        return json_object_is_type(level, json_type_int) && value >= kZtLogEmergency &&
                       value <= kZtLogDebug
                   ? static_cast<int>(value)
                   : -1;
    }

    // diag/loglevel {"context":C} reads, {"context":C,"level":L} sets the threshold of C and of
    // every context under it (L: 0..7 or a syslog name); {} lists every context's threshold.
    static void LogLevel(RdKvRequest& request) {
        JsonPtr payload = ParseRequest(request);
        std::string context;
        bool present = false;
        if (!payload || !StringMember(payload.get(), "context", &context, &present)) {
            request.Reply(ErrorReply(kErrBadPayload,
                                     "expected {[\"context\":string[,\"level\":0..7|name]]}"));
            return;
        }
        if (!present) {
            request.Reply(ContextList());
            return;
        }
        if (context.empty() || context.size() > 64) {
            request.Reply(ErrorReply(kErrBadContext, "bad context name"));
            return;
        }
        // Only contexts the daemon has made can be read or set: a typing error must not create
        // a context of its own and report success.
        ZtLogContext* ctx = nullptr;
        if (ZtLogFindContext(context.c_str(), &ctx) != 0) {
            request.Reply(ErrorReply(kErrBadContext, "no such context"));
            return;
        }
        json_object* level = nullptr;
        if (json_object_object_get_ex(payload.get(), "level", &level)) {
            const int value = RequestedLevel(level);
            if (value < 0 || ZtLogSetLevel(context.c_str(), value) != 0) {
                request.Reply(ErrorReply(kErrBadLevel, "level must be 0..7 or a syslog name"));
                return;
            }
        }
        JsonPtr reply(NewReply());
        AddContextLevel(reply.get(), context.c_str(),
                        __atomic_load_n(&ctx->threshold, __ATOMIC_RELAXED));
        request.Reply(ToString(reply.get()));
    }

    // diag/metrics: the OpenMetrics exposition of the registers and process figures, in parts.
    void Metrics(RdKvRequest& request) const {
        if (!ParseRequest(request)) {
            request.Reply(ErrorReply(kErrBadPayload, "expected a JSON object"));
            return;
        }
        ReplyInParts(request, MetricsText(shell_.GetDaemonName()));
    }

    // diag/trace {"enabled":B} switches recording on or off and answers {"returnValue":true,
    // "enabled":NOW,"wasEnabled":BEFORE,"clockNs":T,"ringEvents":R} (T: the recorder's clock, for
    // a later "sinceNs"); {} only reads. {"sinceNs":T} (after switching, when "enabled" is there
    // too) answers the events recorded at or after T as trace-event JSON, in parts.
    // {"enabled":true,"windowSeconds":W} opens a recording window whose closing call is expected
    // within W seconds: when none comes (its caller was killed), recording goes back to what it
    // was shortly after, instead of staying on for good. Any other switch closes the window.
    void Trace(RdKvRequest& request) {
        JsonPtr payload = ParseRequest(request);
        json_object* enabled = nullptr;
        json_object* since = nullptr;
        json_object* window = nullptr;
        const bool switching =
            payload && json_object_object_get_ex(payload.get(), "enabled", &enabled);
        const bool dumping = payload && json_object_object_get_ex(payload.get(), "sinceNs", &since);
        const bool opening =
            payload && json_object_object_get_ex(payload.get(), "windowSeconds", &window);
        if (!payload || (switching && !json_object_is_type(enabled, json_type_boolean)) ||
            (dumping &&
             (!json_object_is_type(since, json_type_int) || json_object_get_int64(since) < 0)) ||
            (opening &&
             (!switching || !json_object_get_boolean(enabled) ||
              !json_object_is_type(window, json_type_int) || json_object_get_int64(window) < 0 ||
              json_object_get_int64(window) > kMaxWindowSeconds))) {
            request.Reply(ErrorReply(kErrBadPayload,
                                     "expected {[\"enabled\":boolean[,\"windowSeconds\":0.."
                                     "86400 with true]][,\"sinceNs\":integer >= 0]}"));
            return;
        }
        const bool wasEnabled = TraceIsEnabled();
        if (switching) {
            if (opening) {
                // Concurrent windows end together, at the latest one's end, as they were before
                // the first.
                if (!windowOpen_) {
                    windowOpen_ = true;
                    windowRestore_ = wasEnabled;
                }
                windowTimer_.Schedule(static_cast<unsigned int>(json_object_get_int64(window)) *
                                          1000 +
                                      kWindowGraceMs);
            } else {
                windowOpen_ = false;
                windowTimer_.Cancel();
            }
            TraceSetEnabled(json_object_get_boolean(enabled));
        }
        if (dumping) {
            ReplyInParts(request,
                         TraceSnapshotJson(static_cast<uint64_t>(json_object_get_int64(since))));
            return;
        }
        JsonPtr reply(NewReply());
        json_object_object_add(reply.get(), "enabled", json_object_new_boolean(TraceIsEnabled()));
        json_object_object_add(reply.get(), "wasEnabled", json_object_new_boolean(wasEnabled));
        json_object_object_add(reply.get(), "clockNs",
                               json_object_new_int64(static_cast<int64_t>(TraceClockNs())));
        json_object_object_add(reply.get(), "ringEvents",
                               json_object_new_int64(TraceGetRingEvents()));
        request.Reply(ToString(reply.get()));
    }

    void EndForgottenWindow() {
        windowOpen_ = false;
        TraceSetEnabled(windowRestore_);
        logger_.Warning("a trace window was not closed by its caller; recording switched %s",
                        windowRestore_ ? "on" : "off");
    }

    // diag/watch {"prefix":P}: the registers now, then those that changed, at most once a second.
    void Watch(RdKvRequest& request) {
        std::string prefix;
        if (!RequestPrefix(request, &prefix)) {
            request.Reply(ErrorReply(kErrBadPayload, "expected {\"prefix\":string}"));
            return;
        }
        if (!request.IsSubscription()) {
            request.Reply(RegistersReply(TakeSnapshot(prefix)));
            return;
        }
        if (watchers_.size() >= kMaxWatchers) {
            request.Reply(ErrorReply(kErrTooManyWatchers, "too many watchers"));
            return;
        }
        const uint64_t id = ++lastWatcherId_;
        Watcher& watcher = watchers_[id];
        watcher.subscription = request.Subscribe([this, id]() { WatchCancelled(id); });
        watcher.prefix = prefix;
        watcher.last = TakeSnapshot(prefix);
        watcher.subscription.Reply(RegistersReply(watcher.last));
        if (watchers_.size() == 1) {
            watchTimer_.SchedulePeriodic(kWatchPeriodMs);
        }
    }

    void WatchCancelled(uint64_t id) {
        watchers_.erase(id);  // the running callback's subscription: allowed
        if (watchers_.empty()) {
            watchTimer_.Cancel();
        }
    }

    void WatchTick() {
        for (auto& entry : watchers_) {
            Watcher& watcher = entry.second;
            RegisterSnapshot now = TakeSnapshot(watcher.prefix);
            RegisterSnapshot changed;
            for (const auto& reg : now) {
                auto old = watcher.last.find(reg.first);
                if (old == watcher.last.end() || old->second != reg.second) {
                    changed.insert(reg);
                }
            }
            watcher.last.swap(now);
            if (!changed.empty()) {
                watcher.subscription.Reply(RegistersReply(changed));
            }
        }
    }

    struct Watcher {
        RdKvSubscription subscription;
        std::string prefix;
        RegisterSnapshot last;  // What the subscriber has been told.
    };

    Logger logger_;
    const VokShell& shell_;
    Thread thread_;
    // Member order: the loop objects go before the dispatcher they were made against.
    RuntimeDispatcher dispatcher_;
    RdTimerBase watchTimer_;
    // A recording window opened by a caller that has not closed it, and the state to go back to.
    RdTimerBase windowTimer_;
    bool windowOpen_ = false;
    bool windowRestore_ = false;
    std::map<uint64_t, Watcher> watchers_;  // Open diag/watch subscriptions, by id.
    uint64_t lastWatcherId_ = 0;
};

DiagBusService::DiagBusService(const VokShell& shell) : pImpl_(new DiagBusServiceImpl(shell)) {}

DiagBusService::~DiagBusService() {
    delete pImpl_;
}

void EnableDiagBusService(DaemonHooks* hooks) {
    hooks->diagBusService = true;
    std::shared_ptr<std::unique_ptr<DiagBusService>> server(new std::unique_ptr<DiagBusService>());
    std::function<void(VokShell&)> beforeStart = hooks->beforeStart;
    std::function<void(VokShell&)> beforeDestroy = hooks->beforeDestroy;
    hooks->beforeStart = [server, beforeStart](VokShell& shell) {
        if (beforeStart) {
            beforeStart(shell);
        }
        server->reset(new DiagBusService(shell));
    };
    hooks->beforeDestroy = [server, beforeDestroy](VokShell& shell) {
        server->reset();
        if (beforeDestroy) {
            beforeDestroy(shell);
        }
    };
}

}  // namespace vok
