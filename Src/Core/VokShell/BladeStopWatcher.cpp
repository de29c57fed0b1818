#include "vok/BladeStopWatcher.h"

#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"
#include "vok/VokShell.h"

namespace vok {

BladeStopWatcher::BladeStopWatcher(ServiceBladeEnvironment* environment,
                                   RuntimeDispatcher& dispatcher)
    : pEnvironment_(environment), dispatcher_(dispatcher), stopRequested_(false) {
    monitor_.reset(new RdPortMonitor(*environment->GetControlPort(), dispatcher,
                                     [this](bool, bool, bool) { ReadControlPort(); }));
    monitor_->SetEventMask(true, false, false);
}

BladeStopWatcher::~BladeStopWatcher() = default;

void BladeStopWatcher::ReadControlPort() {
    MmConnectionPort* control = pEnvironment_->GetControlPort();
    MmConnectionMessageHandle msg;
    while (control->ReadMessage(&msg) == kVokErrNone) {
        MmMessageName name;
        msg.GetMessageName(&name);
        if (name == kVokBladeStopEvtMsg) {
            stopRequested_ = true;
            dispatcher_.RequestStop();
        }
        pEnvironment_->GetMmInterface()->FreeMessage(msg);
    }
}

}  // namespace vok
