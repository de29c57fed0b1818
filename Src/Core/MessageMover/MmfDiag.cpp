#include "Src/Core/MessageMover/MmfDiag.h"

namespace vok {

const Logger& MmfDiag::GetLogger() {
    static const Logger logger("VOK.MessageMover");
    return logger;
}

const Logger& MmfDiag::GetMsgReadLogger() {
    static const Logger logger("VOK.MessageMover.Msg.Read");
    return logger;
}

const Logger& MmfDiag::GetMsgDeliveryLogger() {
    static const Logger logger("VOK.MessageMover.Msg.Deliver");
    return logger;
}

const Logger& MmfDiag::GetMsgWriteLogger() {
    static const Logger logger("VOK.MessageMover.Msg.Write");
    return logger;
}

const Logger& MmfDiag::GetLeakLogger() {
    static const Logger logger("VOK.MessageMover.Leak");
    return logger;
}

}  // namespace vok
