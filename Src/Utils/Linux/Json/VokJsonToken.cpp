#include <json-c/json.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "Src/Utils/Linux/Json/VokJsonPrivate.h"
#include "vok/JsonToken.h"

namespace vok {

namespace {

const uint32_t kPopulatedFlag = 1u;

// json-c constructors and string accessors return NULL only when memory runs out.
json_object* CheckAllocated(json_object* value) {
    if (value == nullptr) {
        throw std::bad_alloc();
    }
    return value;
}

}  // namespace

json_object* JsonToken::PimplToCjson_(JsonTokenImpl* pimpl) {
    return JsonCjsonFromPimpl(pimpl);
}

JsonTokenImpl* JsonToken::PimplFromCjson_(json_object* value) {
    return JsonPimplFromCjson(value);
}

JsonToken::JsonToken() : flags(0), pimpl(nullptr) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeNull>*)
    : flags(kPopulatedFlag), pimpl(nullptr) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeObject>*)
    : flags(kPopulatedFlag), pimpl(PimplFromCjson_(CheckAllocated(json_object_new_object()))) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeArray>*)
    : flags(kPopulatedFlag), pimpl(PimplFromCjson_(CheckAllocated(json_object_new_array()))) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeNumber>*, int value)
    : flags(kPopulatedFlag), pimpl(PimplFromCjson_(CheckAllocated(json_object_new_int(value)))) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeNumber>*, int64_t value)
    : flags(kPopulatedFlag), pimpl(PimplFromCjson_(CheckAllocated(json_object_new_int64(value)))) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeNumber>*, uint64_t value)
    : flags(kPopulatedFlag),
      pimpl(PimplFromCjson_(CheckAllocated(json_object_new_uint64(value)))) {}

JsonToken::JsonToken(JsonToken&& other) noexcept : flags(0), pimpl(nullptr) {
    Swap(&other);
}

JsonToken& JsonToken::operator=(JsonToken&& other) noexcept {
    if (this != &other) {
        TransferFrom(&other);
    }
    return *this;
}

JsonToken::JsonToken(const ValueSelector<kValueTypeNumber>*, double value)
    : flags(0), pimpl(nullptr) {
    // JSON has no NaN or infinity; json-c would write them as "NaN" and "Infinity".
    if (!std::isfinite(value)) {
        throw std::invalid_argument("JSON Number value creation failed: not a finite number");
    }
    pimpl = PimplFromCjson_(CheckAllocated(json_object_new_double(value)));
    flags = kPopulatedFlag;
}

JsonToken::JsonToken(const ValueSelector<kValueTypeBoolean>*, bool value)
    : flags(kPopulatedFlag),
      pimpl(PimplFromCjson_(CheckAllocated(json_object_new_boolean(value ? 1 : 0)))) {}

JsonToken::JsonToken(const ValueSelector<kValueTypeString>*, const char* text)
    : flags(0), pimpl(nullptr) {
    if (text == nullptr) {
        throw std::invalid_argument("JSON String value creation failed: NULL text");
    }
    pimpl = PimplFromCjson_(CheckAllocated(json_object_new_string(text)));
    flags = kPopulatedFlag;
}

JsonToken::~JsonToken() {
    Reset();
}

bool JsonToken::HasValue() const {
    return (flags & kPopulatedFlag) != 0;
}

JsonToken::ValueType JsonToken::GetValueType() const {
    if (!HasValue()) {
        return kValueTypeUnpopulated;
    }
    if (pimpl == nullptr) {
        return kValueTypeNull;
    }
    switch (json_object_get_type(PimplToCjson_(pimpl))) {
        case json_type_null:
            return kValueTypeNull;
        case json_type_boolean:
            return kValueTypeBoolean;
        case json_type_double:
        case json_type_int:
            return kValueTypeNumber;
        case json_type_object:
            return kValueTypeObject;
        case json_type_array:
            return kValueTypeArray;
        case json_type_string:
            return kValueTypeString;
    }
    return kValueTypeUnpopulated;
}

