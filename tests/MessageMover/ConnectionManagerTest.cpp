// Addresses, the port registry and delivery.
#include <gtest/gtest.h>

#include "MmTestSupport.h"

namespace vok {
namespace {

using test::Outstanding;
using test::ThrowsMm;

class ConnectionManagerTest : public test::MmFrameworkTest {
  protected:
    void SetUp() override {
        MmFrameworkTest::SetUp();
        iface_ = framework_->CreateInterface("cm");
    }
    void TearDown() override {
        framework_->DiscardInterface(iface_);
        MmFrameworkTest::TearDown();
    }
    VokError_t Send(MmCommandPort* port, MmPortAddress_t dest, uint32_t msgId = 1) {
        MmCommandMessageHandle msg;
        iface_->CreateCommandMessage(0, &msg);
        msg.SetMessageName({10, msgId});
        msg.SetDestinationAddress(dest);
        return port->WriteMessage(msg, nullptr);
    }
    struct Received {
        uint32_t id;  // 0 when no message waited.
        MmPortAddress_t sender;
        uint8_t type;
    };
    // Reads one message from port and frees it.
    Received Receive(MmCommandPort* port) {
        Received got{0, 0, 0};
        MmCommandMessageHandle msg;
        if (port->ReadMessage(&msg) == kVokErrNone) {
            MmMessageName name;
            got = {msg.GetMessageName(&name)->msgId, msg.GetSenderAddress(), msg.GetMessageType()};
            iface_->FreeMessage(msg);
        }
        return got;
    }

    MessageMoverInterface* iface_ = nullptr;
};

// Service identifiers lie below the first address and take none; a refused port takes none.
TEST_F(ConnectionManagerTest, ServiceIdsStayBelowTheFirstAddressAndPairsReadOnlyTheirPeer) {
    MmCommandPort* highest = iface_->CreateCommandServicePort(49150);
    EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(49151); },
                         "Service ID out of bounds for Service CommandPort."));
    MmCommandPort* command = iface_->CreateCommandPort();
    MmConnectionPort* peer = nullptr;
    MmConnectionPort* first = iface_->CreateConnectedPair(iface_, &peer);
    // The pair's addresses show through where their messages come from.
    EXPECT_EQ(kVokErrNone, Send(command, 49154, 1));
    EXPECT_EQ(kVokErrNone, Send(command, 49155, 2));
    MmConnectionMessageHandle msg;
    EXPECT_TRUE(ThrowsMm([&] { first->ReadMessage(&msg); }, "Wrong sender portAddr."));
    EXPECT_TRUE(ThrowsMm([&] { peer->ReadMessage(&msg); }, "Wrong sender portAddr."));
    iface_->DiscardConnectionPort(first);
    iface_->DiscardConnectionPort(peer);
    iface_->DiscardCommandPort(command);
    iface_->DiscardCommandPort(highest);
    EXPECT_EQ(0, Outstanding());
}

TEST_F(ConnectionManagerTest, ServicePortAnswersAtBothAddressesUntilDiscarded) {
    MmCommandPort* client = iface_->CreateCommandPort();
    MmCommandPort* service = iface_->CreateCommandServicePort(7);
    EXPECT_EQ(kVokErrNone, Send(client, 7, 1));
    EXPECT_EQ(kVokErrNone, Send(client, service->GetAddress(), 2));
    EXPECT_EQ(1u, Receive(service).id);
    EXPECT_EQ(2u, Receive(service).id);

    // A second port for identifier 7 is refused and leaves no record of its own address.
    EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(7); },
                         "Can't register - portAddr was already registered"));
    const MmPortAddress_t refused = service->GetAddress() + 1;
    const int32_t undeliverable = test::CounterValue("root.vok.MessageMover.undeliverableMessages");
    EXPECT_EQ(kVokErrNone, Send(client, refused, 3));
    EXPECT_EQ(undeliverable + 1, test::CounterValue("root.vok.MessageMover.undeliverableMessages"));
    Received notice = Receive(client);
    EXPECT_EQ(kMmPortNotReachableMsg.msgId, notice.id);
    EXPECT_EQ(refused, notice.sender);
    EXPECT_EQ(4, notice.type);

    const MmPortAddress_t serviceAddress = service->GetAddress();
    iface_->DiscardCommandPort(service);
    for (MmPortAddress_t gone : {7u, serviceAddress}) {
        EXPECT_EQ(kVokErrNone, Send(client, gone));
        notice = Receive(client);
        EXPECT_EQ(kMmPortNotReachableMsg.msgId, notice.id);
        EXPECT_EQ(gone, notice.sender);
    }
    MmCommandPort* again = iface_->CreateCommandServicePort(7);
    EXPECT_EQ(kVokErrNone, Send(client, 7, 4));
    EXPECT_EQ(4u, Receive(again).id);
    iface_->DiscardCommandPort(again);
    iface_->DiscardCommandPort(client);
    EXPECT_EQ(0, Outstanding());
}

}  // namespace
}  // namespace vok
