// kv-call against the test service: output lines and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"

namespace vok {
namespace test {
namespace {

struct Outcome {
    std::string output;
    std::string errors;  // standard error
    int status;
};

// kv-call through sh, with standard error in a file of its own; busAddress: kv-call's own bus.
Outcome RunKvCall(const std::vector<std::string>& args, const char* kvCall = KV_CALL,
                  const std::string& busAddress = "") {
    char errorsPath[] = "/tmp/vok-kv-call-errors-XXXXXX";
    close(mkstemp(errorsPath));
    const char* script =
        "[ -z \"$1\" ] || export KELVRA_BUS_ADDRESS=\"$1\"; shift;"
        " exec $VOK_TEST_EMULATOR \"$@\" 2>\"$0\"";
    std::vector<std::string> argv = {"/bin/sh", "-c", script, errorsPath, busAddress, kvCall};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess process;
    process.Start(argv, false, true);
    Outcome outcome;
    outcome.output = process.ReadAll();
    const int status = process.Wait();
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ostringstream errors;
    errors << std::ifstream(errorsPath).rdbuf();
    outcome.errors = errors.str();
    unlink(errorsPath);
    return outcome;
}

// Regression: kv-call stuck connecting to a bus that never answers ran forever.
TEST(KvCallTest, TimeoutBoundsTheWholeRunAgainstABusThatNeverAnswers) {
    Watchdog watchdog;
    const std::string path = "/tmp/vok-silent-bus-" + std::to_string(getpid());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(path.c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(fd, 8));  // takes connections and never says a word
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome =
        RunKvCall({"kelvra://com.x/a/b", "{}", "--timeout", "1"}, KV_CALL, "unix:path=" + path);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    close(fd);
    unlink(path.c_str());
    EXPECT_NE(0, outcome.status);
    EXPECT_EQ("kv-call: no answer from the bus within 1 s\n", outcome.output + outcome.errors);
    EXPECT_GE(elapsed, std::chrono::seconds(1));
    EXPECT_LT(elapsed, std::chrono::seconds(30));
}

// kv-call and the test service linked with today's library or (given the repository's history)
// the one from before the move to sd-bus: every pairing prints the same.
TEST(KvCallTest, PrintsRepliesAndSaysWhatWentWrongWithOldAndNewLibraries) {
    Watchdog watchdog;
    const size_t npos = std::string::npos;
    GMainContext* context = g_main_context_new();
    std::vector<std::pair<const char*, const char*>> pairings = {{KV_CALL, nullptr}};
#ifdef KV_CALL_OLD
    pairings.insert(pairings.end(), {{KV_CALL, KELVRA_TEST_SERVICE_OLD}, {KV_CALL_OLD, nullptr}});
#endif
    for (const auto& pairing : pairings) {
        const char* kvCall = pairing.first;
        const std::string name = UniqueServiceName();
        const std::string uri = "kelvra://" + name + "/test/";
        TestService service(name, pairing.second);
        Handle client(context);
        ReplyLog events;
        ASSERT_TRUE(client.Call(uri + "events", "{\"subscribe\":true}", &events));
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.size() == 1; }));

        Outcome echo = RunKvCall({uri + "echo", "{ \"a\" : [1, \"b/c\"] }"}, kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"echo\":{\"a\":[1,\"b/c\"]}}\n", echo.output) << kvCall;
        EXPECT_EQ(0, echo.status);
        // An error reply is printed, said on standard error, and ends with 3 unless ignored.
        Outcome missing = RunKvCall({uri + "nothing", "{}"}, kvCall);
        EXPECT_NE(npos, missing.output.find("\"errorCode\":10")) << missing.output;
        EXPECT_THAT(missing.errors, testing::MatchesRegex("kv-call: the reply is an error: .*"
                                                          " \\(errorCode 10\\)\n"));
        EXPECT_EQ(3, missing.status);
        Outcome ignored = RunKvCall({uri + "fail", "{}", "--ignore-errors"}, kvCall);
        EXPECT_NE(npos, ignored.output.find("\"errorCode\":14")) << ignored.output;
        EXPECT_EQ("", ignored.errors);
        EXPECT_EQ(0, ignored.status);

        // --subscribe: one reply of a subscription, then kv-call cancels it.
        Outcome once = RunKvCall({uri + "subscribe", "{}", "--subscribe", "--count", "1"}, kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"n\":0}\n", once.output) << kvCall;
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.size() == 2; }));
        EXPECT_EQ(1, events.replies[1].Number("cancelled"));
        // A service that never answers: nothing printed.
        const auto start = std::chrono::steady_clock::now();
        Outcome late = RunKvCall({uri + "late", "{}", "--timeout", "0.3"}, kvCall);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
        EXPECT_EQ("", late.output);
        EXPECT_EQ("kv-call: no reply within 0.3 s\n", late.errors);
        EXPECT_EQ(2, late.status);

        Outcome bad = RunKvCall({"kelvra://com.x/a/b", "{}", "--bogus"}, kvCall);
        EXPECT_EQ(1, bad.status);
        EXPECT_EQ("", bad.output);
        EXPECT_THAT(bad.errors, testing::MatchesRegex("kv-call: [^\n]+\n")) << bad.errors;

        service.Kill(SIGKILL);
        service.Wait();
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.back().last; }));
        EXPECT_EQ(KV_ERROR_SERVICE_GONE, events.replies.back().Number("errorCode"));
    }
    g_main_context_unref(context);
}

}  // namespace
}  // namespace test
}  // namespace vok
