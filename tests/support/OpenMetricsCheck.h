// A strict checker of the OpenMetrics text format.
#ifndef VOK_TESTS_SUPPORT_OPENMETRICSCHECK_H
#define VOK_TESTS_SUPPORT_OPENMETRICSCHECK_H

#include <map>
#include <string>
#include <vector>

namespace vok {
namespace test {

struct MetricFamily {
    std::string type;
    std::string help;
    std::map<std::string, double> samples;  // "name{labels as written}" -> value.
};

struct MetricsCheck {
    std::vector<std::string> errors;  // Empty when the exposition is valid.
    std::map<std::string, MetricFamily> families;

    bool Ok() const { return errors.empty(); }
    std::string Report() const;  // The errors, one a line.
    // The value of the only sample of family name; NaN when there is not exactly one.
    double Value(const std::string& name) const;
};

// Checks text strictly: lines end in '\n', no empty line, "# EOF" last; "# HELP" and "# TYPE"
// (a known type) at most once per family and before its samples; families not interleaved and
// not repeated; metric and label names well formed; label values quoted with only \\, \" and \n
// escapes, no label twice; sample names as the family's type requires (counter: NAME_total or
// NAME_created, gauge and unknown: NAME, info: NAME_info with value 1); values that parse whole
// as numbers, counters not negative; no sample twice; counter and info family names without their
// sample suffix.
MetricsCheck CheckOpenMetrics(const std::string& text);

// The lines, each ended by '\n'.
std::string JoinLines(const std::vector<std::string>& lines);

}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_SUPPORT_OPENMETRICSCHECK_H
