// Bus calls and service status from a dispatcher, on a private bus.
#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/RdKvCall.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"
#include "vok/VokKvClient.h"

namespace vok {
namespace {

using test::FakeService;
using test::Pump;

// An error reply of the bus library with code whose text contains text.
bool IsLibraryError(const std::string& payload, int code, const char* text) {
    JsonToken reply;
    return reply.ParseJsonString(payload.c_str()) &&
           !reply.ObjectFindPair("returnValue")->BooleanGetValue() &&
           reply.ObjectFindPair("errorCode")->NumberGetValue() == code &&
           std::string(reply.ObjectFindPair("errorText")->StringPeekValue()).find(text) !=
               std::string::npos;
}

class BusCallTest : public ::testing::Test {
  protected:
    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
};

// Replies on the dispatcher's thread until the last; a new call cancels a pending one; a callback
// replacing itself still uses what it holds.
TEST_F(BusCallTest, RepliesArriveOnTheDispatcherThreadUntilTheLast) {
    FakeService service(dispatcher_, "com.test.echo");
    service.AddMethod("echo/three", [](const std::string& payload) {
        return std::vector<std::string>{payload, "{\"n\":2}", "{\"n\":3}"};
    });
    service.AddMethod("open/sub", [](const std::string& payload) {
        return std::vector<std::string>{payload, ""};  // stays open
    });
    std::vector<std::string> replies;
    GThread* thread = nullptr;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_),
                  [&, held = std::string(64, 'a')](KVMessage* reply) {
                      call.ChangeCb([&](KVMessage* next) {
                          replies.push_back(KVMessageGetPayload(next));
                          thread = g_thread_self();
                      });
                      replies.push_back(held.substr(0, 1) + KVMessageGetPayload(reply));
                  });
    call.Call("com.test.echo", "echo/three", "{\"n\":1}");
    Pump(dispatcher_, [&]() { return replies.size() == 3; });
    EXPECT_EQ((std::vector<std::string>{"a{\"n\":1}", "{\"n\":2}", "{\"n\":3}"}), replies);
    EXPECT_EQ(g_thread_self(), thread);
    EXPECT_EQ(1u, service.Requests("echo/three").size());

    replies.clear();
    call.Call("com.test.echo", "open/sub", "{\"call\":\"first\"}");
    call.Call("com.test.echo", "open/sub", "{\"call\":\"second\"}");
    Pump(dispatcher_,
         [&]() { return service.Requests("open/sub").size() == 2 && !replies.empty(); });
    EXPECT_EQ(std::vector<std::string>{"{\"call\":\"second\"}"}, replies);
    EXPECT_THROW(call.Call("not a service", "x", "{}"), VokResourceException);
}

TEST_F(BusCallTest, ServiceStatusReachesObserversOncePerChangeInKeyOrder) {
    VokKvClient* client = RdKelvraUtils::GetVokKvClient(dispatcher_, "com.test.late");
    char keys[3];
    std::vector<std::pair<char*, bool>> calls;
    auto record = [&calls](char* key) {
        return [&calls, key](bool up) { calls.emplace_back(key, up); };
    };
    // Added in reverse key order; the first adds a third, told from the next change on.
    client->AddRegStatusObserver(&keys[1], record(&keys[1]));
    client->AddRegStatusObserver(&keys[0], [&](bool up) {
        calls.emplace_back(&keys[0], up);
        client->AddRegStatusObserver(&keys[2], record(&keys[2]));
    });
    {
        FakeService service(dispatcher_, "com.test.late");
        Pump(dispatcher_, [&]() { return calls.size() >= 2; });
        ASSERT_EQ(2u, calls.size());
        EXPECT_EQ(&keys[0], calls[0].first);
        EXPECT_EQ(&keys[1], calls[1].first);
        EXPECT_TRUE(calls[0].second && calls[1].second);
        EXPECT_TRUE(client->IsConnected());
    }
    Pump(dispatcher_, [&]() { return calls.size() >= 5; });
    EXPECT_EQ(&keys[2], calls[4].first);
    EXPECT_FALSE(calls[4].second);
    client->RemoveRegStatusObserver(&keys[0]);
    FakeService again(dispatcher_, "com.test.late");
    Pump(dispatcher_, [&]() { return calls.size() >= 7; });
    EXPECT_EQ(7u, calls.size());
    EXPECT_EQ(&keys[1], calls[5].first);
}

