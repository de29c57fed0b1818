// Bus calls and service status from a dispatcher, on a private bus.
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BusTestSupport.h"
#include "support/LogCapture.h"
#include "vok/RdKvCall.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokError.h"
#include "vok/VokKvClient.h"

namespace vok {
namespace {

using test::FakeService;
using test::Pump;
using ::testing::MatchesRegex;

class BusCallTest : public ::testing::Test {
  protected:
    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
};

TEST_F(BusCallTest, RepliesArriveOnTheDispatcherThreadUntilTheLast) {
    FakeService service(dispatcher_, "com.test.echo");
    service.AddMethod("echo/three", [](const std::string& payload) {
        return std::vector<std::string>{payload, "{\"n\":2}", "{\"n\":3}"};
    });
    std::vector<std::string> replies;
    GThread* thread = nullptr;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_), [&](KVMessage* reply) {
        replies.push_back(KVMessageGetPayload(reply));
        thread = g_thread_self();
    });
    call.Call("com.test.echo", "echo/three", "{\"n\":1}");
    Pump(dispatcher_, [&]() { return replies.size() == 3; });
    EXPECT_EQ("{\"n\":3}", replies[2]);
    EXPECT_EQ(g_thread_self(), thread);
    EXPECT_EQ(1u, service.Requests("echo/three").size());
}

TEST_F(BusCallTest, CallWhilePendingCancelsTheFirst) {
    FakeService service(dispatcher_, "com.test.open");
    service.AddMethod("open/sub", [](const std::string& payload) {
        return std::vector<std::string>{payload, ""};  // stays open
    });
    std::vector<std::string> replies;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_),
                  [&](KVMessage* reply) { replies.push_back(KVMessageGetPayload(reply)); });
    call.Call("com.test.open", "open/sub", "{\"call\":\"first\"}");
    call.Call("com.test.open", "open/sub", "{\"call\":\"second\"}");
    Pump(dispatcher_,
         [&]() { return service.Requests("open/sub").size() == 2 && !replies.empty(); });
    test::PumpFor(dispatcher_, 200);
    EXPECT_EQ(std::vector<std::string>{"{\"call\":\"second\"}"}, replies);
}

TEST_F(BusCallTest, ServiceStatusReachesObserversOncePerChangeInKeyOrder) {
    VokKvClient* client = RdKelvraUtils::GetVokKvClient(dispatcher_, "com.test.late");
    EXPECT_EQ(client, RdKelvraUtils::GetVokKvClient(dispatcher_, "com.test.late"));
    EXPECT_EQ("kelvra://com.test.late/time/alarmAdd", client->GetUri("time/alarmAdd"));
    char keys[2];
    std::vector<std::pair<char*, bool>> calls;
    // Added in reverse order of their keys.
    client->AddRegStatusObserver(&keys[1], [&](bool up) { calls.emplace_back(&keys[1], up); });
    client->AddRegStatusObserver(&keys[0], [&](bool up) { calls.emplace_back(&keys[0], up); });
    test::PumpFor(dispatcher_, 200);  // the first report (absent) changes nothing
    EXPECT_TRUE(calls.empty());
    {
        FakeService service(dispatcher_, "com.test.late");
        Pump(dispatcher_, [&]() { return calls.size() == 2; });
        EXPECT_EQ(&keys[0], calls[0].first);
        EXPECT_EQ(&keys[1], calls[1].first);
        EXPECT_TRUE(calls[0].second && calls[1].second);
        EXPECT_TRUE(client->IsConnected());
    }
    Pump(dispatcher_, [&]() { return calls.size() == 4; });
    EXPECT_FALSE(calls[3].second);
    client->RemoveRegStatusObserver(&keys[0]);
    FakeService again(dispatcher_, "com.test.late");
    Pump(dispatcher_, [&]() { return calls.size() == 5; });
    test::PumpFor(dispatcher_, 100);
    EXPECT_EQ(5u, calls.size());
}

TEST_F(BusCallTest, MalformedStatusRepliesRaiseOnTheDispatcherThread) {
    std::string nextReply;
    FakeService service(dispatcher_, "com.test.status");
    service.AddMethod("status/reply",
                      [&](const std::string&) { return std::vector<std::string>{nextReply}; });
    VokKvClient* client = RdKelvraUtils::GetVokKvClient(dispatcher_, "com.test.status");
    Pump(dispatcher_, [&]() { return client->IsConnected(); });
    int notified = 0;
    client->AddRegStatusObserver(this, [&](bool) { ++notified; });
    // Feeds a reply of the fake service to the status callback as if the bus had sent it.
    auto feed = [&](const std::string& payload) {
        bool done = false;
        RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_), [&](KVMessage* reply) {
            done = true;
            VokKvClient::SvcRegStatusCb(nullptr, reply, client);
        });
        nextReply = payload;
        call.Call("com.test.status", "status/reply", "{}");
        Pump(dispatcher_, [&]() { return done; });
    };
    try {
        feed("{\"connected\":\"yes\"}");
        FAIL() << "no exception";
    } catch (const VokProgramErrorException& e) {
        EXPECT_EQ(kVokErrFailed, e.GetErr());
        EXPECT_THAT(e.what(), MatchesRegex("SvcRegStatusCb:Src/Utils/RuntimeDispatcher/Linux/"
                                           "Kelvra/VokKvClient:[0-9]+:bad connected type"));
    }
    EXPECT_THROW(feed("not json"), VokProgramErrorException);
    EXPECT_THROW(feed("[1,2]"), VokProgramErrorException);
    feed("{\"returnValue\":true}");  // no "connected": nothing changes
    feed("{\"connected\":true}");    // same as before: nobody is told
    EXPECT_EQ(0, notified);
    EXPECT_TRUE(client->IsConnected());
}

TEST_F(BusCallTest, FailedRegistrationRaisesEachTimeAndALaterOneWorks) {
    const std::string address = getenv("KELVRA_BUS_ADDRESS");
    setenv("KELVRA_BUS_ADDRESS", "unix:path=/nonexistent/vok-bus", 1);
    for (int i = 0; i < 2; ++i) {
        try {
            RdKelvraUtils::GetKvHandle(dispatcher_);
            FAIL() << "no exception";
        } catch (const VokResourceException& e) {
            EXPECT_EQ(kVokErrFailed, e.GetErr());
            EXPECT_THAT(e.what(), MatchesRegex("InitKelvra:Src/Utils/RuntimeDispatcher/Linux/"
                                               "RuntimeDispatcherImpl:[0-9]+:.+"));
        }
    }
    setenv("KELVRA_BUS_ADDRESS", address.c_str(), 1);
    KVHandle* handle = RdKelvraUtils::GetKvHandle(dispatcher_);
    EXPECT_NE(nullptr, handle);
    EXPECT_EQ(handle, RdKelvraUtils::GetKvHandle(dispatcher_));
}

TEST_F(BusCallTest, CallToAnAbsentServiceGetsAnErrorReply) {
    std::string reply;
    RdKvCall call(RdKelvraUtils::GetKvHandle(dispatcher_),
                  [&](KVMessage* message) { reply = KVMessageGetPayload(message); });
    call.Call("com.test.nobody", "x/y", "{}");
    Pump(dispatcher_, [&]() { return !reply.empty(); });
    EXPECT_THAT(reply, ::testing::HasSubstr("\"returnValue\":false"));
    EXPECT_THROW(call.Call("not a service", "x", "{}"), VokResourceException);
}

}  // namespace
}  // namespace vok
