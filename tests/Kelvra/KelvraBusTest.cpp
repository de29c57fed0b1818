// The bus between processes: a client here, the test service in a process of its own, on this
// program's private dbus-daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <string>

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
        KVError error;
        KVErrorInit(&error);
        EXPECT_TRUE(client_.Call(Uri(method), payload, &log, &error)) << error.message;
        KVErrorFree(&error);
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

    const struct {
        const char* method;
        const char* payload;
        int code;
    } failures[] = {
        {"nosuch", "{}", KV_ERROR_NO_METHOD},
        {"echo", "[1]", KV_ERROR_BAD_PAYLOAD},
        {"noreply", "{}", KV_ERROR_NO_REPLY},
        {"fail", "{}", KV_ERROR_METHOD_FAILED},
    };
    for (const auto& f : failures) {
        Reply reply = CallOnce(f.method, f.payload);
        EXPECT_FALSE(reply.Bool("returnValue")) << f.method << " " << f.payload;
        EXPECT_EQ(f.code, reply.Number("errorCode")) << f.method << " " << f.payload;
    }
    // The service is unharmed.
    EXPECT_TRUE(CallOnce("echo", "{}").Bool("returnValue"));

    // The status follows the service until cancelled; a service that leaves the bus ends the
    // subscriptions it held open.
    ReplyLog orphan;
    ASSERT_TRUE(client_.Call(Uri("subscribe"), "{\"subscribe\":true}", &orphan));
    ASSERT_TRUE(WaitForReplies(&orphan, 1));
    service_->Kill(SIGKILL);
    ASSERT_TRUE(WaitForReplies(&status, 3) && WaitForReplies(&orphan, 2));
    EXPECT_FALSE(status.replies[2].Bool("connected"));
    EXPECT_TRUE(orphan.replies[1].last);
    EXPECT_EQ(KV_ERROR_SERVICE_GONE, orphan.replies[1].Number("errorCode"));
    EXPECT_TRUE(WIFSIGNALED(service_->Wait()));

    StartService(&status);
    // A second subscriber to the same name is answered at once with the current state.
    ReplyLog second;
    WatchStatus(&second);
    EXPECT_TRUE(second.replies[0].Bool("connected"));
    EXPECT_TRUE(CallOnce("quit", "{}").Bool("returnValue"));
    ASSERT_TRUE(WaitForReplies(&status, 5));
    EXPECT_FALSE(status.replies[4].Bool("connected"));
    ASSERT_TRUE(WaitForReplies(&second, 2));
    EXPECT_EQ(0, service_->Wait());
    for (const Reply& reply : status.replies) {
        EXPECT_FALSE(reply.last);
    }

    EXPECT_TRUE(KVCallCancel(client_.get(), status.token, nullptr));
    StartService(&second);
    EXPECT_EQ(5u, status.replies.size());
}

// A deadline bounds the first reply: a service that never answers, or answers just too late, ends
// the call with a timeout error, the service learns of the cancel, and the late reply is dropped.
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
    ASSERT_TRUE(client_.Call(Uri("late"), "{\"blockMs\":1000}", &slow, nullptr, 100));
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

// A dying bus drops the service before it drops this client, and tells the client so. The
// subscription ends with the bus's loss all the same: the service left because the bus did.
TEST_F(KelvraBusTest, SubscriptionEndsWithTheBusNotTheServiceWhenTheBusDiesJustAfterIt) {
    ReplyLog status;
    WatchStatus(&status);
    StartService(&status);
    ReplyLog stream;
    ASSERT_TRUE(client_.Call(Uri("subscribe"), "{\"subscribe\":true}", &stream));
    ASSERT_TRUE(WaitForReplies(&stream, 1));
    // The service's leaving reaches an observer, and so this client's socket (the bus tells
    // everybody in one sweep); this client reads it only once the bus is dead too.
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

// Generic D-Bus tools list the service's objects and methods; Peer answers on its paths.
TEST_F(KelvraBusTest, GenericToolsSeeTheServicesMethods) {
    ReplyLog status;
    WatchStatus(&status);
    StartService(&status);
    auto busctl = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {"busctl", "--address=" + TestBus().Address()};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess process;
        process.Start(argv, false, true);
        const std::string output = process.ReadAll();
        EXPECT_EQ(0, process.Wait()) << args[0];
        return output;
    };
    const std::string tree = busctl({"tree", "--list", name_});
    EXPECT_EQ("/\n/com\n/com/orvex\n/com/orvex/kelvra\n/test\n", tree);
    const std::string methods = busctl({"introspect", name_, "/test"});
    for (const char* expected :
         {"com.orvex.kelvra.Method", ".echo", ".subscribe", "org.freedesktop.DBus.Peer",
          "org.freedesktop.DBus.Introspectable"}) {
        EXPECT_NE(std::string::npos, methods.find(expected)) << expected << "\n" << methods;
    }
    EXPECT_NE(std::string::npos, methods.find("method    st        sb")) << methods;
    const std::string control = busctl({"introspect", name_, "/com/orvex/kelvra"});
    EXPECT_NE(std::string::npos, control.find("com.orvex.kelvra.Control")) << control;
    EXPECT_NE(std::string::npos, control.find(".Cancel")) << control;
    busctl({"call", name_, "/test", "org.freedesktop.DBus.Peer", "Ping"});
    // The service is unharmed.
    EXPECT_TRUE(CallOnce("echo", "{}").Bool("returnValue"));
}

}  // namespace
}  // namespace test
}  // namespace vok
