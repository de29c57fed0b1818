// Message memory, handles and the intrusive lists.
#include <gtest/gtest.h>

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

// A duplicate has the payload, guard, type and name, and no stamp.
TEST_F(MessageMemoryTest, DuplicateCopiesPayloadAndNameButNoStamp) {
    MmBaseMessageHandle msg;
    uint8_t* payload = static_cast<uint8_t*>(Manager().CreateMessage(0x123, &msg));
    std::memset(payload, 0x5a, 0x123);
    msg.SetSequenceNumber(0x11223344);
    msg.SetMessageType(0x55);
    msg.SetMessageName({0x1234, 0x56789ABC});
    msg.SetMessageSerial(0x01020304);
    msg.SetInResponseToSerial(0x05060708);
    msg.SetSenderAddress(0x090A0B0C);
    msg.SetDestinationAddress(0x0D0E0F10);
    const MmBaseMessageHandle copy = Manager().DuplicateMessage(msg);
    const uint8_t* copied = static_cast<uint8_t*>(copy.GetPayloadPtr(nullptr));
    EXPECT_NE(payload, copied);
    EXPECT_EQ(0, std::memcmp(payload, copied, 0x123 + 4));
    MmMessageName name;
    EXPECT_EQ(MmMessageName({0x1234, 0x56789ABC}), *copy.GetMessageName(&name));
    EXPECT_EQ(0x55, copy.GetMessageType());
    EXPECT_EQ(0u, copy.GetSequenceNumber());
    EXPECT_EQ(0u, copy.GetMessageSerial());
    EXPECT_EQ(0u, copy.GetInResponseToSerial());
    EXPECT_EQ(0u, copy.GetSenderAddress());
    EXPECT_EQ(0u, copy.GetDestinationAddress());
    Manager().FreeMessage(copy);
    Manager().FreeMessage(msg);
}

TEST_F(MessageMemoryTest, CorruptionIsReportedWithCriticalLineDumpAndException) {
    MmBaseMessageHandle msg;
    Manager().CreateMessage(3, &msg);
    uint8_t* block = Block(msg);
    struct Case {
        size_t offset;  // The byte overwritten with 0.
        std::string line;
        const char* text;
    };
    const Case cases[] = {
        {0,
         "ValidateMessage: Invalid message header signature; expected <0xcefaedfe>, but got "
         "<0xcefaed00>; hex dump of the message header follows...",
         "invalid message header signature"},
        {4,
         "ValidateMessage: Invalid message header version; expected <1>, but got <0>; hex dump "
         "of the message header follows...",
         "invalid message header version"},
        {5,
         "ValidateMessage: Invalid message payload offset; expected <" +
             std::to_string(kMmfMessageHeaderSize) +
             ">, but got <0>; hex dump of the message header follows...",
         "invalid message payload offset"},
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
        // The line, the header's dump, then the THROWING EXCEPTION line.
        ASSERT_EQ(2 + (kMmfMessageHeaderSize + 15) / 16, lines.size()) << c.text;
        EXPECT_EQ(c.line, lines[0].message);
        EXPECT_EQ(0u, lines.back().message.find(std::string("THROWING EXCEPTION "
                                                            "VokProgramErrorExceptionmsg<") +
                                                c.text + "> err<0XFFFFFFFF>"));
        block[c.offset] = saved;
    }
    Manager().FreeMessage(msg);
}

// Freed large blocks go back to the kernel: the check must not read them.
TEST_F(MessageMemoryTest, HandleKeptAfterFreeIsStaleForEverySize) {
    const bool freedReadsChecked = VOK_MM_FREED_MEMORY_CHECKED || test::RunningOnValgrind();
    for (uint32_t size : {0u, 4096u, 1024u * 1024, 0xFFFFBBu}) {
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
