// The interactive console: matching, help, the line loop, the three command groups, and the
// vok-console program driven through pipes.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "MessageMover/MmTestSupport.h"
#include "support/LogCapture.h"
#include "vok/InteractiveTestManager.h"

extern char** environ;

namespace vok {
namespace {

using test::LogCapture;
using test::ThrowsMm;

// Runs fn with standard output going to a temporary file and returns what it printed. An
// exception of fn goes to *error, or is rethrown when error is NULL.
std::string CaptureStdout(const std::function<void()>& fn, std::exception_ptr* error = nullptr) {
    std::fflush(stdout);
    FILE* file = std::tmpfile();
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(file), STDOUT_FILENO);
    std::exception_ptr caught;
    try {
        fn();
    } catch (...) {
        caught = std::current_exception();
    }
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;) {
        out += static_cast<char>(c);
    }
    std::fclose(file);
    if (caught && error == nullptr) {
        std::rethrow_exception(caught);
    }
    if (error != nullptr) {
        *error = caught;
    }
    return out;
}

// Every "<0x...>" in text, in order.
std::vector<std::string> Addresses(const std::string& text) {
    std::vector<std::string> found;
    for (size_t start = text.find("<0x"); start != std::string::npos;
         start = text.find("<0x", start + 1)) {
        found.push_back(text.substr(start + 1, text.find('>', start) - start - 1));
    }
    return found;
}

class ConsoleTest : public ::testing::Test {
  protected:
    // An interactive session on input; returns what it printed.
    std::string Session(const std::string& input, std::exception_ptr* error = nullptr) {
        FILE* in = fmemopen(const_cast<char*>(input.data()), input.size(), "r");
        const std::string out = CaptureStdout([&] { console_.Run(in); }, error);
        std::fclose(in);
        return out;
    }
    // One command in one-shot mode.
    std::string Command(std::vector<std::string> args, std::exception_ptr* error = nullptr) {
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(&arg[0]);
        }
        return CaptureStdout(
            [&] { console_.RunCommand(static_cast<int>(argv.size()), argv.data()); }, error);
    }

    // A console that keeps prompting at the end of its input fails the test instead of hanging.
    test::Watchdog watchdog_;
    // Destroyed after each test: releases the framework, lists and generator the test left.
    voktests::InteractiveTestManager console_;
};

TEST_F(ConsoleTest, WordsMatchWholeNamesOrUniquePrefixesWithoutRegardToCase) {
    EXPECT_EQ(
        ">Ambiguous command.  Following commands match:\n\tmmf.rebindall\n\tmmf.remall\n"
        "\tmmf.rembogus\n\tmmf.remfront\n\tmmf.rotate\n>",
        Session("mmf.r\n"));
    EXPECT_EQ(
        ">MMF Created.\nMessage List Created.\n>Serial Generator not created yet.\n>"
        "Unknown command: bogus\n>",
        Session("MMF.INIT\nsergen.n\nbogus\n"));
}

TEST_F(ConsoleTest, SessionEndsAtQuitOrAtTheEndOfInput) {
    EXPECT_EQ(">", Session("q\nmmf.init\n"));
    EXPECT_EQ(">>>", Session("\n   \nQuit now\nmmf.init\n"));
    // A last line without its newline still runs.
    EXPECT_EQ(">MMF Created.\nMessage List Created.\n>", Session("mmf.init"));
    // 127 characters of a line are read; the rest of it is dropped.
    const std::string word(127, 'x');
    EXPECT_EQ(">Unknown command: " + word + "\n>Serial Generator not created yet.\n>",
              Session(word + "yyyy sergen.next\nsergen.next\n"));
}

TEST_F(ConsoleTest, CommandsReportWhatTheyLack) {
    Command({"mmf.init"});
    // Bad numbers are refused, not taken as 0 or cut to 32 bits.
    EXPECT_EQ("Command requires an integer arg for number of messages to add.\n",
              Command({"mmf.addmany", "-1"}));
    EXPECT_EQ("Command requires an integer arg for the value to store in the message.\n",
              Command({"mmf.addback", "5x"}));
    EXPECT_EQ("Command requires an integer arg for the end of the reserved range.\n",
              Command({"sergen.init", "4294967296"}));
}

