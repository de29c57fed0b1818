// One message through a connected pair on one thread, against allocation plus a locked queue.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <deque>
#include <mutex>

#include "BenchPair.h"
#include "support/BenchRatio.h"
#include "support/MallocDequeFloor.h"
#include "vok/DiagnosticRegister.h"
#include "vok/Mutex.h"
#include "vok/Trace.h"

namespace {

// What a message costs at the least: its 68-byte block allocated and freed, and one push and
// one pop on a queue behind a mutex.
void BM_MallocDequeBaseline(benchmark::State& state) {
    std::mutex mutex;
    std::deque<void*> queue;
    for (auto _ : state) {
        vok::bench::MallocDequeRoundTrip(mutex, queue);
    }
}
BENCHMARK(BM_MallocDequeBaseline);

void BM_ConnectionMessageRoundTrip(benchmark::State& state) {
    vok::bench::BenchPair pair;
    for (auto _ : state) {
        if (!pair.RoundTrip()) {
            state.SkipWithError("read failed");
            break;
        }
    }
}
BENCHMARK(BM_ConnectionMessageRoundTrip);

// The same with the flight recorder on: each message records its write and its read.
void BM_ConnectionMessageRoundTripTraceOn(benchmark::State& state) {
    vok::TraceSetEnabled(true);
    BM_ConnectionMessageRoundTrip(state);
    vok::TraceSetEnabled(false);
}
BENCHMARK(BM_ConnectionMessageRoundTripTraceOn);

// A message as a user handles it: created with a payload of state.range(0) bytes, named and
// filled, written, read, its name and payload looked at, freed. With header and guard, 4000
// bytes stay below the 4096 bytes from which a block counts as large (its handles look it up
// among the live large blocks on every access); 4100 bytes are above.
void BM_PayloadRoundTrip(benchmark::State& state) {
    vok::bench::BenchPair pair;
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        vok::MmConnectionMessageHandle msg;
        *static_cast<uint32_t*>(pair.Iface()->CreateConnectionMessage(size, &msg)) = 1;
        msg.SetMessageName({20, 1});
        pair.Writer()->WriteMessage(msg, nullptr);
        if (pair.Reader()->ReadMessage(&msg) != vok::kVokErrNone) {
            state.SkipWithError("read failed");
            break;
        }
        vok::MmMessageName name;
        benchmark::DoNotOptimize(msg.GetMessageName(&name)->msgId);
        benchmark::DoNotOptimize(*static_cast<uint32_t*>(msg.GetPayloadPtr(nullptr)));
        pair.Iface()->FreeMessage(msg);
    }
}
BENCHMARK(BM_PayloadRoundTrip)->Arg(4000)->Arg(4100);

// The floor under the round trip: only what the design requires of every message, with nothing
// around it. 7 lock pairs of the framework's Mutex (tracker 4, write 1, reader 2; a connected
// pair needs no registry lock),
// 8 atomic counter changes (outstanding 2, held by user 4, held by ports 2) and the atomic
// sequence number, plus the message block.
void BM_RequiredLocksOnly(benchmark::State& state) {
    vok::Mutex mutexes[7];
    vok::DiagnosticRegisterCounter counter("root.bench.floor", 0);
    for (auto _ : state) {
        void* block = ::operator new(68);
        benchmark::DoNotOptimize(block);
        for (vok::Mutex& mutex : mutexes) {
            mutex.Lock();
            mutex.Unlock();
        }
        for (int i = 0; i < 4; ++i) {
            counter.Inc();
            counter.Dec();
        }
        ::operator delete(block);
    }
}
BENCHMARK(BM_RequiredLocksOnly);

}  // namespace

VOK_BENCH_RATIO("BM_RequiredLocksOnly", "BM_MallocDequeBaseline", 0);
VOK_BENCH_RATIO("BM_ConnectionMessageRoundTrip", "BM_MallocDequeBaseline", 12.0);
// Recording on against off: two records (four clock reads) a message.
VOK_BENCH_RATIO("BM_ConnectionMessageRoundTripTraceOn", "BM_ConnectionMessageRoundTrip", 0);
// A large block costs no more than a small one.
VOK_BENCH_RATIO("BM_PayloadRoundTrip/4100", "BM_PayloadRoundTrip/4000", 1.1);
