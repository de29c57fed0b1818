// vokctl: looks into running vok daemons over the bus.
//
//   vokctl [--json] list
//   vokctl [--json] DAEMON status|blades|ports|registers [PREFIX]|loglevel [CONTEXT [LEVEL]]|
//                          watch [PREFIX]|trace on|off|metrics
//   vokctl DAEMON trace --seconds N|--snapshot -o FILE
//   vokctl DAEMON metrics [--textfile PATH]
//
// Exit status: 0 done, 1 the daemon answered with an error or the bus failed, 2 bad usage,
// 3 the daemon is not on the bus.
#include <gio/gio.h>
#include <glib-unix.h>
#include <json-c/json.h>
#include <kelvra/kelvra.h>
#include <ztlog/ztlog.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Src/Utils/Linux/AtomicFile.h"
#include "vok/DiagBusService.h"
#include "vok/Version.h"

namespace {

const char* const kPrefix = "com.orvex.vok.";
const uint32_t kCallTimeoutMs = 5000;
// A trace or metrics answer is made before its first part is sent: allow for a slow device.
const uint32_t kPartedTimeoutMs = 60000;
// Longest recording window, in seconds.
const double kMaxTraceSeconds = 86400;

enum ExitStatus { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNoDaemon = 3 };

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: vokctl [--json] list\n"
                 "       vokctl [--json] DAEMON COMMAND\n"
                 "commands:\n"
                 "  status                  the daemon and its blades\n"
                 "  blades                  each blade's state, thread and busy time\n"
                 "  ports                   MessageMover ports: addresses, peers, queued messages\n"
                 "  registers [PREFIX]      diagnostic registers (default prefix root.)\n"
                 "  loglevel [CONTEXT [LEVEL]]\n"
                 "                          list the logging contexts and their thresholds, or\n"
                 "                          read one, or set it and every context under it to\n"
                 "                          LEVEL (0..7 or a name: err, warning, notice, info,\n"
                 "                          debug, ...)\n"
                 "  watch [PREFIX]          print registers as they change, until interrupted\n"
                 "  trace --seconds N -o FILE\n"
                 "                          record N seconds of the daemon's timeline and write\n"
                 "                          it to FILE as trace-event JSON (ui.perfetto.dev,\n"
                 "                          chrome://tracing); interrupting ends the window early\n"
                 "  trace --snapshot -o FILE\n"
                 "                          write what the daemon's trace rings hold now\n"
                 "  trace on|off            switch recording on or off\n"
                 "  metrics [--textfile PATH]\n"
                 "                          registers and process figures as OpenMetrics text;\n"
                 "                          with --textfile, replace PATH with it atomically\n"
                 "                          (for node_exporter's textfile collector)\n"
                 "FILE or PATH - is standard output.\n"
                 "options:\n"
                 "  --json                  print the daemon's replies as JSON, one per line\n"
                 "  --help, --version\n");
}

// A table printed with its columns aligned.
class Table {
  public:
    explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
    void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void Print() const {
        std::vector<size_t> widths;
        for (const auto& row : rows_) {
            widths.resize(std::max(widths.size(), row.size()));
            for (size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        for (const auto& row : rows_) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                line += row[i];
                if (i + 1 < row.size()) {
                    line.append(widths[i] - row[i].size() + 2, ' ');
                }
            }
            std::printf("%s\n", line.c_str());
        }
    }

  private:
    std::vector<std::vector<std::string>> rows_;
};

std::string Member(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, key, &member) || member == nullptr) {
        return "";
    }
    return json_object_get_string(member);
}

GDBusConnection* ConnectBus() {
    GError* gerror = nullptr;
    char* address = nullptr;
    for (const char* name : {"KELVRA_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {
        const char* value = g_getenv(name);
        if (value != nullptr && *value != '\0') {
            address = g_strdup(value);
            break;
        }
    }
    if (address == nullptr) {
        address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &gerror);
    }
    GDBusConnection* connection =
        address == nullptr
            ? nullptr
            : g_dbus_connection_new_for_address_sync(
                  address,
                  static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                  nullptr, nullptr, &gerror);
    g_free(address);
    if (connection == nullptr) {
        std::fprintf(stderr, "vokctl: cannot reach the bus: %s\n",
                     gerror != nullptr ? gerror->message : "no address");
        g_clear_error(&gerror);
    }
    return connection;
}

