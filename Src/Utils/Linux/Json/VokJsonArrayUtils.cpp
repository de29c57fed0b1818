#include <json-c/json.h>

#include <stdexcept>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "vok/JsonArrayUtils.h"

namespace vok {

void JsonArrayConstIterator::JsonArrayConstIterState::Init(json_object* array, int32_t index) {
    if (array == nullptr) {
        throw std::logic_error("CjsonIterState::CjsonIterState: NULL pCjsonArray_");
    }
    if (index >= 0 && static_cast<size_t>(index) >= json_object_array_length(array)) {
        throw std::logic_error(
            "CjsonIterState::CjsonIterState: Array currentIndex_ is out of bounds");
    }
    if (index < -1) {
        throw std::logic_error("CjsonIterState::CjsonIterState: Array currentIndex_ is invalid");
    }
    pCjsonArray_ = array;
    currentIndex_ = index;
    UpdateProxyFromCjsonState();
}

void JsonArrayConstIterator::JsonArrayConstIterState::UpdateProxyFromCjsonState() {
    if (currentIndex_ >= 0) {
        json_object* element =
            json_object_array_get_idx(pCjsonArray_, static_cast<size_t>(currentIndex_));
        proxy_.SetNewPimpl(JsonPimplFromCjson(json_object_get(element)));
    } else if (currentIndex_ == -1) {
        proxy_.Reset();
    } else {
        throw std::logic_error(
            "JsonArrayConstIterState::UpdateProxyFromCjsonState: invalid currentIndex_");
    }
}

void JsonArrayConstIterator::JsonArrayConstIterState::CopyFrom(
    const JsonArrayConstIterState& other) {
    pCjsonArray_ = other.pCjsonArray_;
    currentIndex_ = other.currentIndex_;
    if (other.proxy_.HasValue()) {
        proxy_.SetNewPimpl(JsonPimplFromCjson(
            json_object_get(JsonCjsonFromPimpl(other.proxy_.PeekPopulatedPimpl()))));
    } else {
        proxy_.Reset();
    }
}

void JsonArrayConstIterator::JsonArrayConstIterState::Swap(JsonArrayConstIterState* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    json_object* array = pCjsonArray_;
    pCjsonArray_ = pOther->pCjsonArray_;
    pOther->pCjsonArray_ = array;
    int32_t index = currentIndex_;
    currentIndex_ = pOther->currentIndex_;
    pOther->currentIndex_ = index;
    proxy_.Swap(&pOther->proxy_);
}

void JsonArrayConstIterator::JsonArrayConstIterState::Next() {
    if (pCjsonArray_ == nullptr) {
        throw std::invalid_argument("CjsonIterState::Next: iterator is not populated");
    }
    if (currentIndex_ == -1) {
        throw std::out_of_range("CjsonIterState::Next: user attempted to iterate past end");
    }
    ++currentIndex_;
    if (static_cast<size_t>(currentIndex_) >= json_object_array_length(pCjsonArray_)) {
        currentIndex_ = -1;
    }
    UpdateProxyFromCjsonState();
}

bool JsonArrayConstIterator::JsonArrayConstIterState::Equals(
    const JsonArrayConstIterState& other) const {
    if (pCjsonArray_ == nullptr || other.pCjsonArray_ == nullptr) {
        throw std::invalid_argument(
            "CjsonIterState::operator==: one or both iterators are unpopulated");
    }
    if (pCjsonArray_ != other.pCjsonArray_) {
        throw std::invalid_argument(
            "CjsonIterState::operator==: iterators refer to different CJSON Arrays");
    }
    return currentIndex_ == other.currentIndex_;
}

JsonArrayConstIterator::JsonArrayConstIterator() : pState_(nullptr) {
    ConstructStateCommon(nullptr);
}

JsonArrayConstIterator::JsonArrayConstIterator(const JsonArrayConstIterInitInfo& initInfo)
    : pState_(nullptr) {
    ConstructStateCommon(&initInfo);
}

JsonArrayConstIterator::JsonArrayConstIterator(const JsonArrayConstIterator& other)
    : pState_(nullptr) {
    ConstructStateCommon(nullptr);
    state_.CopyFrom(*other.pState_);
}

JsonArrayConstIterator& JsonArrayConstIterator::operator=(const JsonArrayConstIterator& other) {
    JsonArrayConstIterator copy(other);
    Swap(&copy);
    return *this;
}

// The proxy member releases its reference.
JsonArrayConstIterator::~JsonArrayConstIterator() = default;

void JsonArrayConstIterator::ConstructStateCommon(const JsonArrayConstIterInitInfo* initInfo) {
    if (pState_ != nullptr) {
        throw std::logic_error(
            "JsonArrayConstIterator::ConstructStateCommon: pState_ was not NULL on entry.");
    }
    if (initInfo != nullptr) {
        state_.Init(initInfo->pCjsonArray_, initInfo->currentIndex_);
    }
    pState_ = &state_;
}

bool JsonArrayConstIterator::IsPopulated() const {
    return pState_->pCjsonArray_ != nullptr;
}

const JsonToken& JsonArrayConstIterator::operator*() const {
    if (pState_->pCjsonArray_ == nullptr) {
        throw std::invalid_argument("JsonArrayConstIterator::operator* iterator is unpopulated");
    }
    if (pState_->currentIndex_ == -1) {
        throw std::invalid_argument("JsonArrayConstIterator::operator* iterator is at the end");
    }
    return pState_->proxy_;
}

const JsonToken* JsonArrayConstIterator::operator->() const {
    return &**this;
}

bool JsonArrayConstIterator::operator==(const JsonArrayConstIterator& other) const {
    return pState_->Equals(*other.pState_);
}

bool JsonArrayConstIterator::operator!=(const JsonArrayConstIterator& other) const {
    return !(*this == other);
}

JsonArrayConstIterator& JsonArrayConstIterator::operator++() {
    pState_->Next();
    return *this;
}

void JsonArrayConstIterator::Swap(JsonArrayConstIterator* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    pState_->Swap(pOther->pState_);
}

}  // namespace vok
