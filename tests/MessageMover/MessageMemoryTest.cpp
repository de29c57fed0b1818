// Message memory, handles and the intrusive lists.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "MmTestSupport.h"
#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "support/LogCapture.h"
#include "support/MemoryCheck.h"

namespace vok {
namespace {

using test::IntendedLeakScope;
using test::LogCapture;
using test::Outstanding;
using test::ThrowsMm;

const char kManagerPath[] = "Src/Core/MessageMover/MmfMessageManager";

class MessageMemoryTest : public test::MmFrameworkTest {
  protected:
    MmfMessageManager& Manager() {
        return static_cast<MessageMoverFrameworkImpl*>(framework_)->GetMessageMgr();
    }
    static uint8_t* Block(const MmBaseMessageHandle& msg) {
        return reinterpret_cast<uint8_t*>(&MmfMessageManager::GetHeaderFromBinding(msg));
    }
};

TEST_F(MessageMemoryTest, EmptyPayloadBlockIsHeaderThenGuard) {
    // 64 bytes on the 32-bit target; 64-bit hosts have wider pointers in the handle block.
    EXPECT_EQ(sizeof(void*) == 4 ? 64u : 40u + sizeof(MmfMessageHandleBlock),
              kMmfMessageHeaderSize);
    uint32_t allocSize = 0;
    Manager().FreeMessageMemory(
        static_cast<MmfBaseMessageHeader*>(Manager().AllocateMessageMemory(0, &allocSize)));
    EXPECT_EQ(kMmfMessageHeaderSize + 4, allocSize);  // 68 on the target.

    MmBaseMessageHandle msg;
    uint8_t* payload = static_cast<uint8_t*>(Manager().CreateMessage(0, &msg));
    EXPECT_EQ(1, Outstanding());
    EXPECT_EQ(Block(msg) + kMmfMessageHeaderSize, payload);  // The guard is where the payload is.
    const uint8_t guard[] = {0xBA, 0xBE, 0xFA, 0xCE};
    EXPECT_EQ(0, std::memcmp(payload, guard, sizeof guard));
    const uint8_t start[] = {0xFE, 0xED, 0xFA,
                             0xCE, 1,    static_cast<uint8_t>(kMmfMessageHeaderSize)};
    EXPECT_EQ(0, std::memcmp(Block(msg), start, sizeof start));
    Manager().FreeMessage(msg);
    EXPECT_EQ(0, Outstanding());

    EXPECT_EQ(0xFFFFBBu + kMmfMessageHeaderSize, calcPayloadGuardOffsetFromPayloadSize(0xFFFFBB));
    EXPECT_TRUE(ThrowsMm([&] { Manager().CreateMessage(0xFFFFBC, &msg); },
                         "calcPayloadGuardOffsetFromPayloadSize", kManagerPath,
                         "paylodSize out of bounds"));
    EXPECT_EQ(0, Outstanding());  // Refused before allocating.
}

TEST_F(MessageMemoryTest, CorruptionIsReportedWithCriticalLineDumpAndException) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(3, &msg);
    msg.SetMessageName({7, 9});
    uint8_t* block = Block(msg);
    std::memset(block + kMmfMessageHeaderSize, 0x5a, 3);  // The dump shows the payload too.
    char guardLine[256];
    std::snprintf(
        guardLine, sizeof guardLine,
        "ValidateMessage: Corrupted payload memory guard; msg ptr=<%p>;payloadOffset=<%ld>;"
        " payloadSize=<3>; msgProtocol=<7>; msgId=<9>; hex dump of the message follows...",
        static_cast<void*>(block), static_cast<long>(kMmfMessageHeaderSize));
    struct Case {
        size_t offset;  // The byte overwritten with 0.
        std::string line;
        const char* text;
        size_t dumped;  // Bytes in the hex dump.
    };
    const Case cases[] = {
        {0,
         "ValidateMessage: Invalid message header signature; expected <0xcefaedfe>, but got "
         "<0xcefaed00>; hex dump of the message header follows...",
         "invalid message header signature", kMmfMessageHeaderSize},
        {4,
         "ValidateMessage: Invalid message header version; expected <1>, but got <0>; hex dump "
         "of the message header follows...",
         "invalid message header version", kMmfMessageHeaderSize},
        {5,
         "ValidateMessage: Invalid message payload offset; expected <" +
             std::to_string(kMmfMessageHeaderSize) +
             ">, but got <0>; hex dump of the message header follows...",
         "invalid message payload offset", kMmfMessageHeaderSize},
        // One byte written past the payload.
        {kMmfMessageHeaderSize + 3, guardLine, "Corrupted payload memory guard",
         kMmfMessageHeaderSize + 3 + 4},
    };
    for (const Case& c : cases) {
        const uint8_t saved = block[c.offset];
        block[c.offset] = 0;
        LogCapture capture;
        EXPECT_TRUE(
            ThrowsMm([&] { msg.GetMessageSerial(); }, "ValidateMessage", kManagerPath, c.text));
        std::vector<test::LogLine> lines;
        for (const test::LogLine& line : capture.Lines()) {
            if (line.level == kLogLevelCritical) {
                lines.push_back(line);
            }
        }
        // The line, the dump, then the THROWING EXCEPTION line.
        ASSERT_EQ(2 + (c.dumped + 15) / 16, lines.size()) << c.text;
        EXPECT_EQ(c.line, lines[0].message);
        EXPECT_EQ(0u, lines.back().message.find(std::string("THROWING EXCEPTION "
                                                            "VokProgramErrorExceptionmsg<") +
                                                c.text + "> err<0XFFFFFFFF>"));
        block[c.offset] = saved;
    }
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, RebindMakesEarlierHandlesStaleAndSkipsZero) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(0, &msg);
    const MmBaseMessageHandle old = msg;
    MmfMessageManager::RebindMessage(&msg);
    EXPECT_TRUE(ThrowsMm([&] { old.GetMessageType(); }, "GetHeaderFromBindingLow", kManagerPath,
                         "binding number mismatch"));
    for (int i = 0; i < 65534; ++i) {  // Binding 2 to 0xFFFF, then around to 1.
        MmfMessageManager::RebindMessage(&msg);
    }
    EXPECT_EQ(1, Block(msg)[42]);
    EXPECT_EQ(0, msg.GetMessageType());
    EXPECT_TRUE(ThrowsMm([] { MmBaseMessageHandle().GetSenderAddress(); },
                         "GetHeaderFromBindingLow", kManagerPath, "NULL handle block pointer"));
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, QueuedMessageCannotBeFreedOrRebound) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(0, &msg);
    MmfMessageList queue;
    queue.PushBack(MmfMessageManager::GetLinkFromBinding(msg));
    EXPECT_TRUE(ThrowsMm([&] { Manager().FreeMessage(msg); }, "FreeMessage", kManagerPath,
                         "Message being freed still in queue"));
    MmBaseMessageHandle rebound = msg;
    EXPECT_TRUE(ThrowsMm([&] { MmfMessageManager::RebindMessage(&rebound); }, "RebindMessage",
                         kManagerPath, "Message being rebound is still in queue"));
    EXPECT_EQ(1, queue.GetCount());
    Manager().FreeMessage(MmfMessageManager::GetBindingFromLink(*queue.PopFront()));
    EXPECT_EQ(0, Outstanding());
}

