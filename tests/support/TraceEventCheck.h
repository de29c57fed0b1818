// A strict checker of Chrome trace-event JSON documents as the flight recorder writes them.
#ifndef VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H
#define VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H

#include <map>
#include <string>
#include <vector>

namespace vok {
namespace test {

// One event of a checked document.
struct TraceEvent {
    std::string ph;
    std::string cat;
    std::string name;
    std::string id;    // "id", as written (a string or a number); empty when absent.
    std::string args;  // "args" as JSON text; empty when absent.
    long pid = -1;
    long tid = -1;
    double ts = -1;   // Microseconds.
    double dur = -1;  // Microseconds; -1 when absent.
};

// What the checker found.
struct TraceCheck {
    std::vector<std::string> errors;          // Empty when the document is valid.
    std::vector<TraceEvent> events;           // In document order.
    std::map<long, std::string> threadNames;  // tid -> thread_name.
    int openAsync = 0;                        // "b" events without their "e".

    bool Ok() const { return errors.empty(); }
    // The errors, one a line.
    std::string Report() const;
    // Events of one phase.
    std::vector<TraceEvent> Phase(const std::string& ph) const;
};

// Parses json strictly and checks it: an object with a "traceEvents" array (and optionally
// "displayTimeUnit" "ms" or "ns") of objects with only known keys; "ph" one of X i b e s f M;
// integer pid and tid; a name; a category and a finite, non-negative ts (µs) on every event but
// metadata; a dur on every X; a scope on every i; thread_name and process_name metadata with a
// non-empty name, one per thread; every b/e and s/f with an id; every e after an open b of the
// same category and id; every s with a unique id and exactly one f of the same category, name and
// id, not earlier, with "bp":"e"; each flow event inside an X slice of its own thread.
TraceCheck CheckTraceEvents(const std::string& json);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_TRACEEVENTCHECK_H
