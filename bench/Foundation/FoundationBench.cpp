// Disabled tracing and counter publishing, against their baselines.
#include <benchmark/benchmark.h>
#include <ztlog/ztlog.h>

#include <mutex>

#include "support/BenchRatio.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Logger.h"

namespace {

__attribute__((noinline)) void EmptyFunction(int* counter) {
    benchmark::DoNotOptimize(counter);
}

__attribute__((noinline)) void TracedFunction(const vok::Logger& logger, int* counter) {
    vok::FuncLogger trace(logger, __func__, counter);
    benchmark::DoNotOptimize(counter);
}

void BM_EmptyFunction(benchmark::State& state) {
    int counter = 0;
    for (auto _ : state) {
        EmptyFunction(&counter);
    }
}
BENCHMARK(BM_EmptyFunction);

void BM_FuncLoggerDebugOff(benchmark::State& state) {
    ZtLogSetLevel("Bench.Trace", 4);
    vok::Logger logger("Bench.Trace");
    int counter = 0;
    for (auto _ : state) {
        TracedFunction(logger, &counter);
    }
}
BENCHMARK(BM_FuncLoggerDebugOff);

void BM_StdMutexLockUnlock(benchmark::State& state) {
    std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(BM_StdMutexLockUnlock);

void BM_CounterInc(benchmark::State& state) {
    vok::DiagnosticRegisterCounter counter("root.bench.counter", 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(counter.Inc());
    }
}
BENCHMARK(BM_CounterInc);

}  // namespace

VOK_BENCH_RATIO("BM_FuncLoggerDebugOff", "BM_EmptyFunction", 2.0);
// One lock of a recursive pthread mutex (the framework's Mutex) through its handle, plus compares.
VOK_BENCH_RATIO("BM_CounterInc", "BM_StdMutexLockUnlock", 3.5);