TEST_F(MessageMemoryTest, HandleKeptAfterFreeFindsNoSignature) {
    if (VOK_MM_FREED_MEMORY_CHECKED || test::RunningOnValgrind()) {
        GTEST_SKIP() << "reads freed memory on purpose";
    }
    MmBaseMessageHandle msg;
    Manager().CreateMessage(64, &msg);
    Manager().FreeMessage(msg);
    // Not reused in between; the allocator may have written its own data over the zeroed
    // signature, which is no more valid.
    EXPECT_TRUE(ThrowsMm([&] { Manager().FreeMessage(msg); }, "ValidateMessage", kManagerPath,
                         "invalid message header signature"));
}

TEST_F(MessageMemoryTest, DuplicateCopiesNamePayloadAndClearsStamps) {
    MmBaseMessageHandle msg;
    std::memcpy(Manager().CreateMessage(5, &msg), "hello", 5);
    msg.SetMessageType(9);
    msg.SetMessageName({5, 6});
    msg.SetSequenceNumber(11);
    msg.SetMessageSerial(12);
    msg.SetInResponseToSerial(13);
    msg.SetSenderAddress(14);
    msg.SetDestinationAddress(15);
    const MmBaseMessageHandle copy = Manager().DuplicateMessage(msg);
    void* payload = copy.GetPayloadPtr(nullptr);
    EXPECT_NE(msg.GetPayloadPtr(nullptr), payload);
    EXPECT_EQ(0, std::memcmp(payload, "hello", 5));
    MmMessageName name;
    EXPECT_EQ(6u, copy.GetMessageName(&name)->msgId);
    EXPECT_EQ(9, copy.GetMessageType());
    EXPECT_EQ(0u, copy.GetSequenceNumber() | copy.GetMessageSerial() |
                      copy.GetInResponseToSerial() | copy.GetSenderAddress() |
                      copy.GetDestinationAddress());
    // The packed fields sit at their fixed offsets, little-endian.
    const MmfBaseMessageHeader& header = MmfMessageManager::GetHeaderFromBinding(msg);
    EXPECT_EQ(11u, header.LoadU32(10));
    EXPECT_EQ(9, header.packed[14]);
    EXPECT_EQ(5u, header.LoadU32(15));
    EXPECT_EQ(15u, header.LoadU32(35));
    Manager().FreeMessage(copy);

    // A rebound source gives the copy a binding it does not have: the copy stays allocated.
    MmfMessageManager::RebindMessage(&msg);
    if (!test::RunningOnValgrind()) {  // Memcheck reports the copy as lost.
        IntendedLeakScope leak;
        EXPECT_TRUE(ThrowsMm([&] { Manager().DuplicateMessage(msg); }, "GetHeaderFromBindingLow",
                             kManagerPath, "binding number mismatch"));
        EXPECT_EQ(2, Outstanding());
    }
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, ProtocolRangesOfTheHandleKinds) {
    MmBaseMessageHandle base;
    Manager().CreateMessage(0, &base);
    MmCommandMessageHandle command(base);
    MmConnectionMessageHandle connection(base);
    base.SetMessageName({3, 1});
    for (uint32_t ok : {4u, 0xBFFFu}) {
        command.SetMessageName({ok, 1});
        connection.SetMessageName({ok, 2});
    }
    const char* kUserBounds = "protocolId is out of end-user bounds.";
    for (uint32_t bad : {0u, 3u, 0xC000u}) {
        EXPECT_TRUE(ThrowsMm(
            [&] {
                command.SetMessageName({bad, 1});
            },
            "SetMessageName", "Src/Core/MessageMover/MmCommandMessageHandle", kUserBounds));
        EXPECT_TRUE(ThrowsMm(
            [&] {
                connection.SetMessageName({bad, 1});
            },
            "SetMessageName", "Src/Core/MessageMover/MmConnectionMessageHandle", kUserBounds));
    }
    EXPECT_TRUE(ThrowsMm(
        [&] {
            base.SetMessageName({0xC000, 1});
        },
        "SetMessageName", "Src/Core/MessageMover/MmBaseMessageHandle",
        "protocolId is out of bounds."));
    MmMessageName name;
    EXPECT_EQ(0xBFFFu, base.GetMessageName(&name)->protocolId);  // Failed setters changed nothing.
    EXPECT_EQ(2u, name.msgId);
    Manager().FreeMessage(base);
}

TEST(IntrusiveListTest, PeekAtIndexAndRemoveAt) {
    struct Item {
        MmfIntrusiveLinkT<Item> link;
    } items[2];
    MmfIntrusiveListT<Item> list;
    const char kPath[] = "Src/Core/MessageMover/MmfIntrusiveListTemplate";
    const char kOutOfBounds[] = "ERROR: element index is out of bounds";
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(0); }, "PeekAtIndex", kPath, kOutOfBounds));
    for (Item& item : items) {
        item.link.Init(&item);
        list.PushBack(item.link);
    }
    EXPECT_EQ(&items[1], list.PeekAtIndex(1)->GetOwner());
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(2); }, "PeekAtIndex", kPath, kOutOfBounds));
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(-1); }, "PeekAtIndex", kPath,
                         "ERROR: invalid index arg: negative"));
    list.RemoveAt(items[1].link);
    EXPECT_EQ(&items[0], list.PeekAtIndex(0)->GetOwner());
    list.RemoveAt(items[0].link);
    EXPECT_EQ(0, list.GetCount());
}

}  // namespace
}  // namespace vok
