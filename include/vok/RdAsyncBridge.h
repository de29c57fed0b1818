// A trigger that may be pulled from any thread and runs a callback on a dispatcher's thread.
#ifndef VOK_RDASYNCBRIDGE_H
#define VOK_RDASYNCBRIDGE_H

#include <functional>

#include "vok/SimpleAsyncInterface.h"
#include "vok/VokTypes.h"

namespace vok {

class RuntimeDispatcher;
class RdAsyncBridgeImpl;

// Trigger may be called from any thread: the callback then runs once on the dispatcher's thread.
// Triggers made before the callback runs coalesce into that one run; a trigger made during the
// callback schedules one more. Create, ChangeCb and destroy on the dispatcher's thread; the
// callback may destroy the bridge. Destroying it drops a pending run, but the owner must make
// sure no other thread triggers it while it is being destroyed. Also the signal sink a
// MessageMover port is given.
class RdAsyncBridgeBase : public SimpleAsyncInterface, private Uncopyable {
  public:
    // A bridge to dispatcher's thread; nothing runs until the first Trigger.
    RdAsyncBridgeBase(RuntimeDispatcher& dispatcher, std::function<void()> callback);
    ~RdAsyncBridgeBase() override;

    // Schedules one run of the callback; callable from any thread.
    void Trigger() override;
    // Replaces the callback; a pending run calls the new one.
    void ChangeCb(std::function<void()> callback);

  private:
    RdAsyncBridgeImpl* impl_;  // One reference.
};

// The bridge a dispatcher's users create; see RdAsyncBridgeBase.
class RdAsyncBridge : public RdAsyncBridgeBase {
  public:
    // See RdAsyncBridgeBase.
    RdAsyncBridge(RuntimeDispatcher& dispatcher, std::function<void()> callback)
        : RdAsyncBridgeBase(dispatcher, std::move(callback)) {}
    ~RdAsyncBridge() override = default;
};

}  // namespace vok

#endif  // VOK_RDASYNCBRIDGE_H
