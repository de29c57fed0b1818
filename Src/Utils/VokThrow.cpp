#include "Src/Utils/VokThrow.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vok {
namespace detail {
namespace {

// The path as the build gave it (relative to the repository root) without its extension.
std::string SourcePath(const char* file) {
    std::string path(file != nullptr ? file : "");
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
        path.erase(dot);
    }
    return path;
}

}  // namespace

std::string BuildExceptionMessage(const char* function, const char* file, long line,
                                  const char* text) {
    std::string message(function);
    message += ':';
    message += SourcePath(file);
    message += ':';
    message += std::to_string(line);
    if (text != nullptr) {
        message += ':';
        message += text;
    }
    return message;
}

void ThrowProgramError(const char* function, const char* file, long line, int32_t err,
                       const char* text) {
    throw VokProgramErrorException(BuildExceptionMessage(function, file, line, text), err);
}

void ThrowResourceError(const char* function, const char* file, long line, int32_t err,
                        const char* text) {
    throw VokResourceException(BuildExceptionMessage(function, file, line, text), err);
}

void ThrowLoggedProgramError(const Logger& logger, const char* function, const char* prettyFunction,
                             const char* file, long line, const char* text) {
    const std::string path = SourcePath(file);
    logger.Critical(
        "THROWING EXCEPTION VokProgramErrorExceptionmsg<%s> err<%#X> : %s : %s : line %ld\n",
        text != nullptr ? text : "", static_cast<unsigned>(kVokErrUnspecified), prettyFunction,
        path.c_str(), line);
    throw VokProgramErrorException(BuildExceptionMessage(function, file, line, text),
                                   kVokErrUnspecified);
}

void FatalConditionFailed(const char* condition, const char* function, const char* file, long line,
                          const char* info) {
    char path[256];
    const char* dot = std::strrchr(file, '.');
    const char* slash = std::strrchr(file, '/');
    size_t len = (dot != nullptr && (slash == nullptr || dot > slash))
                     ? static_cast<size_t>(dot - file)
                     : std::strlen(file);
    if (len >= sizeof path) {
        len = sizeof path - 1;
    }
    std::memcpy(path, file, len);
    path[len] = '\0';
    std::fprintf(stderr,
                 "FATAL ERROR: Condition test <%s> failed in function %s, file %s, line %ld; "
                 "additional info: <%s>.\n",
                 condition, function, path, line, info);
    std::fflush(stderr);
    std::abort();
}

}  // namespace detail
}  // namespace vok
