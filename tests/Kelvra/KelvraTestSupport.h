// Helpers of the bus tests: the private bus every test program starts, loop stepping, reply
// recording and the test service process.
#ifndef VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H
#define VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H

#include <glib.h>
#include <kelvra/kelvra.h>

#include <functional>
#include <string>
#include <vector>

#include "PrivateBus.h"
#include "support/LoopSupport.h"
#include "vok/JsonToken.h"

namespace vok {
namespace test {

// The private bus of this test program, started before the first test; KELVRA_BUS_ADDRESS
// points at it.
const std::string& TestBusAddress();

// One reply as received.
struct Reply {
    std::string payload;
    bool last;

    // The payload parsed; a failed parse leaves the token unpopulated.
    bool Bool(const char* name) const;
    double Number(const char* name) const;
};

// A reply function that records every reply of one call.
class ReplyLog {
  public:
    static bool Func(KVHandle* handle, KVMessage* reply, void* self);
    std::vector<Reply> replies;
    KVMessageToken token = 0;
};

// A registered handle attached to a context, unregistered on destruction.
class Handle {
  public:
    // serviceName NULL: anonymous. Fails the current test when registration fails.
    explicit Handle(GMainContext* context, const char* serviceName = nullptr);
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    KVHandle* get() const { return handle_; }
    // Calls and records into log; false (error filled) when the call fails. timeoutMs 0: none.
    bool Call(const std::string& uri, const std::string& payload, ReplyLog* log,
              KVError* error = nullptr, uint32_t timeoutMs = 0);
    // Unregisters early.
    void Unregister();

  private:
    KVHandle* handle_ = nullptr;
};

// The test service program in a process of its own, owning serviceName.
class TestService {
  public:
    explicit TestService(const std::string& serviceName);
    void Kill(int signal) { process_.Kill(signal); }
    int Wait() { return process_.Wait(); }

  private:
    ChildProcess process_;
};

// A service name no other test uses.
std::string UniqueServiceName();

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_KELVRA_KELVRATESTSUPPORT_H
