// Fails each allocation request k of a scenario once, for good and in runs of 2-4: every run
// ends well or in a documented error, leaks nothing and passes the check. VOK_OOM_FULL=1 sweeps
// every k (else large scenarios are sampled); VOK_OOM_ONLY=k runs one.
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
    // Empty when a run's exception is documented (default: bad_alloc, VokResource, Documented).
    std::function<std::string()> classify;
    // Unarmed, after every run: framework counters and a normal operation (gtest assertions).
    std::function<void()> check;
    // Blocks a run may leave on purpose; none when empty.
    std::function<size_t()> kept;
    ArmScope scope = ArmScope::kCallingThread;
    // Points swept per mode outside a full sweep (runs of 2-4: a quarter each).
    uint64_t sampledPoints = 120;
};

// Reports every defect as a gtest failure naming the run; prints a summary.
void Sweep(const Scenario& scenario);

}  // namespace oom
}  // namespace test
}  // namespace vok

#endif  // VOK_TESTS_OOM_OOMSWEEP_H
