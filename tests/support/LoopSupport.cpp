#include "support/LoopSupport.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <exception>
#include <memory>
#include <thread>

#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace test {

bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds) {
    bool expired = false;
    // Removed however the loop ends: done() may throw (Pump rethrowing a callback's exception).
    std::unique_ptr<GSource, void (*)(GSource*)> deadline(
        g_timeout_source_new_seconds(static_cast<guint>(limitSeconds)), [](GSource* source) {
            g_source_destroy(source);
            g_source_unref(source);
        });
    g_source_set_callback(
        deadline.get(),
        [](gpointer flag) -> gboolean {
            *static_cast<bool*>(flag) = true;
            return G_SOURCE_REMOVE;
        },
        &expired, nullptr);
    g_source_attach(deadline.get(), context);
    while (!done()) {
        if (expired) {
            return false;
        }
        g_main_context_iteration(context, TRUE);
    }
    return true;
}

bool Pump(RuntimeDispatcher& dispatcher, const std::function<bool()>& done, int limitSeconds) {
    std::exception_ptr raised;
    dispatcher.SetExceptionHandler(
        [&raised](std::exception_ptr exception) { raised = raised ? raised : exception; });
    struct Restore {
        RuntimeDispatcher& dispatcher;
        ~Restore() { dispatcher.SetExceptionHandler(nullptr); }
    } restore{dispatcher};
    const bool reached = IterateUntil(
        ContextOf(dispatcher),
        [&]() {
            if (raised) {
                std::exception_ptr first = raised;
                raised = nullptr;
                std::rethrow_exception(first);
            }
            return done();
        },
        limitSeconds);
    if (!reached) {
        ADD_FAILURE() << "condition not reached within " << limitSeconds << " s";
    }
    return reached;
}

void Drain(RuntimeDispatcher& dispatcher) {
    while (g_main_context_iteration(ContextOf(dispatcher), FALSE)) {
    }
}

GMainContext* ContextOf(RuntimeDispatcher& dispatcher) {
    return g_main_loop_get_context(RuntimeDispatcher::GetInternalLoop(dispatcher));
}

namespace {

std::atomic<int> gPolls(0);
GPollFunc gRealPoll = nullptr;

gint CountingPoll(GPollFD* fds, guint nfds, gint timeout) {
    ++gPolls;
    return gRealPoll(fds, nfds, timeout);
}

}  // namespace

int CountPollsOverHops(RuntimeDispatcher& dispatcher, int hops, const std::function<void()>& hop) {
    GMainContext* context = ContextOf(dispatcher);
    gRealPoll = g_main_context_get_poll_func(context);
    g_main_context_set_poll_func(context, &CountingPoll);
    gPolls = 0;
    std::thread other([&]() {
        for (int i = 0; i < hops; ++i) {
            hop();
        }
        dispatcher.RequestStop();
    });
    dispatcher.Run();
    other.join();
    g_main_context_set_poll_func(context, gRealPoll);
    return gPolls.load();
}

}  // namespace test
}  // namespace vok