void JsonToken::Reset() {
    if (!HasValue()) {
        return;
    }
    json_object* old = PimplToCjson_(pimpl);
    flags &= ~kPopulatedFlag;
    pimpl = nullptr;
    json_object_put(old);
}

void JsonToken::SetNewPimpl(JsonTokenImpl* value) {
    Reset();
    pimpl = value;
    flags |= kPopulatedFlag;
}

JsonTokenImpl* JsonToken::PeekPopulatedPimpl() {
    return static_cast<const JsonToken*>(this)->PeekPopulatedPimpl();
}

JsonTokenImpl* JsonToken::PeekPopulatedPimpl() const {
    if (!HasValue()) {
        throw std::invalid_argument("JsonToken::PeekPopulatedPimpl failed: Token is not populated");
    }
    return pimpl;
}

JsonTokenImpl* JsonToken::GiveUpPopulatedPimpl() {
    if (!HasValue()) {
        throw std::invalid_argument(
            "JsonToken::GiveUpPopulatedPimpl failed: Token is not populated");
    }
    JsonTokenImpl* value = pimpl;
    pimpl = nullptr;
    flags &= ~kPopulatedFlag;
    return value;
}

void JsonToken::Swap(JsonToken* pOther) {
    VOK_JSON_ASSERT(NULL != pOther);
    uint32_t flagsTmp = flags;
    JsonTokenImpl* pimplTmp = pimpl;
    flags = pOther->flags;
    pimpl = pOther->pimpl;
    pOther->flags = flagsTmp;
    pOther->pimpl = pimplTmp;
}

void JsonToken::TransferFrom(JsonToken* other) {
    // The temporary takes other's state, then this token's old state, which it releases.
    JsonToken temporary;
    temporary.Swap(other);
    temporary.Swap(this);
}

void JsonToken::MakeNull() {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeNull>*>(nullptr));
    Swap(&temporary);
}

void JsonToken::MakeObject() {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeObject>*>(nullptr));
    Swap(&temporary);
}

void JsonToken::MakeArray() {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeArray>*>(nullptr));
    Swap(&temporary);
}

void JsonToken::MakeNumber(int value) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    Swap(&temporary);
}

void JsonToken::MakeNumber(double value) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    Swap(&temporary);
}

void JsonToken::MakeNumber(int64_t value) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    Swap(&temporary);
}

void JsonToken::MakeNumber(uint64_t value) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    Swap(&temporary);
}

void JsonToken::MakeBoolean(bool value) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeBoolean>*>(nullptr), value);
    Swap(&temporary);
}

void JsonToken::MakeString(const char* text) {
    JsonToken temporary(static_cast<const ValueSelector<kValueTypeString>*>(nullptr), text);
    Swap(&temporary);
}

const char* JsonToken::StringPeekValue() const {
    if (GetValueType() != kValueTypeString) {
        throw std::invalid_argument("JSON StringPeekValue failed: Token is not string");
    }
    const char* text = json_object_get_string(PimplToCjson_(pimpl));
    if (text == nullptr) {
        throw std::bad_alloc();
    }
    return text;
}

bool JsonToken::BooleanGetValue() const {
    if (GetValueType() != kValueTypeBoolean) {
        throw std::invalid_argument(
            "JsonToken::BooleanGetValue failed: Token is not kValueTypeBoolean");
    }
    return json_object_get_boolean(PimplToCjson_(pimpl)) != 0;
}

double JsonToken::NumberGetValue() const {
    if (GetValueType() != kValueTypeNumber) {
        throw std::invalid_argument(
            "JsonToken::NumberGetValue failed: Token is not kValueTypeNumber");
    }
    return json_object_get_double(PimplToCjson_(pimpl));
}

bool JsonToken::NumberIsInteger() const {
    if (GetValueType() != kValueTypeNumber) {
        throw std::invalid_argument(
            "JsonToken::NumberIsInteger failed: Token is not kValueTypeNumber");
    }
    return json_object_is_type(PimplToCjson_(pimpl), json_type_int) != 0;
}

