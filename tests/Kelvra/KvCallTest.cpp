// kv-call against the test service: output lines and exit status.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"

namespace vok {
namespace test {
namespace {

struct Outcome {
    std::string output;
    int status;
};

void StartKvCall(ChildProcess* process, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {KV_CALL};
    argv.insert(argv.end(), args.begin(), args.end());
    process->Start(argv, true, true);
}

int ExitStatus(ChildProcess* process) {
    int status = process->Wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Outcome RunKvCall(const std::vector<std::string>& args) {
    ChildProcess process;
    StartKvCall(&process, args);
    Outcome outcome;
    outcome.output = process.ReadAll();
    outcome.status = ExitStatus(&process);
    return outcome;
}

TEST(KvCallTest, PrintsRepliesAsJsonLines) {
    Watchdog watchdog;
    const std::string name = UniqueServiceName();
    const std::string status = "kelvra://com.orvex.kelvrabus/signal/registerServerStatus";
    const std::string watch = "{\"serviceName\":\"" + name + "\"}";
    // Not there yet: the status subscription reports it; --count is not reached in time.
    Outcome absent = RunKvCall({status, watch, "--subscribe", "--count", "2", "--timeout", "0.5"});
    EXPECT_EQ("{\"serviceName\":\"" + name + "\",\"connected\":false,\"returnValue\":true}\n",
              absent.output);
    EXPECT_EQ(2, absent.status);

    // The second status line comes when the service appears.
    ChildProcess watcher;
    StartKvCall(&watcher, {status, watch, "--subscribe", "--count", "2"});
    EXPECT_NE(std::string::npos, watcher.ReadLine().find("\"connected\":false"));
    TestService service(name);
    EXPECT_NE(std::string::npos, watcher.ReadLine().find("\"connected\":true"));
    EXPECT_EQ(0, ExitStatus(&watcher));

    Outcome echo = RunKvCall({"kelvra://" + name + "/test/echo", "{ \"a\" : [1, \"b/c\"] }"});
    EXPECT_EQ("{\"returnValue\":true,\"echo\":{\"a\":[1,\"b/c\"]}}\n", echo.output);
    EXPECT_EQ(0, echo.status);

    // --subscribe adds "subscribe": true; the stream ends at the timeout, which is normal.
    Outcome stream = RunKvCall(
        {"kelvra://" + name + "/test/subscribe", "{}", "--subscribe", "--timeout", "0.3"});
    EXPECT_EQ("{\"returnValue\":true,\"n\":0}\n", stream.output);
    EXPECT_EQ(0, stream.status);

    Outcome missing = RunKvCall({"kelvra://" + name + "/test/nothing", "{}"});
    EXPECT_NE(std::string::npos, missing.output.find("\"errorCode\":10")) << missing.output;

    for (const std::vector<std::string>& bad : {std::vector<std::string>{},
                                                {"kelvra://x/a/b"},
                                                {"kelvra://com.x/a/b", "{}", "--count"},
                                                {"kelvra://com.x/a/b", "{}", "--count", "0"},
                                                {"kelvra://com.x/a/b", "{}", "--bogus"},
                                                {"kelvra://com.x/a/b", "{}", "extra"},
                                                {"kelvra:/bad", "{}"}}) {
        Outcome outcome = RunKvCall(bad);
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ("", outcome.output);
    }
    service.Kill(SIGTERM);
    EXPECT_EQ(0, service.Wait());
}

}  // namespace
}  // namespace test
}  // namespace vok
