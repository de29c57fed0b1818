// The interactive command console: typed commands that drive the MessageMover, its lists and its
// serial generator by hand, one line at a time or one command from an argument vector.
#ifndef VOK_INTERACTIVETESTMANAGER_H
#define VOK_INTERACTIVETESTMANAGER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace voktests {

// One console command. The handler reads its arguments with next_arg() and prints to standard
// output; help may be NULL.
struct _Command {
    // The word that runs the command.
    const char* name;
    // Runs the command.
    void (*handler)();
    // One line for "help", or NULL.
    const char* help;
};

// The command table of the running console, NULL while no InteractiveTestManager exists. Before
// the console runs it is sorted by name without regard to case and ends with an entry named
// "last" with a NULL handler; every walk over a table stops at that entry.
extern std::vector<_Command>* g_pCommands;

// Where next_arg() takes arguments from: -1 (interactive) means the rest of the typed line;
// 0 or more means one-shot mode, with g_argc arguments left at g_argv.
extern int32_t g_argc;
extern char** g_argv;

// True while commands are typed (g_argc is -1), false in one-shot mode.
bool Interactive();
// The current command's next argument, or NULL when there is none.
const char* next_arg();

// Resolves a command word against a table: the index of the entry whose name equals the word or
// is the only one to begin with it (without regard to case). Otherwise prints the ambiguous
// names and returns -2, or handles "help" or prints "Unknown command" and returns -1.
int GetMatchingCmd(const _Command* table, const char* word);
// The overview of all commands.
void show_help(const _Command* table);
// The help text of the command with this name.
void show_cmd_help(const _Command* table, const char* name);

// Prompts with ">", reads a line of input and runs its command, until "quit", "q" or the end of
// the input. Output goes to standard output.
void run_shell(const _Command* table, FILE* input = stdin);
// One-shot mode: runs argv[0] with the arguments argv[1 .. argc-1].
void run_cmd(int argc, char** argv, const _Command* table);

// The console. One may exist at a time; construct, run and destroy it on one thread. Commands
// keep their state (a framework, lists, a generator) in static members across runs; destroying
// the manager releases the table and, once the built-in commands were installed, what they left
// (MmTestsRelease). Exceptions of a command are not caught: they leave Run and RunCommand.
class InteractiveTestManager {
  public:
    // Creates the empty table. Throws std::logic_error while another manager exists.
    InteractiveTestManager();
    ~InteractiveTestManager();
    InteractiveTestManager(const InteractiveTestManager&) = delete;
    InteractiveTestManager& operator=(const InteractiveTestManager&) = delete;

    // Appends commands to the table; they stay valid for the manager's life.
    void InstallCommands(const _Command* commands, size_t count);
    // Installs the built-in commands, sorts the table and runs run_shell on input.
    void Run(FILE* input = stdin);
    // The same preparation, then run_cmd on the argument vector.
    void RunCommand(int argc, char** argv);

  private:
    // Installs the built-in commands once, sorts and terminates the table; returns its start.
    const _Command* Prepare();

    bool builtinsInstalled_;
};

// Installs the console's commands: 12 "mmf.", 9 "intrus." and 4 "sergen." commands.
void MmTestsInstall(InteractiveTestManager& manager);
// Silently releases what those commands left: the framework with the interfaces made by hand and
// the messages on the list, the intrusive list and its elements, the serial generator.
void MmTestsRelease();

}  // namespace voktests

#endif  // VOK_INTERACTIVETESTMANAGER_H
