// JsonToken reading and writing. The input as a document: what parses is written as JSON that
// parses to the same value and writes back to the same text. The input as a string value, and its
// first bytes as a double: what can be built reads back to the same string or number.
#include <glib.h>
#include <json-c/json.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "vok/JsonToken.h"

namespace {

json_object* Cjson(const vok::JsonToken& token) {
    return reinterpret_cast<json_object*>(token.PeekPopulatedPimpl());
}

[[noreturn]] void Fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "JsonFuzz: %s: <%s>\n", what, text.c_str());
    std::abort();
}

// Parses what token wrote; the value must equal token's and write back to the same text.
void CheckReadsBack(const vok::JsonToken& token) {
    const std::string written = token.GenerateJsonEncodingAndPeek();
    vok::JsonToken again;
    if (!again.ParseJsonString(written.c_str())) {
        Fail("written text does not parse", written);
    }
    if (json_object_equal(Cjson(token), Cjson(again)) == 0) {
        Fail("written text parses to another value", written);
    }
    if (written != again.GenerateJsonEncodingAndPeek()) {
        Fail("written text is written back differently", written);
    }
}

void Document(const std::string& text) {
    vok::JsonToken token;
    if (token.ParseJsonString(text.c_str())) {
        CheckReadsBack(token);
    }
}

void String(const std::string& text) {
    vok::JsonToken token;
    token.MakeString(text.c_str());
    try {
        CheckReadsBack(token);
    } catch (const std::invalid_argument&) {
        // Only what is not UTF-8 may be refused.
        if (g_utf8_validate(text.c_str(), -1, nullptr)) {
            Fail("a UTF-8 string was refused", text);
        }
    }
}

void Number(const uint8_t* data, size_t size) {
    double value;
    if (size < sizeof value) {
        return;
    }
    std::memcpy(&value, data, sizeof value);
    vok::JsonToken token;
    try {
        token.MakeNumber(value);
    } catch (const std::invalid_argument&) {
        if (std::isfinite(value)) {
            Fail("a finite number was refused", std::to_string(value));
        }
        return;
    }
    CheckReadsBack(token);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Up to the first NUL, as a C string reads it.
    const std::string text(reinterpret_cast<const char*>(data), size);
    Document(text);
    String(text);
    Number(data, size);
    return 0;
}
