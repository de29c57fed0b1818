// Bus test helpers: the program's private bus, reply-recording handles, a fake service on a
// dispatcher, and vok-powerd as a child process.
#ifndef VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H
#define VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H

#include <glib.h>
#include <kelvra/kelvra.h>
#include <signal.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PrivateBus.h"
#include "support/LoopSupport.h"

namespace vok {
namespace test {

// The private bus of this test program; KELVRA_BUS_ADDRESS points at it.
PrivateBus& TestBus();

struct Reply {
    std::string payload;
    bool last;
    // A field of the payload (a JSON object).
    bool Bool(const char* name) const;
    double Number(const char* name) const;
};

// Records every reply of one call.
struct ReplyLog {
    static bool Func(KVHandle* handle, KVMessage* reply, void* self);
    std::vector<Reply> replies;
    KVMessageToken token = 0;
};

// A registered handle attached to a context, unregistered on destruction.
class Handle {
  public:
    // serviceName NULL: anonymous. Fails the test when registration fails.
    explicit Handle(GMainContext* context, const char* serviceName = nullptr);
    ~Handle() { Unregister(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    KVHandle* get() const { return handle_; }
    // false (error filled) when the call fails. timeoutMs 0: none.
    bool Call(const std::string& uri, const std::string& payload, ReplyLog* log,
              KVError* error = nullptr, uint32_t timeoutMs = 0);
    void Unregister();

  private:
    KVHandle* handle_ = nullptr;
};

// Waits (at most 60 s) until serviceName is owned on the bus; false when it is not by then.
bool WaitForService(const std::string& serviceName);

// A service served from a dispatcher's loop: each method answers with a function of the request's
// payload; every request is recorded.
class FakeService {
  public:
    // The replies to send; the last closes the request unless it is empty (the request stays open).
    typedef std::function<std::vector<std::string>(const std::string& payload)> Method;

    FakeService(RuntimeDispatcher& dispatcher, const char* serviceName);
    void AddMethod(const std::string& method, Method answer);
    std::vector<std::string> Requests(const std::string& method) { return requests_[method]; }
    bool Connected() const { return KVIsConnected(handle_.get()); }

  private:
    static bool MethodCb(KVHandle* handle, KVMessage* request, void* self);

    Handle handle_;
    std::map<std::string, Method> methods_;
    std::map<std::string, std::vector<std::string>> requests_;
};

// vok-powerd --log, started by the constructor, which waits until it serves; a reader thread
// collects its output lines (and wakes wake, when given, at each). Destruction: Stop(SIGTERM).
class PowerDaemon {
  public:
    explicit PowerDaemon(GMainContext* wake = nullptr);
    ~PowerDaemon() { Stop(SIGTERM); }
    // SIGSTOP: alive and on the bus, but deaf; Signal(SIGCONT) wakes it.
    void Pause() { process_.Pause(); }
    void Signal(int signal) { process_.Kill(signal); }
    // Ends it with signal, reaps it and joins the reader.
    void Stop(int signal);
    // Output lines so far that contain text; waits (at most 60 s) until count lines do.
    int CountLines(const std::string& text);
    bool WaitForLine(const std::string& text, int count = 1);

  private:
    int CountLinesLocked(const std::string& text) const;

    ChildProcess process_;
    GMainContext* const wake_;
    std::thread reader_;
    std::mutex mutex_;  // guards lines_
    std::condition_variable lineAdded_;
    std::vector<std::string> lines_;
};

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H