// The names on the bus starting with kPrefix, sorted; false when the bus did not answer.
bool ListDaemons(GDBusConnection* connection, std::vector<std::string>* daemons) {
    GError* gerror = nullptr;
    GVariant* result = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus",
                                                   "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                                   "ListNames", nullptr, G_VARIANT_TYPE("(as)"),
                                                   G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &gerror);
    if (result == nullptr) {
        std::fprintf(stderr, "vokctl: cannot list the bus names: %s\n", gerror->message);
        g_clear_error(&gerror);
        return false;
    }
    GVariantIter* iter = nullptr;
    const char* name = nullptr;
    g_variant_get(result, "(as)", &iter);
    while (g_variant_iter_loop(iter, "&s", &name)) {
        if (std::strncmp(name, kPrefix, std::strlen(kPrefix)) == 0) {
            daemons->push_back(name + std::strlen(kPrefix));
        }
    }
    g_variant_iter_free(iter);
    g_variant_unref(result);
    std::sort(daemons->begin(), daemons->end());
    return true;
}

// One call to the daemon, run on a loop of its own until its last wanted reply.
struct Call {
    GMainLoop* loop = nullptr;
    bool json = false;
    bool subscribe = false;
    std::string command;
    int status = kExitOk;
    // A text answer in parts (trace, metrics) is collected in text instead of printed.
    bool parted = false;
    std::string text;
    int64_t parts = 0;  // Parts announced; 0 before the first.
    int64_t nextPart = 0;
    int64_t bytes = 0;  // Length announced.
    // keep: the reply is kept in kept (owned) instead of printed.
    bool keep = false;
    json_object* kept = nullptr;
};

int64_t IntMember(json_object* object, const char* key) {
    json_object* member = nullptr;
    return json_object_object_get_ex(object, key, &member) &&
                   json_object_is_type(member, json_type_int)
               ? json_object_get_int64(member)
               : -1;
}

// Adds one part of a text answer; false when it is not the part expected next.
bool AddPart(Call* call, json_object* reply) {
    json_object* data = nullptr;
    if (IntMember(reply, "part") != call->nextPart || IntMember(reply, "parts") < 1 ||
        (call->parts != 0 && IntMember(reply, "parts") != call->parts) ||
        IntMember(reply, "bytes") < 0 || !json_object_object_get_ex(reply, "data", &data) ||
        !json_object_is_type(data, json_type_string)) {
        return false;
    }
    call->parts = IntMember(reply, "parts");
    call->bytes = IntMember(reply, "bytes");
    call->text.append(json_object_get_string(data),
                      static_cast<size_t>(json_object_get_string_len(data)));
    ++call->nextPart;
    return static_cast<int64_t>(call->text.size()) <= call->bytes;
}

void PrintRegisters(json_object* reply, bool withTime) {
    json_object* registers = nullptr;
    if (!json_object_object_get_ex(reply, "registers", &registers)) {
        return;
    }
    Table table({"REGISTER", "VALUE", "LOW", "HIGH"});
    json_object_object_foreach(registers, path, entry) {
        table.Add({path, Member(entry, "value"), Member(entry, "low"), Member(entry, "high")});
    }
    if (withTime) {
        GDateTime* now = g_date_time_new_now_local();
        char* text = g_date_time_format(now, "%H:%M:%S");
        std::printf("-- %s\n", text);
        g_free(text);
        g_date_time_unref(now);
    }
    table.Print();
}

