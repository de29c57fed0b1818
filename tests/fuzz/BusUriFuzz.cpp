// First line: a parsed bus URI rebuilds from its parts. The rest: error payloads are strict JSON
// with the text and code unchanged; as a request payload, read as json-c's strict parser reads it.
#include <gio/gio.h>
#include <kelvra/kelvra.h>
#include <pthread.h>

extern "C" {  // The private header has no C++ guard.
#include "kelvra-private.h"
}

#include <json-c/json.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

[[noreturn]] void Fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "BusUriFuzz: %s: <%s>\n", what, text.c_str());
    std::abort();
}

void Uri(const std::string& uri) {
    g_autofree char* service = nullptr;
    g_autofree char* path = nullptr;
    g_autofree char* member = nullptr;
    if (!KvParseUri(uri.c_str(), &service, &path, &member)) {
        return;
    }
    if (!KvIsServiceName(service)) {
        Fail("the service of a parsed URI is not a service name", uri);
    }
    g_autofree char* method = KvMethodKey(path, member);
    if (method == nullptr || "kelvra://" + std::string(service) + "/" + method != uri) {
        Fail("a parsed URI does not rebuild from its parts", uri);
    }
    g_autofree char* path2 = nullptr;
    g_autofree char* member2 = nullptr;
    if (!KvSplitMethod(method, &path2, &member2) || std::strcmp(path, path2) != 0 ||
        std::strcmp(member, member2) != 0) {
        Fail("the method of a parsed URI splits into other parts", uri);
    }
}

void ErrorPayload(int code, const std::string& text) {
    if (!g_utf8_validate(text.c_str(), -1, nullptr)) {
        return;
    }
    g_autofree char* payload = KvErrorPayload(code, text.c_str());
    json_tokener* tokener = json_tokener_new();
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    json_object* reply =
        json_tokener_parse_ex(tokener, payload, static_cast<int>(std::strlen(payload)) + 1);
    if (json_tokener_get_error(tokener) != json_tokener_success) {
        Fail("the error payload is not JSON", payload);
    }
    json_object* value = nullptr;
    if (!json_object_object_get_ex(reply, "errorText", &value) ||
        text != json_object_get_string(value) ||
        !json_object_object_get_ex(reply, "errorCode", &value) ||
        json_object_get_int(value) != code ||
        !json_object_object_get_ex(reply, "returnValue", &value) ||
        json_object_get_boolean(value) != 0) {
        Fail("the error payload does not say what it was made of", payload);
    }
    json_object_put(reply);
    json_tokener_free(tokener);
}

// json-c's strict parse of text as one object; NULL when it is not one.
json_object* StrictObject(const std::string& text) {
    json_tokener* tokener = json_tokener_new_ex(64);
    json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    json_object* object =
        json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size()) + 1);
    const size_t end = static_cast<size_t>(json_tokener_get_parse_end(tokener));
    if (json_tokener_get_error(tokener) != json_tokener_success ||
        !json_object_is_type(object, json_type_object) ||
        text.find_first_not_of(" \t\r\n", end) != std::string::npos) {
        json_object_put(object);
        object = nullptr;
    }
    json_tokener_free(tokener);
    return object;
}

// A number outside strings: json-c takes some RFC 8259 refuses (-.25, NaN), the reader does not.
bool HasNumber(const std::string& text) {
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (inString && text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            inString = !inString;
        } else if (!inString && std::strchr("-0123456789NI", text[i]) != nullptr) {
            return true;
        }
    }
    return false;
}

void RequestPayload(const std::string& text) {
    // Valid UTF-8 (the bus carries nothing else), nested less deep than either reader allows.
    if (!g_utf8_validate(text.c_str(), -1, nullptr) ||
        std::count_if(text.begin(), text.end(), [](char c) { return c == '[' || c == '{'; }) > 30) {
        return;
    }
    json_object* object = StrictObject(text);
    const char* subscribe = nullptr;
    const char* name = nullptr;
    const bool read = KvJsonReadObject(text.c_str(), "subscribe", &subscribe);
    if (read && object == nullptr) {
        Fail("not a JSON object was read", text);
    }
    if (!read && object != nullptr && !HasNumber(text)) {
        Fail("a JSON object was refused", text);
    }
    // json-c cuts keys at a \u0000; the reader does not.
    if (!read || text.find("\\u0000") != std::string::npos) {
        json_object_put(object);
        return;
    }
    KvJsonReadObject(text.c_str(), "serviceName", &name);
    json_object* value = nullptr;
    if (KvJsonIsTrue(subscribe) !=
        (json_object_object_get_ex(object, "subscribe", &value) &&
         json_object_is_type(value, json_type_boolean) && json_object_get_boolean(value))) {
        Fail("\"subscribe\" read otherwise", text);
    }
    g_autofree char* decoded = KvJsonGetString(name);
    if (json_object_object_get_ex(object, "serviceName", &value) &&
        json_object_is_type(value, json_type_string) &&
        std::strlen(json_object_get_string(value)) ==
            static_cast<size_t>(json_object_get_string_len(value)) &&
        g_strcmp0(decoded, json_object_get_string(value)) != 0) {
        Fail("\"serviceName\" read otherwise", text);
    }
    json_object_put(object);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    Uri(input.substr(0, newline).c_str());
    if (newline == std::string::npos) {
        return 0;
    }
    int code = 0;
    const std::string rest = input.substr(newline + 1);
    std::memcpy(&code, rest.data(), std::min(sizeof code, rest.size()));
    ErrorPayload(code, rest.c_str());
    RequestPayload(rest.c_str());
    return 0;
}
