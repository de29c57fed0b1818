// The interactive console in process, and the vok-console program.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "MessageMover/MmTestSupport.h"
#include "support/LogCapture.h"
#include "vok/InteractiveTestManager.h"

namespace vok {
namespace {

using test::LogCapture;
using test::ThrowsMm;

// What a file holds from its start; closes it.
std::string ReadAndClose(FILE* file) {
    std::string text;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;) {
        text += static_cast<char>(c);
    }
    std::fclose(file);
    return text;
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
    void TearDown() override { EXPECT_FALSE(error_) << "a command ended with an exception"; }
    // What fn printed; its exception is kept in error_.
    std::string CaptureStdout(const std::function<void()>& fn) {
        std::fflush(stdout);
        FILE* file = std::tmpfile();
        const int saved = dup(STDOUT_FILENO);
        dup2(fileno(file), STDOUT_FILENO);
        try {
            fn();
        } catch (...) {
            error_ = std::current_exception();
        }
        std::fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        return ReadAndClose(file);
    }
    std::string Session(const std::string& input) {
        FILE* in = fmemopen(const_cast<char*>(input.data()), input.size(), "r");
        const std::string out = CaptureStdout([&] { console_.Run(in); });
        std::fclose(in);
        return out;
    }
    std::string Command(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(&arg[0]);
        }
        return CaptureStdout(
            [&] { console_.RunCommand(static_cast<int>(argv.size()), argv.data()); });
    }
    // The last session or command ended with this program error (taken).
    ::testing::AssertionResult EndedWith(const std::string& text) {
        std::exception_ptr error;
        std::swap(error, error_);
        return ThrowsMm([&] { error ? std::rethrow_exception(error) : void(); }, text);
    }

    std::exception_ptr error_;
    test::Watchdog watchdog_;
    voktests::InteractiveTestManager console_;  // Releases what the test left.
};

TEST_F(ConsoleTest, LinesRunUntilQuitMatchingNamesOrUniquePrefixesWithoutRegardToCase) {
    EXPECT_EQ(
        ">Ambiguous command.  Following commands match:\n\tmmf.rebindall\n\tmmf.remall\n"
        "\tmmf.rembogus\n\tmmf.remfront\n\tmmf.rotate\n>",
        Session("mmf.r\n"));
    EXPECT_EQ(
        ">MMF Created.\nMessage List Created.\n>Serial Generator not created yet.\n>"
        "Unknown command: bogus\n>",
        Session("MMF.INIT\nsergen.n\nbogus\n"));
    // A session ends at quit or at the end of its input.
    EXPECT_EQ(">>>", Session("\n   \nQuit now\nmmf.init\n"));
    // A last line without its newline still runs.
    EXPECT_EQ(">MMF already exists.\n>", Session("mmf.init"));
    // 127 characters of a line are read; the rest of it is dropped.
    const std::string word(127, 'x');
    EXPECT_EQ(">Unknown command: " + word + "\n>Serial Generator not created yet.\n>",
              Session(word + "yyyy sergen.next\nsergen.next\n"));
}

TEST_F(ConsoleTest, MessagesMoveThroughTheListAndBadNumbersAreRefused) {
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
    // Bad numbers are refused, not taken as 0 or cut to 32 bits.
    EXPECT_EQ("Command requires an integer arg for number of messages to add.\n",
              Command({"mmf.addmany", "-1"}));
    EXPECT_EQ("Command requires an integer arg for the value to store in the message.\n",
              Command({"mmf.addback", "5x"}));
    EXPECT_EQ("Command requires an integer arg for the end of the reserved range.\n",
              Command({"sergen.init", "4294967296"}));
}

TEST_F(ConsoleTest, ForcedAndBogusRemovalsEndTheConsoleWithTheFrameworksProgramError) {
    LogCapture log;
    EXPECT_EQ(">MMF Created.\nMessage List Created.\n>skipping \"IsEmpty\" check.\n",
              Session("mmf.init\nmmf.remfront force\nmmf.listall\n"));
    EXPECT_TRUE(EndedWith("ERROR: element index is out of bounds"));
    EXPECT_EQ("", Command({"mmf.rembogus"}));
    EXPECT_TRUE(EndedWith("NULL handle block pointer"));
    EXPECT_EQ(2u, log.Matching("THROWING EXCEPTION").size());
    // The console is still usable.
    EXPECT_EQ("0 messages on list.\n", Command({"mmf.listall"}));
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
    // All three move from front to back once: the order is as before.
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

// The vok-console program (through the emulator when there is one) on args and input.
struct ProgramResult {
    int status = -1;  // The wait status.
    std::string out;
    std::string err;
};

ProgramResult RunConsoleProgram(const std::string& args, const std::string& input) {
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    const char* emulator = std::getenv("VOK_TEST_EMULATOR");
    const std::string command =
        std::string(emulator != nullptr ? emulator : "") + " " + VOK_CONSOLE_PROGRAM + " " + args +
        " >/dev/fd/" + std::to_string(fileno(out)) + " 2>/dev/fd/" + std::to_string(fileno(err));
    // A program that does not read its input may be gone before it is written.
    std::signal(SIGPIPE, SIG_IGN);
    FILE* in = popen(command.c_str(), "w");
    std::fputs(input.c_str(), in);
    ProgramResult result;
    result.status = pclose(in);
    result.out = ReadAndClose(out);
    result.err = ReadAndClose(err);
    return result;
}

TEST(ConsoleProgramTest, RunsItsInputOrOneCommandAndEndsWithTheProgramError) {
    test::Watchdog watchdog;
    // One-shot mode does not read its input.
    const ProgramResult oneShot = RunConsoleProgram("sergen.init 100", "mmf.init\n");
    EXPECT_EQ("Serial Generator created; reserved range = 0 .. 100.\n", oneShot.out);
    EXPECT_TRUE(WIFEXITED(oneShot.status) && WEXITSTATUS(oneShot.status) == 0) << oneShot.err;

    const ProgramResult failed = RunConsoleProgram("", "mmf.init\nmmf.rembogus\nmmf.listall\n");
    EXPECT_EQ(">MMF Created.\nMessage List Created.\n>", failed.out);
    EXPECT_TRUE(WIFEXITED(failed.status) && WEXITSTATUS(failed.status) == 1);
    EXPECT_NE(std::string::npos, failed.err.find("vok-console: GetHeaderFromBindingLow:Src/Core/"
                                                 "MessageMover/MmfMessageManager:"))
        << failed.err;
}

}  // namespace
}  // namespace vok
