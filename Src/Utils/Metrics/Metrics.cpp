// Registers and process figures in the OpenMetrics text format.
#include "vok/Metrics.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include "Src/Utils/Linux/AtomicFile.h"
#include "vok/DiagnosticRegister.h"

namespace vok {

namespace {

// Registers declared with MetricsDeclareCounter. Never destroyed: a daemon may scrape while the
// process exits.
struct CounterDeclarations {
    std::mutex mutex;             // Protects paths.
    std::set<std::string> paths;  // Exact paths, or prefixes ending with '.'.
};

CounterDeclarations& GetDeclarations() {
    static CounterDeclarations* declarations = new CounterDeclarations;
    return *declarations;
}

bool EndsWith(const std::string& text, const char* suffix) {
    const size_t length = std::strlen(suffix);
    return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

// The framework's registers that only grow.
bool IsCounter(const std::string& path) {
    if (EndsWith(path, ".undeliverableMessages") || EndsWith(path, ".quarantinedMessages") ||
        EndsWith(path, ".msgsLeakedByUser")) {
        return true;
    }
    CounterDeclarations& declarations = GetDeclarations();
    std::lock_guard<std::mutex> lock(declarations.mutex);
    for (const std::string& declared : declarations.paths) {
        if (declared == path || (!declared.empty() && declared.back() == '.' &&
                                 path.compare(0, declared.size(), declared) == 0)) {
            return true;
        }
    }
    return false;
}

// Escapes a HELP text or label value: backslash, double quote and line feed.
std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out.push_back(c);
        }
    }
    return out;
}

// Builds the exposition: family names stay unique, samples carry the daemon label.
class Exposition {
  public:
    explicit Exposition(const std::string& daemonName)
        : label_("daemon=\"" + Escape(daemonName) + "\"") {
        // The process families come last; registers must not take their names.
        for (const char* name : {"process_virtual_memory_bytes", "process_resident_memory_bytes",
                                 "process_open_fds", "process_max_fds", "process_cpu_seconds",
                                 "process_start_time_seconds", "process_threads"}) {
            used_.insert(name);
        }
    }

    // A family name not used yet: name itself, else name_2, name_3, ...
    std::string Unique(const std::string& name) {
        std::string unique = name;
        for (int n = 2; used_.count(unique) != 0; ++n) {
            unique = name + "_" + std::to_string(n);
        }
        used_.insert(unique);
        return unique;
    }

    void Family(const std::string& name, const char* type, const std::string& help) {
        text_ += "# HELP " + name + " " + Escape(help) + "\n# TYPE " + name + " " + type + "\n";
    }

    void Sample(const std::string& name, const std::string& value, const std::string& labels = "") {
        text_ += name + "{" + label_ + labels + "} " + value + "\n";
    }

    std::string Finish() { return text_ + "# EOF\n"; }

  private:
    const std::string label_;
    std::set<std::string> used_;
    std::string text_;
};

// Gauge family names must not end like the samples of other types.
std::string GaugeName(const std::string& name) {
    static const char* const kReserved[] = {"_total",  "_created", "_count",  "_sum",
                                            "_bucket", "_info",    "_gcount", "_gsum"};
    for (const char* suffix : kReserved) {
        if (EndsWith(name, suffix)) {
            return name + "_value";
        }
    }
    return name;
}

// name without suffix, when it ends with it.
std::string WithoutSuffix(const std::string& name, const char* suffix) {
    return EndsWith(name, suffix) ? name.substr(0, name.size() - std::strlen(suffix)) : name;
}

// A gauge family with its one sample.
template <typename T>
void AddGauge(Exposition* out, const std::string& name, const std::string& help, T value) {
    out->Family(name, "gauge", help);
    out->Sample(name, std::to_string(value));
}

void AddCounters(Exposition* out) {
    std::unique_ptr<DiagnosticRegisterCounter::Group> counters(
        DiagnosticRegisterCounter::QueryGroup("root."));
    if (!counters) {
        return;
    }
    for (const auto& entry : *counters) {
        std::string name = MetricsFamilyName(entry.first);
        if (name.empty()) {
            continue;
        }
        const std::string help = "Diagnostic register " + entry.first;
        if (IsCounter(entry.first)) {
            name = out->Unique(WithoutSuffix(name, "_total"));
            out->Family(name, "counter", help);
            out->Sample(name + "_total", std::to_string(entry.second.value));
            continue;
        }
        name = out->Unique(GaugeName(name));
        AddGauge(out, name, help, entry.second.value);
        AddGauge(out, out->Unique(name + "_low"),
                 "Low watermark of diagnostic register " + entry.first, entry.second.low);
        AddGauge(out, out->Unique(name + "_high"),
                 "High watermark of diagnostic register " + entry.first, entry.second.high);
    }
}

void AddStrings(Exposition* out) {
    std::unique_ptr<DiagnosticRegisterString::Group> strings(
        DiagnosticRegisterString::QueryGroup("root."));
    if (!strings) {
        return;
    }
    for (const auto& entry : *strings) {
        std::string name = MetricsFamilyName(entry.first);
        if (name.empty()) {
            continue;
        }
        name = out->Unique(WithoutSuffix(name, "_info"));
        out->Family(name, "info", "Diagnostic register " + entry.first);
        out->Sample(name + "_info", "1", ",value=\"" + Escape(entry.second) + "\"");
    }
}

// The text of a /proc file, or "" when unreadable.
std::string ReadProcFile(const char* path) {
    std::string text;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[4096];
    ssize_t length;
    while ((length = read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(length));
    }
    close(fd);
    return text;
}

