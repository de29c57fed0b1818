// GLib: two threads each running a main loop on a context of its own; each hop attaches an idle
// source to the other thread's context, which wakes that loop.
#include <glib.h>

#include <atomic>
#include <thread>

#include "PeerHarness.h"

namespace {

struct Side {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    Side* peer = nullptr;
    int remaining = 0;
    peers::Done* done = nullptr;  // the counting side only
    ~Side() {
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
};

gboolean Hop(gpointer data);

void PostTo(Side* to) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &Hop, to, nullptr);
    g_source_attach(source, to->context);
    g_source_unref(source);
}

gboolean Hop(gpointer data) {
    Side* side = static_cast<Side*>(data);
    if (side->done != nullptr && --side->remaining == 0) {
        side->done->Signal();
    } else {
        PostTo(side->peer);
    }
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    if (!peers::Is(argc, argv, "cross")) {
        return peers::Usage(argv[0], "cross");
    }
    Side a, b;
    a.peer = &b;
    b.peer = &a;
    peers::Done done;
    a.done = &done;
    std::thread ta([&]() { g_main_loop_run(a.loop); });
    std::thread tb([&]() { g_main_loop_run(b.loop); });
    const int rc = peers::Measure(1000, [&](int count) {
        done.Reset();
        a.remaining = count;  // read by a's thread after the post below
        PostTo(&b);
        done.Wait();
    });
    g_main_loop_quit(a.loop);
    g_main_loop_quit(b.loop);
    ta.join();
    tb.join();
    return rc;
}
