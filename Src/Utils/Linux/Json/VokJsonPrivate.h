// Not public API. What the JSON classes share behind their public headers: the records that
// JsonToken hands to the iterator and find-result constructors, the conversions between a
// token's pimpl and json-c, and the assertion form of the JSON layer.
#ifndef VOK_SRC_UTILS_LINUX_JSON_VOKJSONPRIVATE_H
#define VOK_SRC_UTILS_LINUX_JSON_VOKJSONPRIVATE_H

#include <json-c/json.h>

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "vok/JsonToken.h"

// The condition's macros are expanded before it is printed, so "NULL != p" reads "__null != p".
#define VOK_JSON_ASSERT(condition) assert(condition)

namespace vok {

// Where an array iterator starts: the array (not owned) and the index (-1 is the end).
struct JsonArrayConstIterInitInfo {
    json_object* pCjsonArray_;
    int32_t currentIndex_;
};

// Where an object iterator starts.
struct JsonObjectConstIterInitInfo {
    json_object_iterator iter;
};

// What ObjectFindPair found: value is NULL for a JSON null or when nothing was found.
struct JsonObjectFindResultInitInfo {
    bool found;
    json_object* value;
};

// A JsonTokenImpl* is the json_object* itself.
inline json_object* JsonCjsonFromPimpl(JsonTokenImpl* pimpl) {
    return reinterpret_cast<json_object*>(pimpl);
}
inline JsonTokenImpl* JsonPimplFromCjson(json_object* value) {
    return reinterpret_cast<JsonTokenImpl*>(value);
}

// Reads text[0, length) when it is one JSON value by RFC 8259 with white space around it, nested
// no deeper than json-c's tokener allows, whose numbers json-c holds without loss (integers within
// int64_t or uint64_t, other numbers finite as a double) and whose strings are UTF-8 by
// JsonIsUtf8: *value gets the caller's reference to it (NULL for the document null) and the
// result is true. Otherwise returns false and leaves *value alone. Running out of memory throws
// std::bad_alloc, having freed what was built.
bool JsonParse(const char* text, size_t length, json_object** value);

// JsonParse's grammar alone, building nothing, with nesting bounded a little beyond json-c's
// limit: what a strict json-c tokener accepts behind it is what JsonParse accepts.
bool JsonIsStrictDocument(const char* text, size_t length);

// True when text[0, length) is well-formed UTF-8 (no overlong forms, no surrogates).
bool JsonIsUtf8(const char* text, size_t length);

// json_object_object_add without its leak: json-c loses its copy of a new name when growing the
// table for it fails. Returns 0, or -1 when memory ran out and value was not taken.
int JsonObjectAdd(json_object* object, const char* name, json_object* value);

// Appends the encoding of value (json-c's spaced form, as json_object_to_json_string writes it)
// to out and returns NULL, or returns why value cannot be written as JSON: a double that is NaN
// or infinite, a string or name that is not UTF-8. Running out of memory throws std::bad_alloc.
const char* JsonWrite(json_object* value, std::string* out);

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_JSON_VOKJSONPRIVATE_H
