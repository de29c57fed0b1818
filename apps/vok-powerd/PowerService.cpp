#include "PowerService.h"

#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace vok {
namespace powerd {

PowerService::PowerService(RuntimeDispatcher& dispatcher, KVHandle* handle, FILE* requestLog)
    : handle_(handle), requestLog_(requestLog), clockId_(CLOCK_BOOTTIME_ALARM), timerFd_(-1) {
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
    for (auto& open : requests_) {
        KVMessageUnref(open.second);
    }
}

const char* PowerService::ClockName() const {
    return clockId_ == CLOCK_BOOTTIME_ALARM ? "CLOCK_BOOTTIME_ALARM" : "CLOCK_BOOTTIME";
}

bool PowerService::RegisterMethods(KVError* error) {
    return KVRegisterMethod(handle_, "time/alarmAdd", &PowerService::RequestCb, this, error) &&
           KVRegisterMethod(handle_, "time/alarmRemove", &PowerService::RequestCb, this, error);
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

bool PowerService::RequestCb(KVHandle*, KVMessage* request, void* self) {
    static_cast<PowerService*>(self)->Serve(request);
    return true;
}

void PowerService::Serve(KVMessage* request) {
    AlarmBook::Outcome outcome =
        book_.Handle(KVMessageGetMethod(request), KVMessageGetPayload(request),
                     KVMessageGetSender(request), NowNs());
    if (outcome.added != 0) {
        // The request stays open: the alarm's notice goes there, and its end ends the alarm.
        if (KVSubscriptionAdd(handle_, request, &PowerService::SubscriptionCancelledCb, this,
                              nullptr)) {
            requests_[outcome.added] = KVMessageRef(request);
            KVReply(handle_, request, outcome.reply.c_str(), nullptr);
        } else {
            book_.Drop(outcome.added);
            outcome.logLine += " failed: the request could not be kept open";
            KVReplyLast(
                handle_, request,
                AlarmBook::ErrorReply(kPowerErrTimer, "the request could not be kept open").c_str(),
                nullptr);
        }
    } else {
        KVReplyLast(handle_, request, outcome.reply.c_str(), nullptr);
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
    KVMessage* request = it->second;
    requests_.erase(it);
    KVReplyLast(handle_, request, reply.c_str(), nullptr);
    KVMessageUnref(request);
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

void PowerService::SubscriptionCancelledCb(KVHandle*, KVMessage* request, void* self) {
    PowerService* service = static_cast<PowerService*>(self);
    for (auto it = service->requests_.begin(); it != service->requests_.end(); ++it) {
        if (it->second == request) {
            const uint32_t id = it->first;
            service->requests_.erase(it);
            KVMessageUnref(request);
            service->book_.Drop(id);
            service->Log("cancelled id=" + std::to_string(id));
            service->ArmTimer();
            return;
        }
    }
}

}  // namespace powerd
}  // namespace vok
