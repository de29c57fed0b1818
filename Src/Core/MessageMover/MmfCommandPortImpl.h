// Not public API. The command port.
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFCOMMANDPORTIMPL_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFCOMMANDPORTIMPL_H

#include "Src/Core/MessageMover/MmfPortImplTemplate.h"

namespace vok {

// An addressable mailbox; the user addresses what it writes. Threads, ownership and destruction
// as MmfPortImplT.
class MmfCommandPortImpl : public MmfPortImplT<MmCommandPort, MmCommandMessageHandle> {
  public:
    MmfCommandPortImpl(MmfMessageMoverInterfaceImpl* iface, MessageMoverFrameworkImpl* framework,
                       MmfPortAddress address);

    MmPortAddress_t GetAddress() const override {
        RequireInterface();
        return messagePort_.GetAddress();
    }
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFCOMMANDPORTIMPL_H
