// A client here and the test service in a process of its own, on the private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"

namespace vok {
namespace test {
namespace {

const char kStatusUri[] = "kelvra://com.orvex.kelvrabus/signal/registerServerStatus";

class KelvraBusTest : public testing::Test {
  protected:
    KelvraBusTest() : context_(g_main_context_new()), client_(context_) {}
    ~KelvraBusTest() override { g_main_context_unref(context_); }

    std::string Uri(const std::string& method) const {
        return "kelvra://" + name_ + "/test/" + method;
    }

    // Follows the service's status; returns once the first status has arrived.
    void WatchStatus(ReplyLog* status) {
        ASSERT_TRUE(client_.Call(kStatusUri, "{\"serviceName\":\"" + name_ + "\"}", status));
        ASSERT_TRUE(WaitForReplies(status, 1));
    }

    bool WaitForReplies(const ReplyLog* log, size_t count) {
        return IterateUntil(context_, [&]() { return log->replies.size() >= count; });
    }

    // Starts the service and waits until it owns its name.
    void StartService(ReplyLog* status) {
        size_t before = status->replies.size();
        service_.reset(new TestService(name_));
        ASSERT_TRUE(WaitForReplies(status, before + 1));
        ASSERT_TRUE(status->replies.back().Bool("connected"));
    }

    // One call with one reply, which is returned.
    Reply CallOnce(const std::string& method, const std::string& payload) {
        ReplyLog log;
        EXPECT_TRUE(client_.Call(Uri(method), payload, &log));
        EXPECT_TRUE(WaitForReplies(&log, 1));
        EXPECT_TRUE(log.replies.empty() || log.replies[0].last);
        return log.replies.empty() ? Reply{"", false} : log.replies[0];
    }

    Watchdog watchdog_;
    std::string name_ = UniqueServiceName();
    GMainContext* context_;
    Handle client_;
    std::unique_ptr<TestService> service_;
};

TEST_F(KelvraBusTest, CallsGetRepliesAndServiceErrorsAndStatusFollowsTheService) {
    ReplyLog status;
    WatchStatus(&status);
    EXPECT_FALSE(status.replies[0].Bool("connected"));
    // Nobody owns the name yet: an error reply, not a wait.
    EXPECT_EQ(KV_ERROR_NO_SERVICE, CallOnce("echo", "{}").Number("errorCode"));
    StartService(&status);
    EXPECT_EQ(KV_ERROR_BAD_PAYLOAD, CallOnce("echo", "[1]").Number("errorCode"));
    EXPECT_EQ(KV_ERROR_NO_REPLY, CallOnce("noreply", "{}").Number("errorCode"));
    // Generic D-Bus tools list the service's objects and methods; Peer answers.
    auto busctl = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {"busctl", "--address=" + TestBus().Address()};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess process;
        process.Start(argv, false, true);
        const std::string output = process.ReadAll();
        EXPECT_EQ(0, process.Wait()) << args[0];
        return output;
    };
    EXPECT_EQ("/\n/com\n/com/orvex\n/com/orvex/kelvra\n/test\n", busctl({"tree", "--list", name_}));
    const std::string methods = busctl({"introspect", name_, "/test"});
    EXPECT_NE(std::string::npos, methods.find("method    st        sb")) << methods;
    busctl({"call", name_, "/test", "org.freedesktop.DBus.Peer", "Ping"});

