// Logging through the platform logging library (ztlog), with scoped function tracing.
#ifndef VOK_LOGGER_H
#define VOK_LOGGER_H

#include <cstddef>
#include <cstdint>

struct ZtLogContext;

namespace vok {

// Platform level numbers used by the framework (syslog meanings).
enum LogLevel : int32_t {
    kLogLevelCritical = 2,
    kLogLevelError = 3,
    kLogLevelWarning = 4,
    kLogLevelNotice = 5,
    kLogLevelInfo = 6,
    kLogLevelDebug = 7,
};

// A level-filtered front end to one named log context. Any thread may use a Logger; it is
// copyable, and destroying it does nothing (the context belongs to the logging library).
// A disabled level costs one load and one comparison: nothing is formatted.
class Logger {
  public:
    // Identity table of the platform's eight levels.
    static const int32_t aZtLogLevels_[8];

    // Looks up (or creates) the log context called contextName.
    explicit Logger(const char* contextName);

    // True when a message at level would be written; the threshold is read at every call, so
    // changes at run time take effect at once.
    bool IsEnabled(int32_t level) const {
        return pContext_ == nullptr || __atomic_load_n(reinterpret_cast<const int32_t*>(pContext_),
                                                       __ATOMIC_RELAXED) >= level;
    }

    // printf-style messages at each level, written when that level is enabled.
    void Critical(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Notice(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    // Hex dumps of at most the first 1024 bytes.
    void CriticalBin(const void* data, size_t length) const;
    void DebugBin(const void* data, size_t length) const;
    void WarningBin(const void* data, size_t length) const;

  private:
    void Dump(int32_t level, const void* data, size_t length) const;

    ZtLogContext* pContext_;
};

// Writes "NAME: OBJ: Entering" at debug level when constructed and "NAME: OBJ: Leaving" when
// destroyed (without "OBJ: " when the object is null), so the leaving line appears on every exit
// path, exceptions included. Lives on one thread's stack; the logger must outlive it.
class FuncLogger {
  public:
    // Logs the entering line; object may be null.
    FuncLogger(const Logger& logger, const char* functionName, const void* object)
        : pLogger_(&logger), pFunctionName_(functionName), pObject_(object) {
        if (pLogger_->IsEnabled(kLogLevelDebug)) {
            LogEntering();
        }
    }
    ~FuncLogger() {
        if (pLogger_->IsEnabled(kLogLevelDebug)) {
            LogLeaving();
        }
    }
    FuncLogger(const FuncLogger&) = delete;
    FuncLogger& operator=(const FuncLogger&) = delete;

  private:
    void LogEntering() const;
    void LogLeaving() const;

    const Logger* pLogger_;
    const char* pFunctionName_;
    const void* pObject_;
};

}  // namespace vok

#endif  // VOK_LOGGER_H
