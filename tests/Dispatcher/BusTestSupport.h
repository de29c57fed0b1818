// Helpers of the dispatcher's bus tests: a private bus for the whole program, loop pumping, a
// fake service on the test's own dispatcher, and vok-powerd as a child process.
#ifndef VOK_TESTS_DISPATCHER_BUSTESTSUPPORT_H
#define VOK_TESTS_DISPATCHER_BUSTESTSUPPORT_H

#include <kelvra/kelvra.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../Kelvra/PrivateBus.h"
#include "vok/RuntimeDispatcher.h"

typedef struct _GMainContext GMainContext;

namespace vok {
namespace test {

// The private bus of the test program (KELVRA_BUS_ADDRESS points at it).
PrivateBus& TestBus();

// Iterates the dispatcher's context until done() holds; rethrows an exception a callback raised.
// Fails the test after limitSeconds.
bool Pump(RuntimeDispatcher& dispatcher, const std::function<bool()>& done, int limitSeconds = 60);

// A service on the bus served from the test's dispatcher: each method answers with a function
// of the request's payload; every request is recorded.
class FakeService {
  public:
    // Answers the request: returns the replies to send (the last one closes the request, unless
    // it is empty: the request then stays open).
    typedef std::function<std::vector<std::string>(const std::string& payload)> Method;

    FakeService(RuntimeDispatcher& dispatcher, const char* serviceName);
    ~FakeService();
    void AddMethod(const std::string& method, Method answer);
    // Payloads received by method, in order.
    std::vector<std::string> Requests(const std::string& method) const;
    // True while the service is on the bus and owns its name.
    bool Connected() const { return KVIsConnected(handle_); }

  private:
    static bool MethodCb(KVHandle* handle, KVMessage* request, void* self);

    KVHandle* handle_ = nullptr;
    std::map<std::string, Method> methods_;
    std::map<std::string, std::vector<std::string>> requests_;
};

// vok-powerd --log as a child process; a reader thread collects its output lines.
class PowerDaemon {
  public:
    PowerDaemon() = default;
    ~PowerDaemon();
    // Starts it and waits until it serves.
    void Start();
    // Kills it with SIGKILL, reaps it and joins the reader.
    void Kill();
    // True when an output line so far contains text.
    bool HasLine(const std::string& text);
    // The number of output lines so far that contain text.
    int CountLines(const std::string& text);
    // Waits (at most 60 s) for such a line.
    bool WaitForLine(const std::string& text);
    // Wakes context at every output line, so that a loop waiting for one re-checks at once.
    void WakeOnLine(GMainContext* context);

  private:
    void Stop(int signal);
    bool HasLineLocked(const std::string& text) const;
    int CountLinesLocked(const std::string& text) const;

    std::unique_ptr<ChildProcess> process_;
    std::thread reader_;
    std::mutex mutex_;  // Protects lines_ and wake_.
    std::condition_variable lineAdded_;
    GMainContext* wake_ = nullptr;
    std::vector<std::string> lines_;
};

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_DISPATCHER_BUSTESTSUPPORT_H