    service_->Kill(SIGKILL);
    ASSERT_TRUE(WaitForReplies(&status, 3));
    EXPECT_FALSE(status.replies[2].Bool("connected"));
    service_->Wait();
    StartService(&status);
    // A second subscriber is answered at once with the current state.
    ReplyLog second;
    WatchStatus(&second);
    EXPECT_TRUE(second.replies[0].Bool("connected"));
    for (const Reply& reply : status.replies) {
        EXPECT_FALSE(reply.last);
    }
    EXPECT_TRUE(KVCallCancel(client_.get(), status.token, nullptr));
    service_->Kill(SIGKILL);
    ASSERT_TRUE(WaitForReplies(&second, 2));
    EXPECT_EQ(4u, status.replies.size());
}

// A deadline bounds the first reply: the call ends with a timeout error, the service learns of
// the cancel, a late reply is dropped, and a subscription answered in time stays open.
TEST_F(KelvraBusTest, CallsWithATimeoutEndAtTheirDeadline) {
    ReplyLog status;
    WatchStatus(&status);
    StartService(&status);
    ReplyLog events;
    ASSERT_TRUE(client_.Call(Uri("events"), "{}", &events));
    using Clock = std::chrono::steady_clock;
    const auto streamStart = Clock::now();
    ReplyLog stream;
    ASSERT_TRUE(client_.Call(Uri("subscribe"), "{\"subscribe\":true}", &stream, nullptr, 1000));
    ASSERT_TRUE(WaitForReplies(&stream, 1));

    auto start = Clock::now();
    ReplyLog held;
    ASSERT_TRUE(client_.Call(Uri("late"), "{\"subscribe\":true}", &held, nullptr, 200));
    ASSERT_TRUE(WaitForReplies(&held, 1));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_TRUE(held.replies[0].last);
    EXPECT_EQ(KV_ERROR_TIMEOUT, held.replies[0].Number("errorCode"));
    ASSERT_TRUE(WaitForReplies(&events, 2));
    EXPECT_EQ(1, events.replies[1].Number("cancelled"));
    EXPECT_FALSE(KVCallCancel(client_.get(), held.token, nullptr));

    start = Clock::now();
    ReplyLog slow;
    ASSERT_TRUE(client_.Call(Uri("block"), "{}", &slow, nullptr, 100));
    ASSERT_TRUE(WaitForReplies(&slow, 1));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(KV_ERROR_TIMEOUT, slow.replies[0].Number("errorCode"));
    // The service answers this only after the late reply.
    EXPECT_TRUE(CallOnce("echo", "{}").Bool("returnValue"));
    EXPECT_EQ(1u, slow.replies.size());
    // The subscription had its first reply in time and stays open past its deadline.
    ASSERT_GT(Clock::now() - streamStart, std::chrono::milliseconds(1000));
    EXPECT_EQ(1u, stream.replies.size());
    EXPECT_FALSE(stream.replies[0].last);
}

// Regression: a bus dying just after the service ended the subscription as SERVICE_GONE.
TEST_F(KelvraBusTest, SubscriptionEndsWithTheBusNotTheServiceWhenTheBusDiesJustAfterIt) {
    ReplyLog status;
    WatchStatus(&status);
    StartService(&status);
    ReplyLog stream;
    ASSERT_TRUE(client_.Call(Uri("subscribe"), "{\"subscribe\":true}", &stream));
    ASSERT_TRUE(WaitForReplies(&stream, 1));
    // The leaving reaches this client's socket too, read only once the bus is dead.
    GMainContext* other = g_main_context_new();
    {
        Handle observer(other);
        ReplyLog seen;
        ASSERT_TRUE(observer.Call(kStatusUri, "{\"serviceName\":\"" + name_ + "\"}", &seen));
        ASSERT_TRUE(IterateUntil(other, [&]() { return !seen.replies.empty(); }));
        service_->Kill(SIGKILL);
        service_->Wait();
        ASSERT_TRUE(IterateUntil(other, [&]() { return !seen.replies.back().Bool("connected"); }));
    }
    g_main_context_unref(other);
    TestBus().Kill(SIGKILL);
    ASSERT_TRUE(WaitForReplies(&stream, 2));
    EXPECT_EQ(KV_ERROR_BUS_UNAVAILABLE, stream.replies[1].Number("errorCode"));
    TestBus().Restart();
}

}  // namespace
}  // namespace test
}  // namespace vok
