// Calls to bus services from a dispatcher's thread.
#ifndef VOK_RDKVCALL_H
#define VOK_RDKVCALL_H

#include <functional>
#include <string>

#include "vok/VokTypes.h"

// The bus library's handle and message (kelvra/kelvra.h).
typedef struct KVHandle KVHandle;
typedef struct KVMessage KVMessage;

namespace vok {

class RdKvCallImpl;

// One call to a bus service method, with every reply delivered to the callback on the thread of
// the dispatcher the handle belongs to (RuntimeDispatcherImpl's bus handle). A call may get
// several replies (subscriptions) until it is cancelled, replaced by a new Call or the object is
// destroyed. Use on that thread only; the callback may destroy the object or change the callback.
// A lost bus is not an error of the caller: a call open when the bus goes, or made while it is
// away, ends with a last reply {"returnValue":false,"errorCode":18 (KV_ERROR_BUS_UNAVAILABLE),
// "errorText":"The bus is unavailable..."} delivered from the loop; try again later.
class RdKvCallBase : private Uncopyable {
  public:
    // An idle call on handle; nothing is sent until Call.
    RdKvCallBase(KVHandle* handle, std::function<void(KVMessage*)> callback);
    ~RdKvCallBase();

    // Calls "kelvra://" + serviceName + "/" + method with a JSON payload, cancelling an
    // outstanding call first. Throws VokResourceException (kVokErrFailed) when the bus library
    // refuses the call itself (a malformed name, method or payload); never because the bus is
    // away.
    void Call(const std::string& serviceName, const std::string& method,
              const std::string& payload);
    // Call with a deadline for the first reply (0: none, as above). When timeoutMs milliseconds
    // pass without a reply, the call is cancelled (the service learns of it) and the callback
    // gets, from the loop, a last reply {"returnValue":false,"errorCode":20 (KV_ERROR_TIMEOUT),
    // "errorText":"No reply within N ms..."}; a reply that arrives after that never reaches the
    // callback. A subscription that had its first reply in time stays open without a deadline.
    void Call(const std::string& serviceName, const std::string& method, const std::string& payload,
              unsigned int timeoutMs);
    void Cancel();
    void ChangeCb(std::function<void(KVMessage*)> callback);

  private:
    RdKvCallImpl* impl_;  // One reference.
};

// The bus call a dispatcher's users create; see RdKvCallBase.
class RdKvCall : public RdKvCallBase {
  public:
    // See RdKvCallBase.
    RdKvCall(KVHandle* handle, std::function<void(KVMessage*)> callback)
        : RdKvCallBase(handle, std::move(callback)) {}
};

}  // namespace vok

#endif  // VOK_RDKVCALL_H
