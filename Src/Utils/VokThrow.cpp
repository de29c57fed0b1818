#include "Src/Utils/VokThrow.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vok {
namespace detail {
namespace {

// Length of the path as the build gave it (relative to the repository root) without its
// extension. Allocates nothing, so the fatal check can use it too.
size_t SourcePathLength(const char* file) {
    const char* dot = std::strrchr(file, '.');
    const char* slash = std::strrchr(file, '/');
    return (dot != nullptr && (slash == nullptr || dot > slash)) ? static_cast<size_t>(dot - file)
                                                                 : std::strlen(file);
}

std::string SourcePath(const char* file) {
    return file != nullptr ? std::string(file, SourcePathLength(file)) : std::string();
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
    std::fprintf(stderr,
                 "FATAL ERROR: Condition test <%s> failed in function %s, file %.*s, line %ld; "
                 "additional info: <%s>.\n",
                 condition, function, static_cast<int>(SourcePathLength(file)), file, line, info);
    std::fflush(stderr);
    std::abort();
}

}  // namespace detail
}  // namespace vok
