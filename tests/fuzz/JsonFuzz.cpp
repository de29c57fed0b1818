// JsonToken against json-c: the input as a document (accepted exactly when the grammar check and
// json-c's strict tokener both do, and written as json-c writes it), as a string and as a double.
#include <glib.h>
#include <json-c/json.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "vok/JsonToken.h"

namespace {

json_object* Cjson(const vok::JsonToken& token) {
    return reinterpret_cast<json_object*>(token.PeekPopulatedPimpl());
}

[[noreturn]] void Fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "JsonFuzz: %s: <%s>\n", what, text.c_str());
    std::abort();
}

// Written as json-c writes it; parses to an equal value that writes back the same.
void CheckReadsBack(const vok::JsonToken& token) {
    const std::string written = token.GenerateJsonEncodingAndPeek();
    if (written != json_object_to_json_string(Cjson(token))) {
        Fail("written unlike json-c writes it", written);
    }
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

// json-c's strict tokener behind the grammar check; NULL when either refuses text.
json_object* ReferenceParse(const char* text, bool* accepted) {
    *accepted = false;
    const size_t length = std::strlen(text);
    if (!vok::JsonIsStrictDocument(text, length)) {
        return nullptr;
    }
    json_tokener* tokener = json_tokener_new();
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    json_object* value = json_tokener_parse_ex(tokener, text, static_cast<int>(length) + 1);
    *accepted = json_tokener_get_error(tokener) == json_tokener_success;
    json_tokener_free(tokener);
    return value;
}

void Document(const std::string& text) {
    vok::JsonToken token;
    const bool accepted = token.ParseJsonString(text.c_str());
    bool expected = false;
    json_object* reference = ReferenceParse(text.c_str(), &expected);
    if (accepted != expected) {
        json_object_put(reference);
        Fail(accepted ? "accepted what json-c refuses" : "refused what json-c accepts", text);
    }
    if (accepted) {
        const bool same = json_object_equal(Cjson(token), reference) != 0 &&
                          std::strcmp(token.GenerateJsonEncodingAndPeek(),
                                      json_object_to_json_string(reference)) == 0;
        json_object_put(reference);
        if (!same) {
            Fail("read or written unlike json-c", text);
        }
        CheckReadsBack(token);
    }
}

void String(const std::string& text) {
    vok::JsonToken token;
    token.MakeString(text.c_str());
    try {
        CheckReadsBack(token);
    } catch (const std::invalid_argument&) {
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
