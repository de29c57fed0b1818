// Not public API. Readiness state of a message port and the signal sink it triggers.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H

#include "vok/Mutex.h"
#include "vok/PortEventInterface.h"

namespace vok {

// A port's readable, writable and exception flags, the watch mask and the one registered sink.
// Any thread may call it. SetReadable triggers the sink on the edge from not readable to
// readable, with the state lock (and the delivering thread's locks) held. The sink is not owned.
class MmfPortEventManager : public PortEventInterface {
  public:
    MmfPortEventManager();

    void SetInitialPortState(bool readable, bool writable, bool exception);
    void SetReadable();
    void SetNotReadable();

    void RegisterPortEventSignalSink(SimpleAsyncInterface& sink) override;
    void UnregisterPortEventSignalSink() override;
    void WatchPortEvents(bool readable, bool writable, bool exception) override;
    void GetPortState(bool* readable, bool* writable, bool* exception) override;

  private:
    Mutex stateLock_;  // Protects every field below.
    bool readable_;
    bool writable_;
    bool exception_;
    bool watchReadable_;
    bool watchWritable_;
    bool watchException_;
    SimpleAsyncInterface* pSink_;  // Not owned; NULL when none is registered.
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFPORTEVENTMANAGER_H
