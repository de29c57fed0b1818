#include "KelvraTestSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

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

const std::string& TestBusAddress() {
    return gEnvironment->bus_.Address();
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
    }
    KVErrorFree(&error);
}

Handle::~Handle() {
    Unregister();
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

TestService::TestService(const std::string& serviceName) {
    process_.Start({KELVRA_TEST_SERVICE, serviceName}, true, false);
}

std::string UniqueServiceName() {
    static int counter = 0;
    return "com.orvex.test.p" + std::to_string(getpid()) + "n" + std::to_string(++counter);
}

}  // namespace test
}  // namespace vok
