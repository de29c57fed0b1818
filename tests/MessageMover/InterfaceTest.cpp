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

class InterfaceTest : public test::MmFrameworkTest {};

// Destroying an interface reports the ports and messages it still holds, with dumps of the
// messages. The ports are closed then: unreachable, the peer told, their queued messages kept,
// every call on them refused, and nothing leads back to the destroyed interface.
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
        [&] { service->GetAddress(); },
        [&] { service->ReadMessage(&msg); },
        [&] { service->WriteMessage(msg, nullptr); },
        [&] { leakedEnd->ReadMessage(&notice); },
        [&] { leakedEnd->RegisterPortEventSignalSink(sink); },
        [&] { leakedEnd->UnregisterPortEventSignalSink(); },
        [&] { leakedEnd->WatchPortEvents(false, false, false); },
        [&] { leakedEnd->GetPortState(nullptr, nullptr, nullptr); },
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
    MessageMoverInterface* other = framework_->CreateInterface("other");
    MmConnectionPort* peer = nullptr;
    MmConnectionPort* otherEnd = other->CreateConnectedPair(other, &peer);
    MmConnectionMessageHandle msg;
    owner->CreateConnectionMessage(0, &msg);
    msg.SetMessageName({20, 1});
    const char kNotHeld[] = "ERROR: link not on list or invalid link";
    EXPECT_TRUE(ThrowsMm([&] { other->FreeMessage(msg); }, kNotHeld));
    EXPECT_TRUE(
        ThrowsMm([&] { owner->FreeMessage(MmCommandMessageHandle(msg.GetBinding())); }, kNotHeld));
    EXPECT_TRUE(ThrowsMm([&] { otherEnd->WriteMessage(msg, nullptr); }, kNotHeld));
    EXPECT_TRUE(ThrowsMm([&] { other->DuplicateConnectionMessage(msg); }, kNotHeld));
    EXPECT_EQ(0u, msg.GetBinding().GetDestinationAddress());
    EXPECT_EQ(1, Outstanding());
    EXPECT_EQ(1, IfaceCounter("owner", "msgsHeldByUser"));
    EXPECT_EQ(0, IfaceCounter("other", "msgsHeldByUser"));
    owner->FreeMessage(msg);
    other->DiscardConnectionPort(otherEnd);
    other->DiscardConnectionPort(peer);
    framework_->DiscardInterface(other);
    framework_->DiscardInterface(owner);
}

// Interfaces with one name share their counters: a second one neither resets them nor takes
// the first one's messages into its leak count.
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

// A message that has been read was rebound, so it cannot be duplicated: refused before a copy
// is allocated, so nothing leaks.
TEST_F(InterfaceTest, DuplicatingAReadMessageIsRefusedWithNothingAllocated) {
    MessageMoverInterface* iface = framework_->CreateInterface("dup");
    MmConnectionPort* peer = nullptr;
    MmConnectionPort* end = iface->CreateConnectedPair(iface, &peer);
    MmConnectionMessageHandle msg;
    iface->CreateConnectionMessage(4, &msg);
    msg.SetMessageName({20, 1});
    ASSERT_EQ(kVokErrNone, peer->WriteMessage(msg, nullptr));
    ASSERT_EQ(kVokErrNone, end->ReadMessage(&msg));
    EXPECT_TRUE(
        ThrowsMm([&] { iface->DuplicateConnectionMessage(msg); }, "binding number mismatch"));
    EXPECT_EQ(1, Outstanding());
    EXPECT_EQ(1, IfaceCounter("dup", "msgsHeldByUser"));
    iface->FreeMessage(msg);
    EXPECT_EQ(0, Outstanding());
    iface->DiscardConnectionPort(end);
    iface->DiscardConnectionPort(peer);
    framework_->DiscardInterface(iface);
}

}  // namespace
}  // namespace vok
