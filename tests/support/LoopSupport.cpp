#include "support/LoopSupport.h"

#include <glib.h>

#include "vok/RuntimeDispatcher.h"

namespace vok {
namespace test {

namespace {

gboolean SetFlag(gpointer flag) {
    *static_cast<bool*>(flag) = true;
    return G_SOURCE_REMOVE;
}

// Runs context until done() or until deadline, when it fires, sets *expired. done() may throw
// (a dispatcher rethrowing a callback's exception): the deadline is removed all the same.
bool IterateWithDeadline(GMainContext* context, const std::function<bool()>& done,
                         GSource* deadline, bool* expired) {
    struct Remove {
        GSource* source;
        ~Remove() {
            g_source_destroy(source);
            g_source_unref(source);
        }
    } remove{deadline};
    g_source_set_callback(deadline, SetFlag, expired, nullptr);
    g_source_attach(deadline, context);
    while (!done() && !*expired) {
        g_main_context_iteration(context, TRUE);
    }
    return done();
}

}  // namespace

bool IterateUntil(GMainContext* context, const std::function<bool()>& done, int limitSeconds) {
    bool expired = false;
    return IterateWithDeadline(
        context, done, g_timeout_source_new_seconds(static_cast<guint>(limitSeconds)), &expired);
}

CallbackExceptions::CallbackExceptions(RuntimeDispatcher& dispatcher) : dispatcher_(dispatcher) {
    dispatcher_.SetExceptionHandler([this](std::exception_ptr exception) {
        if (!first_) {
            first_ = exception;
        }
    });
}

CallbackExceptions::~CallbackExceptions() {
    dispatcher_.SetExceptionHandler(nullptr);
}

void CallbackExceptions::RethrowFirst() {
    if (first_) {
        std::exception_ptr exception = first_;
        first_ = nullptr;
        std::rethrow_exception(exception);
    }
}

}  // namespace test
}  // namespace vok
