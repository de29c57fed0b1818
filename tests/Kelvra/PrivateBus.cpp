#include "PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace vok {
namespace test {

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "PrivateBus: %s: %s\n", what, std::strerror(errno));
    std::abort();
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        Kill(SIGKILL);
        Wait();
    }
    if (outFd_ >= 0) {
        close(outFd_);
    }
}

void ChildProcess::Start(const std::vector<std::string>& argv, bool emulated, bool captureOutput) {
    // VOK_TEST_EMULATOR, split at blanks ("qemu-arm -L /sysroot").
    std::vector<std::string> words;
    const char* emulator = emulated ? std::getenv("VOK_TEST_EMULATOR") : nullptr;
    std::istringstream in(emulator != nullptr ? emulator : "");
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(&word[0]);
    }
    args.push_back(nullptr);
    if (outFd_ >= 0) {
        close(outFd_);
        outFd_ = -1;
    }
    int fds[2] = {-1, -1};
    if (captureOutput && pipe2(fds, O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    pid_ = fork();
    if (pid_ < 0) {
        Fail("fork");
    }
    if (pid_ == 0) {
        // Async-signal-safe calls only. A test program that dies takes its children along.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (captureOutput) {
            dup2(fds[1], STDOUT_FILENO);
        }
        execvp(args[0], args.data());
        _exit(127);
    }
    if (captureOutput) {
        close(fds[1]);
        outFd_ = fds[0];
    }
}

std::string ChildProcess::ReadLine() {
    std::string line;
    char c;
    while (read(outFd_, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

std::string ChildProcess::ReadAll() {
    std::string all;
    char buffer[512];
    ssize_t n;
    while ((n = read(outFd_, buffer, sizeof buffer)) > 0) {
        all.append(buffer, static_cast<size_t>(n));
    }
    return all;
}

void ChildProcess::Kill(int signal) {
    if (pid_ > 0) {
        kill(pid_, signal);
    }
}

void ChildProcess::Pause() {
    // kill() returns before every thread has stopped; the stop report comes once all have.
    int status = 0;
    if (pid_ > 0 && kill(pid_, SIGSTOP) == 0) {
        while (waitpid(pid_, &status, WUNTRACED) < 0 && errno == EINTR) {
        }
    }
}

int ChildProcess::Wait() {
    int status = 0;
    while (pid_ > 0 && waitpid(pid_, &status, 0) < 0) {
        if (errno != EINTR) {
            Fail("waitpid");
        }
    }
    pid_ = -1;
    return status;
}

PrivateBus::~PrivateBus() {
    Stop();
}

const std::string& PrivateBus::Start() {
    char pattern[] = "/tmp/vok-bus-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        Fail("mkdtemp");
    }
    dir_ = pattern;
    std::ofstream(dir_ + "/bus.conf")
        << "<busconfig><type>session</type><listen>unix:path=" << dir_
        << "/socket</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>";
    Launch();
    return address_;
}

void PrivateBus::Launch() {
    unlink((dir_ + "/socket").c_str());
    daemon_.Start(
        {"dbus-daemon", "--config-file=" + dir_ + "/bus.conf", "--print-address", "--nofork"},
        false, true);
    std::string address = daemon_.ReadLine();
    if (address.empty()) {
        errno = 0;
        Fail("dbus-daemon printed no address");
    }
    // Without the guid, which changes at every start: clients would refuse a restarted daemon.
    address_ = address.substr(0, address.find(",guid="));
}

void PrivateBus::Stop() {
    if (daemon_.Running()) {
        daemon_.Kill(SIGTERM);
        daemon_.Wait();
    }
    if (!dir_.empty()) {
        unlink((dir_ + "/socket").c_str());
        unlink((dir_ + "/bus.conf").c_str());
        rmdir(dir_.c_str());
        dir_.clear();
    }
}

}  // namespace test
}  // namespace vok
