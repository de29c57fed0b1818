#include "Src/Utils/Linux/ThreadImpl.h"

#include <limits.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "Src/Utils/Linux/UncaughtException.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"
#include "vok/Thread.h"

namespace vok {

namespace {

// The name the operating system shows: the first 15 bytes (its limit), not cutting a UTF-8
// character in two.
std::string OsThreadName(const std::string& name) {
    const size_t kMaxBytes = 15;
    if (name.size() <= kMaxBytes) {
        return name;
    }
    size_t end = kMaxBytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) {
        --end;
    }
    return name.substr(0, end);
}

// bytes rounded up to whole pages, and at least the system's minimum.
size_t UsableStackSize(size_t bytes) {
    const long page = sysconf(_SC_PAGESIZE);
    const size_t pageSize = page > 0 ? static_cast<size_t>(page) : 4096;
    const size_t minimum = PTHREAD_STACK_MIN;
    bytes = bytes < minimum ? minimum : bytes;
    return (bytes + pageSize - 1) / pageSize * pageSize;
}

}  // namespace

ThreadImpl::ThreadImpl(const std::string& name, const std::function<void()>& entry)
    : name_(name),
      thread_(),
      started_(false),
      stackBytes_(kVokDefaultThreadStackBytes),
      entry_(entry),
      running_(false) {}

ThreadImpl::~ThreadImpl() {
    if (!started_) {
        return;
    }
    static const Logger logger("VOK.Thread");
    if (pthread_equal(pthread_self(), thread_)) {
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
    // Named from inside, so the name is in place before any of the thread's own code runs.
    pthread_setname_np(pthread_self(), OsThreadName(self->name_).c_str());
    // An exception must not leave the thread's entry (that ends in std::terminate with no trace
    // of where it came from): name the thread and what was thrown, then stop the process.
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
    // Joinable, normal priority, the chosen stack size. Signals stay as the starting thread has
    // them masked.
    running_.store(true, std::memory_order_relaxed);
    pthread_attr_t attr;
    int result = pthread_attr_init(&attr);
    if (result == 0) {
        if (stackBytes_ != 0) {
            result = pthread_attr_setstacksize(&attr, UsableStackSize(stackBytes_));
        }
        if (result == 0) {
            result = pthread_create(&thread_, &attr, &ThreadImpl::ThreadEntry, this);
        }
        pthread_attr_destroy(&attr);
    }
    if (result != 0) {
        running_.store(false, std::memory_order_relaxed);
        VOK_THROW_RESOURCE_ERROR(kVokErrFailed, nullptr);
    }
    started_ = true;
}

void ThreadImpl::Join() {
    if (!started_) {
        VOK_THROW_PROGRAM_ERROR(kVokErrFailed, nullptr);
    }
    started_ = false;
    (void)pthread_join(thread_, nullptr);
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
void ThreadBase::SetStackSize(size_t bytes) {
    pImpl_->SetStackSize(bytes);
}

}  // namespace vok
