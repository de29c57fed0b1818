// Not public API. Readiness state of a message port and the signal sink it triggers.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H

#include <atomic>

#include "Src/Utils/Linux/InFlightGate.h"
#include "vok/Mutex.h"
#include "vok/PortEventInterface.h"

namespace vok {

class MmfPortEventManager;

// A sink trigger decided while a delivery holds its locks, and fired once the delivery has let
// go of them, so the woken thread never finds them taken. Used on the delivering thread only.
// Fire fires it at most once; destroying it fires it if it has not been. A sink that throws
// from Trigger is logged and the delivery goes on.
class MmfPendingTrigger {
  public:
    MmfPendingTrigger() : pMgr_(nullptr), pSink_(nullptr) {}
    ~MmfPendingTrigger() { Fire(); }
    MmfPendingTrigger(const MmfPendingTrigger&) = delete;
    MmfPendingTrigger& operator=(const MmfPendingTrigger&) = delete;

    void Fire();

  private:
    friend class MmfPortEventManager;
    MmfPortEventManager* pMgr_;  // NULL when there is nothing to fire.
    SimpleAsyncInterface* pSink_;
};

// A port's readable, writable and exception flags, the watch mask and the one registered sink.
// Any thread may call it. SetReadable arms a pending trigger of the sink on the edge from not
// readable to readable; the caller fires it after letting go of its locks. Unregistering the sink
// and destroying the manager wait for triggers in flight, so a sink is never triggered after
// UnregisterPortEventSignalSink returns. The sink is not owned.
class MmfPortEventManager : public PortEventInterface {
  public:
    MmfPortEventManager();
    ~MmfPortEventManager() override;

    void SetInitialPortState(bool readable, bool writable, bool exception);
    // The port calls these two under its reader lock only, so they never race each other.
    void SetReadable(MmfPendingTrigger* pending);
    void SetNotReadable();

    void RegisterPortEventSignalSink(SimpleAsyncInterface& sink) override;
    void UnregisterPortEventSignalSink() override;
    void WatchPortEvents(bool readable, bool writable, bool exception) override;
    void GetPortState(bool* readable, bool* writable, bool* exception) override;
    bool IsReadable() const { return readable_.load(std::memory_order_acquire); }
    bool HasSignalSink() const { return pSink_.load(std::memory_order_acquire) != nullptr; }

  private:
    friend class MmfPendingTrigger;

    // The state flags are atomics, so a message passing costs no lock here unless it makes the
    // port readable while a sink is registered.
    std::atomic<bool> readable_;
    std::atomic<bool> writable_;
    std::atomic<bool> exception_;
    Mutex stateLock_;  // Protects the watch flags, and every change of pSink_.
    bool watchReadable_;
    bool watchWritable_;
    bool watchException_;
    // Not owned; NULL when none is registered. Read without the lock only to skip taking it.
    std::atomic<SimpleAsyncInterface*> pSink_;
    // Pending triggers armed and not yet fired; entered under stateLock_, left without it.
    InFlightGate triggersInFlight_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H
