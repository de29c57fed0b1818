// The allocation-failure sweep: runs a scenario once to count its allocation requests N, then
// once per request k with k failing (transient), with k and every later one failing
// (persistent), and with runs of 2, 3 and 4 consecutive failures from k. Each run must complete
// or end in one of the scenario's documented errors; afterwards no block the run allocated may
// be left, the descriptor count must be what it was, the scenario's own check (framework
// counters, a normal operation) must pass, and the process must still be alive.
//
// VOK_OOM_FULL=1 (make oom) sweeps every k; otherwise every k of small scenarios and an evenly
// spread sample of the larger ones, so the suite stays within its time. VOK_OOM_ONLY=k runs the
// failures from request k only (to reproduce one finding).
#ifndef VOK_TESTS_OOM_OOMSWEEP_H
#define VOK_TESTS_OOM_OOMSWEEP_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "AllocFailure.h"

namespace vok {
namespace test {
namespace oom {

// Thrown by a scenario when an API reported a failure through its documented error return (the
// bus library's false and KVError): the run ended in a documented error.
struct DocumentedError : std::runtime_error {
    explicit DocumentedError(const std::string& what) : std::runtime_error(what) {}
};

struct Scenario {
    std::string name;
    // Runs the operations under test; whatever it creates it destroys before returning or
    // throwing.
    std::function<void()> run;
    // Called inside a catch block for the exception that ended a run: empty when the exception
    // is a documented outcome, else what is wrong with it. Default: std::bad_alloc,
    // VokResourceException and DocumentedError.
    std::function<std::string()> classify;
    // Unarmed, after every run: framework counters and a normal operation; fails through gtest
    // assertions.
    std::function<void()> check;
    // Blocks a run may leave on purpose (for example a log context the logging library keeps
    // for the process's life); none when empty.
    std::function<size_t()> kept;
    ArmScope scope = ArmScope::kCallingThread;
};

struct SweepResult {
    uint64_t points = 0;            // N: allocation requests of one undisturbed run
    uint64_t transientRuns = 0;     // runs with one failing request
    uint64_t persistentRuns = 0;    // runs failing from k on
    uint64_t burstRuns = 0;         // runs of 2..4 consecutive failures
    uint64_t completed = 0;         // runs that completed despite a failure
    uint64_t documentedErrors = 0;  // runs that ended in a documented error
};

// Sweeps scenario; reports every defect as a gtest failure naming the run, and prints one
// summary line.
SweepResult Sweep(const Scenario& scenario);

// Whether VOK_OOM_FULL asks for every allocation point.
bool FullSweep();

// Open descriptors of the process.
int OpenDescriptors();

// OpenDescriptors once it equals expected, or after 2 s.
int SettledDescriptors(int expected);

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_OOMSWEEP_H
