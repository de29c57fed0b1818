// The allocation-failure sweep: runs a scenario once to count its allocation requests N, then once
// per request k with k failing (transient), with k and every later one failing (persistent), and
// with runs of 2, 3 and 4 failures from k. Each run must complete or end in a documented error,
// leave no block and no descriptor behind, pass the scenario's check, and not kill the process.
// VOK_OOM_FULL=1 (make oom) sweeps every k; otherwise larger scenarios are sampled evenly.
// VOK_OOM_ONLY=k runs the failures from request k only (to reproduce one finding).
#ifndef VOK_TESTS_OOM_OOMSWEEP_H
#define VOK_TESTS_OOM_OOMSWEEP_H

#include <functional>
#include <stdexcept>
#include <string>

#include "AllocFailure.h"

namespace vok {
namespace test {
namespace oom {

// Thrown by a scenario when an API reported a failure through its documented error return.
struct DocumentedError : std::runtime_error {
    explicit DocumentedError(const std::string& what) : std::runtime_error(what) {}
};

struct Scenario {
    std::string name;
    // The operations under test; whatever it creates it destroys before returning or throwing.
    std::function<void()> run;
    // Called in the catch block of the exception that ended a run: empty when it is documented,
    // else what is wrong. Default: std::bad_alloc, VokResourceException and DocumentedError.
    std::function<std::string()> classify;
    // Unarmed, after every run: framework counters and a normal operation (gtest assertions).
    std::function<void()> check;
    // Blocks a run may leave on purpose; none when empty.
    std::function<size_t()> kept;
    ArmScope scope = ArmScope::kCallingThread;
    // Points swept per mode outside a full sweep, when the scenario has more (runs of 2-4: a
    // quarter of it each).
    uint64_t sampledPoints = 120;
};

// Sweeps scenario, reports every defect as a gtest failure naming the run, prints a summary.
void Sweep(const Scenario& scenario);

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_OOMSWEEP_H
