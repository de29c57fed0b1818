#include "vok/MmMessageHandle.h"

#include "Src/Core/MessageMover/MmfMessageManager.h"

namespace vok {

namespace {

const uint32_t kMaxProtocolId = 0xBFFF;

}  // namespace

MmBaseMessageHandle::MmBaseMessageHandle(MmfMessageHandleBlock* block, uint16_t bindingNumber)
    : pBlock_(block), bindingNumber_(bindingNumber), isLargeBlock_(false) {
    MMF_TRACE(this);
    MmfMessageManager::MarkLargeBlock(this);
}

uint8_t MmBaseMessageHandle::GetMessageType() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetMsgType();
}

void MmBaseMessageHandle::SetMessageType(uint8_t type) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetMsgType(type);
}

MmMessageName* MmBaseMessageHandle::GetMessageName(MmMessageName* name) const {
    MMF_TRACE(this);
    const MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(*this);
    name->protocolId = header.GetProtocolId();
    name->msgId = header.GetMsgId();
    return name;
}

void MmBaseMessageHandle::SetMessageName(const MmMessageName& name) {
    MMF_TRACE(this);
    MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(*this);
    if (name.protocolId > kMaxProtocolId) {
        MMF_THROW("protocolId is out of bounds.");
    }
    header.SetProtocolId(name.protocolId);
    header.SetMsgId(name.msgId);
}

void* MmBaseMessageHandle::GetPayloadPtr(uint32_t* size) const {
    MMF_TRACE(this);
    return MmfMessageManager::GetPayloadPtrFromBinding(*this, size);
}

MmMessageSerial_t MmBaseMessageHandle::GetMessageSerial() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetSerial();
}

void MmBaseMessageHandle::SetMessageSerial(MmMessageSerial_t serial) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetSerial(serial);
}

MmMessageSerial_t MmBaseMessageHandle::GetInResponseToSerial() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetInResponseToSerial();
}

void MmBaseMessageHandle::SetInResponseToSerial(MmMessageSerial_t serial) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetInResponseToSerial(serial);
}

MmPortAddress_t MmBaseMessageHandle::GetSenderAddress() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetSenderAddress();
}

void MmBaseMessageHandle::SetSenderAddress(MmPortAddress_t address) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetSenderAddress(address);
}

MmPortAddress_t MmBaseMessageHandle::GetDestinationAddress() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetDestAddress();
}

void MmBaseMessageHandle::SetDestinationAddress(MmPortAddress_t address) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetDestAddress(address);
}

uint32_t MmBaseMessageHandle::GetSequenceNumber() const {
    MMF_TRACE(this);
    return MmfMessageManager::GetHeaderFromBinding(*this).GetSequenceNumber();
}

void MmBaseMessageHandle::SetSequenceNumber(uint32_t sequenceNumber) {
    MMF_TRACE(this);
    MmfMessageManager::GetHeaderFromBinding(*this).SetSequenceNumber(sequenceNumber);
}

}  // namespace vok
