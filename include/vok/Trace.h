// The flight recorder: a timeline of what the daemon's threads did, in the Chrome trace-event
// JSON format that ui.perfetto.dev and chrome://tracing open.
//
// Recording is off by default. While it is on, every thread that records keeps its last events in
// a ring of its own (oldest overwritten): messages written and read (as flows from the writer's
// thread to the reader's), dispatcher callbacks (as slices), bus calls and served requests (as
// asynchronous slices), timer and alarm lateness and the shell's blade events (as instants). The
// environment switches it on at start: VOK_TRACE=1 records from library load, VOK_TRACE_BUFFER=N
// sets the ring size in events. Every function here may be called from any thread.
#ifndef VOK_TRACE_H
#define VOK_TRACE_H

#include <cstdint>
#include <string>

namespace vok {

// Ring size in events a thread gets when none is set (96 bytes an event).
const uint32_t kTraceDefaultRingEvents = 4096;
// Smallest and largest ring sizes; TraceSetRingEvents clamps to them.
const uint32_t kTraceMinRingEvents = 64;
const uint32_t kTraceMaxRingEvents = 1u << 20;

// Switches recording on or off. Switching does not clear what the rings hold.
void TraceSetEnabled(bool enabled);
// True while recording is on.
bool TraceIsEnabled();

// Sets the ring size in events (rounded up to a power of two, clamped to the limits above). A
// thread's ring is allocated when it first records; a thread whose ring has another size gets a
// new ring at its next event, and its old ring stays dumpable among the retired ones.
void TraceSetRingEvents(uint32_t events);
// The ring size new rings get.
uint32_t TraceGetRingEvents();

// Names the calling thread's track in traces (the shell names blade threads after their blades).
// Names longer than 63 bytes are cut.
void TraceNameThread(const std::string& name);

// The monotonic clock, in nanoseconds, as events are stamped with it: pass a value taken before a
// recording window to the dump functions to keep only what came after it.
uint64_t TraceClockNs();

// The events the rings hold now, stamped at or after sinceNs, as one Chrome trace-event JSON
// document: thread names first, then events by time. A message's flow arrow is drawn when both
// its write and its read are there; a bus call whose end is not there yet stays open. Safe while
// other threads record: a dump copies each ring out and drops the events that were overwritten
// while it copied.
std::string TraceSnapshotJson(uint64_t sinceNs = 0);

// Writes TraceSnapshotJson(sinceNs) to path atomically (a temporary file in the same directory,
// flushed to disk, then renamed over path). False, with *error set when error is not NULL, when
// the file cannot be written; path is then left as it was.
bool TraceWriteSnapshot(const std::string& path, uint64_t sinceNs, std::string* error);

// Records for the given number of seconds, then writes what was recorded in that window to path
// as TraceWriteSnapshot does. Recording is switched on for the window and left as it was before.
// Blocks the calling thread: do not call it on a dispatcher's thread.
bool TraceRecordFor(double seconds, const std::string& path, std::string* error);

// Writes what the rings hold to a new file for a fault the daemon noticed (a stuck blade, a stop
// past its deadline) and returns its path, for the log line: the directory is VOK_TRACE_DIR or
// /tmp, the name "vok-trace-PROGRAM-PID-REASON-N.json". Returns an empty string, writing nothing,
// while recording is off or when the file cannot be written.
std::string TraceDumpForFault(const std::string& reason);

// Records a named instant on the calling thread's track (for an application's own marks) while
// recording is on. The name is copied; only its last 39 bytes are kept.
void TraceMark(const std::string& name);

}  // namespace vok

#endif  // VOK_TRACE_H
