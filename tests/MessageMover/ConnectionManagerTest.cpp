// Addresses, the port registry and delivery.
#include <gtest/gtest.h>

#include "MmTestSupport.h"
#include "Src/Core/MessageMover/MmfSerialGenerator.h"

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
    // Writes an empty command message from port to dest; returns the write's result.
    VokError_t Send(MmCommandPort* port, MmPortAddress_t dest, uint32_t msgId = 1) {
        MmCommandMessageHandle msg;
        iface_->CreateCommandMessage(0, &msg);
        msg.SetMessageName({10, msgId});
        msg.SetDestinationAddress(dest);
        return port->WriteMessage(msg, nullptr);
    }
    // Reads one message from port; returns its id and frees it, or returns 0 when none waits.
    uint32_t Receive(MmCommandPort* port, MmPortAddress_t* sender = nullptr,
                     uint8_t* type = nullptr) {
        MmCommandMessageHandle msg;
        if (port->ReadMessage(&msg) != kVokErrNone) {
            return 0;
        }
        MmMessageName name;
        msg.GetMessageName(&name);
        if (sender != nullptr) {
            *sender = msg.GetSenderAddress();
        }
        if (type != nullptr) {
            *type = msg.GetMessageType();
        }
        iface_->FreeMessage(msg);
        return name.msgId;
    }

    MessageMoverInterface* iface_ = nullptr;
};

TEST_F(ConnectionManagerTest, AddressesAreIssuedInOrderFrom49152) {
    MmCommandPort* command = iface_->CreateCommandPort();
    EXPECT_EQ(49152u, command->GetAddress());
    MmConnectionPort* peer = nullptr;
    MmConnectionPort* first = iface_->CreateConnectedPair(iface_, &peer);
    // The pair's addresses show through where their messages come from.
    EXPECT_EQ(kVokErrNone, Send(command, 49153, 1));
    EXPECT_EQ(kVokErrNone, Send(command, 49154, 2));
    MmConnectionMessageHandle msg;
    EXPECT_TRUE(ThrowsMm([&] { first->ReadMessage(&msg); }, "Wrong sender portAddr."));
    EXPECT_TRUE(ThrowsMm([&] { peer->ReadMessage(&msg); }, "Wrong sender portAddr."));
    iface_->DiscardConnectionPort(first);
    iface_->DiscardConnectionPort(peer);
    iface_->DiscardCommandPort(command);
    EXPECT_EQ(0, Outstanding());
}

TEST_F(ConnectionManagerTest, ServiceIdentifierBoundConsumesNoAddress) {
    MmCommandPort* highest = iface_->CreateCommandServicePort(49150);
    EXPECT_EQ(49152u, highest->GetAddress());
    for (MmServiceIdentifier_t bad : {49151u, 49152u, 0xFFFFFFFFu}) {
        EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(bad); },
                             "Service ID out of bounds for Service CommandPort."));
    }
    MmCommandPort* next = iface_->CreateCommandPort();
    EXPECT_EQ(49153u, next->GetAddress());
    iface_->DiscardCommandPort(next);
    iface_->DiscardCommandPort(highest);
}

TEST_F(ConnectionManagerTest, ServicePortAnswersAtBothAddressesUntilDiscarded) {
    MmCommandPort* client = iface_->CreateCommandPort();
    MmCommandPort* service = iface_->CreateCommandServicePort(7);
    EXPECT_EQ(kVokErrNone, Send(client, 7, 1));
    EXPECT_EQ(kVokErrNone, Send(client, service->GetAddress(), 2));
    EXPECT_EQ(1u, Receive(service));
    EXPECT_EQ(2u, Receive(service));

    // A second port for identifier 7 is refused and leaves no record of its own address.
    EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(7); },
                         "Can't register - portAddr was already registered"));
    const MmPortAddress_t refused = service->GetAddress() + 1;
    EXPECT_EQ(kVokErrNone, Send(client, refused, 3));
    MmPortAddress_t sender = 0;
    uint8_t type = 0;
    EXPECT_EQ(kMmPortNotReachableMsg.msgId, Receive(client, &sender, &type));
    EXPECT_EQ(refused, sender);
    EXPECT_EQ(4, type);

    const MmPortAddress_t serviceAddress = service->GetAddress();
    iface_->DiscardCommandPort(service);
    for (MmPortAddress_t gone : {7u, serviceAddress}) {
        EXPECT_EQ(kVokErrNone, Send(client, gone));
        EXPECT_EQ(kMmPortNotReachableMsg.msgId, Receive(client, &sender));
        EXPECT_EQ(gone, sender);
    }
    MmCommandPort* again = iface_->CreateCommandServicePort(7);
    EXPECT_EQ(kVokErrNone, Send(client, 7, 4));
    EXPECT_EQ(4u, Receive(again));
    iface_->DiscardCommandPort(again);
    iface_->DiscardCommandPort(client);
    EXPECT_EQ(0, Outstanding());
}

TEST(SerialGeneratorTest, WrapAroundThrowsOnceThenRestartsAtOne) {
    MmfSerialGenerator generator(0xFFFFFFFE);
    EXPECT_EQ(0xFFFFFFFFu, generator.GetNext());
    try {
        generator.GetNext();
        FAIL() << "no exception";
    } catch (const VokResourceException& e) {
        EXPECT_STREQ("MmfSerialGenerator::GetNext - serial number wrap-around", e.what());
        EXPECT_EQ(kVokErrUnspecified, e.GetErr());
    }
    EXPECT_EQ(1u, generator.GetNext());
}

}  // namespace
}  // namespace vok
