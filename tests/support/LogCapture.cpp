#include "support/LogCapture.h"

#include <ztlog/ztlog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace vok {
namespace test {

LogCapture::LogCapture() {
    ZtLogSetOutputHook(&LogCapture::Hook, this);
}

LogCapture::~LogCapture() {
    ZtLogSetOutputHook(nullptr, nullptr);
}

void LogCapture::Hook(void* user, int level, const char* context, const char* message) {
    LogCapture* self = static_cast<LogCapture*>(user);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(LogLine{level, context, message});
    self->lineAdded_.notify_all();
}

bool LogCapture::WaitFor(const std::string& text, std::chrono::seconds limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return lineAdded_.wait_for(lock, limit, [&]() {
        return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
            return line.message.find(text) != std::string::npos;
        });
    });
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<LogLine> LogCapture::Matching(const std::string& text) const {
    std::vector<LogLine> result = Lines();
    result.erase(std::remove_if(result.begin(), result.end(),
                                [&](const LogLine& line) {
                                    return line.message.find(text) == std::string::npos;
                                }),
                 result.end());
    return result;
}

ScopedLogLevel::ScopedLogLevel(const char* context, int level) {
    ZtLogContext* ctx = nullptr;
    ZtLogGetContext(context, &ctx);
    previous_ = __atomic_load_n(&ctx->threshold, __ATOMIC_RELAXED);
    // Not ZtLogSetLevel: it would change the contexts under it too, beyond restoring.
    __atomic_store_n(&ctx->threshold, level, __ATOMIC_RELAXED);
    pContext_ = ctx;
}

ScopedLogLevel::~ScopedLogLevel() {
    __atomic_store_n(&pContext_->threshold, previous_, __ATOMIC_RELAXED);
}

Watchdog::Watchdog(std::chrono::seconds limit) {
    thread_ = std::thread([this, limit]() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!cond_.wait_for(lock, limit, [this]() { return done_; })) {
            std::fprintf(stderr, "WATCHDOG: test did not finish within %ld s\n",
                         static_cast<long>(limit.count()));
            std::fflush(stderr);
            std::abort();
        }
    });
}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    cond_.notify_all();
    thread_.join();
}

}  // namespace test
}  // namespace vok