int64_t JsonToken::NumberGetInt64() const {
    if (GetValueType() != kValueTypeNumber) {
        throw std::invalid_argument(
            "JsonToken::NumberGetInt64 failed: Token is not kValueTypeNumber");
    }
    json_object* value = PimplToCjson_(pimpl);
    if (json_object_is_type(value, json_type_int)) {
        // json-c answers INT64_MAX for a uint64_t above it.
        const int64_t result = json_object_get_int64(value);
        if (result != INT64_MAX || json_object_get_uint64(value) == UINT64_C(0x7FFFFFFFFFFFFFFF)) {
            return result;
        }
    } else {
        const double number = json_object_get_double(value);
        // -2^63 is a double; 2^63 is the first one above the range.
        if (std::trunc(number) == number && number >= -9223372036854775808.0 &&
            number < 9223372036854775808.0) {
            return static_cast<int64_t>(number);
        }
    }
    throw std::out_of_range("JsonToken::NumberGetInt64: value is not an integer within int64_t");
}

uint64_t JsonToken::NumberGetUint64() const {
    if (GetValueType() != kValueTypeNumber) {
        throw std::invalid_argument(
            "JsonToken::NumberGetUint64 failed: Token is not kValueTypeNumber");
    }
    json_object* value = PimplToCjson_(pimpl);
    if (json_object_is_type(value, json_type_int)) {
        // json-c answers 0 for a negative int64_t.
        if (json_object_get_int64(value) >= 0) {
            return json_object_get_uint64(value);
        }
    } else {
        const double number = json_object_get_double(value);
        if (std::trunc(number) == number && number >= 0.0 && number < 18446744073709551616.0) {
            return static_cast<uint64_t>(number);
        }
    }
    throw std::out_of_range("JsonToken::NumberGetUint64: value is not an integer within uint64_t");
}

const char* JsonToken::GenerateJsonEncodingAndPeek() const {
    if (!HasValue()) {
        throw std::invalid_argument("JSON encoding generator failed: Token is not populated");
    }
    json_object* value = PimplToCjson_(pimpl);
    if (value == nullptr) {
        return "null";
    }
    // The text is kept as the value's user data (where json-c keeps a parsed double's text, which
    // is what the writer wrote for one), freed with the value. Unchanged text stays where it is,
    // so that an earlier result stays valid while the value does not change.
    const char* kept = static_cast<const char*>(json_object_get_userdata(value));
    std::string text;
    text.reserve(kept != nullptr ? std::strlen(kept) : 0);
    // A value adopted from json-c as it is may hold what JSON cannot say.
    if (const char* why = JsonWrite(value, &text)) {
        throw std::invalid_argument(std::string("JSON encoding generator failed: ") + why);
    }
    if (kept != nullptr && text == kept) {
        return kept;
    }
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, text.c_str(), text.size() + 1);
    json_object_set_userdata(value, copy, json_object_free_userdata);
    return copy;
}

bool JsonToken::ParseJsonString(const char* text) {
    if (text == nullptr) {
        throw std::invalid_argument("JSON string parser failed: NULL string");
    }
    // Documents are bounded as json-c's int lengths bound them.
    const size_t length = std::strlen(text);
    json_object* value = nullptr;
    if (length >= static_cast<size_t>(INT32_MAX) || !JsonParse(text, length, &value)) {
        return false;
    }
    JsonToken temporary;
    temporary.SetNewPimpl(PimplFromCjson_(value));
    Swap(&temporary);
    return true;
}

int JsonToken::ArrayGetLength() const {
    return static_cast<int>(
        json_object_array_length(PimplToCjson_(JsonImplUtil::PeekArrayTokenPimpl(this))));
}

