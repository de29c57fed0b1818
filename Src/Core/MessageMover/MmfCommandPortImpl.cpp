#include "Src/Core/MessageMover/MmfCommandPortImpl.h"

namespace vok {

MmfCommandPortImpl::MmfCommandPortImpl(MmfMessageMoverInterfaceImpl* iface,
                                       MessageMoverFrameworkImpl* framework, MmfPortAddress address)
    : MmfPortImplT(iface, framework, address, 0) {
    MMF_TRACE(this);
    messagePort_.SetInitialPortState(false, true, false);
}

}  // namespace vok
