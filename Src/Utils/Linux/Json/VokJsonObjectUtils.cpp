#include <json-c/json.h>

#include <cstring>
#include <stdexcept>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "vok/JsonObjectUtils.h"

namespace vok {

namespace {

typedef unsigned char IterStorage[sizeof(void*)];
static_assert(sizeof(json_object_iterator) == sizeof(IterStorage),
              "the opaque storage must hold json-c's object iterator");
static_assert(alignof(json_object_iterator) <= alignof(void*),
              "the opaque storage must be aligned for json-c's object iterator");

json_object_iterator LoadIter(const IterStorage& storage) {
    json_object_iterator iter;
    std::memcpy(&iter, storage, sizeof(iter));
    return iter;
}

void StoreIter(IterStorage& storage, const json_object_iterator& iter) {
    std::memcpy(storage, &iter, sizeof(iter));
}

// json-c marks the end of an object (and a default iterator) with a position of no pair.
bool IsAtEnd(const json_object_iterator& iter) {
    json_object_iterator none = json_object_iter_init_default();
    return json_object_iter_equal(&iter, &none) != 0;
}

}  // namespace

JsonObjectConstIterator::JsonObjectConstIterState::JsonObjectConstIterState()
    : pair_{nullptr, nullptr} {
    StoreIter(iter_, json_object_iter_init_default());
}

void JsonObjectConstIterator::JsonObjectConstIterState::SetPopulated(bool populated) {
    pair_.value = populated ? &proxy_ : nullptr;
}

void JsonObjectConstIterator::JsonObjectConstIterState::Init(
    const JsonObjectConstIterInitInfo* initInfo) {
    pair_.name = nullptr;
    proxy_.Reset();
    if (initInfo == nullptr) {
        StoreIter(iter_, json_object_iter_init_default());
        SetPopulated(false);
    } else {
        StoreIter(iter_, initInfo->iter);
        SetPopulated(true);
    }
}

// Values are peeked again lazily on the copy.
void JsonObjectConstIterator::JsonObjectConstIterState::CopyFrom(
    const JsonObjectConstIterState& other) {
    std::memcpy(iter_, other.iter_, sizeof(iter_));
    pair_.name = nullptr;
    proxy_.Reset();
    SetPopulated(other.IsPopulated());
}

void JsonObjectConstIterator::JsonObjectConstIterState::Swap(JsonObjectConstIterState* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    IterStorage iter;
    std::memcpy(iter, iter_, sizeof(iter));
    std::memcpy(iter_, pOther->iter_, sizeof(iter_));
    std::memcpy(pOther->iter_, iter, sizeof(iter));
    bool populated = IsPopulated();
    SetPopulated(pOther->IsPopulated());
    pOther->SetPopulated(populated);
    pair_.name = nullptr;
    pOther->pair_.name = nullptr;
    proxy_.Reset();
    pOther->proxy_.Reset();
}

const JsonObjectConstIterator::NameValuePair*
JsonObjectConstIterator::JsonObjectConstIterState::PeekPopulatedNameValuePtr() {
    if (!IsPopulated()) {
        throw std::invalid_argument(
            "JsonObjectConstIterState::PeekPopulatedNameValuePtr: iterator is unpopulated");
    }
    if (!proxy_.HasValue()) {
        json_object_iterator iter = LoadIter(iter_);
        // json-c's peek functions dereference the position unchecked.
        if (IsAtEnd(iter)) {
            throw std::out_of_range(
                "JsonObjectConstIterState::PeekPopulatedNameValuePtr: iterator is at the end");
        }
        proxy_.SetNewPimpl(JsonPimplFromCjson(json_object_get(json_object_iter_peek_value(&iter))));
        pair_.name = json_object_iter_peek_name(&iter);
    }
    return &pair_;
}

void JsonObjectConstIterator::JsonObjectConstIterState::AdvanceForward() {
    if (!IsPopulated()) {
        throw std::invalid_argument(
            "JsonObjectConstIterState::AdvanceForward: iterator is unpopulated");
    }
    json_object_iterator iter = LoadIter(iter_);
    if (IsAtEnd(iter)) {
        throw std::out_of_range(
            "JsonObjectConstIterState::AdvanceForward: user attempted to iterate past end");
    }
    pair_.name = nullptr;
    proxy_.Reset();
    json_object_iter_next(&iter);
    StoreIter(iter_, iter);
}

bool JsonObjectConstIterator::JsonObjectConstIterState::Equals(
    const JsonObjectConstIterState& other) const {
    if (!IsPopulated() || !other.IsPopulated()) {
        throw std::invalid_argument(
            "JsonObjectConstIterState::operator==: one of the iterators is unpopulated");
    }
    json_object_iterator mine = LoadIter(iter_);
    json_object_iterator theirs = LoadIter(other.iter_);
    return json_object_iter_equal(&mine, &theirs) != 0;
}

JsonObjectConstIterator::JsonObjectConstIterator() : pState_(nullptr) {
    ConstructStateHelper(nullptr);
}

JsonObjectConstIterator::JsonObjectConstIterator(const JsonObjectConstIterInitInfo& initInfo)
    : pState_(nullptr) {
    ConstructStateHelper(&initInfo);
}

JsonObjectConstIterator::JsonObjectConstIterator(const JsonObjectConstIterator& other)
    : pState_(nullptr) {
    ConstructStateHelper(nullptr);
    state_.CopyFrom(*other.pState_);
}

JsonObjectConstIterator& JsonObjectConstIterator::operator=(const JsonObjectConstIterator& other) {
    JsonObjectConstIterator copy(other);
    Swap(&copy);
    return *this;
}

// The proxy member releases its reference.
JsonObjectConstIterator::~JsonObjectConstIterator() = default;

void JsonObjectConstIterator::ConstructStateHelper(const JsonObjectConstIterInitInfo* initInfo) {
    if (pState_ != nullptr) {
        throw std::logic_error(
            "JsonObjectConstIterator::ConstructStateHelper: pState_ was not NULL on entry.");
    }
    state_.Init(initInfo);
    pState_ = &state_;
}

bool JsonObjectConstIterator::IsPopulated() const {
    return pState_->IsPopulated();
}

const JsonObjectConstIterator::NameValuePair& JsonObjectConstIterator::operator*() const {
    return *pState_->PeekPopulatedNameValuePtr();
}

const JsonObjectConstIterator::NameValuePair* JsonObjectConstIterator::operator->() const {
    return pState_->PeekPopulatedNameValuePtr();
}

bool JsonObjectConstIterator::operator==(const JsonObjectConstIterator& other) const {
    return pState_->Equals(*other.pState_);
}

bool JsonObjectConstIterator::operator!=(const JsonObjectConstIterator& other) const {
    return !(*this == other);
}

JsonObjectConstIterator& JsonObjectConstIterator::operator++() {
    pState_->AdvanceForward();
    return *this;
}

void JsonObjectConstIterator::Swap(JsonObjectConstIterator* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    pState_->Swap(pOther->pState_);
}

}  // namespace vok
