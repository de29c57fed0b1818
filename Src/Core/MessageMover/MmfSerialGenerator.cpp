#include "Src/Core/MessageMover/MmfSerialGenerator.h"

#include "Src/Core/MessageMover/MmfTrace.h"

namespace vok {

uint32_t MmfSerialGenerator::GetNext() {
    MMF_TRACE(this);
    // Unsigned atomic addition wraps: exactly one caller sees 0, and the next one gets 1.
    const uint32_t value = value_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (value == 0) {
        throw VokResourceException("MmfSerialGenerator::GetNext - serial number wrap-around",
                                   kVokErrUnspecified);
    }
    return value;
}

}  // namespace vok
