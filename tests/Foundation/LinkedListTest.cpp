// The checked linked list: behaviour, locking, fatal checks and invariant assertions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Src/LinkedList/linked_list.h"

namespace vok {
namespace {

struct Item {
    LinkedListLinkType node;
    int value;
};

class LinkedListTest : public ::testing::Test {
  protected:
    // Every operation takes the list's lock; the steps inside it take it again.
    static void RecordLock(void* context, Boolean lock) {
        LinkedListTest* test = static_cast<LinkedListTest*>(context);
        test->lockDepth_ += lock ? 1 : -1;
        test->maxLockDepth_ = std::max(test->maxLockDepth_, test->lockDepth_);
    }
    void SetUp() override {
        LinkedListHeadInit(&head_);
        head_.lockFn = &RecordLock;
        head_.lockContextP = this;
        for (int i = 0; i < 4; ++i) {
            items_[i].value = i;
            LinkedListNodeInit(&items_[i].node, &items_[i]);
        }
    }

    std::vector<int> Values() {
        std::vector<int> values;
        for (LinkedListLinkType* n = LinkedListGetFirst(&head_); n != nullptr;
             n = LinkedListGetNext(&head_, n)) {
            values.push_back(static_cast<Item*>(LinkedListNodeParentObjGet(n))->value);
        }
        return values;
    }

    LinkedListHeadType head_;
    Item items_[4];
    int lockDepth_ = 0;
    int maxLockDepth_ = 0;
};

TEST_F(LinkedListTest, EnqueueAtBothEndsAndDequeueKeepTailAndCount) {
    LinkedListEnqueueHead(&head_, &items_[1].node);  // On the empty list: the tail too.
    EXPECT_EQ(&items_[1].node, head_.tailP);
    LinkedListEnqueueTail(&head_, &items_[2].node);
    LinkedListEnqueueHead(&head_, &items_[0].node);
    EXPECT_EQ(&items_[2].node, head_.tailP);
    EXPECT_EQ((std::vector<int>{0, 1, 2}), Values());
    EXPECT_EQ(3, LinkedListGetCount(&head_));
    EXPECT_EQ(1, LinkedListNodeIsLinked(&items_[2].node));

    // Removing the tail makes its predecessor the tail; a later tail enqueue follows it.
    EXPECT_EQ(&items_[2].node, LinkedListDequeue(&head_, &items_[2].node));
    EXPECT_EQ(&items_[1].node, head_.tailP);
    EXPECT_EQ(0, LinkedListNodeIsLinked(&items_[2].node));
    LinkedListEnqueueTail(&head_, &items_[3].node);
    EXPECT_EQ((std::vector<int>{0, 1, 3}), Values());

    // Removing from the middle.
    LinkedListDequeue(&head_, &items_[1].node);
    EXPECT_EQ((std::vector<int>{0, 3}), Values());
    EXPECT_EQ(&items_[0].node, LinkedListDequeueHead(&head_));
    EXPECT_EQ(&items_[3].node, LinkedListDequeueHead(&head_));

    // Empty again: first and tail NULL, count 0, and DequeueHead changes nothing.
    EXPECT_EQ(nullptr, head_.firstP);
    EXPECT_EQ(nullptr, head_.tailP);
    EXPECT_EQ(0, LinkedListGetCount(&head_));
    EXPECT_EQ(nullptr, LinkedListDequeueHead(&head_));
    EXPECT_EQ(0, LinkedListGetCount(&head_));
    EXPECT_EQ(0, lockDepth_);
    EXPECT_GE(maxLockDepth_, 2);  // The public operation, then its private step.
}

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
    // A freed or never-initialised node has no signature.
    Item garbage;
    std::memset(&garbage, 0, sizeof garbage);
    EXPECT_DEATH(LinkedListNodeIsLinked(&garbage.node), "bad list node signature");
    // An unlinked node where a linked one is required.
    EXPECT_DEATH(LinkedListGetNext(&head_, &items_[1].node), "list node not linked");
    // A node linked into another list.
    LinkedListHeadType other;
    LinkedListHeadInit(&other);
    LinkedListEnqueueTail(&other, &items_[2].node);
    LinkedListEnqueueTail(&head_, &items_[3].node);
    EXPECT_DEATH(LinkedListDequeue(&head_, &items_[2].node), "list node not found");
    // A corrupted head: a tail with no nodes counted.
    head_.numNodes = 0;
    EXPECT_DEATH(LinkedListEnqueueTail(&head_, &items_[0].node),
                 "non-NULL tail -- >= 1 nodes expected");
}

}  // namespace
}  // namespace vok
