#include "Src/Utils/RuntimeDispatcher/Linux/RuntimeDispatcherImpl.h"

#include "Src/Utils/VokThrow.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {

RuntimeDispatcherImpl::RuntimeDispatcherImpl(GMainContext* context)
    : context_(context != nullptr ? g_main_context_ref(context) : g_main_context_new()),
      loop_(nullptr) {
    if (context_ != nullptr) {
        loop_ = g_main_loop_new(context_, FALSE);
        if (loop_ != nullptr) {
            return;
        }
        g_main_context_unref(context_);
    }
    VOK_THROW_RESOURCE_ERROR(kVokErrFailed, nullptr);
}

RuntimeDispatcherImpl::~RuntimeDispatcherImpl() {
    if (loop_ != nullptr) {
        g_main_loop_unref(loop_);
    }
    if (context_ != nullptr) {
        g_main_context_unref(context_);
    }
}

void RuntimeDispatcherImpl::Run() {
    if (g_main_loop_is_running(loop_)) {
        return;
    }
    RethrowPending();
    g_main_loop_run(loop_);
    RethrowPending();
}

void RuntimeDispatcherImpl::KeepException(std::exception_ptr exception) noexcept {
    if (!pending_) {
        pending_ = exception;
    }
    g_main_loop_quit(loop_);
}

void RuntimeDispatcherImpl::RethrowPending() {
    if (pending_) {
        std::exception_ptr exception = pending_;
        pending_ = nullptr;
        std::rethrow_exception(exception);
    }
}

void RuntimeDispatcherImpl::RequestStop() {
    if (g_main_loop_is_running(loop_)) {
        g_main_loop_quit(loop_);
    }
}

RuntimeDispatcher::RuntimeDispatcher() : impl_(new RuntimeDispatcherImpl(nullptr)) {}
RuntimeDispatcher::RuntimeDispatcher(RuntimeDispatcherImpl* impl) : impl_(impl) {}
RuntimeDispatcher::~RuntimeDispatcher() {
    delete impl_;
}
void RuntimeDispatcher::Run() {
    impl_->Run();
}
void RuntimeDispatcher::RequestStop() {
    impl_->RequestStop();
}
GMainLoop* RuntimeDispatcher::GetInternalLoop(RuntimeDispatcher& dispatcher) {
    return dispatcher.impl_->GetLoop();
}

GlibRuntimeDispatcher::GlibRuntimeDispatcher(GMainContext* context)
    : RuntimeDispatcher(new RuntimeDispatcherImpl(context)) {}

}  // namespace vok
