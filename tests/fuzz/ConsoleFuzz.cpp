// The interactive console: the input is a session in a console of its own, destroyed afterwards
// so that the leak check sees what the session left.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>

#include <ztlog/ztlog.h>

#include "vok/InteractiveTestManager.h"

namespace {

// The console reads at most this many characters of a line and drops the rest.
const size_t kConsoleLineLength = 127;
// Counts above this (messages, elements, serial numbers to draw) only cost time.
const unsigned long long kMaxCount = 1000;

void DropLogLine(void*, int, const char*, const char*) {}

// A word after the command is a number above kMaxCount.
bool AsksForTooMuch(const std::string& line) {
    std::string copy = line;
    char* state = nullptr;
    strtok_r(&copy[0], " ", &state);
    for (char* word; (word = strtok_r(nullptr, " ", &state)) != nullptr;) {
        errno = 0;
        char* end = nullptr;
        const unsigned long long value = std::strtoull(word, &end, 10);
        if (end != word && (errno == ERANGE || value > kMaxCount)) {
            return true;
        }
    }
    return false;
}

// The session as the console sees it, less the lines that would only take long.
std::string Session(const uint8_t* data, size_t size) {
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::string session;
    for (std::string line; std::getline(input, line);) {
        line = line.substr(0, kConsoleLineLength).c_str();  // The console's line ends at a NUL.
        if (!AsksForTooMuch(line)) {
            session += line + "\n";
        }
    }
    return session;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
    ZtLogSetOutputHook(DropLogLine, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string session = Session(data, size);
    if (session.empty()) {
        return 0;
    }
    FILE* input = fmemopen(&session[0], session.size(), "r");
    if (input == nullptr) {
        return 0;
    }
    try {
        voktests::InteractiveTestManager console;
        console.Run(input);
    } catch (const std::exception&) {
        // A program error a command provoked on purpose ("mmf.rembogus", "mmf.remfront force").
    }
    std::fclose(input);
    return 0;
}
