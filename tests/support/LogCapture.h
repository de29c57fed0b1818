// Capture of log lines, and a watchdog for threaded tests.
#ifndef VOK_TESTS_SUPPORT_LOGCAPTURE_H
#define VOK_TESTS_SUPPORT_LOGCAPTURE_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ZtLogContext;

namespace vok {
namespace test {

struct LogLine {
    int level;
    std::string context;
    std::string message;
};

// Sends every log line to this object while it lives (and not to stderr). One at a time.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    std::vector<LogLine> Matching(const std::string& text) const;  // Messages containing text.
    // Waits until a message contains text; false after limit.
    bool WaitFor(const std::string& text,
                 std::chrono::seconds limit = std::chrono::seconds(60)) const;

  private:
    static void Hook(void* user, int level, const char* context, const char* message);

    mutable std::mutex mutex_;  // Protects lines_.
    mutable std::condition_variable lineAdded_;
    std::vector<LogLine> lines_;
};

// Sets one log context's threshold for the lifetime of a scope.
class ScopedLogLevel {
  public:
    ScopedLogLevel(const char* context, int level);
    ~ScopedLogLevel();

  private:
    ZtLogContext* pContext_;
    int previous_;
};

// Aborts the test program if not destroyed within the limit.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit = std::chrono::seconds(120));
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex_;  // Protects done_.
    std::condition_variable cond_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_LOGCAPTURE_H
