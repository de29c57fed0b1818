#include "KelvraTestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "vok/JsonObjectFindResult.h"
#include "vok/JsonToken.h"

namespace vok {
namespace test {

namespace {

class BusEnvironment : public testing::Environment {
  public:
    void SetUp() override {
        setenv("KELVRA_BUS_ADDRESS", bus_.Start().c_str(), 1);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    void TearDown() override { bus_.Stop(); }
    PrivateBus bus_;
};

BusEnvironment* gEnvironment =
    static_cast<BusEnvironment*>(testing::AddGlobalTestEnvironment(new BusEnvironment));

}  // namespace

PrivateBus& TestBus() {
    return gEnvironment->bus_;
}

bool Reply::Bool(const char* name) const {
    JsonToken token;
    token.ParseJsonString(payload.c_str());
    return token.ObjectFindPair(name)->BooleanGetValue();
}

double Reply::Number(const char* name) const {
    JsonToken token;
    token.ParseJsonString(payload.c_str());
    return token.ObjectFindPair(name)->NumberGetValue();
}

bool ReplyLog::Func(KVHandle*, KVMessage* reply, void* self) {
    static_cast<ReplyLog*>(self)->replies.push_back(
        {KVMessageGetPayload(reply), KVMessageIsLastReply(reply)});
    return true;
}

Handle::Handle(GMainContext* context, const char* serviceName) {
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(serviceName, &handle_, &error) || !KVGmainAttach(handle_, context, &error)) {
        ADD_FAILURE() << "cannot register: " << error.message;
    } else if (serviceName != nullptr) {  // the name is owned from the loop
        EXPECT_TRUE(IterateUntil(context, [this]() { return KVIsConnected(handle_); }));
    }
    KVErrorFree(&error);
}

void Handle::Unregister() {
    if (handle_ != nullptr) {
        EXPECT_TRUE(KVUnregister(handle_, nullptr));
        handle_ = nullptr;
    }
}

bool Handle::Call(const std::string& uri, const std::string& payload, ReplyLog* log, KVError* error,
                  uint32_t timeoutMs) {
    return KVCallWithTimeout(handle_, uri.c_str(), payload.c_str(), timeoutMs, ReplyLog::Func, log,
                             &log->token, error);
}

FakeService::FakeService(RuntimeDispatcher& dispatcher, const char* serviceName)
    : handle_(ContextOf(dispatcher), serviceName) {}

void FakeService::AddMethod(const std::string& method, Method answer) {
    methods_[method] = std::move(answer);
    EXPECT_TRUE(
        KVRegisterMethod(handle_.get(), method.c_str(), &FakeService::MethodCb, this, nullptr));
}

bool FakeService::MethodCb(KVHandle* handle, KVMessage* request, void* self) {
    FakeService* service = static_cast<FakeService*>(self);
    const std::string method = KVMessageGetMethod(request);
    const std::string payload = KVMessageGetPayload(request);
    service->requests_[method].push_back(payload);
    const std::vector<std::string> replies = service->methods_[method](payload);
    if (replies.size() > 1) {
        KVSubscriptionAdd(handle, request, nullptr, nullptr, nullptr);
    }
    for (size_t i = 0; i < replies.size() && !replies[i].empty(); ++i) {
        if (i + 1 < replies.size()) {
            KVReply(handle, request, replies[i].c_str(), nullptr);
        } else {
            KVReplyLast(handle, request, replies[i].c_str(), nullptr);
        }
    }
    return true;
}

PowerDaemon::PowerDaemon(GMainContext* wake) : wake_(wake) {
    process_.Start({VOK_POWERD, "--log"}, true, true);
    reader_ = std::thread([this]() {
        for (std::string line; !(line = process_.ReadLine()).empty();) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
            lineAdded_.notify_all();
            if (wake_ != nullptr) {
                g_main_context_wakeup(wake_);
            }
        }
    });
    EXPECT_TRUE(WaitForLine("ready"));
    // Ready once it owns its name, as a client's status watch sees it.
    EXPECT_TRUE(WaitForService("com.orvex.power"));
}

bool WaitForService(const std::string& serviceName) {
    GMainContext* context = g_main_context_new();
    bool owned = false;
    {
        Handle observer(context);
        ReplyLog status;
        owned = observer.Call("kelvra://com.orvex.kelvrabus/signal/registerServerStatus",
                              "{\"serviceName\":\"" + serviceName + "\"}", &status) &&
                IterateUntil(context, [&]() {
                    return !status.replies.empty() && status.replies.back().Bool("connected");
                });
    }
    g_main_context_unref(context);
    return owned;
}

void PowerDaemon::Stop(int signal) {
    if (process_.Running()) {
        process_.Kill(SIGCONT);
        process_.Kill(signal);
        process_.Wait();
    }
    if (reader_.joinable()) {
        reader_.join();
    }
}

bool PowerDaemon::WaitForLine(const std::string& text, int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return lineAdded_.wait_for(lock, std::chrono::seconds(60),
                               [&]() { return CountLinesLocked(text) >= count; });
}

int PowerDaemon::CountLines(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    return CountLinesLocked(text);
}

int PowerDaemon::CountLinesLocked(const std::string& text) const {
    return static_cast<int>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

}  // namespace test
}  // namespace vok
