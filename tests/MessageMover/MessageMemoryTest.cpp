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

using test::LogCapture;
using test::Outstanding;
using test::ThrowsMm;

class MessageMemoryTest : public test::MmFrameworkTest {
  protected:
    MmfMessageManager& Manager() {
        return static_cast<MessageMoverFrameworkImpl*>(framework_)->GetMessageMgr();
    }
    static uint8_t* Block(const MmBaseMessageHandle& msg) {
        return reinterpret_cast<uint8_t*>(&MmfMessageManager::GetHeaderFromBinding(msg));
    }
};

// Each field set through a handle lands at its fixed offset, little-endian; the handle block
// follows at 40, the payload after the header, the guard right after the payload.
TEST_F(MessageMemoryTest, HeaderFieldsSitAtTheirOffsets) {
    MmBaseMessageHandle msg;
    uint8_t* payload = static_cast<uint8_t*>(Manager().CreateMessage(0x123, &msg));
    EXPECT_EQ(Block(msg) + kMmfMessageHeaderSize, payload);
    const uint8_t guard[] = {0xBA, 0xBE, 0xFA, 0xCE};
    EXPECT_EQ(0, std::memcmp(payload + 0x123, guard, sizeof guard));
    msg.SetSequenceNumber(0x11223344);
    msg.SetMessageType(0x55);
    msg.SetMessageName({0x1234, 0x56789ABC});
    msg.SetMessageSerial(0x01020304);
    msg.SetInResponseToSerial(0x05060708);
    msg.SetSenderAddress(0x090A0B0C);
    msg.SetDestinationAddress(0x0D0E0F10);
    // clang-format off
    const uint8_t expected[44] = {
        0xFE, 0xED, 0xFA, 0xCE, 1, static_cast<uint8_t>(kMmfMessageHeaderSize),  // 0
        0x23, 0x01, 0x00, 0x00, 0x44, 0x33, 0x22, 0x11, 0x55,                   // 6
        0x34, 0x12, 0x00, 0x00, 0xBC, 0x9A, 0x78, 0x56,                         // 15
        0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05,                         // 23
        0x0C, 0x0B, 0x0A, 0x09, 0x10, 0x0F, 0x0E, 0x0D, 0x00,                   // 31
        40, 0x00, 0x01, 0x00};                                                  // 40
    // clang-format on
    for (size_t offset = 0; offset < sizeof expected; ++offset) {
        EXPECT_EQ(expected[offset], Block(msg)[offset]) << "offset " << offset;
    }
    // A duplicate has the payload, the guard, the type and the name, and no stamp (sequence
    // number, serials, addresses).
    std::memset(payload, 0x5a, 0x123);
    const MmBaseMessageHandle copy = Manager().DuplicateMessage(msg);
    const uint8_t* copied = static_cast<uint8_t*>(copy.GetPayloadPtr(nullptr));
    EXPECT_NE(payload, copied);
    EXPECT_EQ(0, std::memcmp(payload, copied, 0x123 + sizeof guard));
    for (size_t offset = 0; offset < 40; ++offset) {
        const bool stamp = (offset >= 10 && offset < 14) || (offset >= 23 && offset < 39);
        EXPECT_EQ(stamp ? 0 : expected[offset], Block(copy)[offset]) << "copy offset " << offset;
    }
    Manager().FreeMessage(copy);
    Manager().FreeMessage(msg);
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
        EXPECT_TRUE(ThrowsMm([&] { msg.GetMessageSerial(); }, c.text));
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

// A rebind makes earlier handles stale and skips binding 0; a queued message can be neither
// rebound nor freed.
TEST_F(MessageMemoryTest, RebindMakesEarlierHandlesStaleAndSkipsZero) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(0, &msg);
    const MmBaseMessageHandle old = msg;
    MmfMessageManager::RebindMessage(&msg);
    EXPECT_TRUE(ThrowsMm([&] { old.GetMessageType(); }, "binding number mismatch"));
    for (int i = 0; i < 65534; ++i) {  // Binding 2 to 0xFFFF, then around to 1.
        MmfMessageManager::RebindMessage(&msg);
    }
    EXPECT_EQ(1, Block(msg)[42]);
    EXPECT_EQ(0, msg.GetMessageType());

    MmfMessageList queue;
    queue.PushBack(MmfMessageManager::GetLinkFromBinding(msg));
    EXPECT_TRUE(
        ThrowsMm([&] { Manager().FreeMessage(msg); }, "Message being freed still in queue"));
    EXPECT_TRUE(ThrowsMm([&] { MmfMessageManager::RebindMessage(&msg); },
                         "Message being rebound is still in queue"));
    EXPECT_EQ(1, queue.GetCount());
    Manager().FreeMessage(MmfMessageManager::GetBindingFromLink(*queue.PopFront()));
    EXPECT_EQ(0, Outstanding());
}

// Large blocks go back to the kernel when they are freed, so the check must not read them.
TEST_F(MessageMemoryTest, HandleKeptAfterFreeIsStaleForEverySize) {
    const bool freedReadsChecked = VOK_MM_FREED_MEMORY_CHECKED || test::RunningOnValgrind();
    for (uint32_t size : {0u, 2000u, 4096u, 128u * 1024, 1024u * 1024, 0xFFFFBBu}) {
        if (freedReadsChecked && size + kMmfMessageHeaderSize + 4 < kMmfLargeBlockSize) {
            continue;  // Small blocks stay mapped; their check reads freed memory on purpose.
        }
        MmBaseMessageHandle msg;
        Manager().CreateMessage(size, &msg);
        Manager().FreeMessage(msg);
        EXPECT_TRUE(ThrowsMm([&] { Manager().FreeMessage(msg); }, "binding number mismatch"))
            << size;
        EXPECT_TRUE(ThrowsMm([&] { msg.GetPayloadPtr(nullptr); }, "binding number mismatch"))
            << size;
    }
    MmBaseMessageHandle msg;
    EXPECT_TRUE(
        ThrowsMm([&] { Manager().CreateMessage(0xFFFFBC, &msg); }, "paylodSize out of bounds"));
    EXPECT_EQ(0, Outstanding());  // Refused before allocating.
}

}  // namespace
}  // namespace vok
