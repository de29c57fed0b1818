// A checker of Chrome trace-event JSON documents as the flight recorder writes them.
#ifndef VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H
#define VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H

#include <map>
#include <string>
#include <vector>

namespace vok {
namespace test {

struct TraceEvent {
    std::string ph, cat, name;
    std::string id;    // As written; empty when absent.
    std::string args;  // As JSON text; empty when absent.
    long pid = -1, tid = -1;
    double ts = -1, dur = -1;  // Microseconds; -1 when absent.
};

struct TraceCheck {
    std::vector<std::string> errors;          // Empty when the document is valid.
    std::vector<TraceEvent> events;           // In document order.
    std::map<long, std::string> threadNames;  // tid -> thread_name.
    int openAsync = 0;                        // "b" events without their "e".

    bool Ok() const { return errors.empty(); }
    std::string Report() const;
    std::vector<TraceEvent> Phase(const std::string& ph) const;
};

// Strict JSON: an object with a "traceEvents" array (and displayTimeUnit "ms" or "ns") of objects
// with only known keys; ph one of XibesfM; integer pid and tid; a name; thread_name (one per
// thread) and process_name metadata with a name; on the others a category and a non-negative
// ts, dur exactly on X, a scope on i, an id exactly on b/e/s/f; every e after an open b of its
// category and id; every s with one f of its category, name and id, not earlier, with "bp":"e",
// both inside X slices of their threads.
TraceCheck CheckTraceEvents(const std::string& json);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H
