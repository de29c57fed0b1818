// The bus library's API within one process: bad input, bus address selection, and the service
// side's rules for replies, subscriptions and cancels, with client and service on one context.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"

namespace vok {
namespace test {
namespace {

// Checks a failed call's error code and releases the error.
class ErrorCheck {
  public:
    ErrorCheck() { KVErrorInit(&error_); }
    ~ErrorCheck() { KVErrorFree(&error_); }
    KVError* get() { return &error_; }
    // Expects a call's result to be a failure with code and a message; clears the record.
    void Failed(bool result, int code) {
        EXPECT_FALSE(result);
        EXPECT_NE(nullptr, error_.message);
        EXPECT_EQ(code, error_.code);
        KVErrorFree(&error_);
    }

  private:
    KVError error_;
};

// Runs first, before other threads of GLib exist, because it changes the environment.
TEST(KelvraAddressTest, KelvraAddressComesFirstThenTheSessionBus) {
    ErrorCheck error;
    KVHandle* handle = reinterpret_cast<KVHandle*>(1);
    setenv("DBUS_SESSION_BUS_ADDRESS", TestBus().Address().c_str(), 1);
    setenv("KELVRA_BUS_ADDRESS", "unix:path=/nonexistent/kelvra-test", 1);
    error.Failed(KVRegister(nullptr, &handle, error.get()), KV_ERROR_BUS);
    EXPECT_EQ(nullptr, handle);
    unsetenv("KELVRA_BUS_ADDRESS");
    EXPECT_TRUE(KVRegister(nullptr, &handle, error.get()));
    EXPECT_TRUE(KVUnregister(handle, error.get()));
    setenv("KELVRA_BUS_ADDRESS", TestBus().Address().c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST(KelvraApiTest, BadInputFailsWithAnError) {
    Watchdog watchdog;
    ErrorCheck error;
    KVHandle* handle = nullptr;
    // A handle that is not attached yet accepts no calls.
    ASSERT_TRUE(KVRegister(nullptr, &handle, error.get()));
    KVMessageToken token = 99;
    error.Failed(KVCall(handle, "kelvra://com.orvex.x/a/b", "{}", ReplyLog::Func, nullptr, &token,
                        error.get()),
                 KV_ERROR_NOT_ATTACHED);
    EXPECT_EQ(0u, token);
    GMainContext* context = g_main_context_new();
    ASSERT_TRUE(KVGmainAttach(handle, context, error.get()));
    error.Failed(KVGmainAttach(handle, context, error.get()), KV_ERROR_ALREADY_ATTACHED);

    error.Failed(KVCall(handle, "kelvra://com.orvex.x//b", "{}", ReplyLog::Func, nullptr, nullptr,
                        error.get()),
                 KV_ERROR_BAD_URI);
    error.Failed(KVCall(handle, "kelvra://com.orvex.kelvrabus/signal/registerServerStatus",
                        "{\"serviceName\":\"bad\"}", ReplyLog::Func, nullptr, nullptr, error.get()),
                 KV_ERROR_BAD_PAYLOAD);
    error.Failed(KVCallCancel(handle, 12345, error.get()), KV_ERROR_NO_SUCH_CALL);
    error.Failed(KVRegisterMethod(handle, "a/b", ReplyLog::Func, nullptr, error.get()),
                 KV_ERROR_NOT_A_SERVICE);
    EXPECT_TRUE(KVUnregister(handle, error.get()));
    g_main_context_unref(context);
}

// A connected handle with nothing to do lets its loop sleep: no wake-up of its own per iteration.
TEST(KelvraApiTest, AnIdleHandleLetsItsLoopSleep) {
    Watchdog watchdog;
    GMainContext* context = g_main_context_new();
    {
        Handle handle(context);
        ASSERT_TRUE(IterateUntil(context, [&]() { return KVIsConnected(handle.get()); }));
        bool fired = false;
        GSource* timer = g_timeout_source_new(100);
        g_source_set_callback(
            timer,
            [](gpointer fired) {
                *static_cast<bool*>(fired) = true;
                return G_SOURCE_REMOVE;
            },
            &fired, nullptr);
        g_source_attach(timer, context);
        int iterations = 0;
        while (!fired) {
            g_main_context_iteration(context, TRUE);
            ++iterations;
        }
        g_source_unref(timer);
        EXPECT_LE(iterations, 3);
    }
    g_main_context_unref(context);
}

// A service and a client in this process, on one context.
class KelvraServiceTest : public testing::Test {
  protected:
    // The service has a method "a/keep" that keeps each request it receives.
    KelvraServiceTest()
        : context_(g_main_context_new()), service_(context_, name_.c_str()), client_(context_) {
        EXPECT_TRUE(KVRegisterMethod(service_.get(), "a/keep", Keep, this, nullptr));
    }
    ~KelvraServiceTest() override { g_main_context_unref(context_); }

    void Register(const char* method, KVMethodFunc func) {
        ASSERT_TRUE(KVRegisterMethod(service_.get(), method, func, this, nullptr));
    }
    std::string Uri(const char* method) const { return "kelvra://" + name_ + "/" + method; }
    bool WaitFor(const std::function<bool()>& done) { return IterateUntil(context_, done); }

    static bool Keep(KVHandle*, KVMessage* request, void* self) {
        static_cast<KelvraServiceTest*>(self)->requests_.push_back(KVMessageRef(request));
        return true;
    }
    static void Cancelled(KVHandle*, KVMessage*, void* self) {
        ++static_cast<KelvraServiceTest*>(self)->cancels_;
    }
    void TearDown() override {
        for (KVMessage* request : requests_) {
            KVMessageUnref(request);
        }
    }

    Watchdog watchdog_;
    std::string name_ = UniqueServiceName();
    GMainContext* context_;
    Handle service_;
    Handle client_;
    std::vector<KVMessage*> requests_;
    int cancels_ = 0;
    ErrorCheck error_;
};

TEST_F(KelvraServiceTest, NamesAndMethodsAreRegisteredOnce) {
    error_.Failed(KVRegisterMethod(service_.get(), "a/keep", Keep, this, error_.get()),
                  KV_ERROR_EXISTS);
    // Methods without a category, and with several.
    Register("top", Keep);
    Register("x/y/z", Keep);
    ReplyLog top;
    ReplyLog deep;
    ASSERT_TRUE(client_.Call(Uri("top"), "{}", &top));
    ASSERT_TRUE(client_.Call(Uri("x/y/z"), "{\"subscribe\":true}", &deep));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 2; }));
    EXPECT_STREQ("top", KVMessageGetMethod(requests_[0]));
    EXPECT_FALSE(KVMessageIsSubscription(requests_[0]));
    EXPECT_STREQ("x/y/z", KVMessageGetMethod(requests_[1]));
    EXPECT_TRUE(KVMessageIsSubscription(requests_[1]));

