#include "vok/Logger.h"

#include <ztlog/ztlog.h>

#include <cstdarg>

namespace vok {

const int32_t Logger::aZtLogLevels_[8] = {0, 1, 2, 3, 4, 5, 6, 7};

namespace {

const size_t kMaxDumpLength = 1024;

}  // namespace

Logger::Logger(const char* contextName) : pContext_(nullptr) {
    // On failure the library leaves a context that logs through its default.
    (void)ZtLogGetContext(contextName, &pContext_);
}

#define VOK_LOGGER_PRINT(level)                                 \
    if (!IsEnabled(aZtLogLevels_[level])) {                     \
        return;                                                 \
    }                                                           \
    va_list args;                                               \
    va_start(args, format);                                     \
    ZtLogVPrint(pContext_, aZtLogLevels_[level], format, args); \
    va_end(args)

void Logger::Critical(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelCritical);
}
void Logger::Error(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelError);
}
void Logger::Warning(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelWarning);
}
void Logger::Notice(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelNotice);
}
void Logger::Info(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelInfo);
}
void Logger::Debug(const char* format, ...) const {
    VOK_LOGGER_PRINT(kLogLevelDebug);
}

#undef VOK_LOGGER_PRINT

void Logger::Dump(int32_t level, const void* data, size_t length) const {
    if (!IsEnabled(level)) {
        return;
    }
    ZtLogDumpData(pContext_, level, data, length < kMaxDumpLength ? length : kMaxDumpLength, 0);
}

void Logger::CriticalBin(const void* data, size_t length) const {
    Dump(kLogLevelCritical, data, length);
}
void Logger::DebugBin(const void* data, size_t length) const {
    Dump(kLogLevelDebug, data, length);
}
void Logger::WarningBin(const void* data, size_t length) const {
    Dump(kLogLevelWarning, data, length);
}

void FuncLogger::LogEntering() const {
    if (pObject_ != nullptr) {
        pLogger_->Debug("%s: %p: Entering", pFunctionName_, pObject_);
    } else {
        pLogger_->Debug("%s: Entering", pFunctionName_);
    }
}

void FuncLogger::LogLeaving() const {
    if (pObject_ != nullptr) {
        pLogger_->Debug("%s: %p: Leaving", pFunctionName_, pObject_);
    } else {
        pLogger_->Debug("%s: Leaving", pFunctionName_);
    }
}

}  // namespace vok
