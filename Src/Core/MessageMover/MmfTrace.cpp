#include "Src/Core/MessageMover/MmfTrace.h"

namespace vok {

// No MessageMover code runs before the library's own static initialisation is complete.
const Logger& gMmfLogger = MmfDiag::GetLogger();

}  // namespace vok
