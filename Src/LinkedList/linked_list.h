// Not public API. A checked, intrusive, singly linked list with C linkage.
//
// Nodes live inside their owners; the list never allocates. Every node carries a signature and
// knows whether it is linked; every operation checks its arguments and the list's invariants and
// stops the process on the first violation (a fatal line on stderr and abort, or a failed
// assertion). The list holds no lock of its own: an optional callback in the head is called to
// lock and unlock around every operation and must be re-entrant.
#ifndef VOK_SRC_LINKEDLIST_LINKED_LIST_H
#define VOK_SRC_LINKEDLIST_LINKED_LIST_H

#include <cstdint>

#include "vok/VokTypes.h"

namespace vok {

extern "C" {

// Signature of an initialised node.
#define LINKED_LIST_NODE_SIGNATURE 0xEDFEADDEUL

typedef struct LinkedListLinkTypeTag {
    uint32_t signature;                  // LINKED_LIST_NODE_SIGNATURE once initialised.
    struct LinkedListLinkTypeTag* next;  // Next node, NULL at the tail.
    Boolean isLinked;                    // 1 while reachable from a head.
    void* parentObjP;                    // The object that embeds the node.
} LinkedListLinkType;

// Called with lock 1 before and 0 after each operation's work; must be recursive.
typedef void (*LinkedListLockFuncType)(void* lockContextP, Boolean lock);

typedef struct LinkedListHeadTypeTag {
    LinkedListLinkType* firstP;     // First node, NULL when empty.
    LinkedListLinkType* tailP;      // Last node, NULL exactly when numNodes is 0.
    int32_t numNodes;               // Number of linked nodes.
    LinkedListLockFuncType lockFn;  // NULL for no locking.
    void* lockContextP;             // Passed to lockFn.
} LinkedListHeadType;

void LinkedListHeadInit(LinkedListHeadType* newHeadP);
void LinkedListNodeInit(LinkedListLinkType* newNodeP, void* parentObjP);
int32_t LinkedListGetCount(LinkedListHeadType* listHeadP);
LinkedListLinkType* LinkedListGetFirst(LinkedListHeadType* listHeadP);
LinkedListLinkType* LinkedListGetNext(LinkedListHeadType* listHeadP, LinkedListLinkType* listNodeP);
Boolean LinkedListNodeIsLinked(const LinkedListLinkType* nodeP);
void* LinkedListNodeParentObjGet(const LinkedListLinkType* nodeP);
void LinkedListEnqueueHead(LinkedListHeadType* listHeadP, LinkedListLinkType* newNodeP);
void LinkedListEnqueueTail(LinkedListHeadType* listHeadP, LinkedListLinkType* newNodeP);
// Unlinks the node, which must be in this list, and returns it.
LinkedListLinkType* LinkedListDequeue(LinkedListHeadType* listHeadP, LinkedListLinkType* listNodeP);
// Unlinks and returns the first node, or returns NULL for an empty list.
LinkedListLinkType* LinkedListDequeueHead(LinkedListHeadType* listHeadP);

}  // extern "C"

}  // namespace vok

#endif  // VOK_SRC_LINKEDLIST_LINKED_LIST_H
