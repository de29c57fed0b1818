// Bus URIs (first line): one that parses rebuilds from its parts, and its method splits into the
// same parts. Error payloads (the rest): strict JSON carrying the text and the code unchanged.
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
    // Error texts are UTF-8, as D-Bus error messages are.
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
    return 0;
}
