// Test helpers: capture of log lines through the logging library's output hook, and a watchdog
// for threaded tests.
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

// One captured line.
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
    // Lines whose message contains text.
    std::vector<LogLine> Matching(const std::string& text) const;
    // Waits until a line contains text; false after limit.
    bool WaitFor(const std::string& text,
                 std::chrono::seconds limit = std::chrono::seconds(60)) const;

  private:
    static void Hook(void* user, int level, const char* context, const char* message);

    mutable std::mutex mutex_;  // Protects lines_.
    mutable std::condition_variable lineAdded_;
    std::vector<LogLine> lines_;
};

// Sets a log context's threshold for the lifetime of a scope, then restores it.
class ScopedLogLevel {
  public:
    ScopedLogLevel(const char* context, int level);
    ~ScopedLogLevel();

  private:
    ZtLogContext* pContext_;
    int previous_;
};

// Aborts the test program with a message if not destroyed within the limit, so a hung threaded
// test fails loudly instead of hanging the suite.
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
