#include <json-c/json.h>

#include <stdexcept>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "vok/JsonObjectFindResult.h"

namespace vok {

void JsonObjectConstFindResult::JsonObjectConstFindResultState::Swap(
    JsonObjectConstFindResultState* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    value_.Swap(&pOther->value_);
}

JsonObjectConstFindResult::JsonObjectConstFindResult() : pState_(nullptr) {
    JsonObjectFindResultInitInfo notFound = {false, nullptr};
    ConstructStateHelper(&notFound);
}

JsonObjectConstFindResult::JsonObjectConstFindResult(const JsonObjectFindResultInitInfo& initInfo)
    : pState_(nullptr) {
    ConstructStateHelper(&initInfo);
}

JsonObjectConstFindResult::JsonObjectConstFindResult(const JsonObjectConstFindResult& other)
    : pState_(nullptr) {
    JsonObjectFindResultInitInfo info = {other.pState_->value_.HasValue(), nullptr};
    if (info.found) {
        info.value = JsonCjsonFromPimpl(other.pState_->value_.PeekPopulatedPimpl());
    }
    ConstructStateHelper(&info);
}

JsonObjectConstFindResult& JsonObjectConstFindResult::operator=(
    const JsonObjectConstFindResult& other) {
    JsonObjectConstFindResult copy(other);
    Swap(&copy);
    return *this;
}

// The value member releases its reference.
JsonObjectConstFindResult::~JsonObjectConstFindResult() = default;

void JsonObjectConstFindResult::ConstructStateHelper(
    const JsonObjectFindResultInitInfo* pInitInfo) {
    assert(pInitInfo);
    if (pState_ != nullptr) {
        throw std::logic_error(
            "JsonObjectConstFindResult::ConstructStateHelper: pState_ was not NULL on entry.");
    }
    if (pInitInfo->found) {
        // json_object_get(NULL) is NULL: a found JSON null makes a populated null token.
        state_.value_.SetNewPimpl(JsonPimplFromCjson(json_object_get(pInitInfo->value)));
    }
    pState_ = &state_;
}

const JsonToken& JsonObjectConstFindResult::operator*() const {
    return pState_->value_;
}

const JsonToken* JsonObjectConstFindResult::operator->() const {
    return &pState_->value_;
}

void JsonObjectConstFindResult::Swap(JsonObjectConstFindResult* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    pState_->Swap(pOther->pState_);
}

}  // namespace vok
