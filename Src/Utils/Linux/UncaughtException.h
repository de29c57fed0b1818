// Not public API. Reporting exceptions that nothing above can catch.
#ifndef VOK_SRC_UTILS_LINUX_UNCAUGHTEXCEPTION_H
#define VOK_SRC_UTILS_LINUX_UNCAUGHTEXCEPTION_H

#include <exception>
#include <string>

namespace vok {

class Logger;

// The text of an exception for a log line: what() of a std::exception, else
// "unknown exception".
std::string DescribeException(std::exception_ptr exception);

// Logs "<what happened>: <exception text>" at critical level, then aborts the process.
[[noreturn]] void AbortOnException(const Logger& logger, const char* whatHappened,
                                   std::exception_ptr exception);

}  // namespace vok

#endif  // VOK_SRC_UTILS_LINUX_UNCAUGHTEXCEPTION_H
