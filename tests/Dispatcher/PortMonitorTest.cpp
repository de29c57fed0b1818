// Port monitors on MessageMover ports.
#include <glib.h>
#include <gtest/gtest.h>

#include <memory>

#include "MessageMover/MmTestSupport.h"
#include "support/LogCapture.h"
#include "support/LoopSupport.h"
#include "vok/Event.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/MmMessageHandle.h"
#include "vok/RdPortMonitor.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace {

class PortMonitorTest : public test::MmFrameworkTest {
  protected:
    void SetUp() override {
        MmFrameworkTest::SetUp();
        iface_ = framework_->CreateInterface("monitor");
        end_ = iface_->CreateConnectedPair(iface_, &peer_);
    }
    void TearDown() override {
        iface_->DiscardConnectionPort(end_);
        iface_->DiscardConnectionPort(peer_);
        framework_->DiscardInterface(iface_);
        MmFrameworkTest::TearDown();
    }
    void Drain() { test::Drain(dispatcher_); }
    void WriteToEnd(int count) {
        for (int i = 0; i < count; ++i) {
            MmConnectionMessageHandle msg;
            *static_cast<int*>(iface_->CreateConnectionMessage(sizeof(int), &msg)) = i;
            ASSERT_EQ(kVokErrNone, peer_->WriteMessage(msg, nullptr));
        }
    }
    bool ReadOne() {
        MmConnectionMessageHandle msg;
        if (end_->ReadMessage(&msg) != kVokErrNone) {
            return false;
        }
        iface_->FreeMessage(msg);
        return true;
    }

    test::Watchdog watchdog_;
    RuntimeDispatcher dispatcher_;
    MessageMoverInterface* iface_ = nullptr;
    MmConnectionPort* end_ = nullptr;
    MmConnectionPort* peer_ = nullptr;
};

// Write and exception masks are refused (a port is always writable and raises none), and so is
// discarding a watched port. Messages waiting before the mask is set are reported without a new
// event; a callback reading one at a time is called until none is left, and may destroy its
// monitor.
TEST_F(PortMonitorTest, ReadablePortIsReportedOnceMaskedAndUntilEmpty) {
    WriteToEnd(2);
    int calls = 0;
    int read = 0;
    auto monitor = std::make_unique<RdPortMonitor>(*end_, dispatcher_, [&](bool r, bool, bool) {
        EXPECT_TRUE(r);
        ++calls;
        read += ReadOne() ? 1 : 0;
    });
    EXPECT_THROW(monitor->SetEventMask(false, true, false), VokProgramErrorException);
    EXPECT_THROW(monitor->SetEventMask(false, false, true), VokProgramErrorException);
    EXPECT_THROW(monitor->SetEventMask(true, true, true), VokProgramErrorException);
    EXPECT_THROW(iface_->DiscardConnectionPort(end_), VokProgramErrorException);
    Drain();
    EXPECT_EQ(0, calls);  // no mask yet
    monitor->SetEventMask(true, false, false);
    WriteToEnd(3);
    Drain();
    EXPECT_EQ(5, read);
    EXPECT_EQ(5, calls);
    monitor->ChangeCb([&](bool, bool, bool) {
        ++calls;
        monitor.reset();
    });
    WriteToEnd(2);
    Drain();
    EXPECT_EQ(6, calls);
    while (ReadOne()) {
    }
}  // TearDown discards end_, no longer watched.

// A message written on another thread wakes the monitor's loop once: one poll per hop.
TEST_F(PortMonitorTest, EachMessageFromAnotherThreadWakesTheLoopOnce) {
    const int kHops = 50;
    Event read;
    int received = 0;
    RdPortMonitor monitor(*end_, dispatcher_, [&](bool, bool, bool) {
        while (ReadOne()) {
            ++received;
        }
        read.Signal();
    });
    monitor.SetEventMask(true, false, false);
    const int polls = test::CountPollsOverHops(dispatcher_, kHops, [&]() {
        WriteToEnd(1);
        read.Wait();
        read.Reset();
    });
    EXPECT_EQ(kHops, received);
    // One per message, at most three more for starting and stopping.
    EXPECT_GE(polls, kHops);
    EXPECT_LE(polls, kHops + 3);
}

}  // namespace
}  // namespace vok
