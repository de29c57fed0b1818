// What one message costs besides time: mutex locks, heap allocations and heap bytes, counted by
// interposing pthread_mutex_lock and replacing the global operator new for this program.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>

#include <cstdlib>
#include <new>

#include "BenchPair.h"

namespace {

typedef int (*MutexLockFunction)(pthread_mutex_t*);
MutexLockFunction gRealMutexLock = nullptr;

// Counted only while a measurement runs, on the benchmark's own thread.
bool gCounting = false;
long gLocks = 0;
long gAllocations = 0;
long gBytes = 0;
long gChunkBytes = 0;

struct Counts {
    long locks;
    long allocations;
    long bytes;
    long chunkBytes;
};

Counts Take() {
    return Counts{gLocks, gAllocations, gBytes, gChunkBytes};
}

void Report(benchmark::State& state, const Counts& before, long messages) {
    const Counts after = Take();
    const double n = static_cast<double>(messages);
    state.counters["locks_per_msg"] = (after.locks - before.locks) / n;
    state.counters["allocs_per_msg"] = (after.allocations - before.allocations) / n;
    state.counters["bytes_per_msg"] = (after.bytes - before.bytes) / n;
    state.counters["malloc_chunk_bytes_per_msg"] = (after.chunkBytes - before.chunkBytes) / n;
}

// Counts of one create + write + read + free.
void BM_CostPerRoundTrip(benchmark::State& state) {
    vok::bench::BenchPair pair;
    long messages = 0;
    gCounting = true;
    const Counts before = Take();
    for (auto _ : state) {
        pair.RoundTrip();
        ++messages;
    }
    gCounting = false;
    Report(state, before, messages);
}
BENCHMARK(BM_CostPerRoundTrip)->Iterations(10000);

// Heap held by messages waiting in a port: write 1000, count, then drain.
void BM_BytesPerQueuedMessage(benchmark::State& state) {
    vok::bench::BenchPair pair;
    const long kQueued = 1000;
    for (auto _ : state) {
        gCounting = true;
        const Counts before = Take();
        for (long i = 0; i < kQueued; ++i) {
            pair.Write();
        }
        gCounting = false;
        Report(state, before, kQueued);
        vok::MmConnectionMessageHandle got;
        while (pair.Reader()->ReadMessage(&got) == vok::kVokErrNone) {
            pair.Iface()->FreeMessage(got);
        }
    }
}
BENCHMARK(BM_BytesPerQueuedMessage)->Iterations(1);

}  // namespace

// Libraries lock mutexes while they are loaded, before this program's own initialisation, so
// the real function is looked up at the first call.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (gRealMutexLock == nullptr) {
        gRealMutexLock =
            reinterpret_cast<MutexLockFunction>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    }
    if (gCounting) {
        ++gLocks;
    }
    return gRealMutexLock(mutex);
}

// The replacement pair allocates with malloc and releases with free; the compiler cannot see
// that they belong together.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(size_t size) {
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (gCounting) {
        ++gAllocations;
        gBytes += static_cast<long>(size);
        gChunkBytes += static_cast<long>(malloc_usable_size(block) + sizeof(size_t));
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
