#include "Src/Utils/Linux/UncaughtException.h"

#include <cstdlib>

#include "vok/Logger.h"

namespace vok {

std::string DescribeException(std::exception_ptr exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

void AbortOnException(const Logger& logger, const char* whatHappened,
                      std::exception_ptr exception) {
    logger.Critical("%s: %s", whatHappened, DescribeException(exception).c_str());
    std::abort();
}

}  // namespace vok
