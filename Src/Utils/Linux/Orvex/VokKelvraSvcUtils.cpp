#include "vok/KelvraSvcUtils.h"

#include <cassert>

namespace vok {

bool KelvraSvcUtilAddStandardReplyValues(JsonToken* pJsonObject, bool returnValue, int errorCode,
                                         const char* errorText) {
    assert(pJsonObject);
    pJsonObject->ObjectSetBooleanPair("returnValue", returnValue);
    if (returnValue) {
        return true;
    }
    pJsonObject->ObjectSetNumberPair("errorCode", errorCode);
    if (errorText != nullptr && errorText[0] != '\0') {
        pJsonObject->ObjectSetStringPair("errorText", errorText);
    }
    return true;
}

}  // namespace vok
