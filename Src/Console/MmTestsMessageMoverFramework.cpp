#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "Src/Console/MmTests.h"

namespace voktests {

using vok::MessageMoverFramework;
using vok::MmBaseMessageHandle;
using vok::MmfMessageLink;
using vok::MmfMessageManager;

MessageMoverFramework* MmTestsMessageMoverFramework::m_pMmf = nullptr;
vok::MessageMoverFrameworkImpl* MmTestsMessageMoverFramework::m_pMmfImpl = nullptr;
MmfMessageManager* MmTestsMessageMoverFramework::m_pMsgMgr = nullptr;
vok::MmfMessageList* MmTestsMessageMoverFramework::m_pMsgList = nullptr;
std::vector<vok::MessageMoverInterface*> MmTestsMessageMoverFramework::m_interfaces;

void MmTestsMessageMoverFramework::Install(InteractiveTestManager& manager) {
    static const _Command kCommands[] = {
        {"mmf.init", &Init, "creates a MessageMoverFramework instance."},
        {"mmf.uninit", &Uninit, "destroys MessageMoverFramework instance"},
        {"mmf.addback", &AddBack,
         "adds message to back of list; arg is numeric value to store in message."},
        {"mmf.remfront", &RemFront,
         "removes message from front of list; optional arg: force - forces removal even if list "
         "is empty to test the exception that should be generated."},
        {"mmf.rembogus", &RemBogus,
         "attempt to remove a bogus message from thelist - an exception should result"},
        {"mmf.addmany", &AddMany, "add many messages; args: <# messages> [quiet]"},
        {"mmf.remall", &RemAll, "remove all messages; args: [quiet]"},
        {"mmf.rotate", &Rotate, "rotate messages"},
        {"mmf.listall", &ListAll, "list all messages"},
        {"mmf.rebindall", &RebindAll, "rebind all messages"},
        {"mmf.createiface", &CreateIface,
         "create message mover interface; arg = interface name string"},
        {"mmf.freeiface", &FreeIface, "free message mover interface; arg = iface address"},
    };
    manager.InstallCommands(kCommands, sizeof kCommands / sizeof kCommands[0]);
}

bool MmTestsMessageMoverFramework::RequireMmf() {
    return Require(m_pMmf, "Command requires MMF.");
}

void MmTestsMessageMoverFramework::AppendMessage(long value) {
    MmBaseMessageHandle msg;
    void* payload = m_pMsgMgr->CreateMessage(sizeof value, &msg);
    std::memcpy(payload, &value, sizeof value);
    m_pMsgList->PushBack(MmfMessageManager::GetLinkFromBinding(msg));
}

MmBaseMessageHandle MmTestsMessageMoverFramework::TakeFront() {
    MmfMessageLink* link = m_pMsgList->PeekAtIndex(0);
    m_pMsgList->RemoveAt(*link);
    return MmfMessageManager::GetBindingFromLink(*link);
}

long MmTestsMessageMoverFramework::MessageValue(const MmBaseMessageHandle& msg) {
    uint32_t size = 0;
    const void* payload = MmfMessageManager::GetPayloadPtrFromBinding(msg, &size);
    long value = 0;
    if (size != sizeof value) {
        std::printf("ERROR: payload size is %lu, expected %lu.\n", static_cast<unsigned long>(size),
                    static_cast<unsigned long>(sizeof value));
    }
    std::memcpy(&value, payload, std::min<size_t>(size, sizeof value));
    return value;
}

long MmTestsMessageMoverFramework::DestroyList() {
    long freed = 0;
    while (m_pMsgList->GetCount() > 0) {
        m_pMsgMgr->FreeMessage(TakeFront());
        ++freed;
    }
    delete m_pMsgList;
    m_pMsgList = nullptr;
    return freed;
}

void MmTestsMessageMoverFramework::StopFramework() {
    MessageMoverFramework::StopMessageMoverFramework(m_pMmf);
    m_pMmf = nullptr;
    m_pMmfImpl = nullptr;
    m_pMsgMgr = nullptr;
}

void MmTestsMessageMoverFramework::Init() {
    if (m_pMmf != nullptr) {
        std::puts("MMF already exists.");
        return;
    }
    m_pMmf = MessageMoverFramework::StartMessageMoverFramework("vok-console");
    m_pMmfImpl = static_cast<vok::MessageMoverFrameworkImpl*>(m_pMmf);
    m_pMsgMgr = &m_pMmfImpl->GetMessageMgr();
    std::puts("MMF Created.");
    m_pMsgList = new vok::MmfMessageList();
    std::puts("Message List Created.");
}

void MmTestsMessageMoverFramework::Uninit() {
    if (m_pMmf == nullptr) {
        std::puts("Nothing to destroy.");
        return;
    }
    const long freed = DestroyList();
    if (freed > 0) {
        std::printf("Freed %ld messages left on the list.\n", freed);
    }
    std::puts("Message List Destroyed.");
    // The framework reports the interfaces that were not freed; they are forgotten here.
    m_interfaces.clear();
    StopFramework();
    std::puts("MMF Destroyed.");
}

void MmTestsMessageMoverFramework::Release() {
    if (m_pMmf == nullptr) {
        return;
    }
    DestroyList();
    for (vok::MessageMoverInterface* iface : m_interfaces) {
        m_pMmf->DiscardInterface(iface);
    }
    m_interfaces.clear();
    StopFramework();
}

void MmTestsMessageMoverFramework::AddBack() {
    if (!RequireMmf()) {
        return;
    }
    long value;
    if (!NextSignedArg(LONG_MIN, LONG_MAX, &value)) {
        std::puts("Command requires an integer arg for the value to store in the message.");
        return;
    }
    AppendMessage(value);
    std::printf("Message added; value=%ld; now %ld messages on list.\n", value,
                static_cast<long>(m_pMsgList->GetCount()));
}

void MmTestsMessageMoverFramework::RemFront() {
    if (!RequireMmf()) {
        return;
    }
    if (NextArgIs("force")) {
        std::puts("skipping \"IsEmpty\" check.");
    } else if (m_pMsgList->GetCount() == 0) {
        std::puts("Nothing to remove.");
        return;
    }
    const MmBaseMessageHandle msg = TakeFront();
    std::printf("Removed message; value = %ld; will be deleted.\n", MessageValue(msg));
    m_pMsgMgr->FreeMessage(msg);
}

void MmTestsMessageMoverFramework::RemBogus() {
    if (!RequireMmf()) {
        return;
    }
    // A handle that names no message: the message manager refuses it with a program error.
    const MmBaseMessageHandle bogus;
    m_pMsgList->RemoveAt(MmfMessageManager::GetLinkFromBinding(bogus));
    std::puts("ERROR: expected exception to be thrown, but it wasn't.");
}

void MmTestsMessageMoverFramework::AddMany() {
    if (!RequireMmf()) {
        return;
    }
    unsigned long count;
    if (!NextUnsignedArg(INT32_MAX, &count)) {
        std::puts("Command requires an integer arg for number of messages to add.");
        return;
    }
    const bool quiet = NextArgIs("quiet");
    if (quiet) {
        std::puts("we'll keep mostly quiet while adding messages.");
    }
    const long before = m_pMsgList->GetCount();
    for (unsigned long i = 1; i <= count; ++i) {
        const long value = static_cast<long>(i);
        AppendMessage(value);
        if (!quiet) {
            std::printf("Message added; value=%ld; now %ld messages on list.\n", value,
                        static_cast<long>(m_pMsgList->GetCount()));
        }
    }
    ReportCountAfterAdding(before, static_cast<long>(count), m_pMsgList->GetCount());
}

void MmTestsMessageMoverFramework::RemAll() {
    if (!RequireMmf()) {
        return;
    }
    const bool quiet = NextArgIs("quiet");
    if (quiet) {
        std::puts("we'll keep mostly quiet while adding messages.");
    }
    long removed = 0;
    while (m_pMsgList->GetCount() > 0) {
        const MmBaseMessageHandle msg = TakeFront();
        const long value = MessageValue(msg);
        if (!quiet) {
            std::printf("Removed message; value = %ld; will be deleted.\n", value);
        }
        m_pMsgMgr->FreeMessage(msg);
        ++removed;
    }
    if (m_pMsgList->GetFirst() == nullptr) {
        std::printf("%ld messages removed; list is empty.\n", removed);
    } else {
        std::printf("ERROR: list is not empty after %ld messages removed.\n", removed);
    }
}

void MmTestsMessageMoverFramework::Rotate() {
    if (RequireMmf()) {
        CycleMessages("Rotating %ld messages...\n", false, "%ld messages rotated.\n");
    }
}

void MmTestsMessageMoverFramework::ListAll() {
    if (!RequireMmf()) {
        return;
    }
    long index = 0;
    for (MmfMessageLink* link = m_pMsgList->GetFirst(); link != nullptr;
         link = m_pMsgList->GetNext(*link)) {
        const long value = MessageValue(MmfMessageManager::GetBindingFromLink(*link));
        std::printf("Message #%ld: value=%ld.\n", index++, value);
    }
    std::printf("%ld messages on list.\n", index);
}

void MmTestsMessageMoverFramework::RebindAll() {
    if (RequireMmf()) {
        CycleMessages("Rebinding %ld messages(s)...\n", true, "%ld messages rebound.\n");
    }
}

void MmTestsMessageMoverFramework::CycleMessages(const char* startFormat, bool rebind,
                                                 const char* endFormat) {
    const long count = m_pMsgList->GetCount();
    std::printf(startFormat, count);
    for (long i = 1; i <= count; ++i) {
        MmBaseMessageHandle msg = TakeFront();
        if (rebind) {
            // Off the list: a queued message cannot be rebound.
            MmfMessageManager::RebindMessage(&msg);
        }
        m_pMsgList->PushBack(MmfMessageManager::GetLinkFromBinding(msg));
        ReportProgress(static_cast<unsigned long>(i));
    }
    std::printf(endFormat, count);
}

void MmTestsMessageMoverFramework::CreateIface() {
    if (!RequireMmf()) {
        return;
    }
    const char* name = next_arg();
    if (name == nullptr) {
        std::puts("Command requires an interface name string arg.");
        return;
    }
    vok::MessageMoverInterface* iface = m_pMmf->CreateInterface(name);
    m_interfaces.push_back(iface);
    std::printf("Interface created: addr=<%p>;name=<%s>.\n", static_cast<void*>(iface), name);
}

void MmTestsMessageMoverFramework::FreeIface() {
    if (!RequireMmf()) {
        return;
    }
    void* address;
    if (!NextAddressArg(&address)) {
        std::puts("Command requires an interface address arg (see mmf.createiface).");
        return;
    }
    auto it = std::find(m_interfaces.begin(), m_interfaces.end(), address);
    if (it == m_interfaces.end()) {
        std::printf("No interface created at <%p>.\n", address);
        return;
    }
    vok::MessageMoverInterface* iface = *it;
    m_interfaces.erase(it);
    m_pMmf->DiscardInterface(iface);
    std::printf("Interface freed: addr=<%p>.\n", address);
}

}  // namespace voktests
