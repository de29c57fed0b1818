// kv-call against the test service: output lines and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
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

// kv-call through sh, to keep standard error apart in a file of its own; busAddress, when given,
// is the bus of kv-call alone.
Outcome RunKvCall(const std::vector<std::string>& args, const std::string& busAddress = "",
                  const char* kvCall = KV_CALL) {
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

// A unix socket that takes connections and never says a word: a bus that hangs.
class SilentBus {
  public:
    SilentBus() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        unlink(path_.c_str());
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(fd_, 8));
    }
    ~SilentBus() {
        close(fd_);
        unlink(path_.c_str());
    }
    std::string Address() const { return "unix:path=" + path_; }

  private:
    const std::string path_ = "/tmp/vok-silent-bus-" + std::to_string(getpid());
    const int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST(KvCallTest, TimeoutBoundsTheWholeRunAgainstABusThatNeverAnswers) {
    Watchdog watchdog;
    SilentBus bus;
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome =
        RunKvCall({"kelvra://com.x/a/b", "{}", "--timeout", "1"}, bus.Address());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_NE(0, outcome.status);
    EXPECT_EQ("kv-call: no answer from the bus within 1 s\n", outcome.output + outcome.errors);
    EXPECT_GE(elapsed, std::chrono::seconds(1));
    EXPECT_LT(elapsed, std::chrono::seconds(30));
}

TEST(KvCallTest, PrintsRepliesAndSaysWhatWentWrong) {
    Watchdog watchdog;
    const std::string name = UniqueServiceName();
    TestService service(name);

    Outcome echo = RunKvCall({"kelvra://" + name + "/test/echo", "{ \"a\" : [1, \"b/c\"] }"});
    EXPECT_EQ("{\"returnValue\":true,\"echo\":{\"a\":[1,\"b/c\"]}}\n", echo.output);
    EXPECT_EQ(0, echo.status);

    // --subscribe adds "subscribe": true; the stream ends at the timeout, which is normal.
    Outcome stream = RunKvCall(
        {"kelvra://" + name + "/test/subscribe", "{}", "--subscribe", "--timeout", "0.3"});
    EXPECT_EQ("{\"returnValue\":true,\"n\":0}\n", stream.output);
    EXPECT_EQ(0, stream.status);

    // An error reply is printed, said on standard error, and ends with 3 unless ignored.
    Outcome missing = RunKvCall({"kelvra://" + name + "/test/nothing", "{}"});
    EXPECT_NE(std::string::npos, missing.output.find("\"errorCode\":10")) << missing.output;
    EXPECT_THAT(missing.errors, testing::MatchesRegex("kv-call: the reply is an error: .*"
                                                      " \\(errorCode 10\\)\n"));
    EXPECT_EQ(3, missing.status);
    Outcome ignored = RunKvCall({"kelvra://" + name + "/test/fail", "{}", "--ignore-errors"});
    EXPECT_NE(std::string::npos, ignored.output.find("\"errorCode\":14")) << ignored.output;
    EXPECT_EQ("", ignored.errors);
    EXPECT_EQ(0, ignored.status);

    // A service that never answers: nothing printed.
    const auto start = std::chrono::steady_clock::now();
    Outcome late = RunKvCall({"kelvra://" + name + "/test/late", "{}", "--timeout", "0.3"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ("", late.output);
    EXPECT_EQ("kv-call: no reply within 0.3 s\n", late.errors);
    EXPECT_EQ(2, late.status);

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"kelvra://x/a/b"}, {"kelvra://com.x/a/b", "{}", "--bogus"}}) {
        Outcome outcome = RunKvCall(bad);
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ("", outcome.output);
        EXPECT_THAT(outcome.errors, testing::MatchesRegex("kv-call: [^\n]+\n")) << outcome.errors;
    }
    service.Kill(SIGTERM);
    EXPECT_EQ(0, service.Wait());
}

// The library as it was before its transport moved to sd-bus and the library now: a client of
// one and a service of the other talk, both ways (calls, subscriptions, cancels, errors,
// status), and a client here sees a service of either kind.
TEST(KvCallTest, OldAndNewLibrariesTalkBothWays) {
#ifndef KV_CALL_OLD
    GTEST_SKIP() << "built without the repository's history";
#else
    Watchdog watchdog;
    GMainContext* context = g_main_context_new();
    for (const char* program : {KELVRA_TEST_SERVICE_OLD, static_cast<const char*>(nullptr)}) {
        const char* kvCall = program != nullptr ? KV_CALL : KV_CALL_OLD;
        const std::string name = UniqueServiceName();
        const std::string uri = "kelvra://" + name + "/test/";
        TestService service(name, program);
        Handle client(context);
        ReplyLog events;
        ASSERT_TRUE(client.Call(uri + "events", "{\"subscribe\":true}", &events));
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.size() == 1; }));

        Outcome echo = RunKvCall({uri + "echo", "{\"a\":1}"}, "", kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"echo\":{\"a\":1}}\n", echo.output) << kvCall;
        Outcome missing = RunKvCall({uri + "nothing", "{}", "--ignore-errors"}, "", kvCall);
        EXPECT_NE(std::string::npos, missing.output.find("\"errorCode\":10")) << missing.output;
        // One reply of a subscription, then kv-call cancels it: the service tells its watcher.
        Outcome once =
            RunKvCall({uri + "subscribe", "{}", "--subscribe", "--count", "1"}, "", kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"n\":0}\n", once.output) << kvCall;
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.size() == 2; }));
        EXPECT_EQ(1, events.replies[1].Number("cancelled"));
        Outcome status =
            RunKvCall({"kelvra://com.orvex.kelvrabus/signal/registerServerStatus",
                       "{\"serviceName\":\"" + name + "\"}", "--subscribe", "--count", "1"},
                      "", kvCall);
        EXPECT_NE(std::string::npos, status.output.find("\"connected\":true")) << status.output;

        service.Kill(SIGKILL);
        service.Wait();
        ASSERT_TRUE(IterateUntil(context, [&]() { return events.replies.size() == 3; }));
        EXPECT_EQ(KV_ERROR_SERVICE_GONE, events.replies[2].Number("errorCode"));
    }
    g_main_context_unref(context);
#endif
}

}  // namespace
}  // namespace test
}  // namespace vok
