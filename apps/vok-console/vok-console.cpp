// vok-console: the interactive command console.
//
//   vok-console               reads commands from standard input until "quit" or its end
//   vok-console CMD [ARG...]  runs one command
//   vok-console --help | --version
//
// An exception raised by a command ends the program: its message goes to standard error and the
// exit status is 1. A bad option is one line on standard error and exit status 2.
#include <cstdio>
#include <cstring>
#include <exception>

#include <vok/InteractiveTestManager.h>
#include <vok/Version.h>

namespace {

const int kExitUsage = 2;

const char kUsage[] =
    "Usage: vok-console [CMD [ARG...]]\n"
    "Drives the MessageMover, its message lists, an intrusive list and a serial generator by "
    "hand.\n"
    "\n"
    "Without CMD, reads commands from standard input, one per line, after a \">\" prompt, until\n"
    "\"quit\", \"q\" or the end of the input. With CMD, runs that one command and exits.\n"
    "\"help\" lists the commands and \"help NAME\" explains one; names are case-insensitive and\n"
    "may be shortened to any unique beginning.\n"
    "\n"
    "Options:\n"
    "  -h, --help     print this help and exit\n"
    "  -V, --version  print the version and exit\n"
    "\n"
    "Exit status: 0 on success, 1 when a command raises an error (its text goes to standard\n"
    "error), 2 for a bad option.\n";

// Handles argv[1] when it is an option. Returns the exit status, or -1 when it is a command.
int HandleOption(int argc, char** argv) {
    const char* word = argv[1];
    if (word[0] != '-') {
        return -1;
    }
    const bool help = std::strcmp(word, "-h") == 0 || std::strcmp(word, "--help") == 0;
    const bool version = std::strcmp(word, "-V") == 0 || std::strcmp(word, "--version") == 0;
    if (!help && !version) {
        std::fprintf(stderr, "vok-console: unknown option '%s' (see vok-console --help)\n", word);
        return kExitUsage;
    }
    if (argc > 2) {
        std::fprintf(stderr, "vok-console: %s takes no arguments\n", word);
        return kExitUsage;
    }
    if (help) {
        std::fputs(kUsage, stdout);
    } else {
        std::printf("vok-console %s\n", VOK_VERSION_STRING);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const int status = HandleOption(argc, argv);
        if (status >= 0) {
            return status;
        }
    }
    voktests::InteractiveTestManager console;
    try {
        if (argc > 1) {
            console.RunCommand(argc - 1, argv + 1);
        } else {
            console.Run(stdin);
        }
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "vok-console: %s\n", e.what());
        return 1;
    }
    return 0;
}
