// The cross-thread round trips vok's port monitors are measured against: GLib idle sources
// attached to the other thread's context, and the floor of two threads blocking on eventfds.
// Shared by the dispatcher benchmarks and the peer comparison.
#ifndef VOK_BENCH_DISPATCHER_WAKEUPPAIRS_H
#define VOK_BENCH_DISPATCHER_WAKEUPPAIRS_H

#include <glib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <thread>

#include "BatchDone.h"
#include "SyscallCounts.h"

namespace vok {
namespace bench {

// Two threads each running a GLib main loop on a context of its own; each hop attaches a new
// idle source to the other context. The threads inherit the creating thread's CPU affinity;
// RoundTrips is called from one thread at a time; destruction stops and joins both loops.
class GlibIdlePair {
  public:
    GlibIdlePair() {
        a_.peer = &b_;
        b_.peer = &a_;
        a_.done = &done_;
        CountPollsOf(a_.context);
        CountPollsOf(b_.context);
        ta_ = std::thread([this]() { g_main_loop_run(a_.loop); });
        tb_ = std::thread([this]() { g_main_loop_run(b_.loop); });
    }
    ~GlibIdlePair() {
        g_main_loop_quit(a_.loop);
        g_main_loop_quit(b_.loop);
        ta_.join();
        tb_.join();
    }
    GlibIdlePair(const GlibIdlePair&) = delete;
    GlibIdlePair& operator=(const GlibIdlePair&) = delete;

    void RoundTrips(int count) {
        done_.Reset();
        a_.remaining = count;  // read by a's thread after the post below
        PostTo(&b_);
        done_.Wait();
    }

  private:
    struct Side {
        GMainContext* context = g_main_context_new();
        GMainLoop* loop = g_main_loop_new(context, FALSE);
        Side* peer = nullptr;
        int remaining = 0;
        BatchDone* done = nullptr;  // side A only
        Side() = default;
        Side(const Side&) = delete;
        Side& operator=(const Side&) = delete;
        ~Side() {
            g_main_loop_unref(loop);
            g_main_context_unref(context);
        }
    };

    static void PostTo(Side* to) {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, &Hop, to, nullptr);
        g_source_attach(source, to->context);
        g_source_unref(source);
    }

    static gboolean Hop(gpointer data) {
        Side* side = static_cast<Side*>(data);
        if (side->done != nullptr && --side->remaining == 0) {
            side->done->Signal();
        } else {
            PostTo(side->peer);
        }
        return G_SOURCE_REMOVE;
    }

    Side a_, b_;
    BatchDone done_;
    std::thread ta_, tb_;
};

// The floor: the calling thread writes one eventfd and blocks reading another, which an echo
// thread blocked on the first one writes. Same threading rules as GlibIdlePair.
class EventfdPair {
  public:
    EventfdPair() : echo_(&EventfdPair::Echo, this) {}
    ~EventfdPair() {
        Put(ping_, kStop);
        echo_.join();
        close(ping_);
        close(pong_);
    }
    EventfdPair(const EventfdPair&) = delete;
    EventfdPair& operator=(const EventfdPair&) = delete;

    void RoundTrips(int count) {
        for (int i = 0; i < count; ++i) {
            Put(ping_, 1);
            Take(pong_);
        }
    }

  private:
    static const uint64_t kStop = 2;

    static void Put(int fd, uint64_t value) { (void)!write(fd, &value, sizeof value); }
    static uint64_t Take(int fd) {
        uint64_t value = 0;
        return read(fd, &value, sizeof value) == sizeof value ? value : kStop;
    }
    void Echo() {
        while (Take(ping_) != kStop) {
            Put(pong_, 1);
        }
    }

    int ping_ = eventfd(0, EFD_CLOEXEC);
    int pong_ = eventfd(0, EFD_CLOEXEC);
    std::thread echo_;  // after the descriptors: started once they exist
};

}  // namespace bench
}  // namespace vok

#endif  // VOK_BENCH_DISPATCHER_WAKEUPPAIRS_H