TEST_F(ConsoleTest, MessagesMoveThroughTheList) {
    EXPECT_EQ(
        ">MMF Created.\nMessage List Created.\n>MMF already exists.\n"
        ">Message added; value=5; now 1 messages on list.\n"
        ">Message added; value=-3; now 2 messages on list.\n"
        ">Message added; value=1; now 3 messages on list.\n"
        "Message added; value=2; now 4 messages on list.\n"
        "New element count is 4 as expected, after 2 added.\n"
        ">Removed message; value = 5; will be deleted.\n"
        ">Rotating 3 messages...\n3 messages rotated.\n"
        ">Rebinding 3 messages(s)...\n3 messages rebound.\n"
        ">Message #0: value=-3.\nMessage #1: value=1.\nMessage #2: value=2.\n"
        "3 messages on list.\n>",
        Session("mmf.init\nmmf.init\nmmf.addback 5\nmmf.addback -3\nmmf.addmany 2\n"
                "mmf.remfront\nmmf.rotate\nmmf.rebindall\nmmf.listall\n"));
    EXPECT_EQ(3, test::Outstanding());
    EXPECT_EQ(
        ">we'll keep mostly quiet while adding messages.\n3 messages removed; list is empty.\n"
        ">Nothing to remove.\n>",
        Session("mmf.remall quiet\nmmf.remfront\n"));
    EXPECT_EQ(0, test::Outstanding());
}

TEST_F(ConsoleTest, ForcedAndBogusRemovalsEndTheConsoleWithTheFrameworksProgramError) {
    LogCapture log;
    std::exception_ptr error;
    EXPECT_EQ(">MMF Created.\nMessage List Created.\n>skipping \"IsEmpty\" check.\n",
              Session("mmf.init\nmmf.remfront force\nmmf.listall\n", &error));
    ASSERT_TRUE(error);
    EXPECT_TRUE(
        ThrowsMm([&] { std::rethrow_exception(error); }, "ERROR: element index is out of bounds"));

    EXPECT_EQ("", Command({"mmf.rembogus"}, &error));
    ASSERT_TRUE(error);
    EXPECT_TRUE(ThrowsMm([&] { std::rethrow_exception(error); }, "NULL handle block pointer"));
    EXPECT_EQ(2u, log.Matching("THROWING EXCEPTION").size());
    // The console is still usable.
    EXPECT_EQ("0 messages on list.\n", Command({"mmf.listall"}));
}

TEST_F(ConsoleTest, InterfacesAreFreedByTheAddressPrinted) {
    Command({"mmf.init"});
    const std::string created = Command({"mmf.createiface", "probe"});
    const std::vector<std::string> address = Addresses(created);
    ASSERT_EQ(1u, address.size());
    EXPECT_EQ("Interface created: addr=<" + address[0] + ">;name=<probe>.\n", created);
    EXPECT_EQ(0, test::IfaceCounter("probe", "msgsHeldByUser"));
    EXPECT_EQ("Interface freed: addr=<" + address[0] + ">.\n",
              Command({"mmf.freeiface", address[0]}));
    EXPECT_EQ("No interface created at <" + address[0] + ">.\n",
              Command({"mmf.freeiface", address[0]}));
    // Left for the manager to release at the end of the test.
    Command({"mmf.createiface", "left"});
}

TEST_F(ConsoleTest, IntrusiveListElementsAreAddedListedRemovedAndRotated) {
    Command({"intrus.create"});
    Command({"intrus.addback", "-7"});
    Command({"intrus.addmany", "3"});
    const std::vector<std::string> elements = Addresses(Command({"intrus.list"}));
    ASSERT_EQ(4u, elements.size());
    EXPECT_EQ(
        "Removing element <" + elements[1] + ">...\nElement removed, now 3 element(s) in list.\n",
        Command({"intrus.rem", elements[1]}));
    EXPECT_EQ("No element <" + elements[1] + "> in list.\n", Command({"intrus.rem", elements[1]}));
    // Each of the three moves from front to back once: the order is as before.
    EXPECT_EQ("3 element(s) rotated.\n", Command({"intrus.rotate"}));
    EXPECT_EQ("Element #0: <" + elements[0] + ">, value=-7.\nElement #1: <" + elements[2] +
                  ">, value=2.\nElement #2: <" + elements[3] +
                  ">, value=3.\n3 element(s) in list.\n",
              Command({"intrus.list"}));
    EXPECT_EQ(">Element <" + elements[0] +
                  ">, value=-7, removed (will be deleted), 2 element(s) left.\n"
                  ">2 element(s) removed; list is empty.\n>Nothing to remove.\n>List destroyed.\n>",
              Session("intrus.remfront\nintrus.remall\nintrus.remfront\nintrus.destroy\n"));
}

