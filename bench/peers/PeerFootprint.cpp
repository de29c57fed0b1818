// What a bus client and an idle bus daemon cost, beside the peers, on a private dbus-daemon:
//   - system calls of the client per call (strace -f -c of peer-bus CLIENT N, for two N: the
//     difference leaves connecting and exiting out);
//   - an idle daemon serving one method, written the way each peer's manual shows (vok: one
//     blade; sd-event+sd-bus; GLib+GDBus; Qt Core+QtDBus): time from exec to READY=1 on a notify
//     socket of this program's own, then, after one call has been served and the daemon has
//     idled, private dirty memory and RSS (smaps_rollup), threads and descriptors.
// Prints the tables with each figure as a ratio to sd-event+sd-bus (and vok's syscalls to
// sd_bus_call_method's).
//
// usage: peer-footprint PROGRAM_DIR [REPETITIONS]
#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PrivateBus.h"

namespace {

using Clock = std::chrono::steady_clock;

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs argv with the environment given; returns the wait status.
int Run(const std::vector<std::string>& argv) {
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

// The system calls strace counted ("total" line of -c), or -1.
long StraceCalls(const std::string& path) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; fields >> word;) {
            words.push_back(word);
        }
        if (words.size() >= 5 && words.back() == "total") {
            return std::atol(words[3].c_str());
        }
    }
    return -1;
}

double SyscallsPerCall(const std::string& program, const char* client) {
    const long counts[2] = {200, 1200};
    long calls[2] = {0, 0};
    const std::string out = "/tmp/peer-footprint-strace-" + std::to_string(getpid());
    for (int i = 0; i < 2; ++i) {
        Run({"strace", "-f", "-c", "-q", "-o", out, program, client, std::to_string(counts[i])});
        calls[i] = StraceCalls(out);
    }
    unlink(out.c_str());
    return calls[0] < 0 || calls[1] < 0 ? -1
                                        : static_cast<double>(calls[1] - calls[0]) /
                                              static_cast<double>(counts[1] - counts[0]);
}

struct Footprint {
    double readyMs = 0;
    double privateDirtyKb = 0;
    double rssKb = 0;
    double threads = 0;
    double descriptors = 0;
};

// A field of a /proc file ("Private_Dirty:", "Threads:"), in its own unit.
double ProcField(const std::string& path, const char* name) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, std::strlen(name), name) == 0) {
            return std::atof(line.c_str() + std::strlen(name));
        }
    }
    return -1;
}

double CountDescriptors(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    double count = 0;
    for (dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count;
}

// One call of the daemon's method; retried while its name has no owner yet (READY=1 may come
// before the name is owned). False when it never answers.
bool CallOnce(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return false;
    }
    bool served = false;
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(10);
    while (!served && Clock::now() < limit) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        served = sd_bus_call_method(bus, "com.orvex.peers", "/peers", "com.orvex.kelvra.Method",
                                    "echo", &error, &reply, "st", "{}", uint64_t(1)) >= 0;
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        if (!served) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    sd_bus_flush_close_unref(bus);
    return served;
}

// Starts program with NOTIFY_SOCKET pointing at a socket of ours, waits for READY=1, has it
// serve one call, lets it idle, and reads its figures.
bool Measure(const std::string& program, const std::string& address, Footprint* footprint) {
    const std::string socketPath = "/tmp/peer-footprint-notify-" + std::to_string(getpid());
    unlink(socketPath.c_str());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un local = {};
    local.sun_family = AF_UNIX;
    std::strncpy(local.sun_path, socketPath.c_str(), sizeof local.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        close(fd);
        return false;
    }
    timeval wait = {30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    const Clock::time_point start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("NOTIFY_SOCKET", socketPath.c_str(), 1);
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    bool ready = false;
    char buffer[256];
    for (ssize_t got; !ready && (got = recv(fd, buffer, sizeof buffer - 1, 0)) > 0;) {
        buffer[got] = '\0';
        ready = std::strstr(buffer, "READY=1") != nullptr;
    }
    footprint->readyMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    close(fd);
    unlink(socketPath.c_str());
    bool ok = ready && CallOnce(address);
    if (ok) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const std::string proc = "/proc/" + std::to_string(pid);
        footprint->privateDirtyKb = ProcField(proc + "/smaps_rollup", "Private_Dirty:");
        footprint->rssKb = ProcField(proc + "/smaps_rollup", "Rss:");
        footprint->threads = ProcField(proc + "/status", "Threads:");
        footprint->descriptors = CountDescriptors(pid);
    }
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    return ok;
}

