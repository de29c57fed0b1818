// Out-of-memory sweeps over the public API: every allocation request of each scenario fails in
// turn (once, for good, and in runs of 2 to 4), and each run must complete or end in the
// documented error, leak nothing and leave the framework usable.
#include <gtest/gtest.h>
#include <ztlog/ztlog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "OomSweep.h"
#include "vok/DiagnosticRegister.h"
#include "vok/JsonToken.h"
#include "vok/Logger.h"

namespace vok {
namespace test {
namespace oom {
namespace {

// Log lines go here during the sweeps: counted, never stored (storing would allocate).
std::atomic<int> gLogLines{0};
void CountLine(void*, int, const char*, const char*) {
    ++gLogLines;
}

class OomTest : public ::testing::Test {
  protected:
    void SetUp() override { ZtLogSetOutputHook(CountLine, nullptr); }
    void TearDown() override { ZtLogSetOutputHook(nullptr, nullptr); }
};

// Scenarios whose defects lie in code outside this test's reach are skipped unless
// VOK_OOM_PENDING=1; `make oom` lists them.
bool PendingAllowed() {
    const char* pending = std::getenv("VOK_OOM_PENDING");
    return pending != nullptr && std::strcmp(pending, "0") != 0;
}

std::string OnlyBadAlloc() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "";
    } catch (const std::exception& e) {
        return std::string("not std::bad_alloc: ") + e.what();
    }
}

// Builds {"serviceName":"com.orvex.power","count":3,"on":true,"array":[1.5,"two",null]}.
void BuildJson(JsonToken* built) {
    built->MakeObject();
    built->ObjectSetStringPair("serviceName", "com.orvex.power");
    built->ObjectSetNumberPair("count", 3);
    built->ObjectSetBooleanPair("on", true);
    JsonToken array;
    array.MakeArray();
    array.ArraySetNumberElement(-1, 1.5);
    array.ArraySetStringElement(-1, "two");
    array.ArraySetNullElement(-1);
    built->ObjectSetPair("array", &array);
}

// JSON values built through the API and iterated. json-c's failures surface as std::bad_alloc.
TEST_F(OomTest, JsonBuildIterate) {
    Scenario json;
    json.name = "json build, iterate";
    json.classify = OnlyBadAlloc;
    json.run = [] {
        JsonToken built;
        BuildJson(&built);
        int names = 0;
        for (JsonObjectConstIterator it = built.ObjectBegin(); it != built.ObjectEnd(); ++it) {
            names += it->name != nullptr ? 1 : 0;
        }
        const JsonObjectConstFindResult found = built.ObjectFindPair("array");
        const JsonToken& list = *found;
        int elements = 0;
        for (JsonArrayConstIterator it = list.ArrayBegin(); it != list.ArrayEnd(); ++it) {
            elements += it->HasValue() ? 1 : 0;
        }
        if (names != 4 || elements != 3) {
            ADD_FAILURE() << "wrong result: " << names << " " << elements;
        }
    };
    Sweep(json);
}

// Generating: the text is either complete or not returned (std::bad_alloc).
TEST_F(OomTest, JsonGenerate) {
    if (!PendingAllowed()) {
        GTEST_SKIP() << "pending: json-c 0.16's serializer ignores a failed append and returns "
                        "the text with a string value left empty";
    }
    JsonToken built;
    BuildJson(&built);
    Scenario json;
    json.name = "json generate";
    json.classify = OnlyBadAlloc;
    json.run = [&built] {
        const std::string text = built.GenerateJsonEncodingAndPeek();
        if (text !=
            "{ \"serviceName\": \"com.orvex.power\", \"count\": 3, \"on\": true, "
            "\"array\": [ 1.5, \"two\", null ] }") {
            ADD_FAILURE() << "generated wrong: " << text;
        }
    };
    Sweep(json);
}

// Parsing: a document is either parsed whole or refused with std::bad_alloc.
TEST_F(OomTest, JsonParse) {
    if (!PendingAllowed()) {
        GTEST_SKIP() << "pending: json-c 0.16's parser is not safe when malloc fails (it reports "
                        "success with no value, empties strings, and dereferences a failed "
                        "copy of an object key)";
    }
    Scenario json;
    json.name = "json parse";
    json.classify = OnlyBadAlloc;
    json.run = [] {
        JsonToken document;
        const char text[] =
            "{ \"alarmId\": 7, \"fired\": true, \"list\": [ 1, 2.5, \"three\", null ] }";
        if (!document.ParseJsonString(text)) {
            ADD_FAILURE() << "a valid document was refused";
        } else if (std::string(document.GenerateJsonEncodingAndPeek()) != text) {
            ADD_FAILURE() << "parsed wrong: " << document.GenerateJsonEncodingAndPeek();
        }
    };
    Sweep(json);
}

// Log contexts (a new one per run, kept by the logging library for the process's life) and lines
// long enough to need the heap, and hex dumps.
TEST_F(OomTest, LoggingContexts) {
    static int run = 0;
    static char name[64];
    Scenario logging;
    logging.name = "logging";
    logging.run = [] {
        std::snprintf(name, sizeof name, "OOM.Sweep.Context%d", ++run);
        Logger logger(name);
        const std::string longText(2000, 'x');
        logger.Critical("%s: long line %s", name, longText.c_str());
        logger.CriticalBin(longText.data(), 300);
    };
    logging.kept = [] {
        ZtLogContext* context = nullptr;
        return ZtLogFindContext(name, &context) == 0 && context != nullptr ? 1u : 0u;
    };
    logging.check = [] {
        const int before = gLogLines;
        Logger("OOM.Sweep").Critical("check");
        EXPECT_EQ(gLogLines, before + 1);
    };
    Sweep(logging);
}

// Counter and string registers: create, copy, change, query one and a group, release, prune.
// A failed creation leaves the table without the register.
TEST_F(OomTest, DiagnosticRegisters) {
    Scenario registers;
    registers.name = "diagnostic registers";
    registers.classify = OnlyBadAlloc;
    registers.run = [] {
        {
            DiagnosticRegisterCounter counter("root.oom.sweep.counter", 5);
            DiagnosticRegisterCounter copy(counter);
            copy.Inc();
            DiagnosticRegisterString text("root.oom.sweep.text", "initial");
            text.Set(std::string(100, 'y'));
            DiagnosticRegisterCounter::CounterInfo info;
            if (!DiagnosticRegisterCounter::Query("root.oom.sweep.counter", &info) ||
                info.value != 6) {
                ADD_FAILURE() << "query";
            }
            std::unique_ptr<DiagnosticRegisterCounter::Group> group(
                DiagnosticRegisterCounter::QueryGroup("root.oom.sweep."));
            std::unique_ptr<DiagnosticRegisterString::Group> strings(
                DiagnosticRegisterString::QueryGroup("root.oom.sweep."));
            if (group == nullptr || group->size() != 1 || strings == nullptr) {
                ADD_FAILURE() << "group query";
            }
        }
        DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
    };
    registers.check = [] {
        DiagRegPruneAtAndBelow(kDiagRegLongevityDefault);
        DiagnosticRegisterCounter::CounterInfo info;
        EXPECT_FALSE(DiagnosticRegisterCounter::Query("root.oom.sweep.counter", &info));
        DiagnosticRegisterCounter counter("root.oom.check", 1);
        EXPECT_EQ(counter.Inc(), 2);
    };
    Sweep(registers);
}

}  // namespace
}  // namespace oom
}  // namespace test
}  // namespace vok
