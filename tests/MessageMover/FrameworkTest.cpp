// The framework end to end, through the public API only, on one thread and on many.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "MmTestSupport.h"
#include "support/LogCapture.h"
#include "support/MemoryCheck.h"
#include "vok/Thread.h"
#include "vok/vok.h"

namespace vok {
namespace {

using test::CountingSink;
using test::IfaceCounter;
using test::LogCapture;
using test::Outstanding;
using test::ThrowsMm;

class FrameworkTest : public test::MmFrameworkTest {};

TEST_F(FrameworkTest, RequestOnAServicePortAnsweredOverAConnectedPair) {
    MessageMoverInterface* server = framework_->CreateInterface("server");
    MessageMoverInterface* client = framework_->CreateInterface("client");
    MmCommandPort* service = server->CreateCommandServicePort(100);
    MmCommandPort* clientPort = client->CreateCommandPort();
    MmConnectionPort* clientEnd = nullptr;
    MmConnectionPort* serverEnd = server->CreateConnectedPair(client, &clientEnd);

    MmCommandMessageHandle request;
    std::memcpy(client->CreateCommandMessage(4, &request), "ping", 4);
    request.SetMessageName({50, 1});
    request.SetDestinationAddress(100);
    MmMessageSerial_t serial = 0;
    ASSERT_EQ(kVokErrNone, clientPort->WriteMessage(request, &serial));
    EXPECT_EQ(0, IfaceCounter("client", "msgsHeldByUser"));
    EXPECT_EQ(1, IfaceCounter("server", "msgsHeldByPorts"));
    EXPECT_EQ(1, Outstanding());

    MmCommandMessageHandle got;
    ASSERT_EQ(kVokErrNone, service->ReadMessage(&got));
    uint32_t size = 0;
    EXPECT_EQ(0, std::memcmp(got.GetPayloadPtr(&size), "ping", 4));
    EXPECT_EQ(4u, size);
    EXPECT_EQ(serial, got.GetMessageSerial());
    EXPECT_EQ(clientPort->GetAddress(), got.GetSenderAddress());
    EXPECT_EQ(1, IfaceCounter("server", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("server", "msgsHeldByPorts"));
    server->FreeMessage(got);

    MmConnectionMessageHandle answer;
    server->CreateConnectionMessage(0, &answer);
    answer.SetMessageName({50, 2});
    answer.SetInResponseToSerial(serial);
    ASSERT_EQ(kVokErrNone, serverEnd->WriteMessage(answer, nullptr));
    MmConnectionMessageHandle answered;
    ASSERT_EQ(kVokErrNone, clientEnd->ReadMessage(&answered));
    EXPECT_EQ(serial, answered.GetInResponseToSerial());
    EXPECT_EQ(kVokErrNoMessage, clientEnd->ReadMessage(&answered));
    EXPECT_EQ(1, IfaceCounter("client", "msgsHeldByUser"));
    client->FreeMessage(answered);

    server->DiscardConnectionPort(serverEnd);
    EXPECT_EQ(kVokErrPeerClosed, clientEnd->ReadMessage(&answered));
    client->DiscardConnectionPort(clientEnd);
    client->DiscardCommandPort(clientPort);
    server->DiscardCommandPort(service);
    EXPECT_EQ(0, Outstanding());
    LogCapture capture;
    framework_->DiscardInterface(client);
    framework_->DiscardInterface(server);
    EXPECT_TRUE(capture.Matching("Leaked").empty());
}

TEST_F(FrameworkTest, DiscardInterfaceRefusesNull) {
    EXPECT_TRUE(ThrowsMm([&] { framework_->DiscardInterface(nullptr); }, "DiscardInterface",
                         "Src/Core/MessageMover/MessageMoverFrameworkImpl", "Null arg."));
}

TEST(FrameworkStopTest, StopReportsInterfacesNeverDiscarded) {
    if (test::RunningOnValgrind()) {
        GTEST_SKIP() << "leaks interfaces on purpose";
    }
    MessageMoverFramework* framework = MessageMoverFramework::StartMessageMoverFramework("x");
    {
        test::IntendedLeakScope leak;  // The framework leaves leaked interfaces alone.
        framework->CreateInterface("first");
        framework->CreateInterface("second");
    }
    LogCapture capture;
    MessageMoverFramework::StopMessageMoverFramework(framework);
    const std::vector<test::LogLine> leaked = capture.Matching("MessageMoverInterface");
    ASSERT_EQ(3u, leaked.size());
    EXPECT_EQ(1u, capture.Matching("Leaked MessageMoverInterface <first>").size());
    EXPECT_EQ(1u, capture.Matching("Leaked MessageMoverInterface <second>").size());
    EXPECT_EQ("ReportLeaks: Summary: 2 MessageMoverInterface objects in VOK Daemon were leaked.",
              leaked[2].message);
    EXPECT_EQ("VOK.MessageMover.Leak", leaked[2].context);
}

// Eight writers, each with its own interface and port, send numbered messages to one service
// port; the reader drains it whenever its sink fires.
class ManyWritersTest : public test::MmFrameworkTest {
  public:
    static const int kWriters = 8;
    static const int kMessagesPerWriter = 20000;

    struct Payload {
        int32_t writer;
        int32_t number;
    };

    void WriterRun(void* arg) {
        const int32_t writer = static_cast<int32_t>(reinterpret_cast<intptr_t>(arg));
        MessageMoverInterface* iface = ifaces_[writer];
        MmCommandPort* port = iface->CreateCommandPort();
        for (int32_t number = 0; number < kMessagesPerWriter; ++number) {
            MmCommandMessageHandle msg;
            const Payload payload = {writer, number};
            std::memcpy(iface->CreateCommandMessage(sizeof payload, &msg), &payload,
                        sizeof payload);
            msg.SetMessageName({60, 1});
            msg.SetDestinationAddress(200);
            if (port->WriteMessage(msg, nullptr) != kVokErrNone) {
                ADD_FAILURE() << "write failed";
            }
        }
        iface->DiscardCommandPort(port);
    }

    std::vector<MessageMoverInterface*> ifaces_;
};

TEST_F(ManyWritersTest, EveryMessageArrivesInOrderPerWriterAndNothingLeaks) {
    test::Watchdog watchdog(std::chrono::seconds(600));
    MessageMoverInterface* readerIface = framework_->CreateInterface("reader");
    MmCommandPort* service = readerIface->CreateCommandServicePort(200);
    CountingSink sink;
    service->RegisterPortEventSignalSink(sink);
    service->WatchPortEvents(true, false, false);
    std::vector<std::unique_ptr<Thread>> writers;
    for (intptr_t i = 0; i < kWriters; ++i) {
        ifaces_.push_back(framework_->CreateInterface("writer" + std::to_string(i)));
        writers.emplace_back(new Thread("writer", static_cast<ManyWritersTest*>(this),
                                        &ManyWritersTest::WriterRun, reinterpret_cast<void*>(i)));
    }
    for (std::unique_ptr<Thread>& writer : writers) {
        writer->Start();
    }
    std::vector<int32_t> next(kWriters, 0);
    int received = 0;
    while (received < kWriters * kMessagesPerWriter) {
        sink.triggered.Wait();
        sink.triggered.Reset();
        MmCommandMessageHandle msg;
        while (service->ReadMessage(&msg) == kVokErrNone) {
            Payload payload;
            std::memcpy(&payload, msg.GetPayloadPtr(nullptr), sizeof payload);
            readerIface->FreeMessage(msg);
            if (payload.writer < 0 || payload.writer >= kWriters) {
                ADD_FAILURE() << "bad payload";
                continue;
            }
            EXPECT_EQ(next[payload.writer], payload.number) << "writer " << payload.writer;
            next[payload.writer] = payload.number + 1;
            ++received;
        }
    }
    for (std::unique_ptr<Thread>& writer : writers) {
        writer->Join();
    }
    service->UnregisterPortEventSignalSink();
    EXPECT_LE(sink.count, received);
    EXPECT_EQ(0, Outstanding());
    EXPECT_EQ(0, IfaceCounter("reader", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("reader", "msgsHeldByPorts"));
    readerIface->DiscardCommandPort(service);
    LogCapture capture;
    for (int i = 0; i < kWriters; ++i) {
        EXPECT_EQ(0, IfaceCounter("writer" + std::to_string(i), "msgsHeldByUser"));
        framework_->DiscardInterface(ifaces_[i]);
    }
    framework_->DiscardInterface(readerIface);
    EXPECT_TRUE(capture.Matching("Leaked").empty());
}

}  // namespace
}  // namespace vok
