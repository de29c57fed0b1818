// Diagnostic registers and process figures in the OpenMetrics text format, for fleet monitoring
// (Prometheus, node_exporter's textfile collector).
//
// Every counter register becomes a gauge family named after its path ("root." dropped, each
// component in snake case, joined with '_': root.vok.MessageMover.outstandingMessages becomes
// vok_message_mover_outstanding_messages), with its watermarks as the gauge families NAME_low and
// NAME_high. A register that only grows (declared with MetricsDeclareCounter, and the framework's
// own undeliverableMessages, quarantinedMessages and msgsLeakedByUser registers) becomes a counter
// family with the sample NAME_total and no watermarks. String registers become info families
// (sample NAME_info{value="..."} 1). Every sample carries the label daemon="NAME". The process
// figures follow: process_resident_memory_bytes, process_virtual_memory_bytes, process_open_fds,
// process_max_fds, process_cpu_seconds_total, process_start_time_seconds, process_threads. The
// exposition ends with "# EOF". Every function here may be called from any thread.
#ifndef VOK_METRICS_H
#define VOK_METRICS_H

#include <string>

namespace vok {

// The OpenMetrics text exposition of every register and of the process figures, each sample
// labelled daemon="daemonName".
std::string MetricsText(const std::string& daemonName);

// Writes MetricsText(daemonName) to path atomically: a temporary file in the same directory
// (named so that the textfile collector's "*.prom" pattern does not match it), flushed to disk,
// then renamed over path, so a reader sees the old exposition or the new one, never half of one.
// False, with *error set when error is not NULL, when the file cannot be written; path is then
// left as it was and no temporary file remains.
bool MetricsWriteTextfile(const std::string& path, const std::string& daemonName,
                          std::string* error);

// Writes an exposition fetched from another process (vokctl's --textfile) to path atomically,
// as MetricsWriteTextfile does.
bool MetricsWriteTextfileContent(const std::string& path, const std::string& exposition,
                                 std::string* error);

// Exports the register at path (and every register whose path starts with path, when path ends
// with '.') as a counter: for registers that count events and never decrease.
void MetricsDeclareCounter(const std::string& path);

// The metric family name of a register path (see above); empty when the path names nothing.
std::string MetricsFamilyName(const std::string& registerPath);

}  // namespace vok

#endif  // VOK_METRICS_H