    // A second handle for the name registers at once, is told once from the loop that it is not
    // connected, and owns the name when the first lets go.
    std::vector<bool> links;
    KVHandle* second = nullptr;
    ASSERT_TRUE(KVRegister(name_.c_str(), &second, error_.get()));
    ASSERT_TRUE(KVGmainAttach(second, context_, nullptr));
    ASSERT_TRUE(KVSetConnectionFunc(
        second,
        [](KVHandle*, bool up, void* links) {
            static_cast<std::vector<bool>*>(links)->push_back(up);
        },
        &links, nullptr));
    ASSERT_TRUE(WaitFor([&]() { return !links.empty(); }));
    EXPECT_FALSE(links[0]);
    EXPECT_FALSE(KVIsConnected(second));
    service_.Unregister();
    ASSERT_TRUE(WaitFor([&]() { return KVIsConnected(second); }));
    EXPECT_EQ((std::vector<bool>{false, true}), links);
    EXPECT_TRUE(KVUnregister(second, nullptr));
}

// One answer, or a stream until its last; a cancel before or after the first reply closes the
// request.
TEST_F(KelvraServiceTest, RepliesFollowTheRequestsState) {
    ReplyLog single;
    ReplyLog stream;
    ReplyLog early;
    ReplyLog late;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &single));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{\"subscribe\":true}", &stream));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &early));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &late));
    // Cancelled before the service has even seen it.
    ASSERT_TRUE(KVCallCancel(client_.get(), early.token, error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 4; }));
    KVMessage* once = requests_[0];
    KVMessage* subscription = requests_[1];

    // Answered later, from outside the method function; a second answer is refused.
    error_.Failed(KVReply(service_.get(), once, nullptr, error_.get()), KV_ERROR_BAD_PAYLOAD);
    error_.Failed(KVReply(client_.get(), once, "{}", error_.get()), KV_ERROR_INVALID_ARGUMENT);
    EXPECT_TRUE(KVReply(service_.get(), once, "{\"late\":true}", error_.get()));
    error_.Failed(KVReply(service_.get(), once, "{}", error_.get()), KV_ERROR_CLOSED);
    error_.Failed(KVSubscriptionAdd(service_.get(), once, nullptr, nullptr, error_.get()),
                  KV_ERROR_CLOSED);
    ASSERT_TRUE(WaitFor([&]() { return single.replies.size() == 1; }));
    EXPECT_TRUE(single.replies[0].last);

    ASSERT_TRUE(KVSubscriptionAdd(service_.get(), subscription, Cancelled, this, error_.get()));
    error_.Failed(KVSubscriptionAdd(service_.get(), subscription, Cancelled, this, error_.get()),
                  KV_ERROR_EXISTS);
    EXPECT_TRUE(KVReply(service_.get(), subscription, "{}", error_.get()));
    EXPECT_TRUE(KVReplyLast(service_.get(), subscription, "{\"bye\":1}", error_.get()));
    error_.Failed(KVReply(service_.get(), subscription, "{}", error_.get()), KV_ERROR_CLOSED);
    ASSERT_TRUE(WaitFor([&]() { return stream.replies.size() == 2; }));
    EXPECT_FALSE(stream.replies[0].last);
    EXPECT_TRUE(stream.replies[1].last);
    EXPECT_EQ(0, cancels_);  // Ended by the service: no cancel notification.

    ASSERT_TRUE(KVSubscriptionAdd(service_.get(), requests_[3], Cancelled, this, error_.get()));
    ASSERT_TRUE(KVReply(service_.get(), requests_[3], "{}", error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return late.replies.size() == 1; }));
    ASSERT_TRUE(KVCallCancel(client_.get(), late.token, error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return cancels_ == 1; }));
    for (KVMessage* request : requests_) {
        error_.Failed(KVReply(service_.get(), request, "{}", error_.get()), KV_ERROR_CLOSED);
    }
    EXPECT_TRUE(early.replies.empty());
    EXPECT_EQ(1u, late.replies.size());
}

