// Ratios between benchmarks of one program, printed after the run.
#ifndef VOK_BENCH_SUPPORT_BENCHRATIO_H
#define VOK_BENCH_SUPPORT_BENCHRATIO_H

#include <string>
#include <vector>

namespace vok {
namespace bench {

struct Ratio {
    std::string measured;  // benchmark name as reported, e.g. "BM_FuncLoggerDebugOff"
    std::string baseline;
    double target;  // the ratio the design aims at or below; 0 for none
};

// Registers a ratio to print; returns true so it can initialise a static.
bool RegisterRatio(const std::string& measured, const std::string& baseline, double target);

}  // namespace bench
}  // namespace vok

#define VOK_BENCH_RATIO_CAT2(a, b) a##b
#define VOK_BENCH_RATIO_CAT(a, b) VOK_BENCH_RATIO_CAT2(a, b)
// VOK_BENCH_RATIO("BM_Measured", "BM_Baseline", target)
#define VOK_BENCH_RATIO(measured, baseline, target)                    \
    static const bool VOK_BENCH_RATIO_CAT(kVokBenchRatio_, __LINE__) = \
        ::vok::bench::RegisterRatio(measured, baseline, target)

#endif  // VOK_BENCH_SUPPORT_BENCHRATIO_H
