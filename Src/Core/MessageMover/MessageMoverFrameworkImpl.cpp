#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"

#include <memory>

#include "Src/Core/MessageMover/MmfMessageMoverInterfaceImpl.h"

namespace vok {

MessageMoverFramework* MessageMoverFramework::StartMessageMoverFramework(
    const std::string& /*name*/) {
    MMF_TRACE(nullptr);
    return new MessageMoverFrameworkImpl();
}

void MessageMoverFramework::StopMessageMoverFramework(MessageMoverFramework* framework) {
    MMF_TRACE(nullptr);
    if (framework == nullptr) {
        return;
    }
    MessageMoverFrameworkImpl* impl = static_cast<MessageMoverFrameworkImpl*>(framework);
    impl->ShutDown();
    delete impl;
}

MessageMoverFrameworkImpl::MessageMoverFrameworkImpl()
    : managersReady_(false),
      shutDown_(false),
      messageMgr_(*this),
      connectionMgr_(*this),
      ifaceTracker_("VOK Daemon", "MessageMoverInterface", &GetIfaceInfoForObjectTracker) {
    MMF_TRACE(this);
    managersReady_ = true;
    // Both initialisations before both deployments: the connection manager's Init fetches the
    // message manager.
    messageMgr_.Init();
    connectionMgr_.Init();
    messageMgr_.Deploy();
    connectionMgr_.Deploy();
}

MessageMoverFrameworkImpl::~MessageMoverFrameworkImpl() {
    MMF_TRACE(this);
}

MessageMoverInterface* MessageMoverFrameworkImpl::CreateInterface(const std::string& name) {
    MMF_TRACE(this);
    // Owned here until the tracker holds it: a failing Track destroys it again.
    std::unique_ptr<MmfMessageMoverInterfaceImpl> iface(
        new MmfMessageMoverInterfaceImpl(this, name));
    ifaceTracker_.Track(iface.get());
    return iface.release();
}

bool MessageMoverFrameworkImpl::TakeInterfaceName(const std::string& name) {
    MutexLocker lock(namesLock_);
    return ++liveNames_[name] == 1;
}

void MessageMoverFrameworkImpl::GiveBackInterfaceName(const std::string& name) {
    MutexLocker lock(namesLock_);
    const std::map<std::string, int32_t>::iterator it = liveNames_.find(name);
    if (it != liveNames_.end() && --it->second == 0) {
        liveNames_.erase(it);
    }
}

void MessageMoverFrameworkImpl::DiscardInterface(MessageMoverInterface* iface) {
    MMF_TRACE(this);
    if (iface == nullptr) {
        MMF_THROW("Null arg.");
    }
    ifaceTracker_.Untrack(iface);  // Before anything follows the pointer.
    delete static_cast<MmfMessageMoverInterfaceImpl*>(iface);
}

std::vector<MmPortInfo> MessageMoverFrameworkImpl::ListPorts() {
    MMF_TRACE(this);
    return connectionMgr_.ListPorts();
}

void MessageMoverFrameworkImpl::ShutDown() {
    MMF_TRACE(this);
    ifaceTracker_.ReportLeaks();
    messageMgr_.ReportQuarantine();
    shutDown_ = true;
}

MmfMessageManager& MessageMoverFrameworkImpl::GetMessageMgr() {
    MMF_TRACE(this);
    if (!managersReady_) {
        MMF_THROW("MmfMessageMgr is not ready for access");
    }
    return messageMgr_;
}

MmfConnectionManager& MessageMoverFrameworkImpl::GetConnectionMgr() {
    MMF_TRACE(this);
    if (!managersReady_) {
        MMF_THROW("MmfConnectionMgr is not ready for access");
    }
    return connectionMgr_;
}

std::string MessageMoverFrameworkImpl::GetIfaceInfoForObjectTracker(
    const MmfMessageMoverInterfaceImpl& iface) {
    return iface.GetName();
}

}  // namespace vok