// Reply functions may cancel their own call or unregister the handle; nothing is delivered after.
TEST_F(KelvraServiceTest, ReplyFunctionsMayEndTheirCallOrTheHandle) {
    struct Stopper {
        KVHandle* handle;
        KVMessageToken token = 0;
        int seen = 0;
        bool unregister;
        static bool Func(KVHandle* handle, KVMessage*, void* self) {
            Stopper* stopper = static_cast<Stopper*>(self);
            ++stopper->seen;
            if (stopper->unregister) {
                EXPECT_TRUE(KVUnregister(handle, nullptr));
            } else {
                EXPECT_TRUE(KVCallCancel(handle, stopper->token, nullptr));
            }
            return true;
        }
    };
    KVHandle* other = nullptr;
    ASSERT_TRUE(KVRegister(nullptr, &other, nullptr));
    ASSERT_TRUE(KVGmainAttach(other, context_, nullptr));
    Stopper cancelling{client_.get(), 0, 0, false};
    Stopper unregistering{other, 0, 0, true};
    const std::string uri = Uri("a/keep");
    ASSERT_TRUE(KVCall(client_.get(), uri.c_str(), "{}", Stopper::Func, &cancelling,
                       &cancelling.token, nullptr));
    ASSERT_TRUE(KVCall(other, uri.c_str(), "{}", Stopper::Func, &unregistering,
                       &unregistering.token, nullptr));
    ReplyLog afterwards;
    ASSERT_TRUE(KVCall(other, uri.c_str(), "{}", ReplyLog::Func, &afterwards, nullptr, nullptr));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 3; }));
    for (KVMessage* request : requests_) {
        ASSERT_TRUE(KVSubscriptionAdd(service_.get(), request, nullptr, nullptr, error_.get()));
        KVReply(service_.get(), request, "{}", nullptr);
        KVReply(service_.get(), request, "{}", nullptr);
    }
    ASSERT_TRUE(WaitFor([&]() { return cancelling.seen == 1 && unregistering.seen == 1; }));
    // One more round trip on the service's handle: anything still queued has been handled.
    ReplyLog probe;
    Register("a/echo", [](KVHandle* handle, KVMessage* request, void*) {
        return KVReply(handle, request, "{}", nullptr);
    });
    ASSERT_TRUE(client_.Call(Uri("a/echo"), "{}", &probe));
    ASSERT_TRUE(WaitFor([&]() { return probe.replies.size() == 1; }));
    EXPECT_EQ(1, cancelling.seen);
    EXPECT_EQ(1, unregistering.seen);
    EXPECT_TRUE(afterwards.replies.empty());
}

