#include "Src/LinkedList/linked_list.h"

#include <cassert>
#include <cstddef>

#include "Src/Utils/VokThrow.h"

// Invariant assertions are written as "((condition)) && (1 || ((explanation)))" so that the
// printed expression carries its explanation; the explanation never changes the result.

namespace vok {

extern "C" {

static void _PrvAtomicLockOrUnlock(LinkedListHeadType* listHeadP, Boolean lock) {
    assert(((listHeadP)) && (1 || (("null arg"))));
    if (listHeadP->lockFn != NULL) {
        listHeadP->lockFn(listHeadP->lockContextP, lock);
    }
}

// Checks the node's identity and, when a head is given, that it is linked.
static void _PrvLinkedListNodeValidate(const LinkedListHeadType* listHeadP,
                                       const LinkedListLinkType* listNodeP) {
    assert(((listNodeP)) && (1 || (("null arg"))));
    assert(((listNodeP->signature == 0xEDFEADDEUL)) && (1 || (("bad list node signature"))));
    if (listHeadP != NULL) {
        assert(((listNodeP->isLinked)) && (1 || (("list node not linked"))));
    }
}

// Returns the slot (the head's first pointer or the previous node's next) that points at the
// node, and the previous node (NULL for the first) in *prevNode.
static LinkedListLinkType** PrvLinkedListNodeFind(LinkedListHeadType* listHeadP,
                                                  LinkedListLinkType* listNodeP,
                                                  LinkedListLinkType** prevNode) {
    VOK_FATAL_CHECK(listHeadP && listNodeP, "NULL arg");
    VOK_FATAL_CHECK(listNodeP->isLinked, "list node not linked");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    _PrvLinkedListNodeValidate(listHeadP, listNodeP);
    if (prevNode != NULL) {
        *prevNode = NULL;
    }
    LinkedListLinkType** slotPP = &listHeadP->firstP;
    while (*slotPP != NULL && *slotPP != listNodeP) {
        if (prevNode != NULL) {
            *prevNode = *slotPP;
        }
        slotPP = &(*slotPP)->next;
    }
    if (*slotPP == NULL) {
        assert(0 && (("list node not found")));
    }
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return slotPP;
}

static void PrvLinkedListEnqueueAt(LinkedListHeadType* listHeadP, LinkedListLinkType** atLinkPP,
                                   LinkedListLinkType* newNodeP) {
    VOK_FATAL_CHECK(listHeadP && atLinkPP && newNodeP, "NULL arg");
    VOK_FATAL_CHECK(!newNodeP->isLinked, "list node already linked");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    _PrvLinkedListNodeValidate(NULL, newNodeP);

    newNodeP->next = *atLinkPP;
    *atLinkPP = newNodeP;
    if (listHeadP->tailP != NULL && atLinkPP != &listHeadP->tailP->next) {
        // Front or middle: the tail is unchanged.
        newNodeP->isLinked = 1;
        listHeadP->numNodes++;
        _PrvAtomicLockOrUnlock(listHeadP, 0);
        return;
    }
    if (listHeadP->tailP == NULL) {
        assert(((listHeadP->numNodes == 0)) && (1 || (("NULL tail -- 0 nodes expected"))));
    } else {
        assert(((listHeadP->numNodes > 0)) && (1 || (("non-NULL tail -- >= 1 nodes expected"))));
    }
    listHeadP->tailP = newNodeP;
    newNodeP->isLinked = 1;
    listHeadP->numNodes++;
    _PrvAtomicLockOrUnlock(listHeadP, 0);
}

void LinkedListHeadInit(LinkedListHeadType* newHeadP) {
    VOK_FATAL_CHECK(newHeadP, "NULL arg");
    newHeadP->firstP = NULL;
    newHeadP->tailP = NULL;
    newHeadP->numNodes = 0;
    newHeadP->lockFn = NULL;
    newHeadP->lockContextP = NULL;
}

void LinkedListNodeInit(LinkedListLinkType* newNodeP, void* parentObjP) {
    VOK_FATAL_CHECK(newNodeP, "NULL arg");
    newNodeP->next = NULL;
    newNodeP->isLinked = 0;
    newNodeP->parentObjP = parentObjP;
    newNodeP->signature = LINKED_LIST_NODE_SIGNATURE;
    _PrvLinkedListNodeValidate(NULL, newNodeP);
}

void* LinkedListNodeParentObjGet(const LinkedListLinkType* nodeP) {
    VOK_FATAL_CHECK(nodeP, "NULL arg");
    _PrvLinkedListNodeValidate(NULL, nodeP);
    return nodeP->parentObjP;
}

Boolean LinkedListNodeIsLinked(const LinkedListLinkType* nodeP) {
    VOK_FATAL_CHECK(nodeP, "NULL arg");
    _PrvLinkedListNodeValidate(NULL, nodeP);
    return nodeP->isLinked;
}

void LinkedListEnqueueHead(LinkedListHeadType* listHeadP, LinkedListLinkType* newNodeP) {
    VOK_FATAL_CHECK(listHeadP && newNodeP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    PrvLinkedListEnqueueAt(listHeadP, &listHeadP->firstP, newNodeP);
    _PrvAtomicLockOrUnlock(listHeadP, 0);
}

void LinkedListEnqueueTail(LinkedListHeadType* listHeadP, LinkedListLinkType* newNodeP) {
    VOK_FATAL_CHECK(listHeadP && newNodeP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    LinkedListLinkType** atLinkPP;
    if (listHeadP->tailP != NULL) {
        assert(((listHeadP->numNodes > 0)) && (1 || (("non-NULL tail -- >= 1 nodes expected"))));
        atLinkPP = &listHeadP->tailP->next;
    } else {
        assert(((listHeadP->numNodes == 0)) && (1 || (("NULL tail -- 0 nodes expected"))));
        atLinkPP = &listHeadP->firstP;
    }
    PrvLinkedListEnqueueAt(listHeadP, atLinkPP, newNodeP);
    _PrvAtomicLockOrUnlock(listHeadP, 0);
}

LinkedListLinkType* LinkedListDequeue(LinkedListHeadType* listHeadP,
                                      LinkedListLinkType* listNodeP) {
    VOK_FATAL_CHECK(listHeadP && listNodeP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    _PrvLinkedListNodeValidate(listHeadP, listNodeP);
    LinkedListLinkType* prevNodeP = NULL;
    LinkedListLinkType** slotPP = PrvLinkedListNodeFind(listHeadP, listNodeP, &prevNodeP);
    *slotPP = listNodeP->next;
    listNodeP->next = NULL;
    if (listHeadP->tailP == listNodeP) {
        listHeadP->tailP = prevNodeP;
    }
    listNodeP->isLinked = 0;
    listHeadP->numNodes--;
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return listNodeP;
}

LinkedListLinkType* LinkedListDequeueHead(LinkedListHeadType* listHeadP) {
    VOK_FATAL_CHECK(listHeadP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    LinkedListLinkType* nodeP = listHeadP->firstP;
    if (nodeP != NULL) {
        LinkedListDequeue(listHeadP, nodeP);
    }
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return nodeP;
}

LinkedListLinkType* LinkedListGetFirst(LinkedListHeadType* listHeadP) {
    VOK_FATAL_CHECK(listHeadP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    LinkedListLinkType* nodeP = listHeadP->firstP;
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return nodeP;
}

LinkedListLinkType* LinkedListGetNext(LinkedListHeadType* listHeadP,
                                      LinkedListLinkType* listNodeP) {
    VOK_FATAL_CHECK(listHeadP && listNodeP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    _PrvLinkedListNodeValidate(listHeadP, listNodeP);
    LinkedListLinkType* nextP = listNodeP->next;
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return nextP;
}

int32_t LinkedListGetCount(LinkedListHeadType* listHeadP) {
    VOK_FATAL_CHECK(listHeadP, "NULL arg");
    _PrvAtomicLockOrUnlock(listHeadP, 1);
    const int32_t count = listHeadP->numNodes;
    _PrvAtomicLockOrUnlock(listHeadP, 0);
    return count;
}

}  // extern "C"

}  // namespace vok