// A service that never answers: the callback gets the timeout error, and may destroy its call.
TEST_F(BusCallTest, CallsWithATimeoutEndAtTheDeadline) {
    FakeService quiet(dispatcher_, "com.test.quiet");
    quiet.AddMethod("never/answer", [](const std::string&) {
        return std::vector<std::string>{"", ""};  // stays open, unanswered
    });
    std::vector<std::string> replies;
    std::unique_ptr<RdKvCall> call(
        new RdKvCall(RdKelvraUtils::GetKvHandle(dispatcher_), [&](KVMessage* reply) {
            replies.push_back(KVMessageGetPayload(reply));
            call.reset();
        }));
    const auto start = std::chrono::steady_clock::now();
    call->Call("com.test.quiet", "never/answer", "{}", 200);
    Pump(dispatcher_, [&]() { return !replies.empty(); });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_TRUE(IsLibraryError(replies[0], KV_ERROR_TIMEOUT, "No reply within 200 ms"))
        << replies[0];
    EXPECT_FALSE(call);
}

// Bus killed and restarted: an open call ends; a dispatcher first using the bus in the gap gets
// its error from the loop and works afterwards.
TEST_F(BusCallTest, CallsAndStatusSurviveABusRestart) {
    FakeService service(dispatcher_, "com.test.restart");
    service.AddMethod("open/sub", [](const std::string& payload) {
        return std::vector<std::string>{payload, ""};  // stays open
    });
    std::vector<std::string> replies;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_),
                  [&](KVMessage* reply) { replies.push_back(KVMessageGetPayload(reply)); });
    call.Call("com.test.restart", "open/sub", "{\"n\":1}");
    Pump(dispatcher_, [&]() { return replies.size() == 1; });

    test::LogCapture log;
    test::TestBus().Kill(SIGKILL);
    Pump(dispatcher_, [&]() { return replies.size() == 2; });
    EXPECT_TRUE(IsLibraryError(replies[1], KV_ERROR_BUS_UNAVAILABLE, "unavailable")) << replies[1];
    GlibRuntimeDispatcher late(test::ContextOf(dispatcher_));
    std::vector<std::string> lateReplies;
    RdKvCall lateCall(RdKelvraUtils::GetKvHandle(late),
                      [&](KVMessage* reply) { lateReplies.push_back(KVMessageGetPayload(reply)); });
    lateCall.Call("com.test.restart", "open/sub", "{\"n\":3}");
    EXPECT_TRUE(lateReplies.empty());  // nothing from inside Call
    Pump(dispatcher_, [&]() { return lateReplies.size() == 1; });
    EXPECT_TRUE(IsLibraryError(lateReplies[0], KV_ERROR_BUS_UNAVAILABLE, "unavailable"))
        << lateReplies[0];

    test::TestBus().Restart();
    KVHandle* lateHandle = RdKelvraUtils::GetKvHandle(late);
    KVHandle* handle = RdKelvraUtils::GetKvHandle(dispatcher_);
    Pump(dispatcher_, [&]() {
        return service.Connected() && KVIsConnected(handle) && KVIsConnected(lateHandle);
    });
    // Once per handle: the late dispatcher's first bus use fell in the gap.
    EXPECT_EQ(2u, log.Matching("bus connection lost; reconnecting").size());
    EXPECT_FALSE(log.Matching("bus connection restored").empty());
    call.Call("com.test.restart", "open/sub", "{\"n\":4}");
    lateCall.Call("com.test.restart", "open/sub", "{\"n\":5}");
    Pump(dispatcher_, [&]() { return replies.size() == 3 && lateReplies.size() == 2; });
    EXPECT_EQ("{\"n\":4}", replies[2]) << replies[2];
    EXPECT_EQ("{\"n\":5}", lateReplies[1]);
}

// An exception out of a callback on a handle no dispatcher owns is critical and fatal.
TEST(BusCallDeathTest, ExceptionWithoutADispatcherIsCriticalAndFatal) {
    EXPECT_DEATH(
        {
            GMainContext* context = g_main_context_new();
            test::Handle handle(context);
            RdKvCall call(handle.get(),
                          [](KVMessage*) { throw std::runtime_error("from a callback"); });
            call.Call("com.test.nobody", "x/y", "{}");
            test::IterateUntil(context, []() { return false; });
        },
        "Exception out of a callback that no dispatcher owns.*from a callback");
}

}  // namespace
}  // namespace vok