void PrintHuman(const Call& call, json_object* reply) {
    if (call.command == "registers" || call.command == "watch") {
        PrintRegisters(reply, call.command == "watch");
    } else if (call.command == "blades" || call.command == "status") {
        if (call.command == "status") {
            std::printf("daemon %s\n", Member(reply, "daemon").c_str());
        }
        Table table({"BLADE", "STATE", "TID", "BUSY_MS", "HELD", "LEAKED", "PORT_HELD"});
        json_object* blades = nullptr;
        if (json_object_object_get_ex(reply, "blades", &blades)) {
            for (size_t i = 0; i < json_object_array_length(blades); ++i) {
                json_object* blade = json_object_array_get_idx(blades, i);
                table.Add({Member(blade, "name"), Member(blade, "state"), Member(blade, "threadId"),
                           Member(blade, "busyMs"), Member(blade, "msgsHeldByUser"),
                           Member(blade, "msgsLeakedByUser"), Member(blade, "msgsHeldByPorts")});
            }
        }
        table.Print();
    } else if (call.command == "ports") {
        // Zero addresses mean none: a command port has no peer, most ports no service id.
        auto orDash = [](const std::string& text) { return text == "0" ? std::string("-") : text; };
        Table table({"INTERFACE", "ADDRESS", "SERVICE", "PEER", "QUEUED"});
        json_object* ports = nullptr;
        if (json_object_object_get_ex(reply, "ports", &ports)) {
            for (size_t i = 0; i < json_object_array_length(ports); ++i) {
                json_object* port = json_object_array_get_idx(ports, i);
                table.Add({Member(port, "interface"), Member(port, "address"),
                           orDash(Member(port, "serviceId")), orDash(Member(port, "peer")),
                           Member(port, "queued")});
            }
        }
        table.Print();
    } else if (call.command == "loglevel" && Member(reply, "context").empty()) {
        Table table({"CONTEXT", "LEVEL", "NAME"});
        json_object* contexts = nullptr;
        if (json_object_object_get_ex(reply, "contexts", &contexts)) {
            for (size_t i = 0; i < json_object_array_length(contexts); ++i) {
                json_object* context = json_object_array_get_idx(contexts, i);
                table.Add({Member(context, "context"), Member(context, "level"),
                           Member(context, "levelName")});
            }
        }
        table.Print();
    } else if (call.command == "trace") {
        std::printf("trace recording %s (was %s)\n",
                    Member(reply, "enabled") == "true" ? "on" : "off",
                    Member(reply, "wasEnabled") == "true" ? "on" : "off");
    } else if (call.command == "loglevel") {
        std::printf("%s %s (%s)\n", Member(reply, "context").c_str(),
                    Member(reply, "level").c_str(), Member(reply, "levelName").c_str());
    }
}

bool OnReply(KVHandle*, KVMessage* reply, void* data) {
    Call* call = static_cast<Call*>(data);
    const char* payload = KVMessageGetPayload(reply);
    json_object* parsed = json_tokener_parse(payload != nullptr ? payload : "");
    json_object* ok = nullptr;
    const bool good = parsed != nullptr && json_object_object_get_ex(parsed, "returnValue", &ok) &&
                      json_object_get_boolean(ok);
    if (!good) {
        std::fprintf(stderr, "vokctl: %s\n",
                     parsed != nullptr ? Member(parsed, "errorText").c_str() : "bad reply");
        call->status = kExitFailed;
        g_main_loop_quit(call->loop);
    } else if (call->parted && !AddPart(call, parsed)) {
        std::fprintf(stderr, "vokctl: the daemon's answer came out of order or malformed\n");
        call->status = kExitFailed;
        g_main_loop_quit(call->loop);
    } else {
        if (call->keep) {
            json_object_put(call->kept);
            call->kept = json_object_get(parsed);
        } else if (call->json && !call->parted) {
            std::printf("%s\n", payload);
        } else if (!call->parted) {
            PrintHuman(*call, parsed);
        }
        std::fflush(stdout);
        if (!call->subscribe || KVMessageIsLastReply(reply)) {
            g_main_loop_quit(call->loop);
        }
    }
    json_object_put(parsed);
    return true;
}

