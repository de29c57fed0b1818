// Runs the peer programs interleaved (every repetition runs each program once, pinned to one CPU
// and unpinned), then prints one table per section and mode: median and fastest time per
// operation, context switches per operation, and each peer's ratio to vok. Writes the tables,
// every run's raw figures and one SVG bar chart per section and mode into the results directory
// (and a PNG beside each chart when gnuplot is installed).
//
// usage: peer-driver PROGRAM_DIR RESULTS_DIR [REPETITIONS]
//   PEER_SECONDS in the environment sets how long each run measures (default 0.5 s).
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Section {
    const char* id;
    const char* title;
    const char* unit;  // "us" or "ns": what a table shows per operation
};

const Section kSections[] = {
    {"cross", "Cross-thread request/response, one small message each way", "us"},
    {"same", "Same thread: create, send, receive, free one small message", "ns"},
    {"bus", "Bus call with a 100-byte payload, private dbus-daemon, echo service", "us"},
};

struct Peer {
    const char* section;
    const char* label;
    const char* program;
    const char* operation;
    bool qtOwnDispatcher;  // runs with QT_NO_GLIB=1
    bool vok;
};

const Peer kPeers[] = {
    {"cross", "two threads, blocking eventfd ping-pong (floor)", "peer-floor", "cross", false,
     false},
    {"cross", "sd-event loops + eventfd", "peer-sdevent", "cross", false, false},
    {"cross", "Qt 5 postEvent, QThread loops, Qt dispatcher", "peer-qt", "cross", true, false},
    {"cross", "Qt 5 postEvent, QThread loops, GLib dispatcher", "peer-qt", "cross", false, false},
    {"cross", "CAF 0.17 request/response, detached actors", "peer-caf", "cross", false, false},
    {"cross", "GLib idle source on the other thread's context", "peer-glib", "cross", false, false},
    {"cross", "vok: port monitor round trip", "peer-vok", "cross", false, true},
    {"same", "malloc + mutex-guarded deque (floor)", "peer-floor", "same", false, false},
    {"same", "CAF 0.17: scoped actor sends to itself, receives", "peer-caf", "same", false, false},
    {"same", "Qt 5: postEvent + sendPostedEvents", "peer-qt", "same", false, false},
    {"same", "vok: connection message round trip", "peer-vok", "same", false, true},
    {"bus", "raw GDBus, asynchronous call", "peer-bus", "gdbus", false, false},
    {"bus", "sd-bus: sd_bus_call_method", "peer-bus", "sd-bus", false, false},
    {"bus", "sdbus-c++: proxy callMethod", "peer-bus", "sdbus-c++", false, false},
    {"bus", "vok platform: KVCall", "peer-bus", "kvcall", false, true},
};

const char* const kModes[] = {"pinned", "unpinned"};

struct Run {
    double nsPerOp;
    double switchesPerOp;
    double readsPerOp;   // read calls of every thread
    double writesPerOp;  // write calls of every thread
    double pollsPerOp;   // GLib polls; negative when the program does not count them
};

