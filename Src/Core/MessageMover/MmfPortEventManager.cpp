#include "Src/Core/MessageMover/MmfPortEventManager.h"

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
    // The last touch of the manager: once it has left, the manager may be gone.
    mgr->triggersInFlight_.Leave();
}

MmfPortEventManager::MmfPortEventManager()
    : readable_(false),
      writable_(false),
      exception_(false),
      watchReadable_(false),
      watchWritable_(false),
      watchException_(false),
      pSink_(nullptr) {
    MMF_TRACE(this);
}

MmfPortEventManager::~MmfPortEventManager() {
    // A trigger in flight is a few instructions on a thread that holds none of our locks; this
    // thread sleeps until it is done, whatever the two threads' priorities.
    triggersInFlight_.WaitIdle();
}

void MmfPortEventManager::SetInitialPortState(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    gMmfLogger.Debug("Initializing port state to: readable=%d; writable=%d; exception=%d.",
                     readable, writable, exception);
    readable_.store(readable, std::memory_order_release);
    writable_.store(writable, std::memory_order_release);
    exception_.store(exception, std::memory_order_release);
}

void MmfPortEventManager::SetReadable(MmfPendingTrigger* pending) {
    MMF_TRACE(this);
    const bool tracing = MmfIsTracing();
    if (tracing) {
        gMmfLogger.Debug("Setting port state to <readable>.");
    }
    if (readable_.exchange(true, std::memory_order_acq_rel) ||
        pSink_.load(std::memory_order_acquire) == nullptr) {
        return;  // Not an edge, or no one to tell.
    }
    // Under the lock, so an unregistering thread either sees this trigger in flight or has
    // already taken the sink away.
    MutexLocker lock(stateLock_);
    SimpleAsyncInterface* const sink = pSink_.load(std::memory_order_relaxed);
    if (sink != nullptr) {
        if (tracing) {
            gMmfLogger.Debug("Triggering Port Event Signal Sink ptr=<%p>.",
                             static_cast<void*>(sink));
        }
        triggersInFlight_.Enter();
        pending->pMgr_ = this;
        pending->pSink_ = sink;
    }
}

void MmfPortEventManager::SetNotReadable() {
    MMF_TRACE(this);
    if (MmfIsTracing()) {
        gMmfLogger.Debug("Setting port state to <not readable>.");
    }
    readable_.store(false, std::memory_order_release);
}

void MmfPortEventManager::RegisterPortEventSignalSink(SimpleAsyncInterface& sink) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    gMmfLogger.Debug("Registering Port Event Signal Sink ptr=<%p>.", static_cast<void*>(&sink));
    if (pSink_.load(std::memory_order_relaxed) != nullptr) {
        MMF_THROW("Port Event Signal Sink was already registered.");
    }
    pSink_.store(&sink, std::memory_order_release);
    watchReadable_ = false;
    watchWritable_ = false;
    watchException_ = false;
}

void MmfPortEventManager::UnregisterPortEventSignalSink() {
    MMF_TRACE(this);
    {
        MutexLocker lock(stateLock_);
        gMmfLogger.Debug("Unregistering Port Event Signal Sink; was ptr=<%p>.",
                         static_cast<void*>(pSink_.load(std::memory_order_relaxed)));
        pSink_.store(nullptr, std::memory_order_release);
        watchReadable_ = false;
        watchWritable_ = false;
        watchException_ = false;
    }
    triggersInFlight_.WaitIdle();
}

void MmfPortEventManager::WatchPortEvents(bool readable, bool writable, bool exception) {
    MMF_TRACE(this);
    MutexLocker lock(stateLock_);
    gMmfLogger.Debug("Watch requested on port states: readable=%d; writable=%d; exception=%d.",
                     readable, writable, exception);
    if (pSink_.load(std::memory_order_relaxed) == nullptr && (readable || writable || exception)) {
        MMF_THROW("Port event watch requested, but Signal Sink is not registered yet.");
    }
    watchReadable_ = readable;
    watchWritable_ = writable;
    watchException_ = exception;
}

void MmfPortEventManager::GetPortState(bool* readable, bool* writable, bool* exception) {
    MMF_TRACE(this);
    const bool r = readable_.load(std::memory_order_acquire);
    const bool w = writable_.load(std::memory_order_acquire);
    const bool e = exception_.load(std::memory_order_acquire);
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
