// Message memory, handles and the intrusive lists.
#include <gtest/gtest.h>

#include <cstring>

#include "MmTestSupport.h"
#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "support/LogCapture.h"

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
    uint8_t* Block(const MmBaseMessageHandle& msg) {
        return reinterpret_cast<uint8_t*>(&MmfMessageManager::GetHeaderFromBinding(msg));
    }
};

TEST_F(MessageMemoryTest, EmptyPayloadBlockHasHeaderThenGuard) {
    // The 64-byte header is what the 32-bit target has; 64-bit hosts have wider pointers in the
    // handle block.
    EXPECT_EQ(sizeof(void*) == 4 ? 64u : 40u + sizeof(MmfMessageHandleBlock),
              kMmfMessageHeaderSize);
    uint32_t allocSize = 0;
    void* raw = Manager().AllocateMessageMemory(0, &allocSize);
    Manager().FreeMessageMemory(static_cast<MmfBaseMessageHeader*>(raw));
    EXPECT_EQ(kMmfMessageHeaderSize + 4, allocSize);  // 68 bytes on the target.

    MmBaseMessageHandle msg;
    uint8_t* payload = static_cast<uint8_t*>(Manager().CreateMessage(0, &msg));
    EXPECT_EQ(1, Outstanding());
    uint8_t* block = Block(msg);
    EXPECT_EQ(block + kMmfMessageHeaderSize, payload);  // The guard sits where the payload is.
    const uint8_t guard[] = {0xBA, 0xBE, 0xFA, 0xCE};
    EXPECT_EQ(0, std::memcmp(payload, guard, sizeof guard));
    const uint8_t start[] = {0xFE, 0xED, 0xFA,
                             0xCE, 1,    static_cast<uint8_t>(kMmfMessageHeaderSize)};
    EXPECT_EQ(0, std::memcmp(block, start, sizeof start));
    EXPECT_EQ(40, block[40]);  // headerOffset of the handle block.
    Manager().FreeMessage(msg);
    EXPECT_EQ(0, Outstanding());
}

TEST_F(MessageMemoryTest, PayloadBoundIsCheckedBeforeAllocating) {
    EXPECT_EQ(0xFFFFBBu + kMmfMessageHeaderSize, calcPayloadGuardOffsetFromPayloadSize(0xFFFFBB));
    MmBaseMessageHandle msg;
    EXPECT_TRUE(ThrowsMm([&] { Manager().CreateMessage(0xFFFFBC, &msg); },
                         "calcPayloadGuardOffsetFromPayloadSize", kManagerPath,
                         "paylodSize out of bounds"));
    EXPECT_EQ(0, Outstanding());
    EXPECT_TRUE(ThrowsMm([&] { Manager().CreateMessage(1, nullptr); }, "CreateMessage",
                         kManagerPath, "NULL arg."));
}

TEST_F(MessageMemoryTest, OverrunOfOneByteIsCaughtWithCriticalLineAndDump) {
    MmBaseMessageHandle msg;
    uint8_t* payload = static_cast<uint8_t*>(Manager().CreateMessage(3, &msg));
    msg.SetMessageName({7, 9});
    payload[3] = 0;  // One byte past the payload.
    LogCapture capture;
    EXPECT_TRUE(ThrowsMm([&] { msg.GetMessageType(); }, "ValidateMessage", kManagerPath,
                         "Corrupted payload memory guard"));
    const std::vector<test::LogLine> lines = capture.Lines();
    ASSERT_LE(3u, lines.size());
    char expected[256];
    std::snprintf(
        expected, sizeof expected,
        "ValidateMessage: Corrupted payload memory guard; msg ptr=<%p>;payloadOffset=<%ld>;"
        " payloadSize=<3>; msgProtocol=<7>; msgId=<9>; hex dump of the message follows...",
        static_cast<void*>(payload - kMmfMessageHeaderSize),
        static_cast<long>(kMmfMessageHeaderSize));
    EXPECT_EQ(expected, lines[0].message);
    EXPECT_EQ(kLogLevelCritical, lines[0].level);
    const size_t dumpLines = (kMmfMessageHeaderSize + 3 + 4 + 15) / 16;
    ASSERT_EQ(dumpLines + 2, lines.size());  // The dump, then the THROWING EXCEPTION line.
    EXPECT_EQ(0u, lines.back().message.find("THROWING EXCEPTION VokProgramErrorExceptionmsg<"
                                            "Corrupted payload memory guard> err<0XFFFFFFFF>"));
    payload[3] = 0xBA;
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, CorruptHeaderFieldsAreReportedInCheckOrder) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(0, &msg);
    uint8_t* block = Block(msg);
    struct Case {
        size_t offset;
        uint8_t value;
        const char* line;
        const char* text;
    };
    const Case cases[] = {
        {0, 0x00,
         "ValidateMessage: Invalid message header signature; expected <0xcefaedfe>, but "
         "got <0xcefaed00>; hex dump of the message header follows...",
         "invalid message header signature"},
        {4, 2,
         "ValidateMessage: Invalid message header version; expected <1>, but got <2>; hex "
         "dump of the message header follows...",
         "invalid message header version"},
        {5, 65, nullptr, "invalid message payload offset"},
    };
    for (const Case& c : cases) {
        const uint8_t saved = block[c.offset];
        block[c.offset] = c.value;
        LogCapture capture;
        EXPECT_TRUE(
            ThrowsMm([&] { msg.GetMessageSerial(); }, "ValidateMessage", kManagerPath, c.text));
        const std::vector<test::LogLine> lines = capture.Lines();
        ASSERT_EQ(2 + (kMmfMessageHeaderSize + 15) / 16, lines.size()) << c.text;
        if (c.line != nullptr) {
            EXPECT_EQ(c.line, lines[0].message);
        }
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
    EXPECT_EQ(0, msg.GetMessageType());
    for (int i = 0; i < 65534; ++i) {  // Binding 2 to 0xFFFF, then around to 1.
        MmfMessageManager::RebindMessage(&msg);
    }
    EXPECT_EQ(1, Block(msg)[42]);
    EXPECT_TRUE(ThrowsMm([] { MmfMessageManager::RebindMessage(nullptr); }, "RebindMessage",
                         kManagerPath, "NULL arg."));
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
    EXPECT_EQ(1, Outstanding());
    const MmBaseMessageHandle fromLink = MmfMessageManager::GetBindingFromLink(*queue.PopFront());
    Manager().FreeMessage(fromLink);
    EXPECT_EQ(0, Outstanding());
}

