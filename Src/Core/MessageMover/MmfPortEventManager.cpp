#include "Src/Core/MessageMover/MmfPortEventManager.h"

#include <sched.h>

#include "Src/Core/MessageMover/MmfTrace.h"
#include "vok/SimpleAsyncInterface.h"

namespace vok {

void MmfPendingTrigger::Fire() {
    MmfPortEventManager* const mgr = pMgr_;
    if (mgr == nullptr) {
        return;
    }
    pMgr_ = nullptr;
    try {
        pSink_->Trigger();
    } catch (const std::exception& e) {
        gMmfLogger.Error("Port Event Signal Sink ptr=<%p> failed to trigger: %s",
                         static_cast<void*>(pSink_), e.what());
    }
    // The last touch of the manager: once it is down, the manager may be gone.
    mgr->triggersInFlight_.fetch_sub(1, std::memory_order_release);
}

MmfPortEventManager::MmfPortEventManager()
    : readable_(false),
      writable_(false),
      exception_(false),
      watchReadable_(false),
      watchWritable_(false),
      watchException_(false),
      pSink_(nullptr),
      triggersInFlight_(0) {
    MMF_TRACE(this);
}

MmfPortEventManager::~MmfPortEventManager() {
    WaitForTriggersInFlight();
}

void MmfPortEventManager::WaitForTriggersInFlight() const {
    // A trigger in flight is a few instructions on a thread that holds none of our locks; let it
    // run (on one core it needs this thread's slice).
    while (triggersInFlight_.load(std::memory_order_acquire) != 0) {
        sched_yield();
    }
}

void MmfPortEventManager::SetInitialPortState(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    gMmfLogger.Debug("Initializing port state to: readable=%d; writable=%d; exception=%d.",
                     readable, writable, exception);
    readable_ = readable;
    writable_ = writable;
    exception_ = exception;
}

void MmfPortEventManager::SetReadable(MmfPendingTrigger* pending) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    const bool tracing = MmfIsTracing();
    if (tracing) {
        gMmfLogger.Debug("Setting port state to <readable>.");
    }
    const bool wasReadable = readable_;
    readable_ = true;
    if (!wasReadable && pSink_ != nullptr) {
        if (tracing) {
            gMmfLogger.Debug("Triggering Port Event Signal Sink ptr=<%p>.",
                             static_cast<void*>(pSink_));
        }
        triggersInFlight_.fetch_add(1, std::memory_order_relaxed);
        pending->pMgr_ = this;
        pending->pSink_ = pSink_;
    }
}

void MmfPortEventManager::SetNotReadable() {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    if (MmfIsTracing()) {
        gMmfLogger.Debug("Setting port state to <not readable>.");
    }
    readable_ = false;
}

void MmfPortEventManager::RegisterPortEventSignalSink(SimpleAsyncInterface& sink) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    gMmfLogger.Debug("Registering Port Event Signal Sink ptr=<%p>.", static_cast<void*>(&sink));
    if (pSink_ != nullptr) {
        MMF_THROW("Port Event Signal Sink was already registered.");
    }
    pSink_ = &sink;
    watchReadable_ = false;
    watchWritable_ = false;
    watchException_ = false;
}

void MmfPortEventManager::UnregisterPortEventSignalSink() {
    MMF_TRACE(this);
    {
        MutexLocker lock(stateLock_);
        gMmfLogger.Debug("Unregistering Port Event Signal Sink; was ptr=<%p>.",
                         static_cast<void*>(pSink_));
        pSink_ = nullptr;
        watchReadable_ = false;
        watchWritable_ = false;
        watchException_ = false;
    }
    WaitForTriggersInFlight();
}

void MmfPortEventManager::WatchPortEvents(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    gMmfLogger.Debug("Watch requested on port states: readable=%d; writable=%d; exception=%d.",
                     readable, writable, exception);
    if (pSink_ == nullptr && (readable || writable || exception)) {
        MMF_THROW("Port event watch requested, but Signal Sink is not registered yet.");
    }
    watchReadable_ = readable;
    watchWritable_ = writable;
    watchException_ = exception;
}

void MmfPortEventManager::GetPortState(bool* readable, bool* writable, bool* exception) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    const bool r = readable_;
    const bool w = writable_;
    const bool e = exception_;
    if (readable != nullptr) {
        *readable = r;
    }
    if (writable != nullptr) {
        *writable = w;
    }
    if (exception != nullptr) {
        *exception = e;
    }
    gMmfLogger.Debug("Port state was: readable=%d; writable=%d; exception=%d.", r, w, e);
}

}  // namespace vok
