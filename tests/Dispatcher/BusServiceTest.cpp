// Bus services from a dispatcher (RdKvService), on a private bus, with bus-library clients.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"
#include "vok/RdKvService.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

using test::Pump;
using test::ReplyLog;

class BusServiceTest : public ::testing::Test {
  protected:
    // Calls method of service from client; returns the log of its replies.
    ReplyLog* Call(test::Handle& client, const std::string& service, const std::string& method,
                   const std::string& payload) {
        logs_.emplace_back(new ReplyLog);
        EXPECT_TRUE(client.Call("kelvra://" + service + "/" + method, payload, logs_.back().get()));
        return logs_.back().get();
    }

    void Owned(RdKvService& service) {
        ASSERT_TRUE(Pump(dispatcher_, [&]() { return service.IsConnected(); }));
    }

    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
    std::vector<std::unique_ptr<ReplyLog>> logs_;
};

// A request carries its payload and sender; it is answered at once, later, with an error, or by
// the library when its handler throws.
TEST_F(BusServiceTest, RequestsAreAnsweredNowLaterOrWithAnError) {
    RdKvService service(dispatcher_, "com.test.svc.requests");
    std::string sender;
    service.AddMethod("sensor/double", [&](RdKvRequest& request) {
        sender = request.GetSender();
        JsonToken reply;
        reply.MakeObject();
        reply.ObjectSetBooleanPair("returnValue", true);
        reply.ObjectSetNumberPair("n",
                                  2 * request.GetPayload().ObjectFindPair("n")->NumberGetValue());
        EXPECT_TRUE(request.Reply(reply));
        EXPECT_FALSE(request.IsOpen());
        EXPECT_FALSE(request.Reply("{\"again\":true}"));
    });
    RdKvRequest kept;
    service.AddMethod("later/reply", [&](RdKvRequest& request) { kept = std::move(request); });
    service.AddMethod("fail/error", [](RdKvRequest& request) { request.ReplyError(7, "bad"); });
    service.AddMethod("x/throw", [](RdKvRequest&) { throw std::runtime_error("handler threw"); });
    Owned(service);

    test::Handle client(test::ContextOf(dispatcher_));
    const std::string name = service.GetServiceName();
    ReplyLog* doubled = Call(client, name, "sensor/double", "{\"n\":21}");
    ReplyLog* later = Call(client, name, "later/reply", "{\"x\":\"y\"}");
    ReplyLog* failed = Call(client, name, "fail/error", "{}");
    Pump(dispatcher_, [&]() {
        return doubled->replies.size() == 1 && failed->replies.size() == 1 && kept.IsOpen();
    });
    EXPECT_EQ(42, doubled->replies[0].Number("n"));
    EXPECT_TRUE(doubled->replies[0].last);
    EXPECT_FALSE(failed->replies[0].Bool("returnValue"));
    EXPECT_EQ(7, failed->replies[0].Number("errorCode"));
    EXPECT_NE(std::string::npos, failed->replies[0].payload.find("\"bad\""));
    EXPECT_EQ(sender, kept.GetSender());
    EXPECT_EQ("{\"x\":\"y\"}", kept.GetPayloadText());
    EXPECT_TRUE(later->replies.empty());
    EXPECT_TRUE(kept.Reply("{\"done\":true}"));
    Pump(dispatcher_, [&]() { return later->replies.size() == 1; });
    EXPECT_EQ("{\"done\":true}", later->replies[0].payload);

    // A handler's exception fails the request and leaves the loop (here Pump), not the bus library.
    ReplyLog* threw = Call(client, name, "x/throw", "{}");
    EXPECT_THROW(Pump(dispatcher_, [&]() { return !threw->replies.empty(); }), std::runtime_error);
    Pump(dispatcher_, [&]() { return !threw->replies.empty(); });
    EXPECT_EQ(KV_ERROR_METHOD_FAILED, threw->replies[0].Number("errorCode"));
}

