#include "vok/MmMessageHandle.h"

#include "Src/Core/MessageMover/MmfTrace.h"

namespace vok {

void MmCommandMessageHandle::SetMessageName(const MmMessageName& name) {
    MMF_TRACE(this);
    // 0 to 3 wrap around to large values, so one comparison checks 4 to 0xBFFF.
    if (name.protocolId - 4u > 0xBFFBu) {
        MMF_THROW("protocolId is out of end-user bounds.");
    }
    MmBaseMessageHandle::SetMessageName(name);
}

}  // namespace vok
