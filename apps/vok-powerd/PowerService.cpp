#include "PowerService.h"

#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace vok {
namespace powerd {

PowerService::PowerService(RuntimeDispatcher& dispatcher, FILE* requestLog)
    : requestLog_(requestLog),
      clockId_(CLOCK_BOOTTIME_ALARM),
      timerFd_(-1),
      service_(dispatcher, "com.orvex.power") {
    service_.AddMethod("time/alarmAdd", [this](RdKvRequest& request) { Serve(request); });
    service_.AddMethod("time/alarmRemove", [this](RdKvRequest& request) { Serve(request); });
    // CLOCK_BOOTTIME_ALARM needs CAP_WAKE_ALARM; without it the alarms still count suspended
    // time but cannot wake the device.
    timerFd_ = timerfd_create(CLOCK_BOOTTIME_ALARM, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timerFd_ < 0) {
        clockId_ = CLOCK_BOOTTIME;
        timerFd_ = timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK);
    }
    if (timerFd_ >= 0) {
        timerMonitor_.reset(new RdDescriptorMonitorBase(
            timerFd_, dispatcher, [this](bool, bool, bool) { TimerExpired(); }));
        timerMonitor_->SetEventMask(true, false, false);
    }
}

PowerService::~PowerService() {
    timerMonitor_.reset();
    if (timerFd_ >= 0) {
        close(timerFd_);
    }
}

const char* PowerService::ClockName() const {
    return clockId_ == CLOCK_BOOTTIME_ALARM ? "CLOCK_BOOTTIME_ALARM" : "CLOCK_BOOTTIME";
}

int64_t PowerService::NowNs() const {
    struct timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void PowerService::Log(const std::string& line) {
    if (requestLog_ != nullptr) {
        std::fprintf(requestLog_, "%s\n", line.c_str());
        std::fflush(requestLog_);
    }
}

void PowerService::Serve(RdKvRequest& request) {
    AlarmBook::Outcome outcome = book_.Handle(request.GetMethod(), request.GetPayloadText().c_str(),
                                              request.GetSender().c_str(), NowNs());
    if (outcome.added != 0) {
        // The request stays open: the alarm's notice goes there, and its end ends the alarm.
        const uint32_t id = outcome.added;
        RdKvSubscription& open = requests_[id] =
            request.Subscribe([this, id]() { SubscriptionCancelled(id); });
        open.Reply(outcome.reply);
    } else {
        request.Reply(outcome.reply);
    }
    if (outcome.removed != 0) {
        EndRequest(outcome.removed, AlarmBook::RemovedReply(outcome.removed));
    }
    Log(outcome.logLine);
    ArmTimer();
}

void PowerService::EndRequest(uint32_t id, const std::string& reply) {
    auto it = requests_.find(id);
    if (it == requests_.end()) {
        return;
    }
    RdKvSubscription request(std::move(it->second));
    requests_.erase(it);
    request.ReplyLast(reply);
}

void PowerService::TimerExpired() {
    uint64_t expirations = 0;
    if (read(timerFd_, &expirations, sizeof expirations) != sizeof expirations) {
        return;  // Spurious wake-up: not expired yet.
    }
    for (uint32_t id : book_.TakeDue(NowNs())) {
        Log("fired id=" + std::to_string(id));
        EndRequest(id, AlarmBook::FiredReply(id));
    }
    ArmTimer();
}

void PowerService::ArmTimer() {
    if (timerFd_ < 0) {
        return;
    }
    // Absolute on the timer's clock, which counts as CLOCK_BOOTTIME does; zero disarms.
    const int64_t due = book_.NextDue();
    struct itimerspec spec;
    std::memset(&spec, 0, sizeof spec);
    if (due >= 0) {
        spec.it_value.tv_sec = static_cast<time_t>(due / 1000000000);
        spec.it_value.tv_nsec = static_cast<long>(due % 1000000000);
        if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) {
            spec.it_value.tv_nsec = 1;
        }
    }
    timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr);
}

void PowerService::SubscriptionCancelled(uint32_t id) {
    requests_.erase(id);  // destroys the running callback's subscription: allowed
    book_.Drop(id);
    Log("cancelled id=" + std::to_string(id));
    ArmTimer();
}

}  // namespace powerd
}  // namespace vok
