// main() of every benchmark program: the usual console output, then one line per registered
// ratio of real time per iteration ("measured / baseline = R (target <= T)").
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

#include "support/BenchRatio.h"

namespace vok {
namespace bench {
namespace {

std::vector<Ratio>& Ratios() {
    static std::vector<Ratio> ratios;
    return ratios;
}

// Console output plus a record of each run's time per iteration.
class RecordingReporter : public benchmark::ConsoleReporter {
  public:
    // Plain text: the output is read in logs more often than on terminals.
    RecordingReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // Plain runs by name; aggregates of repeated runs by name plus "_" and the statistic
            // ("..._min").
            if (run.error_occurred == false) {
                times_[run.benchmark_name()] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const std::map<std::string, double>& Times() const { return times_; }

  private:
    std::map<std::string, double> times_;
};

}  // namespace

bool RegisterRatio(const std::string& measured, const std::string& baseline, double target) {
    Ratios().push_back(Ratio{measured, baseline, target});
    return true;
}

}  // namespace bench
}  // namespace vok

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    vok::bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const auto& times = reporter.Times();
    for (const auto& ratio : vok::bench::Ratios()) {
        auto m = times.find(ratio.measured);
        auto b = times.find(ratio.baseline);
        if (m == times.end() || b == times.end() || b->second <= 0) {
            continue;
        }
        const double value = m->second / b->second;
        const bool over = ratio.target > 0 && value > ratio.target;
        std::printf("RATIO %s / %s = %.2f", ratio.measured.c_str(), ratio.baseline.c_str(), value);
        if (ratio.target > 0) {
            std::printf(" (target <= %.2f%s)", ratio.target, over ? ", MISSED" : "");
        }
        std::printf("\n");
    }
    return 0;
}