// Ends the loop (a signal, or the end of a wait).
gboolean OnSignal(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int CallDaemon(const std::string& daemon, const std::string& method, json_object* payload,
               Call* call) {
    KVHandle* handle = nullptr;
    KVError error;
    KVErrorInit(&error);
    call->loop = g_main_loop_new(nullptr, FALSE);
    const std::string uri = "kelvra://" + std::string(kPrefix) + daemon + "/" + method;
    if (call->subscribe) {
        json_object_object_add(payload, "subscribe", json_object_new_boolean(true));
    }
    if (!KVRegister(nullptr, &handle, &error) || !KVGmainAttach(handle, nullptr, &error) ||
        !KVCallWithTimeout(handle, uri.c_str(), json_object_to_json_string(payload),
                           call->parted      ? kPartedTimeoutMs
                           : call->subscribe ? 0
                                             : kCallTimeoutMs,
                           &OnReply, call, nullptr, &error)) {
        std::fprintf(stderr, "vokctl: %s: %s\n", uri.c_str(),
                     error.message != nullptr ? error.message : "call failed");
        call->status = kExitFailed;
    } else {
        const guint intSource = g_unix_signal_add(SIGINT, &OnSignal, call->loop);
        const guint termSource = g_unix_signal_add(SIGTERM, &OnSignal, call->loop);
        g_main_loop_run(call->loop);
        g_source_remove(intSource);
        g_source_remove(termSource);
    }
    if (handle != nullptr) {
        KVUnregister(handle, nullptr);
    }
    KVErrorFree(&error);
    g_main_loop_unref(call->loop);
    if (call->parted && call->status == kExitOk &&
        (call->nextPart != call->parts || static_cast<int64_t>(call->text.size()) != call->bytes)) {
        std::fprintf(stderr, "vokctl: the daemon's answer ended after %lld of %lld bytes\n",
                     static_cast<long long>(call->text.size()),
                     static_cast<long long>(call->bytes));
        call->status = kExitFailed;
    }
    return call->status;
}

// Fetches a text answer in parts from method with payload (consumed) into *text.
int FetchText(const std::string& daemon, const std::string& method, json_object* payload,
              std::string* text) {
    Call call;
    call.parted = true;
    call.subscribe = true;
    const int status = CallDaemon(daemon, method, payload, &call);
    json_object_put(payload);
    text->swap(call.text);
    return status;
}

// Writes text to path ("-": standard output), replacing a file atomically.
int WriteOutput(const std::string& path, const std::string& text) {
    std::string error;
    if (path == "-") {
        return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
                       std::fflush(stdout) == 0
                   ? kExitOk
                   : kExitFailed;
    }
    if (!vok::WriteFileAtomically(path, text, &error)) {
        std::fprintf(stderr, "vokctl: %s\n", error.c_str());
        return kExitFailed;
    }
    return kExitOk;
}

// Ends when seconds have passed or on SIGINT or SIGTERM, whichever comes first.
void WaitSeconds(double seconds) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const guint sources[] = {
        g_timeout_add(static_cast<guint>(std::ceil(seconds * 1000)), &OnSignal, loop),
        g_unix_signal_add(SIGINT, &OnSignal, loop), g_unix_signal_add(SIGTERM, &OnSignal, loop)};
    g_main_loop_run(loop);
    for (const guint source : sources) {
        g_source_remove(source);
    }
    g_main_loop_unref(loop);
}

// trace --seconds N|--snapshot -o FILE, parsed; seconds 0 for a snapshot.
struct TraceOptions {
    double seconds = -1;
    std::string output;
};

// False, with a message, when args (after "trace") are not --seconds N|--snapshot -o FILE.
bool ParseTraceOptions(const std::vector<std::string>& args, TraceOptions* options) {
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--snapshot" && options->seconds < 0) {
            options->seconds = 0;
        } else if (args[i] == "--seconds" && options->seconds < 0 && hasValue) {
            char* end = nullptr;
            const char* text = args[++i].c_str();
            options->seconds = std::strtod(text, &end);
            if (end == text || *end != '\0' || !(options->seconds > 0) ||
                options->seconds > kMaxTraceSeconds) {
                std::fprintf(stderr, "vokctl: --seconds takes a number above 0, at most %.0f\n",
                             kMaxTraceSeconds);
                return false;
            }
        } else if ((args[i] == "-o" || args[i] == "--output") && options->output.empty() &&
                   hasValue && !args[i + 1].empty()) {
            options->output = args[++i];
        } else {
            std::fprintf(stderr, "vokctl: unexpected '%s'\n", args[i].c_str());
            return false;
        }
    }
    if (options->seconds < 0 || options->output.empty()) {
        std::fprintf(stderr, "vokctl: trace needs --seconds N or --snapshot, and -o FILE\n");
        return false;
    }
    return true;
}