// Field `field` (numbered as in proc(5), from 3) of /proc/self/stat, read after the command
// name, which may hold spaces and parentheses; 0 when missing.
unsigned long long StatField(const std::string& stat, int field) {
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    const char* at = stat.c_str() + close + 1;
    for (int n = 3; n < field && *at != '\0'; ++n) {
        at = std::strchr(at + 1, ' ');
        if (at == nullptr) {
            return 0;
        }
    }
    // at points at the space before the field; the state (field 3) is a letter.
    return std::strtoull(at, nullptr, 10);
}

void AddProcess(Exposition* out) {
    const unsigned long long page = static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
    unsigned long long pages = 0;
    unsigned long long resident = 0;
    if (std::sscanf(ReadProcFile("/proc/self/statm").c_str(), "%llu %llu", &pages, &resident) ==
        2) {
        AddGauge(out, "process_virtual_memory_bytes", "Virtual memory size in bytes.",
                 pages * page);
        AddGauge(out, "process_resident_memory_bytes", "Resident memory size in bytes.",
                 resident * page);
    }

    DIR* fds = opendir("/proc/self/fd");
    if (fds != nullptr) {
        unsigned long long count = 0;
        while (const struct dirent* entry = readdir(fds)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        closedir(fds);
        // The directory's own descriptor was open while counting.
        AddGauge(out, "process_open_fds", "Number of open file descriptors.", count - 1);
    }
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        AddGauge(out, "process_max_fds", "Maximum number of open file descriptors.",
                 static_cast<unsigned long long>(limit.rlim_cur));
    }

    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        const double seconds =
            static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
            static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
        char value[32];
        std::snprintf(value, sizeof value, "%.6f", seconds);
        out->Family("process_cpu_seconds", "counter",
                    "Total user and system CPU time spent in seconds.");
        out->Sample("process_cpu_seconds_total", value);
    }

    // proc(5): starttime (clock ticks after boot) is field 22 of /proc/self/stat; the boot time
    // is /proc/stat's btime.
    const std::string stat = ReadProcFile("/proc/self/stat");
    const std::string system = ReadProcFile("/proc/stat");
    const size_t btime = system.find("\nbtime ");
    const long ticks = sysconf(_SC_CLK_TCK);
    if (btime != std::string::npos && ticks > 0 && StatField(stat, 22) != 0) {
        char value[32];
        std::snprintf(value, sizeof value, "%.2f",
                      static_cast<double>(std::strtoull(system.c_str() + btime + 7, nullptr, 10)) +
                          static_cast<double>(StatField(stat, 22)) / static_cast<double>(ticks));
        out->Family("process_start_time_seconds", "gauge",
                    "Start time of the process since unix epoch in seconds.");
        out->Sample("process_start_time_seconds", value);
    }
    // The thread count from /proc/self/status: an emulator (qemu-user) fills in that file but
    // leaves num_threads in /proc/self/stat at 0.
    const std::string status = ReadProcFile("/proc/self/status");
    const size_t threads = status.find("\nThreads:");
    if (threads != std::string::npos) {
        AddGauge(out, "process_threads", "Number of threads in the process.",
                 std::strtoull(status.c_str() + threads + 9, nullptr, 10));
    }
}

}  // namespace

std::string MetricsFamilyName(const std::string& registerPath) {
    const std::string path =
        registerPath.compare(0, 5, "root.") == 0 ? registerPath.substr(5) : registerPath;
    std::string name;
    for (size_t i = 0; i < path.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(path[i]);
        if (std::isupper(c)) {
            // A word starts at an upper-case letter after a lower-case letter or digit, and at the
            // last capital of an acronym followed by a lower-case letter ("HTTPServer").
            const bool afterLower =
                i > 0 && (std::islower(static_cast<unsigned char>(path[i - 1])) ||
                          std::isdigit(static_cast<unsigned char>(path[i - 1])));
            const bool acronymEnd =
                i > 0 && std::isupper(static_cast<unsigned char>(path[i - 1])) &&
                i + 1 < path.size() && std::islower(static_cast<unsigned char>(path[i + 1]));
            if (afterLower || acronymEnd) {
                name.push_back('_');
            }
            name.push_back(static_cast<char>(std::tolower(c)));
        } else if (std::isalnum(c) && c < 0x80) {
            name.push_back(static_cast<char>(c));
        } else {
            name.push_back('_');
        }
    }
    // One underscore between words, none at the ends.
    std::string collapsed;
    for (char c : name) {
        if (c != '_' || (!collapsed.empty() && collapsed.back() != '_')) {
            collapsed.push_back(c);
        }
    }
    while (!collapsed.empty() && collapsed.back() == '_') {
        collapsed.pop_back();
    }
    if (!collapsed.empty() && std::isdigit(static_cast<unsigned char>(collapsed[0]))) {
        collapsed.insert(0, "_");
    }
    return collapsed;
}

void MetricsDeclareCounter(const std::string& path) {
    CounterDeclarations& declarations = GetDeclarations();
    std::lock_guard<std::mutex> lock(declarations.mutex);
    declarations.paths.insert(path);
}

__attribute__((cold)) std::string MetricsText(const std::string& daemonName) {
    Exposition out(daemonName);
    AddCounters(&out);
    AddStrings(&out);
    AddProcess(&out);
    return out.Finish();
}

bool MetricsWriteTextfile(const std::string& path, const std::string& daemonName,
                          std::string* error) {
    return WriteFileAtomically(path, MetricsText(daemonName), error);
}

bool MetricsWriteTextfileContent(const std::string& path, const std::string& exposition,
                                 std::string* error) {
    return WriteFileAtomically(path, exposition, error);
}

}  // namespace vok