// Pins the calling process to CPU 0 (or the first CPU it may use), as `taskset -c 0` does; the
// program's threads inherit it.
void PinToOneCpu() {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int cpu = CPU_ISSET(0, &allowed) ? 0 : -1;
    for (int i = 0; cpu < 0 && i < CPU_SETSIZE; ++i) {
        cpu = CPU_ISSET(i, &allowed) ? i : -1;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu < 0 ? 0 : cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
}

// Runs one program and parses its result line; false (with a note on stderr) when it fails. The
// program's own stderr (dbus-daemon's complaints among it) goes to errorLog.
bool RunPeer(const std::string& programDir, const Peer& peer, bool pinned, int errorLog, Run* run) {
    int out[2];
    if (pipe(out) != 0) {
        return false;
    }
    const std::string path = programDir + "/" + peer.program;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(errorLog, STDERR_FILENO);
        close(out[0]);
        close(out[1]);
        if (pinned) {
            PinToOneCpu();
        }
        if (peer.qtOwnDispatcher) {
            setenv("QT_NO_GLIB", "1", 1);
        } else {
            unsetenv("QT_NO_GLIB");
        }
        execl(path.c_str(), path.c_str(), peer.operation, static_cast<char*>(nullptr));
        std::perror(path.c_str());
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = read(out[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    long long ops = 0;
    double ns = 0;
    long switches = 0;
    const size_t at = text.find("result ");
    if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || at == std::string::npos ||
        std::sscanf(text.c_str() + at, "result ops=%lld ns=%lf csw=%ld", &ops, &ns, &switches) !=
            3 ||
        ops <= 0) {
        std::fprintf(stderr, "peer-driver: %s %s failed (status %d), see its log\n", peer.program,
                     peer.operation, status);
        return false;
    }
    run->nsPerOp = ns / static_cast<double>(ops);
    run->switchesPerOp = static_cast<double>(switches) / static_cast<double>(ops);
    long reads = 0, writes = 0, polls = -1;
    const size_t calls = text.find(" rd=", at);
    if (calls != std::string::npos) {
        std::sscanf(text.c_str() + calls, " rd=%ld wr=%ld polls=%ld", &reads, &writes, &polls);
    }
    run->readsPerOp = static_cast<double>(reads) / static_cast<double>(ops);
    run->writesPerOp = static_cast<double>(writes) / static_cast<double>(ops);
    run->pollsPerOp = polls < 0 ? -1.0 : static_cast<double>(polls) / static_cast<double>(ops);
    return true;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct Summary {
    const Peer* peer;
    double median;  // in the section's unit
    double fastest;
    double switches;
    int runs;
    double reads;  // medians per operation
    double writes;
    double polls;  // negative: not counted
};

std::vector<Summary> Summarise(const std::map<const Peer*, std::vector<Run>>& runs,
                               const Section& section) {
    const double scale = std::strcmp(section.unit, "us") == 0 ? 1e-3 : 1.0;
    std::vector<Summary> rows;
    for (const Peer& peer : kPeers) {
        auto it = runs.find(&peer);
        if (std::strcmp(peer.section, section.id) != 0 || it == runs.end() || it->second.empty()) {
            continue;
        }
        std::vector<double> times, switches, reads, writes, polls;
        for (const Run& run : it->second) {
            times.push_back(run.nsPerOp * scale);
            switches.push_back(run.switchesPerOp);
            reads.push_back(run.readsPerOp);
            writes.push_back(run.writesPerOp);
            polls.push_back(run.pollsPerOp);
        }
        rows.push_back({&peer, Median(times), *std::min_element(times.begin(), times.end()),
                        Median(switches), static_cast<int>(times.size()), Median(reads),
                        Median(writes), Median(polls)});
    }
    return rows;
}

std::string Table(const Section& section, const char* mode, const std::vector<Summary>& rows) {
    const char* unit = std::strcmp(section.unit, "us") == 0 ? "µs" : "ns";
    const int decimals = std::strcmp(section.unit, "us") == 0 ? 1 : 0;
    double vok = 0;
    for (const Summary& row : rows) {
        vok = row.peer->vok ? row.median : vok;
    }
    std::ostringstream out;
    char line[256];
    out << section.title << " — "
        << (std::strcmp(mode, "pinned") == 0 ? "pinned to one CPU" : "unpinned") << "\n";
    // "µ" takes two bytes and one column.
    const int width = std::strcmp(section.unit, "us") == 0 ? 10 : 9;
    std::snprintf(line, sizeof line, "  %-52s %*s %*s %8s %6s %6s %8s %6s %9s %9s\n", "peer", width,
                  (std::string("median ") + unit).c_str(), width,
                  (std::string("min ") + unit).c_str(), "csw/op", "wr/op", "rd/op", "polls/op",
                  "runs", "peer/vok", "vok/peer");
    out << line;
    for (const Summary& row : rows) {
        char polls[16] = "-";
        if (row.polls >= 0) {
            std::snprintf(polls, sizeof polls, "%.2f", row.polls);
        }
        std::snprintf(line, sizeof line,
                      "  %-52s %9.*f %9.*f %8.2f %6.2f %6.2f %8s %6d %9.2f %9.2f\n",
                      row.peer->label, decimals, row.median, decimals, row.fastest, row.switches,
                      row.writes, row.reads, polls, row.runs, vok > 0 ? row.median / vok : 0.0,
                      vok > 0 && row.median > 0 ? vok / row.median : 0.0);
        out << line;
    }
    return out.str();
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c == '&' ? std::string("&amp;") : c == '<' ? std::string("&lt;") : std::string(1, c);
    }
    return out;
}

// Horizontal bars of the medians, vok's in a colour of its own; a tick marks each fastest run.
void WriteSvg(const std::string& path, const Section& section, const char* mode,
              const std::vector<Summary>& rows) {
    const int labelWidth = 360, barWidth = 360, rowHeight = 26, top = 48;
    const int width = labelWidth + barWidth + 90;
    const int height = top + rowHeight * static_cast<int>(rows.size()) + 30;
    double largest = 0;
    for (const Summary& row : rows) {
        largest = std::max(largest, row.median);
    }
    const char* unit = std::strcmp(section.unit, "us") == 0 ? "µs" : "ns";
    std::ofstream svg(path);
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << width << "' height='" << height
        << "' font-family='sans-serif' font-size='12'>\n"
        << "<rect width='100%' height='100%' fill='white'/>\n"
        << "<text x='10' y='20' font-size='14' font-weight='bold'>" << Escape(section.title)
        << "</text>\n"
        << "<text x='10' y='38' fill='#555'>" << mode << "; median per operation in " << unit
        << ", tick = fastest run; lower is better</text>\n";
    for (size_t i = 0; i < rows.size(); ++i) {
        const Summary& row = rows[i];
        const int y = top + rowHeight * static_cast<int>(i);
        const double scale = largest > 0 ? barWidth / largest : 0;
        const int bar = std::max(1, static_cast<int>(row.median * scale));
        const int tick = labelWidth + static_cast<int>(row.fastest * scale);
        const char* fill = row.peer->vok ? "#e8590c" : "#748ffc";
        char value[32];
        std::snprintf(value, sizeof value, std::strcmp(section.unit, "us") == 0 ? "%.1f" : "%.0f",
                      row.median);
        svg << "<text x='" << labelWidth - 8 << "' y='" << y + 17 << "' text-anchor='end'"
            << (row.peer->vok ? " font-weight='bold'" : "") << ">" << Escape(row.peer->label)
            << "</text>\n"
            << "<rect x='" << labelWidth << "' y='" << y + 4 << "' width='" << bar << "' height='"
            << rowHeight - 8 << "' fill='" << fill << "'/>\n"
            << "<line x1='" << tick << "' x2='" << tick << "' y1='" << y + 2 << "' y2='"
            << y + rowHeight - 2 << "' stroke='black' stroke-width='2'/>\n"
            << "<text x='" << labelWidth + bar + 6 << "' y='" << y + 17 << "'>" << value
            << "</text>\n";
    }
    svg << "</svg>\n";
}

// The machine the figures come from: CPUs, model, kernel, and the load average now.
std::string Machine() {
    std::string model = "unknown CPU";
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        const size_t colon = line.find(':');
        if (line.compare(0, 10, "model name") == 0 && colon != std::string::npos) {
            model = line.substr(colon + 2);
            break;
        }
    }
    struct utsname name;
    uname(&name);
    std::string load;
    std::getline(std::ifstream("/proc/loadavg"), load);
    std::ostringstream out;
    out << sysconf(_SC_NPROCESSORS_ONLN) << " CPUs online, " << model << ", " << name.sysname << " "
        << name.release << " " << name.machine << "; load average "
        << load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1));
    return out.str();
}

