// Not public API. The framework's two throw forms and the fatal condition check.
//
// Exception messages read "function:path:line[:text]", where path is the throwing source file
// relative to the repository root without its extension ("Src/Utils/Linux/MutexImpl").
#ifndef VOK_SRC_UTILS_VOKTHROW_H
#define VOK_SRC_UTILS_VOKTHROW_H

#include <string>

#include "vok/Logger.h"
#include "vok/VokError.h"

namespace vok {
namespace detail {

// "func:path:line" or "func:path:line:text" (text NULL means no message part).
std::string BuildExceptionMessage(const char* function, const char* file, long line,
                                  const char* text);

[[noreturn]] void ThrowProgramError(const char* function, const char* file, long line, int32_t err,
                                    const char* text);
[[noreturn]] void ThrowResourceError(const char* function, const char* file, long line, int32_t err,
                                     const char* text);
// Logs "THROWING EXCEPTION VokProgramErrorExceptionmsg<...> err<0XFFFFFFFF> : ..." at critical
// level on logger, then throws VokProgramErrorException with kVokErrUnspecified.
[[noreturn]] void ThrowLoggedProgramError(const Logger& logger, const char* function,
                                          const char* prettyFunction, const char* file, long line,
                                          const char* text);

// Prints the fatal line to standard error, flushes it and aborts.
[[noreturn]] void FatalConditionFailed(const char* condition, const char* function,
                                       const char* file, long line, const char* info);

}  // namespace detail
}  // namespace vok

// Unlogged throws: the shell, the dispatcher, the register table and the thread primitives.
// text is a C string or NULL.
#define VOK_THROW_PROGRAM_ERROR(err, text) \
    ::vok::detail::ThrowProgramError(__func__, __FILE__, __LINE__, (err), (text))
// The same, naming the reporting function explicitly (for code that runs inside a lambda or a
// helper on the function's behalf).
#define VOK_THROW_PROGRAM_ERROR_IN(function, err, text) \
    ::vok::detail::ThrowProgramError((function), __FILE__, __LINE__, (err), (text))
#define VOK_THROW_RESOURCE_ERROR(err, text) \
    ::vok::detail::ThrowResourceError(__func__, __FILE__, __LINE__, (err), (text))

// Logged program error of the message-passing subsystem, through the given Logger.
#define VOK_THROW_LOGGED_PROGRAM_ERROR(logger, text)                                          \
    ::vok::detail::ThrowLoggedProgramError((logger), __func__, __PRETTY_FUNCTION__, __FILE__, \
                                           __LINE__, (text))

// Fatal condition check of C-linkage code that must not throw.
#define VOK_FATAL_CHECK(condition, info)                                                         \
    do {                                                                                         \
        if (!(condition)) {                                                                      \
            ::vok::detail::FatalConditionFailed(#condition, __func__, __FILE__, __LINE__, info); \
        }                                                                                        \
    } while (0)

#endif  // VOK_SRC_UTILS_VOKTHROW_H