JsonArrayConstIterator JsonToken::ArrayGetValueAt(int index) const {
    json_object* array = PimplToCjson_(JsonImplUtil::PeekArrayTokenPimpl(this));
    if (index < 0 || static_cast<size_t>(index) >= json_object_array_length(array)) {
        throw std::out_of_range("JsonToken::ArrayGetValueAt: index is out of bounds");
    }
    JsonArrayConstIterInitInfo info = {array, index};
    return JsonArrayConstIterator(info);
}

JsonArrayConstIterator JsonToken::ArrayBegin() const {
    json_object* array = PimplToCjson_(JsonImplUtil::PeekArrayTokenPimpl(this));
    if (json_object_array_length(array) < 1) {
        return ArrayEnd();
    }
    JsonArrayConstIterInitInfo info = {array, 0};
    return JsonArrayConstIterator(info);
}

JsonArrayConstIterator JsonToken::ArrayEnd() const {
    JsonArrayConstIterInitInfo info = {PimplToCjson_(JsonImplUtil::PeekArrayTokenPimpl(this)), -1};
    return JsonArrayConstIterator(info);
}

void JsonToken::ArraySetElement(int index, JsonToken* value) {
    json_object* array = PimplToCjson_(JsonImplUtil::PeekArrayTokenPimpl(this));
    json_object* element = PimplToCjson_(JsonImplUtil::PeekValueTokenPimpl(value));
    int result;
    if (index == -1) {
        result = json_object_array_add(array, element);
    } else if (index < -1) {
        throw std::invalid_argument("JsonToken::ArraySetElementinvalid index");
    } else {
        result = json_object_array_put_idx(array, static_cast<size_t>(index), element);
    }
    // On failure json-c has not taken the element: value still owns it.
    if (result != 0) {
        throw std::bad_alloc();
    }
    value->GiveUpPopulatedPimpl();
}

