// Registers and process figures in the OpenMetrics text format.
#include "vok/Metrics.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

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
            if (EndsWith(name, "_total")) {
                name.resize(name.size() - 6);
            }
            name = out->Unique(name);
            out->Family(name, "counter", help);
            out->Sample(name + "_total", std::to_string(entry.second.value));
            continue;
        }
        name = out->Unique(GaugeName(name));
        out->Family(name, "gauge", help);
        out->Sample(name, std::to_string(entry.second.value));
        const std::string low = out->Unique(name + "_low");
        out->Family(low, "gauge", "Low watermark of diagnostic register " + entry.first);
        out->Sample(low, std::to_string(entry.second.low));
        const std::string high = out->Unique(name + "_high");
        out->Family(high, "gauge", "High watermark of diagnostic register " + entry.first);
        out->Sample(high, std::to_string(entry.second.high));
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
        if (EndsWith(name, "_info")) {
            name.resize(name.size() - 5);
        }
        name = out->Unique(name);
        out->Family(name, "info", "Diagnostic register " + entry.first);
        out->Sample(name + "_info", "1", ",value=\"" + Escape(entry.second) + "\"");
    }
}

// Fields of /proc/self/stat after the command name (which may hold spaces and parentheses);
// field 3 of proc(5) is element 0. Empty when unreadable.
std::vector<std::string> ReadStatFields() {
    std::ifstream file("/proc/self/stat");
    std::string line;
    std::vector<std::string> fields;
    if (!std::getline(file, line)) {
        return fields;
    }
    const size_t close = line.rfind(')');
    if (close == std::string::npos) {
        return fields;
    }
    std::istringstream rest(line.substr(close + 1));
    std::string field;
    while (rest >> field) {
        fields.push_back(field);
    }
    return fields;
}

// Seconds since the epoch at which the system booted, or 0.
unsigned long long BootTime() {
    std::ifstream file("/proc/stat");
    std::string key;
    unsigned long long value = 0;
    while (file >> key) {
        if (key == "btime" && file >> value) {
            return value;
        }
        file.ignore(1 << 20, '\n');
    }
    return 0;
}

void AddProcess(Exposition* out) {
    const long page = sysconf(_SC_PAGESIZE);
    unsigned long long pages = 0;
    unsigned long long resident = 0;
    std::ifstream statm("/proc/self/statm");
    if (statm >> pages >> resident) {
        out->Family("process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.");
        out->Sample("process_virtual_memory_bytes", std::to_string(pages * page));
        out->Family("process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
        out->Sample("process_resident_memory_bytes", std::to_string(resident * page));
    }

    DIR* fds = opendir("/proc/self/fd");
    if (fds != nullptr) {
        long count = 0;
        while (const struct dirent* entry = readdir(fds)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        closedir(fds);
        // The directory's own descriptor was open while counting.
        out->Family("process_open_fds", "gauge", "Number of open file descriptors.");
        out->Sample("process_open_fds", std::to_string(count - 1));
    }
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        out->Family("process_max_fds", "gauge", "Maximum number of open file descriptors.");
        out->Sample("process_max_fds",
                    std::to_string(static_cast<unsigned long long>(limit.rlim_cur)));
    }

    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        const double seconds = static_cast<double>(usage.ru_utime.tv_sec) +
                               static_cast<double>(usage.ru_stime.tv_sec) +
                               (static_cast<double>(usage.ru_utime.tv_usec) +
                                static_cast<double>(usage.ru_stime.tv_usec)) /
                                   1e6;
        char value[32];
        std::snprintf(value, sizeof value, "%.6f", seconds);
        out->Family("process_cpu_seconds", "counter",
                    "Total user and system CPU time spent in seconds.");
        out->Sample("process_cpu_seconds_total", value);
    }

    // proc(5): num_threads is field 20, starttime (clock ticks after boot) field 22.
    const std::vector<std::string> stat = ReadStatFields();
    const unsigned long long boot = BootTime();
    const long ticks = sysconf(_SC_CLK_TCK);
    if (stat.size() > 19 && boot != 0 && ticks > 0) {
        char value[32];
        std::snprintf(value, sizeof value, "%.2f",
                      static_cast<double>(boot) + std::strtod(stat[19].c_str(), nullptr) / ticks);
        out->Family("process_start_time_seconds", "gauge",
                    "Start time of the process since unix epoch in seconds.");
        out->Sample("process_start_time_seconds", value);
    }
    if (stat.size() > 17) {
        out->Family("process_threads", "gauge", "Number of threads in the process.");
        out->Sample("process_threads", stat[17]);
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

std::string MetricsText(const std::string& daemonName) {
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

}  // namespace vok
