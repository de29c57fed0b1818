// Not public API. The user callback of a dispatcher object.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDCALLBACK_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDCALLBACK_H

#include <functional>
#include <utility>
#include <vector>

namespace vok {

template <typename Signature>
class RdCallback;

// Holds a user callback that may be replaced from inside its own call (ChangeCb in the
// callback). A callable replaced while a call runs is kept until the outermost call returns, so
// the running code and its captures stay valid. Used on the dispatcher's thread only.
template <typename... Args>
class RdCallback<void(Args...)> {
  public:
    explicit RdCallback(std::function<void(Args...)> callback) : current_(std::move(callback)) {}
    RdCallback(const RdCallback&) = delete;
    RdCallback& operator=(const RdCallback&) = delete;

    void Replace(std::function<void(Args...)> callback) {
        if (depth_ > 0) {
            retired_.push_back(std::move(current_));
        }
        current_ = std::move(callback);  // Destroys the old one when nothing runs it.
    }

    // Raises std::bad_function_call when the callback is empty.
    void operator()(Args... args) {
        CallScope scope(this);
        current_(args...);
    }

  private:
    class CallScope {
      public:
        explicit CallScope(RdCallback* owner) : owner_(owner) { ++owner_->depth_; }
        ~CallScope() {
            if (--owner_->depth_ == 0) {
                owner_->retired_.clear();
            }
        }
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;

      private:
        RdCallback* owner_;
    };

    std::function<void(Args...)> current_;
    int depth_ = 0;  // Calls in progress (a callback may step the loop itself).
    // Callables replaced during a call; released when the outermost call returns.
    std::vector<std::function<void(Args...)>> retired_;
};

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_RDCALLBACK_H
