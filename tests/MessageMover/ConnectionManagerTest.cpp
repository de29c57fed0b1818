// Addresses, the port registry and delivery.
#include <gtest/gtest.h>

#include "MmTestSupport.h"
#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfCommandPortImpl.h"
#include "support/LogCapture.h"

namespace vok {
namespace {

using test::LogCapture;
using test::Outstanding;
using test::ThrowsMm;

const char kManagerPath[] = "Src/Core/MessageMover/MmfConnectionManager";

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
    MmfConnectionManager& Manager() {
        return static_cast<MessageMoverFrameworkImpl*>(framework_)->GetConnectionMgr();
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
    uint32_t Receive(MmCommandPort* port, MmPortAddress_t* sender = nullptr) {
        MmCommandMessageHandle msg;
        if (port->ReadMessage(&msg) != kVokErrNone) {
            return 0;
        }
        MmMessageName name;
        msg.GetMessageName(&name);
        if (sender != nullptr) {
            *sender = msg.GetSenderAddress();
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
    EXPECT_TRUE(ThrowsMm([&] { first->ReadMessage(&msg); }, "ReadMessage",
                         "Src/Core/MessageMover/MmfPortImplTemplate", "Wrong sender portAddr."));
    EXPECT_TRUE(ThrowsMm([&] { peer->ReadMessage(&msg); }, "ReadMessage",
                         "Src/Core/MessageMover/MmfPortImplTemplate", "Wrong sender portAddr."));
    iface_->DiscardConnectionPort(first);
    iface_->DiscardConnectionPort(peer);
    iface_->DiscardCommandPort(command);
    EXPECT_EQ(0, Outstanding());
}

TEST_F(ConnectionManagerTest, ServiceIdentifierBoundConsumesNoAddress) {
    MmCommandPort* highest = iface_->CreateCommandServicePort(49150);
    EXPECT_EQ(49152u, highest->GetAddress());
    for (MmServiceIdentifier_t bad : {49151u, 49152u, 0xFFFFFFFFu}) {
        EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(bad); }, "CreateCommandPort",
                             kManagerPath, "Service ID out of bounds for Service CommandPort."));
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
    LogCapture capture;
    EXPECT_TRUE(ThrowsMm([&] { iface_->CreateCommandServicePort(7); }, "Register", kManagerPath,
                         "Can't register - portAddr was already registered"));
    EXPECT_EQ(1u, capture
                      .Matching("ERROR: Can't register port; portAddr key=<7> was already "
                                "registered")
                      .size());
    const MmPortAddress_t refused = service->GetAddress() + 1;
    EXPECT_EQ(kVokErrNone, Send(client, refused, 3));
    MmPortAddress_t sender = 0;
    EXPECT_EQ(kMmPortNotReachableMsg.msgId, Receive(client, &sender));
    EXPECT_EQ(refused, sender);

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

TEST_F(ConnectionManagerTest, UndeliverableMessageIsFreedAndAnsweredOnce) {
    MmCommandPort* client = iface_->CreateCommandPort();
    const MmfConnectionManager::Statistics before = Manager().GetStatistics();
    MmBaseMessageHandle msg;
    static_cast<MessageMoverFrameworkImpl*>(framework_)->GetMessageMgr().CreateMessage(0, &msg);
    msg.SetSenderAddress(client->GetAddress());
    msg.SetDestinationAddress(60000);
    EXPECT_EQ(kVokErrUnreachable, Manager().DeliverMessage(msg));
    EXPECT_EQ(1, Outstanding());  // Only the reply.
    MmCommandMessageHandle reply;
    ASSERT_EQ(kVokErrNone, client->ReadMessage(&reply));
    uint32_t size = 1;
    reply.GetPayloadPtr(&size);
    MmMessageName name;
    reply.GetMessageName(&name);
    EXPECT_EQ(0u, size);
    EXPECT_EQ(4, reply.GetMessageType());
    EXPECT_EQ(1u, name.protocolId);
    EXPECT_EQ(2u, name.msgId);
    EXPECT_EQ(60000u, reply.GetSenderAddress());
    EXPECT_EQ(client->GetAddress(), reply.GetDestinationAddress());
    iface_->FreeMessage(reply);

    // Sender gone as well: the reply is dropped, never answered in turn.
    static_cast<MessageMoverFrameworkImpl*>(framework_)->GetMessageMgr().CreateMessage(0, &msg);
    msg.SetSenderAddress(60001);
    msg.SetDestinationAddress(60000);
    EXPECT_EQ(kVokErrUnreachable, Manager().DeliverMessage(msg));
    EXPECT_EQ(0, Outstanding());
    const MmfConnectionManager::Statistics after = Manager().GetStatistics();
    EXPECT_EQ(before.deliveries + 4, after.deliveries);
    EXPECT_EQ(before.undeliverable + 3, after.undeliverable);
    iface_->DiscardCommandPort(client);
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