TEST_F(ConsoleTest, SerialGeneratorIssuesNumbersAfterTheReservedRange) {
    EXPECT_EQ(
        ">Serial Generator created; reserved range = 0 .. 100.\n"
        ">Serial Generator already exists.\n>next=101.\n"
        ">progress 10000...\nprogress 20000...\n"
        "Total generated=20000, last generated serial=20101.\n"
        ">Serial Generator destroyed.\n>Serial Generator not created yet.\n>",
        Session("sergen.init 100\nsergen.init 5\nsergen.next\nsergen.getmany 20000\n"
                "sergen.uninit\nsergen.uninit\n"));

    std::exception_ptr error;
    EXPECT_EQ(">Serial Generator created; reserved range = 0 .. 4294967294.\n>next=4294967295.\n>",
              Session("sergen.init 4294967294\nsergen.next\nsergen.next\n", &error));
    ASSERT_TRUE(error);
    try {
        std::rethrow_exception(error);
    } catch (const VokResourceException& e) {
        EXPECT_STREQ("MmfSerialGenerator::GetNext - serial number wrap-around", e.what());
    }
}

// The vok-console program, its standard input and output on pipes.
struct ProgramResult {
    int status = -1;  // The wait status.
    std::string out;
    std::string err;
};

ProgramResult RunConsoleProgram(const std::vector<std::string>& args, const std::string& input) {
    std::vector<std::string> words;
    std::istringstream emulator(std::getenv("VOK_TEST_EMULATOR") ? std::getenv("VOK_TEST_EMULATOR")
                                                                 : "");
    for (std::string word; emulator >> word;) {
        words.push_back(word);
    }
    words.push_back(VOK_CONSOLE_PROGRAM);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);

    int in[2];
    int out[2];
    FILE* err = std::tmpfile();
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(err), STDERR_FILENO);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    // Small enough for the pipe: written whole before the output is read. A program that does not
    // read its input may already have ended: that is EPIPE here, not a signal.
    signal(SIGPIPE, SIG_IGN);
    const ssize_t written = write(in[1], input.data(), input.size());
    EXPECT_TRUE(written == static_cast<ssize_t>(input.size()) || (written < 0 && errno == EPIPE));
    close(in[1]);

    ProgramResult result;
    char buffer[4096];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) {
        result.out.append(buffer, static_cast<size_t>(n));
    }
    close(out[0]);
    EXPECT_EQ(pid, waitpid(pid, &result.status, 0));
    std::rewind(err);
    for (int c; (c = std::fgetc(err)) != EOF;) {
        result.err += static_cast<char>(c);
    }
    std::fclose(err);
    return result;
}

TEST(ConsoleProgramTest, RunsPipedInputOrOneCommandAndEndsWithTheProgramError) {
    test::Watchdog watchdog;
    const ProgramResult session = RunConsoleProgram({}, "MMF.INIT\nmmf.addback 7\nmmf.listall\n");
    EXPECT_EQ(
        ">MMF Created.\nMessage List Created.\n>"
        "Message added; value=7; now 1 messages on list.\n>"
        "Message #0: value=7.\n1 messages on list.\n>",
        session.out);
    EXPECT_TRUE(WIFEXITED(session.status) && WEXITSTATUS(session.status) == 0) << session.err;

    // One-shot mode does not read its input.
    const ProgramResult oneShot = RunConsoleProgram({"sergen.init", "100"}, "mmf.init\n");
    EXPECT_EQ("Serial Generator created; reserved range = 0 .. 100.\n", oneShot.out);
    EXPECT_TRUE(WIFEXITED(oneShot.status) && WEXITSTATUS(oneShot.status) == 0) << oneShot.err;

    const ProgramResult failed = RunConsoleProgram({}, "mmf.init\nmmf.rembogus\nmmf.listall\n");
    EXPECT_EQ(">MMF Created.\nMessage List Created.\n>", failed.out);
    EXPECT_TRUE(WIFEXITED(failed.status) && WEXITSTATUS(failed.status) == 1);
    EXPECT_NE(std::string::npos, failed.err.find("vok-console: GetHeaderFromBindingLow:Src/Core/"
                                                 "MessageMover/MmfMessageManager:"))
        << failed.err;
}

}  // namespace
}  // namespace vok
