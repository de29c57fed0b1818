#include "BusTestSupport.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>

#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"
#include "support/LoopSupport.h"

namespace vok {
namespace test {

namespace {

// The private bus of the test program, started before the first test.
class BusEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { setenv("KELVRA_BUS_ADDRESS", bus_.Start().c_str(), 1); }
    void TearDown() override { bus_.Stop(); }

    PrivateBus bus_;
};

BusEnvironment* const kBusEnvironment =
    static_cast<BusEnvironment*>(::testing::AddGlobalTestEnvironment(new BusEnvironment));

}  // namespace

PrivateBus& TestBus() {
    return kBusEnvironment->bus_;
}

bool Pump(RuntimeDispatcher& dispatcher, const std::function<bool()>& done, int limitSeconds) {
    CallbackExceptions raised(dispatcher);
    const bool reached = IterateUntil(
        RuntimeDispatcher::GetImpl(dispatcher)->GetContext(),
        [&]() {
            raised.RethrowFirst();
            return done();
        },
        limitSeconds);
    if (!reached) {
        ADD_FAILURE() << "condition not reached within " << limitSeconds << " s";
    }
    return reached;
}

FakeService::FakeService(RuntimeDispatcher& dispatcher, const char* serviceName) {
    KVError error;
    KVErrorInit(&error);
    if (!KVRegister(serviceName, &handle_, &error) ||
        !KVGmainAttach(handle_, RuntimeDispatcher::GetImpl(dispatcher)->GetContext(), &error)) {
        ADD_FAILURE() << "fake service: " << (error.message ? error.message : "");
    }
    KVErrorFree(&error);
}

FakeService::~FakeService() {
    if (handle_ != nullptr) {
        KVUnregister(handle_, nullptr);
    }
}

void FakeService::AddMethod(const std::string& method, Method answer) {
    methods_[method] = std::move(answer);
    EXPECT_TRUE(KVRegisterMethod(handle_, method.c_str(), &FakeService::MethodCb, this, nullptr));
}

std::vector<std::string> FakeService::Requests(const std::string& method) const {
    auto it = requests_.find(method);
    return it != requests_.end() ? it->second : std::vector<std::string>();
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
    // An empty last reply keeps the request open as a subscription.
    for (size_t i = 0; i < replies.size(); ++i) {
        if (replies[i].empty()) {
            break;
        }
        if (i + 1 < replies.size()) {
            KVReply(handle, request, replies[i].c_str(), nullptr);
        } else {
            KVReplyLast(handle, request, replies[i].c_str(), nullptr);
        }
    }
    return true;
}

PowerDaemon::~PowerDaemon() {
    Stop(SIGTERM);
}

void PowerDaemon::Start() {
    process_.reset(new ChildProcess);
    process_->Start({VOK_POWERD, "--log"}, true, true);
    reader_ = std::thread([this]() {
        for (;;) {
            const std::string line = process_->ReadLine();
            if (line.empty()) {
                return;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
            lineAdded_.notify_all();
            if (wake_ != nullptr) {
                g_main_context_wakeup(wake_);
            }
        }
    });
    ASSERT_TRUE(WaitForLine("ready"));
}

void PowerDaemon::WakeOnLine(GMainContext* context) {
    std::lock_guard<std::mutex> lock(mutex_);
    wake_ = context;
}

bool PowerDaemon::WaitForLine(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex_);
    return lineAdded_.wait_for(lock, std::chrono::seconds(60),
                               [&]() { return HasLineLocked(text); });
}

void PowerDaemon::Stop(int signal) {
    if (process_ && process_->Running()) {
        process_->Kill(signal);
        process_->Wait();
    }
    if (reader_.joinable()) {
        reader_.join();
    }
}

void PowerDaemon::Kill() {
    Stop(SIGKILL);
}

bool PowerDaemon::HasLine(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    return HasLineLocked(text);
}

bool PowerDaemon::HasLineLocked(const std::string& text) const {
    return CountLinesLocked(text) > 0;
}

int PowerDaemon::CountLines(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    return CountLinesLocked(text);
}

int PowerDaemon::CountLinesLocked(const std::string& text) const {
    int count = 0;
    for (const std::string& line : lines_) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

}  // namespace test
}  // namespace vok
