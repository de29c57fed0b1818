// Not public API. Typed intrusive lists over the checked linked list.
//
// An object embeds an MmfIntrusiveLinkT and is queued by it, so queueing never allocates. The
// lists do not own their objects and have no lock: their owner serialises access. RemoveAt
// refuses a link of another list with an exception; the checked list stops the process for what
// only corruption explains (a link already linked being added, a corrupt node).
#ifndef VOK_SRC_CORE_MESSAGEMOVER_MMFINTRUSIVELISTTEMPLATE_H
#define VOK_SRC_CORE_MESSAGEMOVER_MMFINTRUSIVELISTTEMPLATE_H

#include <cstdint>

#include "Src/Core/MessageMover/MmfTrace.h"
#include "Src/LinkedList/linked_list.h"

namespace vok {

// The link an object embeds: a checked list node whose parent object is the link itself, and a
// pointer to the embedding object.
template <typename objectType>
class MmfIntrusiveLinkT {
  public:
    // Makes the link an unlinked node owned by owner.
    void Init(objectType* owner) {
        LinkedListNodeInit(&node_, this);
        pOwner_ = owner;
    }
    objectType* GetOwner() const { return pOwner_; }
    // Checks the node's signature.
    bool IsLinked() const { return LinkedListNodeIsLinked(&node_) != 0; }
    LinkedListLinkType* GetNode() { return &node_; }
    const LinkedListLinkType* GetNode() const { return &node_; }

    // The link of a node (NULL for NULL).
    static MmfIntrusiveLinkT* FromNode(LinkedListLinkType* node) {
        return node != nullptr ? static_cast<MmfIntrusiveLinkT*>(LinkedListNodeParentObjGet(node))
                               : nullptr;
    }

  private:
    LinkedListLinkType node_;
    objectType* pOwner_;
};

template <typename objectType>
class MmfIntrusiveListT {
  public:
    typedef MmfIntrusiveLinkT<objectType> Link;

    MmfIntrusiveListT() { LinkedListHeadInit(&head_); }
    MmfIntrusiveListT(const MmfIntrusiveListT&) = delete;
    MmfIntrusiveListT& operator=(const MmfIntrusiveListT&) = delete;

    void PushBack(Link& link) { LinkedListEnqueueTail(&head_, link.GetNode()); }
    void PushFront(Link& link) { LinkedListEnqueueHead(&head_, link.GetNode()); }
    // The front link, taken off the list, or NULL when the list is empty.
    Link* PopFront() { return Link::FromNode(LinkedListDequeueHead(&head_)); }
    Link* GetFirst() { return Link::FromNode(LinkedListGetFirst(&head_)); }
    // The link after link, which must be in this list, or NULL at the end.
    Link* GetNext(Link& link) { return Link::FromNode(LinkedListGetNext(&head_, link.GetNode())); }
    int32_t GetCount() { return LinkedListGetCount(&head_); }

    // Whether link is in this list. Compares addresses only, so a link of another list (or of
    // none) is answered without being touched. Linear; it follows the nodes itself, since the
    // list has no lock callback and its owner serialises access, and leaves the nodes' checks to
    // the operation that follows.
    bool Contains(const Link& link) const {
        for (const LinkedListLinkType* node = head_.firstP; node != nullptr; node = node->next) {
            if (node == link.GetNode()) {
                return true;
            }
        }
        return false;
    }

    // Throws "ERROR: link not on list or invalid link", with nothing changed, for a link that
    // is not in this list.
    void RemoveAt(Link& link) {
        MMF_TRACE(this);
        if (!Contains(link) || LinkedListDequeue(&head_, link.GetNode()) == nullptr) {
            MMF_THROW("ERROR: link not on list or invalid link");
        }
    }

    // The link at a 0-based position, left in place. Linear in index.
    Link* PeekAtIndex(int32_t index) {
        MMF_TRACE(this);
        if (index < 0) {
            MMF_THROW("ERROR: invalid index arg: negative");
        }
        Link* link = GetFirst();
        for (int32_t i = 0; i < index && link != nullptr; ++i) {
            link = GetNext(*link);
        }
        if (link == nullptr) {
            MMF_THROW("ERROR: element index is out of bounds");
        }
        return link;
    }

  private:
    LinkedListHeadType head_;
};

}  // namespace vok

#endif  // VOK_SRC_CORE_MESSAGEMOVER_MMFINTRUSIVELISTTEMPLATE_H