// A subscription ends by ReplyLast or destruction (a last reply), or by the client cancelling or
// leaving (the cancel callback runs, and may destroy the subscription).
TEST_F(BusServiceTest, SubscriptionsEndByTheServiceOrByTheClient) {
    RdKvService service(dispatcher_, "com.test.svc.subs");
    std::map<int, RdKvSubscription> subs;
    std::vector<int> cancelled;
    service.AddMethod("mean/watch", [&](RdKvRequest& request) {
        EXPECT_TRUE(request.IsSubscription());
        const int id =
            static_cast<int>(request.GetPayload().ObjectFindPair("id")->NumberGetValue());
        subs[id] = request.Subscribe([&, id]() {
            EXPECT_FALSE(subs[id].IsOpen());
            subs.erase(id);  // the running callback's own subscription
            cancelled.push_back(id);
        });
        EXPECT_FALSE(request.IsOpen());
        subs[id].Reply("{\"first\":" + std::to_string(id) + "}");
    });
    Owned(service);
    test::Handle client(test::ContextOf(dispatcher_));
    test::Handle leaving(test::ContextOf(dispatcher_));
    auto ask = [&](test::Handle& from, int id) {
        return Call(from, service.GetServiceName(), "mean/watch",
                    "{\"subscribe\":true,\"id\":" + std::to_string(id) + "}");
    };
    ReplyLog* cancels = ask(client, 0);
    ReplyLog* dropped = ask(client, 1);
    ReplyLog* ended = ask(client, 2);
    ReplyLog* leaves = ask(leaving, 3);
    Pump(dispatcher_, [&]() { return subs.size() == 4 && leaves->replies.size() == 1; });
    for (auto& open : subs) {
        EXPECT_TRUE(open.second.Reply("{\"more\":true}"));
    }
    Pump(dispatcher_,
         [&]() { return cancels->replies.size() == 2 && leaves->replies.size() == 2; });
    EXPECT_FALSE(cancels->replies[1].last);

    ASSERT_TRUE(KVCallCancel(client.get(), cancels->token, nullptr));
    leaving.Unregister();
    subs.erase(1);  // destroyed while open: a last reply
    EXPECT_TRUE(subs[2].ReplyLast("{\"bye\":true}"));
    EXPECT_FALSE(subs[2].IsOpen());
    EXPECT_FALSE(subs[2].Reply("{}"));
    Pump(dispatcher_, [&]() { return cancelled.size() == 2 && dropped->replies.size() == 3; });
    std::sort(cancelled.begin(), cancelled.end());
    EXPECT_EQ((std::vector<int>{0, 3}), cancelled);
    EXPECT_EQ("{\"returnValue\":true,\"subscribed\":false}", dropped->replies[2].payload);
    EXPECT_TRUE(dropped->replies[2].last);
    Pump(dispatcher_, [&]() { return ended->replies.size() == 3; });
    EXPECT_TRUE(ended->replies[2].last);
    EXPECT_EQ(2u, cancels->replies.size());
}

// A name owned elsewhere: the second service hears false, warns once, and takes it when freed.
TEST_F(BusServiceTest, ANameOwnedElsewhereIsTakenWhenFreed) {
    std::unique_ptr<RdKvService> first(new RdKvService(dispatcher_, "com.test.svc.taken"));
    first->AddMethod("who/am", [](RdKvRequest& request) { request.Reply("{\"first\":true}"); });
    Owned(*first);

    test::LogCapture log;
    RdKvService second(dispatcher_, "com.test.svc.taken");
    std::vector<bool> states;
    second.SetConnectionObserver([&](bool up) { states.push_back(up); });
    second.AddMethod("who/am", [](RdKvRequest& request) { request.Reply("{\"first\":false}"); });
    Pump(dispatcher_, [&]() { return !states.empty(); });
    EXPECT_EQ((std::vector<bool>{false}), states);
    EXPECT_FALSE(second.IsConnected());
    EXPECT_EQ(1u, log.Matching("com.test.svc.taken is not served yet").size());

    first.reset();
    Owned(second);
    EXPECT_EQ((std::vector<bool>{false, true}), states);
    EXPECT_EQ(1u, log.Matching("com.test.svc.taken is not served yet").size());
    test::Handle client(test::ContextOf(dispatcher_));
    ReplyLog* answer = Call(client, "com.test.svc.taken", "who/am", "{}");
    Pump(dispatcher_, [&]() { return answer->replies.size() == 1; });
    EXPECT_EQ("{\"first\":false}", answer->replies[0].payload);
}

}  // namespace
}  // namespace vok
