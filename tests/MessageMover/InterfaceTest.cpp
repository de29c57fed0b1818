// Interfaces: accounting of held ports and messages, and leak reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <vector>

#include "MmTestSupport.h"
#include "support/LogCapture.h"
#include "support/MemoryCheck.h"
#include "vok/Logger.h"

namespace vok {
namespace {

using test::CountingSink;
using test::IfaceCounter;
using test::IntendedLeakScope;
using test::LogCapture;
using test::Outstanding;
using test::ThrowsMm;

// The leak log's lines, with the hex dump lines counted instead of kept.
std::vector<std::string> LeakLines(const LogCapture& capture) {
    std::vector<std::string> lines;
    for (const test::LogLine& line : capture.Lines()) {
        if (line.context != "VOK.MessageMover.Leak") {
            continue;
        }
        EXPECT_EQ(kLogLevelWarning, line.level);
        lines.push_back(line.message.compare(0, 6, "000000") == 0 ? "dump" : line.message);
    }
    return lines;
}

class InterfaceTest : public test::MmFrameworkTest {
  protected:
    // An interface with a connected pair of its own, and a message {20, 1} that owner holds.
    void SetUpPair(const char* name, MessageMoverInterface* owner, uint32_t size) {
        iface_ = framework_->CreateInterface(name);
        end_ = iface_->CreateConnectedPair(iface_, &peer_);
        (owner != nullptr ? owner : iface_)->CreateConnectionMessage(size, &msg_);
        msg_.SetMessageName({20, 1});
    }
    void DiscardPair() {
        iface_->DiscardConnectionPort(end_);
        iface_->DiscardConnectionPort(peer_);
        framework_->DiscardInterface(iface_);
    }

