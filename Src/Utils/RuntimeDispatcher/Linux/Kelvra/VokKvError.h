// Not public API. A KVError record on the stack around a bus-library call, and the error code
// of a reply.
#ifndef VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_VOKKVERROR_H
#define VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_VOKKVERROR_H

#include <kelvra/kelvra.h>

#include <cstdint>

namespace vok {

// result holds the boolean result of the last call made with the record (true before any); the
// record is freed only when that call failed and the library filled it.
struct VokKvError {
    VokKvError() : result(true) { KVErrorInit(&error); }
    ~VokKvError() {
        if (!result) {
            KVErrorFree(&error);
        }
    }
    VokKvError(const VokKvError&) = delete;
    VokKvError& operator=(const VokKvError&) = delete;

    const char* Message() const { return error.message != nullptr ? error.message : ""; }

    KVError error;
    bool result;
};

// The error code a reply carries for the flight recorder: "errorCode" of a reply whose
// "returnValue" is false (KV_ERROR_METHOD_FAILED when it has none), 0 for any other payload.
// A scan of the text, not a parse: it runs on the recording path, which does not allocate.
int64_t KvReplyErrorCode(const char* payload);

}  // namespace vok

#endif  // VOK_SRC_UTILS_RUNTIMEDISPATCHER_LINUX_KELVRA_VOKKVERROR_H
