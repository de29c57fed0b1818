// Helpers for services and clients of the platform bus.
#ifndef VOK_KELVRASVCUTILS_H
#define VOK_KELVRASVCUTILS_H

#include <vok/JsonToken.h>

namespace vok {

// Adds the bus's standard reply fields to an object token: "returnValue"; when it is false,
// also "errorCode" and, when errorText is neither NULL nor empty, "errorText". Always returns
// true. pJsonObject must not be NULL (assertion) and must be an object (else the token's
// exception).
bool KelvraSvcUtilAddStandardReplyValues(JsonToken* pJsonObject, bool returnValue, int errorCode,
                                         const char* errorText);

}  // namespace vok

#endif  // VOK_KELVRASVCUTILS_H