    MessageMoverInterface* iface_ = nullptr;
    MmConnectionPort* end_ = nullptr;
    MmConnectionPort* peer_ = nullptr;
    MmConnectionMessageHandle msg_;
};

// Destroying an interface reports the ports and messages it still holds, with dumps; the ports
// are closed: unreachable, the peer told, queued messages kept, calls on them refused.
TEST_F(InterfaceTest, LeakedPortsAreClosedAndInert) {
    if (test::RunningOnValgrind()) {
        GTEST_SKIP() << "leaks ports and messages on purpose";
    }
    MessageMoverInterface* keeper = framework_->CreateInterface("keeper");
    MessageMoverInterface* leaky = framework_->CreateInterface("leaky");
    MmCommandPort* client = keeper->CreateCommandPort();
    MmCommandPort* service;
    MmConnectionPort* leakedEnd;
    MmConnectionPort* keeperEnd = nullptr;
    MmCommandMessageHandle msg, held[2];
    {
        IntendedLeakScope leak;
        service = leaky->CreateCommandServicePort(9);
        leakedEnd = leaky->CreateConnectedPair(keeper, &keeperEnd);
        leaky->CreateCommandMessage(3, &held[0]);
        leaky->CreateCommandMessage(0, &held[1]);
        keeper->CreateCommandMessage(0, &msg);
        msg.SetMessageName({20, 1});
        msg.SetDestinationAddress(9);
        ASSERT_EQ(kVokErrNone, client->WriteMessage(msg, nullptr));  // Queued, then leaked.
    }
    held[0].SetMessageName({20, 1});
    held[1].SetMessageName({21, 2});
    LogCapture capture;
    framework_->DiscardInterface(leaky);
    char connLine[128], cmdLine[128];
    std::snprintf(connLine, sizeof connLine,
                  "ReportLeaks: Leaked ConnectionPort <portAddr=<49154>; iface=<leaky>>; ptr=<%p>.",
                  static_cast<void*>(leakedEnd));
    std::snprintf(cmdLine, sizeof cmdLine,
                  "ReportLeaks: Leaked CommandPort <portAddr=<49153>; iface=<leaky>>; ptr=<%p>.",
                  static_cast<void*>(service));
    // clang-format off
    const std::vector<std::string> expected = {
        connLine,
        "ReportLeaks: Summary: 1 ConnectionPort objects in leaky were leaked.",
        cmdLine,
        "ReportLeaks: Summary: 1 CommandPort objects in leaky were leaked.",
        "ReportLeaks: Leaked 2 CommandMessage objects in leaky. Hex dumps of leaked handles and "
        "message headers follow.",
        "ReportLeaks: Leaked CommandMessage # 0 in leaky; payloadSize=<3>; msgProtocol=<20>; "
        "msgId=<1>.",
        "dump", "dump", "dump", "dump",  // The handle, then the header's 39 bytes.
        "ReportLeaks: Leaked CommandMessage # 1 in leaky; payloadSize=<0>; msgProtocol=<21>; "
        "msgId=<2>.",
        "dump", "dump", "dump", "dump",
        "ReportLeaks: Summary: 2 CommandMessage objects in leaky were leaked.",
    };
    // clang-format on
    EXPECT_EQ(expected, LeakLines(capture));
    EXPECT_EQ(2, IfaceCounter("leaky", "msgsLeakedByUser"));

    MmConnectionMessageHandle notice;
    EXPECT_EQ(kVokErrPeerClosed, keeperEnd->ReadMessage(&notice));
    keeper->CreateCommandMessage(0, &msg);
    msg.SetMessageName({20, 2});
    msg.SetDestinationAddress(9);
    ASSERT_EQ(kVokErrNone, client->WriteMessage(msg, nullptr));
    ASSERT_EQ(kVokErrNone, client->ReadMessage(&msg));
    MmMessageName name;
    EXPECT_EQ(kMmPortNotReachableMsg, *msg.GetMessageName(&name));
    keeper->FreeMessage(msg);
    keeper->DiscardConnectionPort(keeperEnd);  // Its close finds no port at the leaked end.

    const char kDiscarded[] = "Port's interface was discarded.";
    CountingSink sink;
    const std::vector<std::function<void()>> calls = {
        [&] { service->WriteMessage(msg, nullptr); },
        [&] { leakedEnd->ReadMessage(&notice); },
        [&] { leakedEnd->RegisterPortEventSignalSink(sink); },
    };
    for (const std::function<void()>& call : calls) {
        EXPECT_TRUE(ThrowsMm(call, kDiscarded));
    }
    keeper->DiscardCommandPort(client);
    framework_->DiscardInterface(keeper);
    // Reported, not freed: the two held and the one still queued at the leaked service port.
    EXPECT_EQ(3, Outstanding());
}

// Held by another interface or as the other handle kind: refused before anything changes.
TEST_F(InterfaceTest, MessageNotHeldIsRefusedWithNothingChanged) {
    MessageMoverInterface* owner = framework_->CreateInterface("owner");
    SetUpPair("other", owner, 0);
    const char kNotHeld[] = "ERROR: link not on list or invalid link";
    EXPECT_TRUE(ThrowsMm([&] { iface_->FreeMessage(msg_); }, kNotHeld));
    EXPECT_TRUE(
        ThrowsMm([&] { owner->FreeMessage(MmCommandMessageHandle(msg_.GetBinding())); }, kNotHeld));
    EXPECT_TRUE(ThrowsMm([&] { end_->WriteMessage(msg_, nullptr); }, kNotHeld));
    EXPECT_TRUE(ThrowsMm([&] { iface_->DuplicateConnectionMessage(msg_); }, kNotHeld));
    EXPECT_EQ(0u, msg_.GetBinding().GetDestinationAddress());
    EXPECT_EQ(1, Outstanding());
    EXPECT_EQ(1, IfaceCounter("owner", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("other", "msgsHeldByUser"));
    owner->FreeMessage(msg_);
    DiscardPair();
    framework_->DiscardInterface(owner);
}

// Same-name interfaces share counters: a second neither resets them nor counts the first's
// messages as its leaks.
TEST_F(InterfaceTest, SameNameInterfacesShareCountersWithoutResettingThem) {
    MessageMoverInterface* first = framework_->CreateInterface("twin");
    MmCommandMessageHandle a, b, c;
    first->CreateCommandMessage(0, &a);
    first->CreateCommandMessage(0, &b);
    MessageMoverInterface* second = framework_->CreateInterface("twin");
    EXPECT_EQ(2, IfaceCounter("twin", "msgsHeldByUser"));
    second->CreateCommandMessage(0, &c);
    first->FreeMessage(a);
    first->FreeMessage(b);
    framework_->DiscardInterface(first);
    EXPECT_EQ(1, IfaceCounter("twin", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("twin", "msgsLeakedByUser"));
    second->FreeMessage(c);
    framework_->DiscardInterface(second);
    EXPECT_EQ(0, IfaceCounter("twin", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("twin", "msgsLeakedByUser"));
}

// A read message was rebound: duplicating it is refused before a copy is allocated.
TEST_F(InterfaceTest, DuplicatingAReadMessageIsRefusedWithNothingAllocated) {
    SetUpPair("dup", nullptr, 4);
    ASSERT_EQ(kVokErrNone, peer_->WriteMessage(msg_, nullptr));
    ASSERT_EQ(kVokErrNone, end_->ReadMessage(&msg_));
    EXPECT_TRUE(
        ThrowsMm([&] { iface_->DuplicateConnectionMessage(msg_); }, "binding number mismatch"));
    EXPECT_EQ(1, Outstanding());
    EXPECT_EQ(1, IfaceCounter("dup", "msgsHeldByUser"));
    iface_->FreeMessage(msg_);
    EXPECT_EQ(0, Outstanding());
    DiscardPair();
}

}  // namespace
}  // namespace vok