TEST_F(MessageMemoryTest, HandleKeptAfterFreeFindsZeroedSignature) {
    if (VOK_MM_FREED_MEMORY_CHECKED) {
        GTEST_SKIP() << "reads freed memory on purpose";
    }
    MmBaseMessageHandle msg;
    Manager().CreateMessage(64, &msg);
    Manager().FreeMessage(msg);
    // The memory is not reused in between; the allocator may have written its own data over
    // the zeroed signature, which is no more valid.
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
    EXPECT_EQ(2, Outstanding());
    uint32_t size = 0;
    void* payload = copy.GetPayloadPtr(&size);
    EXPECT_NE(msg.GetPayloadPtr(nullptr), payload);
    EXPECT_EQ(0, std::memcmp(payload, "hello", 5));
    MmMessageName name;
    EXPECT_EQ(6u, copy.GetMessageName(&name)->msgId);
    EXPECT_EQ(9, copy.GetMessageType());
    EXPECT_EQ(0u, copy.GetSequenceNumber() | copy.GetMessageSerial() |
                      copy.GetInResponseToSerial() | copy.GetSenderAddress() |
                      copy.GetDestinationAddress());
    EXPECT_EQ(12u, msg.GetMessageSerial());
    Manager().FreeMessage(copy);

    // A rebound source gives the copy a binding it does not have: the copy stays allocated.
    MmfMessageManager::RebindMessage(&msg);
    {
        IntendedLeakScope leak;
        EXPECT_TRUE(ThrowsMm([&] { Manager().DuplicateMessage(msg); }, "GetHeaderFromBindingLow",
                             kManagerPath, "binding number mismatch"));
    }
    EXPECT_EQ(2, Outstanding());
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, EachSetterChangesOnlyItsField) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(0, &msg);
    msg.SetMessageType(0xA1);
    msg.SetMessageName({0xBFFF, 0xA3A3A3A3});
    msg.SetSequenceNumber(0xA4A4A4A4);
    msg.SetMessageSerial(0xA5A5A5A5);
    msg.SetInResponseToSerial(0xA6A6A6A6);
    msg.SetSenderAddress(0xA7A7A7A7);
    msg.SetDestinationAddress(0xA8A8A8A8);
    const uint8_t* block = Block(msg);
    // Little-endian at the fixed offsets, and nothing else touched.
    EXPECT_EQ(0xA4A4A4A4u, MmfMessageManager::GetHeaderFromBinding(msg).LoadU32(10));
    EXPECT_EQ(0xA1, block[14]);
    EXPECT_EQ(0xBFFFu, MmfMessageManager::GetHeaderFromBinding(msg).LoadU32(15));
    EXPECT_EQ(0xA8A8A8A8u, MmfMessageManager::GetHeaderFromBinding(msg).LoadU32(35));
    EXPECT_EQ(0, block[39]);
    MmMessageName name;
    msg.GetMessageName(&name);
    EXPECT_EQ(0xA3A3A3A3u, name.msgId);
    EXPECT_EQ(0xA4A4A4A4u, msg.GetSequenceNumber());
    EXPECT_EQ(0xA5A5A5A5u, msg.GetMessageSerial());
    EXPECT_EQ(0xA6A6A6A6u, msg.GetInResponseToSerial());
    EXPECT_EQ(0xA7A7A7A7u, msg.GetSenderAddress());
    EXPECT_EQ(0xA1, msg.GetMessageType());
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
    } items[3];
    MmfIntrusiveListT<Item> list;
    const char kPath[] = "Src/Core/MessageMover/MmfIntrusiveListTemplate";
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(0); }, "PeekAtIndex", kPath,
                         "ERROR: element index is out of bounds"));
    for (Item& item : items) {
        item.link.Init(&item);
        list.PushBack(item.link);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(&items[i], list.PeekAtIndex(i)->GetOwner());
    }
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(3); }, "PeekAtIndex", kPath,
                         "ERROR: element index is out of bounds"));
    EXPECT_TRUE(ThrowsMm([&] { list.PeekAtIndex(-1); }, "PeekAtIndex", kPath,
                         "ERROR: invalid index arg: negative"));
    list.RemoveAt(items[1].link);
    list.RemoveAt(items[2].link);
    EXPECT_EQ(&items[0], list.PeekAtIndex(0)->GetOwner());
    list.RemoveAt(items[0].link);
    EXPECT_EQ(0, list.GetCount());
    EXPECT_EQ(nullptr, list.PopFront());
}

}  // namespace
}  // namespace vok
