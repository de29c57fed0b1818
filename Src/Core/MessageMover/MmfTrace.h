// Not public API. Tracing and logged throws of the MessageMover, on its "VOK.MessageMover"
// context.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFTRACE_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFTRACE_H

#include "Src/Core/MessageMover/MmfDiag.h"
#include "Src/Utils/VokThrow.h"
#include "vok/Logger.h"

namespace vok {

// MmfDiag::GetLogger(), fetched once when the library is loaded: tracing runs on every message
// operation, and with debug off it should cost no more than the threshold test.
extern const Logger& gMmfLogger;

// True when debug lines of the MessageMover are written.
inline bool MmfIsTracing() {
    return gMmfLogger.IsEnabled(kLogLevelDebug);
}

}  // namespace vok

// Writes the "Entering" and "Leaving" debug lines of the enclosing function; object is normally
// this, NULL in static functions.
#define MMF_TRACE(object) const ::vok::FuncLogger mmfTrace_(::vok::gMmfLogger, __func__, (object))

// Logs the "THROWING EXCEPTION" critical line, then throws VokProgramErrorException with
// kVokErrUnspecified and "function:path:line:text".
#define MMF_THROW(text) VOK_THROW_LOGGED_PROGRAM_ERROR(::vok::gMmfLogger, (text))

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFTRACE_H