bool HaveProgram(const char* name) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (access((dir + "/" + name).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

void WritePng(const std::string& base, const Section& section, const char* mode,
              const std::vector<Summary>& rows) {
    std::ofstream data(base + ".dat");
    for (const Summary& row : rows) {
        data << '"' << row.peer->label << "\" " << row.median << " " << (row.peer->vok ? 1 : 0)
             << "\n";
    }
    data.close();
    std::ofstream script(base + ".gp");
    const char* unit = std::strcmp(section.unit, "us") == 0 ? "µs" : "ns";
    script << "set terminal pngcairo size 1100," << 120 + 30 * rows.size() << "\n"
           << "set output '" << base << ".png'\n"
           << "set title \"" << section.title << "\"\n"
           << "set xlabel \"median per operation, " << unit << " (" << mode << ")\"\n"
           << "set style fill solid\nset yrange [" << rows.size() - 0.5
           << ":-0.5]\nset xrange [0:*]\nunset key\nset lmargin 50\n"
           << "plot '" << base << ".dat' using ($2*0.5):0:($2*0.5):(0.35):($3 > 0 ? 0xe8590c : "
           << "0x748ffc):yticlabels(1) with boxxyerror lc rgb variable\n";
    script.close();
    const std::string command = "gnuplot '" + base + ".gp'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "peer-driver: gnuplot failed for %s\n", base.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s PROGRAM_DIR RESULTS_DIR [REPETITIONS]\n", argv[0]);
        return 2;
    }
    const std::string programDir = argv[1];
    const std::string resultsDir = argv[2];
    const int repetitions = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
    mkdir(resultsDir.c_str(), 0755);

    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", std::gmtime(&now));
    std::ofstream raw(resultsDir + "/runs-" + stamp + ".csv");
    raw << "repetition,mode,section,peer,ns_per_op,csw_per_op\n";
    const std::string logPath = resultsDir + "/peers-" + stamp + ".log";
    const int errorLog = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);

    const std::string machineBefore = Machine();
    std::map<const Peer*, std::vector<Run>> runs[2];
    for (int rep = 1; rep <= repetitions; ++rep) {
        for (int mode = 0; mode < 2; ++mode) {
            std::fprintf(stderr, "peer-driver: repetition %d of %d, %s\n", rep, repetitions,
                         kModes[mode]);
            for (const Peer& peer : kPeers) {
                Run run;
                if (RunPeer(programDir, peer, mode == 0, errorLog, &run)) {
                    runs[mode][&peer].push_back(run);
                    raw << rep << "," << kModes[mode] << "," << peer.section << ",\"" << peer.label
                        << "\"," << run.nsPerOp << "," << run.switchesPerOp << "\n";
                }
            }
        }
    }

    close(errorLog);

    std::ostringstream report;
    report
        << "Peer benchmarks, " << stamp << ", " << repetitions
        << " interleaved runs per peer and mode; csw = voluntary + involuntary context "
           "switches of the measuring process (getrusage) per operation; wr, rd = write and read "
           "calls of all its threads (/proc/self/io), polls = polls of its GLib contexts, per "
           "operation (- where the loop is not GLib's); bus: the "
           "dbus-daemon's own switches are not counted. peer/vok = the peer's median over "
           "vok's, vok/peer = vok's over the peer's.\n"
        << "Machine at start: " << machineBefore << "\nMachine at end:   " << Machine() << "\n\n";
    const bool png = HaveProgram("gnuplot");
    for (int mode = 0; mode < 2; ++mode) {
        for (const Section& section : kSections) {
            const std::vector<Summary> rows = Summarise(runs[mode], section);
            if (rows.empty()) {
                continue;
            }
            report << Table(section, kModes[mode], rows) << "\n";
            const std::string base = resultsDir + "/" + section.id + "-" + kModes[mode];
            WriteSvg(base + ".svg", section, kModes[mode], rows);
            if (png) {
                WritePng(base, section, kModes[mode], rows);
            }
        }
    }
    // The footprint section comes from a program of its own, run once after the timed ones.
    std::fprintf(stderr, "peer-driver: footprint\n");
    const std::string footprint = "'" + programDir + "/peer-footprint' '" + programDir + "' 3";
    if (FILE* pipe = popen(footprint.c_str(), "r")) {
        char line[512];
        while (std::fgets(line, sizeof line, pipe) != nullptr) {
            report << line;
        }
        pclose(pipe);
    }
    std::fputs(report.str().c_str(), stdout);
    std::fflush(stdout);
    std::ofstream(resultsDir + "/peers-" + stamp + ".txt") << report.str();
    std::ofstream(resultsDir + "/latest.txt") << report.str();
    std::fprintf(stderr, "peer-driver: results in %s\n", resultsDir.c_str());
    return 0;
}
