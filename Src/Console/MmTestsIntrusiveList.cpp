#include <climits>
#include <cstdio>

#include "Src/Console/MmTests.h"

namespace voktests {

MmTestsIntrusiveList::List* MmTestsIntrusiveList::m_pList = nullptr;

void MmTestsIntrusiveList::Install(InteractiveTestManager& manager) {
    static const _Command kCommands[] = {
        {"intrus.addback", &AddBack, "add to end - arg = an integer value for entry - e.g., 5"},
        {"intrus.addmany", &AddMany, "add many entries - arg = number of entries to add"},
        {"intrus.create", &Create, "creates intrusive list."},
        {"intrus.destroy", &Destroy, "destroys intrusive list."},
        {"intrus.list", &ListAll, "list all list elements"},
        {"intrus.rem", &Rem, "remove a specific entry - arg = entry address - see intrus.list."},
        {"intrus.remall", &RemAll, "remove all list elements"},
        {"intrus.remfront", &RemFront, "remove from front."},
        {"intrus.rotate", &Rotate, "rotate the list."},
    };
    manager.InstallCommands(kCommands, sizeof kCommands / sizeof kCommands[0]);
}

bool MmTestsIntrusiveList::RequireList() {
    return Require(m_pList, "Command requires a list.");
}

IntrusiveElement* MmTestsIntrusiveList::Append(int value) {
    IntrusiveElement* element = new IntrusiveElement(value);
    m_pList->PushBack(element->link);
    return element;
}

long MmTestsIntrusiveList::DeleteAll() {
    long deleted = 0;
    while (List::Link* link = m_pList->PopFront()) {
        delete Element(link);
        ++deleted;
    }
    return deleted;
}

void MmTestsIntrusiveList::Create() {
    if (m_pList != nullptr) {
        std::puts("List already exists.");
        return;
    }
    m_pList = new List();
    std::puts("List created.");
}

void MmTestsIntrusiveList::Destroy() {
    if (m_pList == nullptr) {
        std::puts("Nothing to destroy");
        return;
    }
    Release();
    std::puts("List destroyed.");
}

void MmTestsIntrusiveList::Release() {
    if (m_pList == nullptr) {
        return;
    }
    DeleteAll();
    delete m_pList;
    m_pList = nullptr;
}

void MmTestsIntrusiveList::AddBack() {
    if (!RequireList()) {
        return;
    }
    long value;
    if (!NextSignedArg(INT_MIN, INT_MAX, &value)) {
        std::puts("Command requires an integer arg for the entry's value.");
        return;
    }
    IntrusiveElement* element = Append(static_cast<int>(value));
    std::printf("Element <%p> added, now %ld element(s) in list.\n", static_cast<void*>(element),
                static_cast<long>(m_pList->GetCount()));
}

void MmTestsIntrusiveList::AddMany() {
    if (!RequireList()) {
        return;
    }
    unsigned long count;
    if (!NextUnsignedArg(INT32_MAX, &count)) {
        std::puts("Command requires an integer arg for number of entries to add.");
        return;
    }
    const long before = m_pList->GetCount();
    for (unsigned long i = 1; i <= count; ++i) {
        Append(static_cast<int>(i));
    }
    ReportCountAfterAdding(before, static_cast<long>(count), m_pList->GetCount());
}

void MmTestsIntrusiveList::ListAll() {
    if (!RequireList()) {
        return;
    }
    long index = 0;
    for (List::Link* link = m_pList->GetFirst(); link != nullptr; link = m_pList->GetNext(*link)) {
        std::printf("Element #%ld: <%p>, value=%d.\n", index++, static_cast<void*>(Element(link)),
                    Element(link)->value);
    }
    const long count = m_pList->GetCount();
    if (index == count) {
        std::printf("%ld element(s) in list.\n", count);
    } else {
        std::printf("ERROR: %ld element(s) walked, but the list counts %ld.\n", index, count);
    }
}

void MmTestsIntrusiveList::Rem() {
    if (!RequireList()) {
        return;
    }
    void* address;
    if (!NextAddressArg(&address)) {
        std::puts("Command requires an entry address arg - see intrus.list.");
        return;
    }
    // Only an element found on the list is handed to it: a stray address would stop the process.
    List::Link* link = m_pList->GetFirst();
    while (link != nullptr && Element(link) != address) {
        link = m_pList->GetNext(*link);
    }
    if (link == nullptr) {
        std::printf("No element <%p> in list.\n", address);
        return;
    }
    std::printf("Removing element <%p>...\n", address);
    m_pList->RemoveAt(*link);
    delete Element(link);
    std::printf("Element removed, now %ld element(s) in list.\n",
                static_cast<long>(m_pList->GetCount()));
}

void MmTestsIntrusiveList::RemAll() {
    if (!RequireList()) {
        return;
    }
    const long removed = DeleteAll();
    if (m_pList->GetCount() == 0 && m_pList->GetFirst() == nullptr) {
        std::printf("%ld element(s) removed; list is empty.\n", removed);
    } else {
        std::printf("ERROR: list is not empty after %ld element(s) removed.\n", removed);
    }
}

void MmTestsIntrusiveList::RemFront() {
    if (!RequireList()) {
        return;
    }
    List::Link* link = m_pList->PopFront();
    if (link == nullptr) {
        std::puts("Nothing to remove.");
        return;
    }
    IntrusiveElement* element = Element(link);
    std::printf("Element <%p>, value=%d, removed (will be deleted), %ld element(s) left.\n",
                static_cast<void*>(element), element->value,
                static_cast<long>(m_pList->GetCount()));
    delete element;
}

void MmTestsIntrusiveList::Rotate() {
    if (!RequireList()) {
        return;
    }
    const int32_t count = m_pList->GetCount();
    for (int32_t i = 0; i < count; ++i) {
        List::Link* front = m_pList->PopFront();
        m_pList->PushBack(*front);
        if (m_pList->PeekAtIndex(count - 1) != front) {
            std::printf("ERROR: element <%p> is not at index %ld after moving it to the back.\n",
                        static_cast<void*>(Element(front)), static_cast<long>(count - 1));
            return;
        }
    }
    std::printf("%ld element(s) rotated.\n", static_cast<long>(count));
}

}  // namespace voktests
