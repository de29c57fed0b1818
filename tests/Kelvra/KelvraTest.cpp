// The bus library: its API with client and service in this process, then the test service and
// kv-call in processes of their own, all on the private bus.
#include <gio/gio.h>
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
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "KelvraTestSupport.h"
#include "support/LogCapture.h"

namespace vok {
namespace test {
namespace {

// The test service in a process of its own; construction returns once it serves.
struct TestService : ChildProcess {
    explicit TestService(const std::string& name, const char* program = KELVRA_TEST_SERVICE) {
        Start({program, name}, true, true);
        EXPECT_EQ("ready", ReadLine()) << name;
    }
};

// A service name no other test uses.
std::string UniqueServiceName() {
    static int counter = 0;
    return "com.orvex.test.p" + std::to_string(getpid()) + "n" + std::to_string(++counter);
}

// An error record; Failed expects a failure with code and a message, and clears the record.
struct ErrorCheck : KVError {
    ErrorCheck() { KVErrorInit(this); }
    ~ErrorCheck() { KVErrorFree(this); }
    KVError* get() { return this; }
    void Failed(bool result, int expected) {
        EXPECT_FALSE(result);
        EXPECT_NE(nullptr, message);
        EXPECT_EQ(expected, code);
        KVErrorFree(this);
    }
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

// The service's method "a/keep" keeps each request it receives.
class KelvraServiceTest : public testing::Test {
  protected:
    KelvraServiceTest()
        : context_(g_main_context_new()), service_(context_, name_.c_str()), client_(context_) {
        EXPECT_TRUE(KVRegisterMethod(service_.get(), "a/keep", Keep, this, nullptr));
    }
    ~KelvraServiceTest() override { g_main_context_unref(context_); }

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

TEST_F(KelvraServiceTest, BadInputFailsWithAnError) {
    error_.Failed(KVRegisterMethod(service_.get(), "a/keep", Keep, this, error_.get()),
                  KV_ERROR_EXISTS);
    error_.Failed(KVCall(client_.get(), "kelvra://com.orvex.x//b", "{}", ReplyLog::Func, nullptr,
                         nullptr, error_.get()),
                  KV_ERROR_BAD_URI);
    error_.Failed(KVCallCancel(client_.get(), 12345, error_.get()), KV_ERROR_NO_SUCH_CALL);
    // A handle takes no calls until attached, and is attached once.
    KVHandle* other = nullptr;
    ASSERT_TRUE(KVRegister(nullptr, &other, error_.get()));
    KVMessageToken token = 99;
    error_.Failed(
        KVCall(other, Uri("a/keep").c_str(), "{}", ReplyLog::Func, nullptr, &token, error_.get()),
        KV_ERROR_NOT_ATTACHED);
    EXPECT_EQ(0u, token);
    ASSERT_TRUE(KVGmainAttach(other, context_, nullptr));
    error_.Failed(KVGmainAttach(other, context_, error_.get()), KV_ERROR_ALREADY_ATTACHED);
    EXPECT_TRUE(KVUnregister(other, nullptr));
}

// An answer may come later; a cancel before or after the first reply closes the request.
TEST_F(KelvraServiceTest, RepliesFollowTheRequestsState) {
    ReplyLog single;
    ReplyLog early;
    ReplyLog late;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &single));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &early));
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &late));
    // Cancelled before the service has even seen it.
    ASSERT_TRUE(KVCallCancel(client_.get(), early.token, error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 3; }));
    KVMessage* once = requests_[0];

    // Answered later, from outside the method function; a second answer is refused.
    EXPECT_TRUE(KVReply(service_.get(), once, "{\"late\":true}", error_.get()));
    error_.Failed(KVReply(service_.get(), once, "{}", error_.get()), KV_ERROR_CLOSED);
    ASSERT_TRUE(WaitFor([&]() { return single.replies.size() == 1; }));
    EXPECT_TRUE(single.replies[0].last);

    ASSERT_TRUE(KVSubscriptionAdd(service_.get(), requests_[2], Cancelled, this, error_.get()));
    ASSERT_TRUE(KVReply(service_.get(), requests_[2], "{}", error_.get()));
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
    // One more round trip: anything still queued has been handled.
    ReplyLog probe;
    ASSERT_TRUE(client_.Call(Uri("a/keep"), "{}", &probe));
    ASSERT_TRUE(WaitFor([&]() { return requests_.size() == 4; }));
    ASSERT_TRUE(KVReply(service_.get(), requests_[3], "{}", error_.get()));
    ASSERT_TRUE(WaitFor([&]() { return probe.replies.size() == 1; }));
    EXPECT_EQ(1, cancelling.seen);
    EXPECT_EQ(1, unregistering.seen);
    EXPECT_TRUE(afterwards.replies.empty());
}

