#include "Src/Utils/RuntimeDispatcher/Linux/Kelvra/VokKvError.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace vok {

namespace {

// The text of the value of the first member named quotedName ("\"name\"") in payload, with the
// blanks around the colon skipped; null when there is none.
const char* MemberValue(const char* payload, const char* quotedName) {
    const char* at = std::strstr(payload, quotedName);
    if (at == nullptr) {
        return nullptr;
    }
    at += std::strlen(quotedName);
    while (std::isspace(static_cast<unsigned char>(*at))) {
        ++at;
    }
    if (*at != ':') {
        return nullptr;
    }
    ++at;
    while (std::isspace(static_cast<unsigned char>(*at))) {
        ++at;
    }
    return at;
}

}  // namespace

int64_t KvReplyErrorCode(const char* payload) {
    if (payload == nullptr) {
        return 0;
    }
    const char* failed = MemberValue(payload, "\"returnValue\"");
    if (failed == nullptr || std::strncmp(failed, "false", 5) != 0) {
        return 0;
    }
    const char* code = MemberValue(payload, "\"errorCode\"");
    char* end = nullptr;
    const long long value = code != nullptr ? std::strtoll(code, &end, 10) : 0;
    return end != nullptr && end != code ? value : static_cast<long long>(KV_ERROR_METHOD_FAILED);
}

}  // namespace vok
