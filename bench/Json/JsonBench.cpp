// Reading and writing a bus payload with JsonToken's own reader and writer, against json-c's
// tokener behind the strict grammar check and json-c's encoder, which JsonToken used before.
#include <benchmark/benchmark.h>
#include <json-c/json.h>

#include <cstring>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "support/BenchRatio.h"
#include "vok/JsonToken.h"

namespace {

const char kPayload[] =
    "{\"returnValue\": true, \"serviceName\": \"com.orvex.power\", \"alarmId\": 4, "
    "\"relative_time\": \"00:00:05\", \"fired\": false, \"load\": [0.25, 0.5, 1.75], "
    "\"clients\": [{\"name\": \"vok-demo\", \"pid\": 4123, \"path\": \"/usr/bin/vok-demo\"}, "
    "{\"name\": \"kv-call\", \"pid\": 4188, \"path\": \"/usr/bin/kv-call\"}], "
    "\"note\": \"caf\\u00e9 \\\"quoted\\\"\\n\"}";

void BM_JsonCTokenerParse(benchmark::State& state) {
    const size_t length = std::strlen(kPayload);
    for (auto _ : state) {
        bool strict = vok::JsonIsStrictDocument(kPayload, length);
        json_tokener* tokener = json_tokener_new();
        json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
        json_object* value = json_tokener_parse_ex(tokener, kPayload, static_cast<int>(length) + 1);
        json_tokener_free(tokener);
        benchmark::DoNotOptimize(strict);
        json_object_put(value);
    }
}
BENCHMARK(BM_JsonCTokenerParse);

void BM_JsonTokenParse(benchmark::State& state) {
    for (auto _ : state) {
        vok::JsonToken token;
        benchmark::DoNotOptimize(token.ParseJsonString(kPayload));
    }
}
BENCHMARK(BM_JsonTokenParse);

void BM_JsonCToString(benchmark::State& state) {
    vok::JsonToken token;
    token.ParseJsonString(kPayload);
    json_object* value = reinterpret_cast<json_object*>(token.PeekPopulatedPimpl());
    for (auto _ : state) {
        benchmark::DoNotOptimize(json_object_to_json_string(value));
    }
}
BENCHMARK(BM_JsonCToString);

void BM_JsonTokenGenerate(benchmark::State& state) {
    vok::JsonToken token;
    token.ParseJsonString(kPayload);
    for (auto _ : state) {
        benchmark::DoNotOptimize(token.GenerateJsonEncodingAndPeek());
    }
}
BENCHMARK(BM_JsonTokenGenerate);

}  // namespace

VOK_BENCH_RATIO("BM_JsonTokenParse", "BM_JsonCTokenerParse", 1.0);
VOK_BENCH_RATIO("BM_JsonTokenGenerate", "BM_JsonCToString", 1.5);
