#include "Src/Utils/Linux/ThreadImpl.h"

#include <glib.h>

#include <cstdlib>
#include <exception>

#include "Src/Utils/Linux/UncaughtException.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"
#include "vok/Thread.h"

namespace vok {

ThreadImpl::ThreadImpl(const std::string& name, const std::function<void()>& entry)
    : name_(name), pThread_(nullptr), entry_(entry), running_(false) {}

ThreadImpl::~ThreadImpl() {
    if (pThread_ == nullptr) {
        return;
    }
    static const Logger logger("VOK.Thread");
    if (g_thread_self() == pThread_) {
        logger.Critical("Thread <%s> destroyed its own thread object while running; aborting",
                        name_.c_str());
        abort();
    }
    if (running_.load(std::memory_order_acquire)) {
        logger.Critical("Thread <%s> destroyed while its thread runs; joining it first",
                        name_.c_str());
    }
    Join();
}

void* ThreadImpl::ThreadEntry(void* data) {
    ThreadImpl* self = static_cast<ThreadImpl*>(data);
    // An exception must not leave into GLib's thread code (that ends in std::terminate with no
    // trace of where it came from): name the thread and what was thrown, then stop the process.
    // An empty callable raises std::bad_function_call here, on the new thread.
    try {
        self->entry_();
    } catch (...) {
        static const Logger logger("VOK.Thread");
        const std::string what = "Thread <" + self->name_ + "> ended by an exception";
        AbortOnException(logger, what.c_str(), std::current_exception());
    }
    self->running_.store(false, std::memory_order_release);
    return nullptr;
}

void ThreadImpl::Start() {
    GError* error = nullptr;
    // Joinable, default stack size, normal priority; no name, so the OS thread keeps the
    // process's name.
    running_.store(true, std::memory_order_relaxed);
    GThread* thread = g_thread_try_new(nullptr, &ThreadImpl::ThreadEntry, this, &error);
    if (thread == nullptr) {
        running_.store(false, std::memory_order_relaxed);
        if (error != nullptr) {
            g_error_free(error);
        }
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, nullptr);
    }
    pThread_ = thread;
}

void ThreadImpl::Join() {
    if (pThread_ == nullptr) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, nullptr);
    }
    GThread* thread = pThread_;
    pThread_ = nullptr;
    (void)g_thread_join(thread);
}

ThreadBase::ThreadBase(const std::string& name, const std::function<void()>& entry)
    : pImpl_(new ThreadImpl(name, entry)) {}
ThreadBase::~ThreadBase() {
    delete pImpl_;
}
void ThreadBase::Start() {
    pImpl_->Start();
}
void ThreadBase::Join() {
    pImpl_->Join();
}
const std::string& ThreadBase::GetName() const {
    return pImpl_->GetName();
}

}  // namespace vok
