// Not public API. Implementation of RdKvCallBase.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVCALLIMPL_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVCALLIMPL_H

#include <kelvra/kelvra.h>

#include <cstdint>
#include <functional>
#include <string>

#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcherImpl;

// Reference-counted bus call; everything runs on the handle's dispatcher thread.
class RdKvCallImpl : public RefCounted {
  public:
    RdKvCallImpl(KVHandle* handle, std::function<void(KVMessage*)> callback);

    void Call(const std::string& serviceName, const std::string& method, const std::string& payload,
              unsigned int timeoutMs);
    void Cancel();
    void ChangeCb(std::function<void(KVMessage*)> callback);
    void Discard();

    static bool CallbackFunc(KVHandle* handle, KVMessage* message, void* data);

  private:
    ~RdKvCallImpl() override = default;

    KVHandle* handle_;  // Not owned.
    std::function<void(KVMessage*)> callback_;
    bool pending_;                       // From a successful KVCall until Cancel.
    KVMessageToken token_;               // The outstanding call.
    RuntimeDispatcherImpl* dispatcher_;  // Receives exceptions of the callback; may be null.
    uint64_t traceId_;  // The call's slice in the flight recorder until its end; 0 for none.
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_RDKVCALLIMPL_H