// A payload above the limit is refused before it is sent; one at the limit goes both ways. A
// service answers such a request that reaches it around the library with an error reply.
TEST_F(KelvraServiceTest, OversizedPayloadsAreRefused) {
    const std::string over = "{\"x\":\"" + std::string(KV_MAX_PAYLOAD_SIZE - 7, 'x') + "\"}";
    const std::string most = over.substr(0, 6) + over.substr(7);
    ReplyLog refused;
    error_.Failed(client_.Call(Uri("a/keep"), over, &refused, error_.get()),
                  KV_ERROR_PAYLOAD_TOO_LARGE);
    ReplyLog log;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), most, &log));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 1; }));
    EXPECT_TRUE(KVReply(service_.get(), requests_[0], most.c_str(), error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return log.replies.size() == 1; }));
    EXPECT_EQ(most, log.replies[0].payload);

    GDBusConnection* raw = g_dbus_connection_new_for_address_sync(
        TestBus().Address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, raw);
    GVariant* answer = nullptr;
    g_main_context_push_thread_default(context_);
    g_dbus_connection_call(
        raw, name_.c_str(), "/a", "com.orvex.kelvra.Method", "keep",
        g_variant_new("(st)", over.c_str(), static_cast<guint64>(1)), G_VARIANT_TYPE("(sb)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* connection, GAsyncResult* result, gpointer answer) {
            *static_cast<GVariant**>(answer) =
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr);
        },
        &answer);
    g_main_context_pop_thread_default(context_);
    ASSERT_TRUE(WaitFor([&]() { return answer != nullptr; }));
    const char* payload = nullptr;
    g_variant_get(answer, "(&sb)", &payload, nullptr);
    EXPECT_EQ(KV_ERROR_PAYLOAD_TOO_LARGE, (Reply{payload, true}.Number("errorCode")));
    EXPECT_EQ(1u, requests_.size());
    g_variant_unref(answer);
    g_object_unref(raw);
}

// The bus restarting at the same address: what was open ends, a call made meanwhile gets its
// error reply from the loop, and the same handles come back with their service name, methods
// and status watches.
TEST_F(KelvraServiceTest, HandlesSurviveABusRestart) {
    std::vector<bool> links;
    ASSERT_TRUE(KVSetConnectionFunc(
        client_.get(),
        [](KVHandle*, bool up, void* links) {
            static_cast<std::vector<bool>*>(links)->push_back(up);
        },
        &links, nullptr));
    ReplyLog status;
    ReplyLog stream;
    ASSERT_TRUE(client_.Call("kelvra://com.orvex.kelvrabus/signal/registerServerStatus",
                             "{\"serviceName\":\"" + name_ + "\"}", &status));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &stream));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 1 && status.replies.size() == 1; }));
    ASSERT_TRUE(status.replies[0].Bool("connected"));
    ASSERT_TRUE(KVSubscriptionAdd(service_.get(), requests_[0], Cancelled, this, nullptr));

    TestBus().Kill(SIGKILL);
    ASSERT_TRUE(WaitFor([&]() {
        return cancels_ == 1 && stream.replies.size() == 1 && status.replies.size() == 2 &&
               links.size() == 1;
    }));
    EXPECT_FALSE(links[0]);
    EXPECT_FALSE(KVIsConnected(client_.get()));
    EXPECT_TRUE(stream.replies[0].last);
    EXPECT_EQ(KV_ERROR_BUS_UNAVAILABLE, stream.replies[0].Number("errorCode"));
    EXPECT_FALSE(status.replies[1].Bool("connected"));
    EXPECT_FALSE(status.replies[1].last);
    error_.Failed(KVReply(service_.get(), requests_[0], "{}", error_.get()), KV_ERROR_CLOSED);
    ReplyLog meanwhile;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &meanwhile));
    EXPECT_TRUE(meanwhile.replies.empty());  // not from inside KVCall
    ASSERT_TRUE(WaitFor([&]() { return meanwhile.replies.size() == 1; }));
    EXPECT_TRUE(meanwhile.replies[0].last);
    EXPECT_EQ(KV_ERROR_BUS_UNAVAILABLE, meanwhile.replies[0].Number("errorCode"));

    TestBus().Restart();
    ASSERT_TRUE(WaitFor([&]() { return status.replies.size() == 3 && links.size() == 2; }));
    EXPECT_TRUE(status.replies[2].Bool("connected"));
    EXPECT_TRUE(links[1]);
    ReplyLog again;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &again));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 2; }));
    EXPECT_TRUE(KVReply(service_.get(), requests_[1], "{\"back\":true}", error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return again.replies.size() == 1; }));
    EXPECT_TRUE(again.replies[0].Bool("back"));
}

}  // namespace
}  // namespace test
}  // namespace vok
