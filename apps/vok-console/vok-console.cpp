// vok-console: the interactive command console.
//
//   vok-console               reads commands from standard input until "quit" or its end
//   vok-console CMD [ARG...]  runs one command
//
// An exception raised by a command ends the program: its message goes to standard error and the
// exit status is 1.
#include <cstdio>
#include <exception>

#include <vok/InteractiveTestManager.h>

int main(int argc, char** argv) {
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