// A payload above the limit is refused before it is sent, and by a service it reaches around the
// library; one at the limit goes both ways.
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

// The bus restarting: what was open ends (the service is told of the cancel), and the handles
// come back with their connection and status watches.
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

    TestBus().Restart();
    ASSERT_TRUE(WaitFor([&]() { return status.replies.size() == 3 && links.size() == 2; }));
    EXPECT_TRUE(status.replies[2].Bool("connected"));
    EXPECT_TRUE(links[1]);
}

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

    ReplyLog held;
    ASSERT_TRUE(client_.Call(Uri("late"), "{\"subscribe\":true}", &held, nullptr, 200));
    ASSERT_TRUE(WaitForReplies(&held, 1));
    EXPECT_TRUE(held.replies[0].last);
    EXPECT_EQ(KV_ERROR_TIMEOUT, held.replies[0].Number("errorCode"));
    ASSERT_TRUE(WaitForReplies(&events, 2));
    EXPECT_EQ(1, events.replies[1].Number("cancelled"));
    EXPECT_FALSE(KVCallCancel(client_.get(), held.token, nullptr));

    const auto start = Clock::now();
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
TEST_F(KelvraBusTest, KvCallPrintsRepliesAndSaysWhatWentWrongWithOldAndNewLibraries) {
    const size_t npos = std::string::npos;
    std::vector<std::pair<const char*, const char*>> pairings = {{KV_CALL, KELVRA_TEST_SERVICE}};
#ifdef KV_CALL_OLD
    pairings.insert(pairings.end(),
                    {{KV_CALL, KELVRA_TEST_SERVICE_OLD}, {KV_CALL_OLD, KELVRA_TEST_SERVICE}});
#endif
    for (const auto& pairing : pairings) {
        const char* kvCall = pairing.first;
        name_ = UniqueServiceName();
        service_.reset(new TestService(name_, pairing.second));
        ReplyLog events;
        ASSERT_TRUE(client_.Call(Uri("events"), "{\"subscribe\":true}", &events));
        ASSERT_TRUE(WaitForReplies(&events, 1));

        Outcome echo = RunKvCall({Uri("echo"), "{ \"a\" : [1, \"b/c\"] }"}, kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"echo\":{\"a\":[1,\"b/c\"]}}\n", echo.output) << kvCall;
        EXPECT_EQ(0, echo.status);
        // An error reply is printed, said on standard error, and ends with 3 unless ignored.
        Outcome missing = RunKvCall({Uri("nothing"), "{}"}, kvCall);
        EXPECT_NE(npos, missing.output.find("\"errorCode\":10")) << missing.output;
        EXPECT_THAT(missing.errors, testing::MatchesRegex("kv-call: the reply is an error: .*"
                                                          " \\(errorCode 10\\)\n"));
        EXPECT_EQ(3, missing.status);
        Outcome ignored = RunKvCall({Uri("fail"), "{}", "--ignore-errors"}, kvCall);
        EXPECT_NE(npos, ignored.output.find("\"errorCode\":14")) << ignored.output;
        EXPECT_EQ("", ignored.errors);
        EXPECT_EQ(0, ignored.status);

        // --subscribe: one reply of a subscription, then kv-call cancels it.
        Outcome once = RunKvCall({Uri("subscribe"), "{}", "--subscribe", "--count", "1"}, kvCall);
        EXPECT_EQ("{\"returnValue\":true,\"n\":0}\n", once.output) << kvCall;
        ASSERT_TRUE(WaitForReplies(&events, 2));
        EXPECT_EQ(1, events.replies[1].Number("cancelled"));
        // A service that never answers: nothing printed.
        const auto start = std::chrono::steady_clock::now();
        Outcome late = RunKvCall({Uri("late"), "{}", "--timeout", "0.3"}, kvCall);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
        EXPECT_EQ("", late.output);
        EXPECT_EQ("kv-call: no reply within 0.3 s\n", late.errors);
        EXPECT_EQ(2, late.status);

        Outcome bad = RunKvCall({"kelvra://com.x/a/b", "{}", "--bogus"}, kvCall);
        EXPECT_EQ(1, bad.status);
        EXPECT_EQ("", bad.output);
        EXPECT_THAT(bad.errors, testing::MatchesRegex("kv-call: [^\n]+\n")) << bad.errors;

        service_->Kill(SIGKILL);
        service_->Wait();
        ASSERT_TRUE(IterateUntil(context_, [&]() { return events.replies.back().last; }));
        EXPECT_EQ(KV_ERROR_SERVICE_GONE, events.replies.back().Number("errorCode"));
    }
}

}  // namespace
}  // namespace test
}  // namespace vok