struct Daemon {
    const char* label;
    const char* program;
};

const Daemon kDaemons[] = {
    {"sd-event + sd-bus", "peer-daemon-sdevent"},
    {"GLib + GDBus", "peer-daemon-gdbus"},
    {"Qt Core + QtDBus", "peer-daemon-qt"},
    {"vok: one blade, bus library", "peer-daemon-vok"},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s PROGRAM_DIR [REPETITIONS]\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const int repetitions = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    vok::test::PrivateBus bus;
    const std::string address = bus.Start();
    setenv("KELVRA_BUS_ADDRESS", address.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);

    std::printf("Bus client system calls per call (strace -f -c, every thread of the client)\n");
    {
        vok::test::ChildProcess service;
        service.Start({dir + "/peer-bus", "serve"}, false, true);
        if (service.ReadLine() == "ready") {
            const char* const clients[] = {"sd-bus", "sdbus-c++", "gdbus", "kvcall"};
            const char* const labels[] = {"sd-bus: sd_bus_call_method",
                                          "sdbus-c++: proxy callMethod",
                                          "raw GDBus, asynchronous call", "vok platform: KVCall"};
            double base = 0;
            for (int i = 0; i < 4; ++i) {
                const double calls = SyscallsPerCall(dir + "/peer-bus", clients[i]);
                base = i == 0 ? calls : base;
                std::printf("  %-40s %8.1f   %5.2fx sd-bus\n", labels[i], calls,
                            base > 0 ? calls / base : 0.0);
            }
        } else {
            std::printf("  (the echo service did not start)\n");
        }
        service.Kill(SIGTERM);
        service.Wait();
    }

    std::printf(
        "\nIdle daemon serving one bus method, median of %d runs (ratio to sd-event + sd-bus)\n"
        "  %-30s %17s %17s %13s %13s %15s\n",
        repetitions, "daemon", "private dirty kB", "RSS kB", "threads", "descriptors",
        "exec→READY ms");
    Footprint base;
    for (const Daemon& daemon : kDaemons) {
        std::vector<double> ready, dirty, rss, threads, descriptors;
        for (int rep = 0; rep < repetitions; ++rep) {
            Footprint footprint;
            if (Measure(dir + "/" + daemon.program, address, &footprint)) {
                ready.push_back(footprint.readyMs);
                dirty.push_back(footprint.privateDirtyKb);
                rss.push_back(footprint.rssKb);
                threads.push_back(footprint.threads);
                descriptors.push_back(footprint.descriptors);
            }
        }
        if (ready.empty()) {
            std::printf("  %-30s (failed)\n", daemon.label);
            continue;
        }
        Footprint median = {Median(ready), Median(dirty), Median(rss), Median(threads),
                            Median(descriptors)};
        if (&daemon == &kDaemons[0]) {
            base = median;
        }
        auto ratio = [](double value, double of) { return of > 0 ? value / of : 0.0; };
        std::printf(
            "  %-30s %8.0f (%5.2fx) %8.0f (%5.2fx) %4.0f (%5.2fx) %4.0f (%5.2fx) "
            "%6.1f (%5.2fx)\n",
            daemon.label, median.privateDirtyKb, ratio(median.privateDirtyKb, base.privateDirtyKb),
            median.rssKb, ratio(median.rssKb, base.rssKb), median.threads,
            ratio(median.threads, base.threads), median.descriptors,
            ratio(median.descriptors, base.descriptors), median.readyMs,
            ratio(median.readyMs, base.readyMs));
    }
    std::fflush(stdout);
    return 0;
}
