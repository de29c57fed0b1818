// Listing ports, and many threads writing at once.
#include <gtest/gtest.h>
#include <sched.h>

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

using ListPortsTest = test::MmFrameworkTest;

TEST_F(ListPortsTest, ShowsOpenPortsWithTheirQueues) {
    MessageMoverInterface* a = framework_->CreateInterface("a");
    MessageMoverInterface* b = framework_->CreateInterface("b");
    MmCommandPort* service = b->CreateCommandServicePort(300);
    MmCommandPort* client = a->CreateCommandPort();
    MmConnectionPort* peer = nullptr;
    MmConnectionPort* end = a->CreateConnectedPair(b, &peer);
    for (int i = 0; i < 3; ++i) {
        MmCommandMessageHandle msg;
        a->CreateCommandMessage(4, &msg);
        msg.SetDestinationAddress(300);
        ASSERT_EQ(kVokErrNone, client->WriteMessage(msg, nullptr));
    }
    MmCommandMessageHandle read;
    ASSERT_EQ(kVokErrNone, service->ReadMessage(&read));
    b->FreeMessage(read);

    std::vector<MmPortInfo> ports = framework_->ListPorts();
    ASSERT_EQ(4u, ports.size());
    // In address order: the service port, the client port, then the pair, each naming the other.
    EXPECT_EQ(service->GetAddress(), ports[0].address);
    EXPECT_EQ("b", ports[0].interfaceName);
    EXPECT_EQ(300u, ports[0].serviceId);
    EXPECT_EQ(2u, ports[0].queueDepth);
    EXPECT_EQ(0u, ports[0].peerAddress);
    EXPECT_EQ(client->GetAddress(), ports[1].address);
    EXPECT_EQ("a", ports[2].interfaceName);
    EXPECT_EQ(ports[3].address, ports[2].peerAddress);
    EXPECT_EQ(ports[2].address, ports[3].peerAddress);

    a->DiscardConnectionPort(end);  // Queues kMmPeerClosedMsg on the peer.
    a->DiscardCommandPort(client);
    ports = framework_->ListPorts();
    ASSERT_EQ(2u, ports.size());
    EXPECT_EQ(2u, ports[0].queueDepth);
    EXPECT_EQ(1u, ports[1].queueDepth);
    b->DiscardCommandPort(service);
    b->DiscardConnectionPort(peer);
    EXPECT_TRUE(framework_->ListPorts().empty());
    framework_->DiscardInterface(a);
    framework_->DiscardInterface(b);
}

void PinTo(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    ASSERT_EQ(0, sched_setaffinity(0, sizeof set, &set));
}

// Four writers send numbered messages to one service port, drained whenever its sink fires; all on
// one core, so a writer is preempted anywhere. Then the port is discarded under further writes,
// until each writer is told it is unreachable.
class ManyWritersTest : public test::MmFrameworkTest {
  public:
    static const int kWriters = 4;
    static const int kMessagesPerWriter = 25000;
    int core_ = 0;

    struct Payload {
        int32_t writer;
        int32_t number;
    };

    void WriterRun(void* arg) {
        const int32_t writer = static_cast<int32_t>(reinterpret_cast<intptr_t>(arg));
        MessageMoverInterface* iface = ifaces_[writer];
        MmCommandPort* port = iface->CreateCommandPort();
        PinTo(core_);
        bool unreachable = false;
        for (int32_t number = 0; !unreachable; ++number) {
            if (number == kMessagesPerWriter) {
                allReceived_.Wait();
            }
            MmCommandMessageHandle msg;
            const Payload payload = {writer, number};
            std::memcpy(iface->CreateCommandMessage(sizeof payload, &msg), &payload,
                        sizeof payload);
            msg.SetMessageName({60, 1});
            msg.SetDestinationAddress(200);
            if (port->WriteMessage(msg, nullptr) != kVokErrNone) {
                ADD_FAILURE() << "write failed";
            }
            MmCommandMessageHandle reply;
            if (port->ReadMessage(&reply) == kVokErrNone) {
                MmMessageName name;
                unreachable = *reply.GetMessageName(&name) == kMmPortNotReachableMsg;
                iface->FreeMessage(reply);
            }
        }
        iface->DiscardCommandPort(port);  // Frees the notices still queued.
    }

    std::vector<MessageMoverInterface*> ifaces_;
    Event allReceived_;
};

TEST_F(ManyWritersTest, MessagesArriveInOrderPerWriterUntilThePortIsDiscarded) {
    test::Watchdog watchdog(std::chrono::seconds(600));
    cpu_set_t allowed;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof allowed, &allowed));
    while (!CPU_ISSET(core_, &allowed)) {
        ++core_;
    }
    PinTo(core_);
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
            if (++received % 4096 == 0) {
                // Listing takes a delivery's locks, while deliveries run.
                EXPECT_FALSE(framework_->ListPorts().empty());
            }
        }
    }
    service->UnregisterPortEventSignalSink();
    EXPECT_LE(sink.count, received);
    allReceived_.Signal();
    readerIface->DiscardCommandPort(service);  // Frees what is still queued.
    for (std::unique_ptr<Thread>& writer : writers) {
        writer->Join();
    }
    EXPECT_EQ(0, Outstanding());
    EXPECT_EQ(0, IfaceCounter("reader", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("reader", "msgsHeldByPorts"));
    LogCapture capture;
    for (int i = 0; i < kWriters; ++i) {
        EXPECT_EQ(0, IfaceCounter("writer" + std::to_string(i), "msgsHeldByUser"));
        framework_->DiscardInterface(ifaces_[i]);
    }
    framework_->DiscardInterface(readerIface);
    EXPECT_TRUE(capture.Matching("Leaked").empty());
    EXPECT_EQ(0, sched_setaffinity(0, sizeof allowed, &allowed));
}

}  // namespace
}  // namespace vok
