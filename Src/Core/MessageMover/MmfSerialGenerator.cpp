#include "Src/Core/MessageMover/MmfSerialGenerator.h"

#include "Src/Core/MessageMover/MmfTrace.h"

namespace vok {

uint32_t MmfSerialGenerator::GetNext() {
    MMF_TRACE(this);
    MutexLocker lock(mutex_);
    if (++value_ == 0) {
        throw VokResourceException("MmfSerialGenerator::GetNext - serial number wrap-around",
                                   kVokErrUnspecified);
    }
    return value_;
}

}  // namespace vok
