// The checked linked list: fatal checks and invariant assertions.
#include <gtest/gtest.h>

#include <cstring>

#include "Src/LinkedList/linked_list.h"

namespace vok {
namespace {

struct Item {
    LinkedListLinkType node;
};

class LinkedListTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LinkedListHeadInit(&head_);
        for (int i = 0; i < 4; ++i) {
            LinkedListNodeInit(&items_[i].node, &items_[i]);
        }
    }

    LinkedListHeadType head_;
    Item items_[4];
};

using LinkedListDeathTest = LinkedListTest;

// The fatal check's line, exact but for the line number.
TEST_F(LinkedListDeathTest, EnqueueOfLinkedNodeStopsTheProcess) {
    LinkedListEnqueueTail(&head_, &items_[0].node);
    EXPECT_EXIT(LinkedListEnqueueTail(&head_, &items_[0].node), ::testing::KilledBySignal(SIGABRT),
                "FATAL ERROR: Condition test <!newNodeP->isLinked> failed in function "
                "PrvLinkedListEnqueueAt, file Src/LinkedList/linked_list, line [0-9]+; additional "
                "info: <list node already linked>\\.");
}

TEST_F(LinkedListDeathTest, InvariantAssertionsCarryTheirExplanation) {
    Item garbage;  // Freed or never initialised: no signature.
    std::memset(&garbage, 0, sizeof garbage);
    EXPECT_DEATH(LinkedListNodeIsLinked(&garbage.node), "bad list node signature");
    EXPECT_DEATH(LinkedListGetNext(&head_, &items_[1].node), "list node not linked");
    LinkedListHeadType other;  // A node linked into another list.
    LinkedListHeadInit(&other);
    LinkedListEnqueueTail(&other, &items_[2].node);
    LinkedListEnqueueTail(&head_, &items_[3].node);
    EXPECT_DEATH(LinkedListDequeue(&head_, &items_[2].node), "list node not found");
    head_.numNodes = 0;  // A corrupted head.
    EXPECT_DEATH(LinkedListEnqueueTail(&head_, &items_[0].node),
                 "non-NULL tail -- >= 1 nodes expected");
}

}  // namespace
}  // namespace vok
