#include "vok/InteractiveTestManager.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace voktests {

std::vector<_Command>* g_pCommands = nullptr;
int32_t g_argc = -1;
char** g_argv = nullptr;

namespace {

const char kLastCommandName[] = "last";
const size_t kLineBufferSize = 128;

// The strtok_r state of the line being run in interactive mode; NULL between commands.
char* g_lineState = nullptr;
// True while a line is being run, so that next_arg may continue it.
bool g_haveLine = false;

bool IsLast(const _Command& command) {
    return strcasecmp(command.name, kLastCommandName) == 0;
}

bool compareCommands_CB(const _Command& a, const _Command& b) {
    return strcasecmp(a.name, b.name) < 0;
}

void PrintRule() {
    for (int i = 0; i < 90; ++i) {
        std::putchar('=');
    }
    std::putchar('\n');
}

// Ends the line that next_arg reads from, also when a command throws.
class LineScope {
  public:
    LineScope() { g_haveLine = true; }
    ~LineScope() {
        g_haveLine = false;
        g_lineState = nullptr;
    }
    LineScope(const LineScope&) = delete;
    LineScope& operator=(const LineScope&) = delete;
};

// One-shot mode for the duration of one command, also when it throws.
class ArgvScope {
  public:
    ArgvScope(int argc, char** argv) {
        g_argc = argc;
        g_argv = argv;
    }
    ~ArgvScope() {
        g_argc = -1;
        g_argv = nullptr;
    }
    ArgvScope(const ArgvScope&) = delete;
    ArgvScope& operator=(const ArgvScope&) = delete;
};

// Reads one line into buffer (at most size - 1 characters, without its newline); the rest of a
// longer line is dropped. False at the end of the input.
bool ReadLine(FILE* input, char* buffer, size_t size) {
    std::memset(buffer, 0, size);
    if (std::fgets(buffer, static_cast<int>(size), input) == nullptr) {
        return false;
    }
    char* newline = std::strchr(buffer, '\n');
    if (newline != nullptr) {
        *newline = '\0';
    } else {
        int c;
        do {
            c = std::fgetc(input);
        } while (c != EOF && c != '\n');
    }
    return true;
}

}  // namespace

bool Interactive() {
    return g_argc == -1;
}

const char* next_arg() {
    if (!Interactive()) {
        if (g_argc <= 0) {
            return nullptr;
        }
        --g_argc;
        return *g_argv++;
    }
    if (!g_haveLine) {
        return nullptr;
    }
    return strtok_r(nullptr, " ", &g_lineState);
}

int GetMatchingCmd(const _Command* table, const char* word) {
    size_t count = 0;
    while (!IsLast(table[count])) {
        ++count;
    }
    int* matches = new (std::nothrow) int[count + 1];
    if (matches == nullptr) {
        std::puts("ERROR: Out of Memory!!");
        return -1;
    }
    const size_t length = std::strlen(word);
    int found = 0;
    for (size_t i = 0; i < count; ++i) {
        const char* name = table[i].name;
        if (length > std::strlen(name) || strncasecmp(word, name, length) != 0) {
            continue;
        }
        if (name[length] == '\0') {
            delete[] matches;
            return static_cast<int>(i);
        }
        matches[found++] = static_cast<int>(i);
    }
    int result = -1;
    if (found == 1) {
        result = matches[0];
    } else if (found > 1) {
        std::puts("Ambiguous command.  Following commands match:");
        for (int i = 0; i < found; ++i) {
            std::printf("\t%s\n", table[matches[i]].name);
        }
        result = -2;
    } else if (strcasecmp(word, "help") == 0) {
        const char* name = next_arg();
        if (name != nullptr) {
            show_cmd_help(table, name);
        } else {
            show_help(table);
        }
    } else {
        std::printf("Unknown command: %s\n", word);
    }
    delete[] matches;
    return result;
}

void show_help(const _Command* table) {
    PrintRule();
    int column = 0;
    for (const _Command* command = table; !IsLast(*command); ++command) {
        std::printf("%-30s", command->name);
        if (++column == 3) {
            std::putchar('\n');
            column = 0;
        }
    }
    if (column != 0) {
        std::putchar('\n');
    }
    PrintRule();
    std::puts("\tquit");
    std::printf(
        "\nhelp followed by command name, displays more info about command - e.g., \n\thelp %s\n",
        table[0].name);
}

void show_cmd_help(const _Command* table, const char* name) {
    for (const _Command* command = table; !IsLast(*command); ++command) {
        if (strcasecmp(command->name, name) != 0) {
            continue;
        }
        if (command->help != nullptr) {
            std::printf("\t%s\n", command->help);
        } else {
            std::printf("\t[%s] no help available for this command\n", command->name);
        }
    }
}

void run_shell(const _Command* table, FILE* input) {
    char line[kLineBufferSize];
    for (;;) {
        std::printf(">");
        std::fflush(stdout);
        // The end of the input leaves the console as "quit" does.
        if (!ReadLine(input, line, sizeof line)) {
            return;
        }
        const LineScope scope;
        const char* word = strtok_r(line, " ", &g_lineState);
        if (word == nullptr) {
            continue;
        }
        if (strcasecmp(word, "quit") == 0 || strcasecmp(word, "q") == 0) {
            return;
        }
        const int index = GetMatchingCmd(table, word);
        if (index >= 0) {
            table[index].handler();
        }
    }
}

void run_cmd(int argc, char** argv, const _Command* table) {
    if (argc < 1) {
        return;
    }
    const ArgvScope scope(argc - 1, argv + 1);
    const int index = GetMatchingCmd(table, argv[0]);
    if (index >= 0) {
        table[index].handler();
    }
}

InteractiveTestManager::InteractiveTestManager() : builtinsInstalled_(false) {
    if (g_pCommands != nullptr) {
        throw std::logic_error("InteractiveTestManager: another console exists");
    }
    g_pCommands = new std::vector<_Command>();
}

InteractiveTestManager::~InteractiveTestManager() {
    if (builtinsInstalled_) {
        MmTestsRelease();
    }
    delete g_pCommands;
    g_pCommands = nullptr;
}

void InteractiveTestManager::InstallCommands(const _Command* commands, size_t count) {
    if (!g_pCommands->empty() && IsLast(g_pCommands->back())) {
        g_pCommands->pop_back();
    }
    g_pCommands->insert(g_pCommands->end(), commands, commands + count);
}

const _Command* InteractiveTestManager::Prepare() {
    if (!builtinsInstalled_) {
        builtinsInstalled_ = true;
        MmTestsInstall(*this);
    }
    if (!g_pCommands->empty() && IsLast(g_pCommands->back())) {
        g_pCommands->pop_back();
    }
    std::sort(g_pCommands->begin(), g_pCommands->end(), compareCommands_CB);
    g_pCommands->push_back(_Command{kLastCommandName, nullptr, ""});
    return g_pCommands->data();
}

void InteractiveTestManager::Run(FILE* input) {
    run_shell(Prepare(), input);
}

void InteractiveTestManager::RunCommand(int argc, char** argv) {
    run_cmd(argc, argv, Prepare());
}

}  // namespace voktests
