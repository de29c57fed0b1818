// Two dispatcher threads with a port monitor on each end of a connected pair: a message written
// by one side is read by the other on its own thread and written back. Used by the dispatcher
// benchmarks and by the peer comparison, so both measure the same round trip.
#ifndef VOK_BENCH_DISPATCHER_PORTMONITORPAIR_H
#define VOK_BENCH_DISPATCHER_PORTMONITORPAIR_H

#include <atomic>
#include <memory>
#include <thread>

#include "SyscallCounts.h"
#include "vok/Event.h"
#include "vok/MessageMoverFramework.h"
#include "vok/MessageMoverInterface.h"
#include "vok/MmConnectionPort.h"
#include "vok/RdAsyncBridge.h"
#include "vok/RdPortMonitor.h"
#include "vok/RdTimer.h"
#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace bench {

// Owns a framework, one interface, the pair and both threads. The threads inherit the creating
// thread's CPU affinity. RoundTrips may be called from one thread at a time; destroying the
// object stops both loops, joins the threads and gives everything back.
class PortMonitorPair {
  public:
    PortMonitorPair() {
        framework_ = MessageMoverFramework::StartMessageMoverFramework("bench");
        iface_ = framework_->CreateInterface("bench");
        a_.iface = b_.iface = iface_;
        a_.port = iface_->CreateConnectedPair(iface_, &b_.port);
        a_.done = &done_;
        ta_ = std::thread(&PortMonitorPair::Run, this, &a_, true);
        tb_ = std::thread(&PortMonitorPair::Run, this, &b_, false);
        ready_.Wait();
    }

    ~PortMonitorPair() {
        a_.dispatcher.RequestStop();
        b_.dispatcher.RequestStop();
        ta_.join();
        tb_.join();
        iface_->DiscardConnectionPort(a_.port);
        iface_->DiscardConnectionPort(b_.port);
        framework_->DiscardInterface(iface_);
        MessageMoverFramework::StopMessageMoverFramework(framework_);
    }

    PortMonitorPair(const PortMonitorPair&) = delete;
    PortMonitorPair& operator=(const PortMonitorPair&) = delete;

    // Side A sends one message and bounces it with side B until count round trips are done.
    void RoundTrips(int count) {
        done_.Reset();
        a_.remaining = count;  // read on A's thread after the trigger below
        a_.kick->Trigger();
        done_.Wait();
    }

  private:
    struct Side {
        RuntimeDispatcher dispatcher;
        MmConnectionPort* port = nullptr;
        MessageMoverInterface* iface = nullptr;
        std::unique_ptr<RdPortMonitor> monitor;
        std::unique_ptr<RdAsyncBridge> kick;  // side A: starts a batch
        int remaining = 0;
        Event* done = nullptr;  // side A only: signalled when the batch is complete

        void Bounce() {
            MmConnectionMessageHandle msg;
            while (port->ReadMessage(&msg) == kVokErrNone) {
                if (done != nullptr && --remaining == 0) {
                    iface->FreeMessage(msg);
                    done->Signal();
                    continue;
                }
                port->WriteMessage(msg, nullptr);
            }
        }
        void Send() {
            MmConnectionMessageHandle msg;
            iface->CreateConnectionMessage(0, &msg);
            port->WriteMessage(msg, nullptr);
        }
    };

    void Run(Side* side, bool isA) {
        CountPollsOf(g_main_loop_get_context(RuntimeDispatcher::GetInternalLoop(side->dispatcher)));
        side->monitor.reset(new RdPortMonitor(*side->port, side->dispatcher,
                                              [side](bool, bool, bool) { side->Bounce(); }));
        side->monitor->SetEventMask(true, false, false);
        if (isA) {
            side->kick.reset(new RdAsyncBridge(side->dispatcher, [side]() { side->Send(); }));
        }
        RdTimerBase announce(side->dispatcher, [this]() {
            if (++started_ == 2) {
                ready_.Signal();
            }
        });
        announce.Schedule(0);
        side->dispatcher.Run();
        side->kick.reset();
        side->monitor.reset();
    }

    MessageMoverFramework* framework_ = nullptr;
    MessageMoverInterface* iface_ = nullptr;
    Side a_, b_;
    Event done_;
    Event ready_;
    std::atomic<int> started_{0};
    std::thread ta_, tb_;
};

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_DISPATCHER_PORTMONITORPAIR_H
