// Not public API. The message-passing subsystem's log contexts.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFDIAG_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFDIAG_H

#include "vok/Logger.h"

namespace vok {

// Accessors of the MessageMover's loggers. Each returns a function-local static Logger created
// on first use (thread-safe) and destroyed at library unload.
class MmfDiag {
  public:
    // "VOK.MessageMover": tracing, errors and the "THROWING EXCEPTION" lines.
    static const Logger& GetLogger();
    // "VOK.MessageMover.Msg.Read": per-message read tracing.
    static const Logger& GetMsgReadLogger();
    // "VOK.MessageMover.Msg.Deliver": per-message delivery tracing.
    static const Logger& GetMsgDeliveryLogger();
    // "VOK.MessageMover.Msg.Write": per-message write tracing.
    static const Logger& GetMsgWriteLogger();
    // "VOK.MessageMover.Leak": leak reports.
    static const Logger& GetLeakLogger();
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFDIAG_H