void JsonToken::ArraySetNullElement(int index) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNull>*>(nullptr));
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetNumberElement(int index, int value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetNumberElement(int index, double value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetNumberElement(int index, int64_t value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetNumberElement(int index, uint64_t value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetBooleanElement(int index, bool value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeBoolean>*>(nullptr), value);
    ArraySetElement(index, &element);
}

void JsonToken::ArraySetStringElement(int index, const char* text) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeString>*>(nullptr), text);
    ArraySetElement(index, &element);
}

void JsonToken::ObjectSetPair(const char* name, JsonToken* value) {
    if (name == nullptr) {
        throw std::invalid_argument("JsonToken::ObjectSetPair: NULL name");
    }
    json_object* element = PimplToCjson_(JsonImplUtil::PeekValueTokenPimpl(value));
    json_object* object = PimplToCjson_(JsonImplUtil::PeekObjectTokenPimpl(this));
    // On failure json-c has not taken the element: value still owns it.
    if (JsonObjectAdd(object, name, element) != 0) {
        throw std::bad_alloc();
    }
    value->GiveUpPopulatedPimpl();
}

void JsonToken::ObjectSetNullPair(const char* name) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNull>*>(nullptr));
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetNumberPair(const char* name, int value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetNumberPair(const char* name, double value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetNumberPair(const char* name, int64_t value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetNumberPair(const char* name, uint64_t value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeNumber>*>(nullptr), value);
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetBooleanPair(const char* name, bool value) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeBoolean>*>(nullptr), value);
    ObjectSetPair(name, &element);
}

void JsonToken::ObjectSetStringPair(const char* name, const char* text) {
    JsonToken element(static_cast<const ValueSelector<kValueTypeString>*>(nullptr), text);
    ObjectSetPair(name, &element);
}

JsonObjectConstFindResult JsonToken::ObjectFindPair(const char* name) const {
    if (name == nullptr) {
        throw std::invalid_argument("JsonToken::ObjectFindPair: NULL name");
    }
    json_object* object = PimplToCjson_(JsonImplUtil::PeekObjectTokenPimpl(this));
    JsonObjectFindResultInitInfo info = {false, nullptr};
    info.found = json_object_object_get_ex(object, name, &info.value) != 0;
    return JsonObjectConstFindResult(info);
}

JsonObjectConstIterator JsonToken::ObjectBegin() const {
    json_object* object = PimplToCjson_(JsonImplUtil::PeekObjectTokenPimpl(this));
    JsonObjectConstIterInitInfo info = {json_object_iter_begin(object)};
    return JsonObjectConstIterator(info);
}

JsonObjectConstIterator JsonToken::ObjectEnd() const {
    json_object* object = PimplToCjson_(JsonImplUtil::PeekObjectTokenPimpl(this));
    JsonObjectConstIterInitInfo info = {json_object_iter_end(object)};
    return JsonObjectConstIterator(info);
}

// JsonImplUtil. The const and non-const forms share one check.

namespace {

// token, when it is not NULL and passes valid; else the text that says why.
const JsonToken* ValidateToken(const JsonToken* token, bool (*valid)(const JsonToken*),
                               const char* nullText, const char* invalidText) {
    if (token == nullptr) {
        throw std::invalid_argument(nullText);
    }
    if (!valid(token)) {
        throw std::invalid_argument(invalidText);
    }
    return token;
}

}  // namespace

const JsonToken* JsonImplUtil::ValidateTokenHasValue(const JsonToken* token) {
    return ValidateToken(
        token, [](const JsonToken* t) { return t->HasValue(); },
        "JSON ValidateTokenHasValue failed: NULL Token pointer",
        "JSON ValidateTokenHasValue failed: Token is not populated");
}

JsonToken* JsonImplUtil::ValidateTokenHasValue(JsonToken* token) {
    ValidateTokenHasValue(static_cast<const JsonToken*>(token));
    return token;
}

const JsonToken* JsonImplUtil::ValidateObjectToken(const JsonToken* token) {
    return ValidateToken(
        token, [](const JsonToken* t) { return t->GetValueType() == JsonToken::kValueTypeObject; },
        "JSON ValidateObjectToken failed: NULL Token pointer",
        "JSON ValidateObjectToken failed: Token is not JSON Object type");
}

JsonToken* JsonImplUtil::ValidateObjectToken(JsonToken* token) {
    ValidateObjectToken(static_cast<const JsonToken*>(token));
    return token;
}

const JsonToken* JsonImplUtil::ValidateArrayToken(const JsonToken* token) {
    return ValidateToken(
        token, [](const JsonToken* t) { return t->GetValueType() == JsonToken::kValueTypeArray; },
        "JSON ValidateArrayToken failed: NULL Token pointer",
        "JSON ValidateArrayToken failed: Token is not JSON Array type");
}

JsonToken* JsonImplUtil::ValidateArrayToken(JsonToken* token) {
    ValidateArrayToken(static_cast<const JsonToken*>(token));
    return token;
}

JsonTokenImpl* JsonImplUtil::PeekValueTokenPimpl(const JsonToken* token) {
    if (token == nullptr) {
        throw std::invalid_argument("JsonImplUtil::PeekValueTokenPimpl failed: NULL Token pointer");
    }
    return token->PeekPopulatedPimpl();
}

JsonTokenImpl* JsonImplUtil::PeekValueTokenPimpl(JsonToken* token) {
    return PeekValueTokenPimpl(static_cast<const JsonToken*>(token));
}

JsonTokenImpl* JsonImplUtil::PeekObjectTokenPimpl(const JsonToken* token) {
    return ValidateObjectToken(token)->PeekPopulatedPimpl();
}

JsonTokenImpl* JsonImplUtil::PeekObjectTokenPimpl(JsonToken* token) {
    return PeekObjectTokenPimpl(static_cast<const JsonToken*>(token));
}

JsonTokenImpl* JsonImplUtil::PeekArrayTokenPimpl(const JsonToken* token) {
    return ValidateArrayToken(token)->PeekPopulatedPimpl();
}

JsonTokenImpl* JsonImplUtil::PeekArrayTokenPimpl(JsonToken* token) {
    return PeekArrayTokenPimpl(static_cast<const JsonToken*>(token));
}

}  // namespace vok