// Records for options.seconds (the daemon switches recording on and tells its clock; this
// process waits, so the daemon's loop never does), then fetches what was recorded since, switching
// recording back as it was, and writes it. A snapshot fetches what the rings hold.
int Trace(const std::string& daemon, const TraceOptions& options) {
    json_object* dump = json_object_new_object();
    int64_t since = 0;
    if (options.seconds > 0) {
        Call start;
        start.keep = true;
        json_object* on = json_object_new_object();
        json_object_object_add(on, "enabled", json_object_new_boolean(true));
        // The daemon ends the window itself should this process die before closing it.
        json_object_object_add(
            on, "windowSeconds",
            json_object_new_int64(static_cast<int64_t>(std::ceil(options.seconds))));
        const int status = CallDaemon(daemon, "diag/trace", on, &start);
        json_object_put(on);
        since = start.kept != nullptr ? IntMember(start.kept, "clockNs") : -1;
        const bool wasEnabled = Member(start.kept, "wasEnabled") == "true";
        json_object_put(start.kept);
        if (status != kExitOk || since < 0) {
            json_object_put(dump);
            return kExitFailed;
        }
        std::fprintf(stderr, "vokctl: recording %s for %g s\n", daemon.c_str(), options.seconds);
        WaitSeconds(options.seconds);
        json_object_object_add(dump, "enabled", json_object_new_boolean(wasEnabled));
    }
    json_object_object_add(dump, "sinceNs", json_object_new_int64(since));
    std::string trace;
    const int status = FetchText(daemon, "diag/trace", dump, &trace);
    if (status != kExitOk) {
        return status;
    }
    if (options.output != "-") {
        std::fprintf(stderr, "vokctl: %lu bytes of trace in %s (open it in ui.perfetto.dev)\n",
                     static_cast<unsigned long>(trace.size()), options.output.c_str());
    }
    return WriteOutput(options.output, trace);
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "--help") == 0) {
            Usage(stdout);
            return kExitOk;
        } else if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("vokctl %s\n", VOK_VERSION_STRING);
            return kExitOk;
        } else {
            args.push_back(argv[i]);
        }
    }
    if (args.empty() || (args[0] != "list" && args.size() < 2)) {
        Usage(stderr);
        return kExitUsage;
    }
    GDBusConnection* connection = ConnectBus();
    if (connection == nullptr) {
        return kExitFailed;
    }
    std::vector<std::string> daemons;
    const bool listed = ListDaemons(connection, &daemons);
    g_object_unref(connection);
    if (!listed) {
        return kExitFailed;
    }
    if (args[0] == "list") {
        for (const std::string& daemon : daemons) {
            std::printf("%s\n", daemon.c_str());
        }
        return kExitOk;
    }
    // The daemon as it names itself, or as `vokctl list` shows it (its bus name's last part).
    const std::string daemon = vok::DiagBusServiceName(args[0]).substr(std::strlen(kPrefix));
    if (std::find(daemons.begin(), daemons.end(), daemon) == daemons.end()) {
        std::fprintf(stderr, "vokctl: no daemon '%s' on the bus (try vokctl list)\n",
                     args[0].c_str());
        return kExitNoDaemon;
    }
    if (args[1] == "trace" && args.size() > 2 && args[2] != "on" && args[2] != "off") {
        TraceOptions options;
        if (!ParseTraceOptions(std::vector<std::string>(args.begin() + 2, args.end()), &options)) {
            Usage(stderr);
            return kExitUsage;
        }
        return Trace(daemon, options);
    }
    if (args[1] == "metrics" &&
        (args.size() == 2 || (args.size() == 4 && args[2] == "--textfile" && !args[3].empty()))) {
        std::string text;
        const int status = FetchText(daemon, "diag/metrics", json_object_new_object(), &text);
        return status != kExitOk ? status : WriteOutput(args.size() == 4 ? args[3] : "-", text);
    }
    Call call;
    call.json = json;
    call.command = args[1];
    json_object* payload = json_object_new_object();
    std::string method;
    if (call.command == "trace" && args.size() == 3) {
        method = "diag/trace";
        json_object_object_add(payload, "enabled", json_object_new_boolean(args[2] == "on"));
    } else if ((call.command == "status" || call.command == "blades") && args.size() == 2) {
        method = "diag/blades";
    } else if (call.command == "ports" && args.size() == 2) {
        method = "diag/ports";
    } else if ((call.command == "registers" || call.command == "watch") && args.size() <= 3) {
        method = call.command == "watch" ? "diag/watch" : "diag/registers";
        call.subscribe = call.command == "watch";
        if (args.size() == 3) {
            json_object_object_add(payload, "prefix", json_object_new_string(args[2].c_str()));
        }
    } else if (call.command == "loglevel" && args.size() <= 4) {
        method = "diag/loglevel";
        if (args.size() >= 3) {
            json_object_object_add(payload, "context", json_object_new_string(args[2].c_str()));
        }
        if (args.size() == 4) {
            const int level = ZtLogParseLevel(args[3].c_str());
            if (level < 0) {
                std::fprintf(stderr,
                             "vokctl: level must be 0..7 or a syslog name (emerg, alert, crit, "
                             "err, warning, notice, info, debug)\n");
                json_object_put(payload);
                return kExitUsage;
            }
            json_object_object_add(payload, "level", json_object_new_int(level));
        }
    } else {
        Usage(stderr);
        json_object_put(payload);
        return kExitUsage;
    }
    const int status = CallDaemon(daemon, method, payload, &call);
    json_object_put(payload);
    return status;
}
