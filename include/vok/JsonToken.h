// JSON values: the type of every bus payload.
#ifndef VOK_JSONTOKEN_H
#define VOK_JSONTOKEN_H

#include <cstdint>
#include <type_traits>

struct json_object;

namespace vok {

// The json-c value a token owns. Never defined: a JsonTokenImpl* is the json_object* itself.
class JsonTokenImpl;
class JsonArrayConstIterator;
class JsonObjectConstIterator;
class JsonObjectConstFindResult;

// One owned JSON value (object, array, string, boolean, number or null) or nothing at all, over a
// json-c value. Every accessor checks the token's state and type and throws a standard exception
// (std::invalid_argument, std::out_of_range) with a fixed message when the check fails; json-c
// running out of memory throws std::bad_alloc. A populated token owns one json-c reference;
// storing a token into an array or object moves its value there and leaves it unpopulated.
// Not copyable; movable (the moved-from token ends unpopulated), or use Swap or TransferFrom.
// One thread at a time.
//
// Numbers: integers are exact over the whole of int64_t and uint64_t, in and out. Every number
// form takes any arithmetic type (bool excepted) without ambiguity: signed integers are stored as
// int64_t, unsigned ones as uint64_t, floating-point ones as double. NumberGetInt64 and
// NumberGetUint64 read them back exactly; NumberGetValue gives the nearest double.
class JsonToken {
    // Declared first: the number templates below use them.
    // Arithmetic types other than bool and those with a form of their own.
    template <typename T>
    static constexpr bool kIsOtherNumber =
        std::is_arithmetic<T>::value && !std::is_same<T, bool>::value &&
        !std::is_same<T, int>::value && !std::is_same<T, double>::value &&
        !std::is_same<T, int64_t>::value && !std::is_same<T, uint64_t>::value;
    // value in the type it is stored as: double, int64_t or uint64_t.
    template <typename T>
    static auto AsStoredNumber(T value) {
        if constexpr (std::is_floating_point<T>::value) {
            return static_cast<double>(value);
        } else if constexpr (std::is_signed<T>::value) {
            return static_cast<int64_t>(value);
        } else {
            return static_cast<uint64_t>(value);
        }
    }

  public:
    // The numbers are fixed.
    enum ValueType {
        kValueTypeUnpopulated = 0,
        kValueTypeObject = 1,
        kValueTypeArray = 2,
        kValueTypeString = 3,
        kValueTypeBoolean = 4,
        kValueTypeNumber = 5,
        kValueTypeNull = 6,
    };

    // Tag type selecting a typed constructor; always passed as a null pointer:
    // JsonToken n(static_cast<const JsonToken::ValueSelector<JsonToken::kValueTypeNumber>*>(0), 3)
    template <ValueType kType>
    struct ValueSelector {};

    // Unpopulated.
    JsonToken();
    // Populated JSON null.
    explicit JsonToken(const ValueSelector<kValueTypeNull>*);
    // A new empty object or array.
    explicit JsonToken(const ValueSelector<kValueTypeObject>*);
    explicit JsonToken(const ValueSelector<kValueTypeArray>*);
    // An integer or a floating-point number. JSON has no NaN or infinity: a double that is not
    // finite throws std::invalid_argument (so do MakeNumber and the Set...Number forms).
    JsonToken(const ValueSelector<kValueTypeNumber>*, int value);
    JsonToken(const ValueSelector<kValueTypeNumber>*, double value);
    // An integer, exactly.
    JsonToken(const ValueSelector<kValueTypeNumber>*, int64_t value);
    JsonToken(const ValueSelector<kValueTypeNumber>*, uint64_t value);
    // Any other arithmetic type (long, unsigned, uint32_t, float, ...): see the class comment.
    template <typename T, typename = std::enable_if_t<kIsOtherNumber<T>>>
    JsonToken(const ValueSelector<kValueTypeNumber>* selector, T value)
        : JsonToken(selector, AsStoredNumber(value)) {}
    // A boolean.
    JsonToken(const ValueSelector<kValueTypeBoolean>*, bool value);
    // A copy of text; NULL throws.
    JsonToken(const ValueSelector<kValueTypeString>*, const char* text);
    ~JsonToken();
    JsonToken(const JsonToken&) = delete;
    JsonToken& operator=(const JsonToken&) = delete;
    // Takes other's value; other ends unpopulated.
    JsonToken(JsonToken&& other) noexcept;
    // Releases this token's value and takes other's; other ends unpopulated.
    JsonToken& operator=(JsonToken&& other) noexcept;

    // True when populated (JSON null included).
    bool HasValue() const;
    // The type of the value; kValueTypeUnpopulated when unpopulated.
    ValueType GetValueType() const;
    // Releases the value, if any.
    void Reset();
    // Reset(), then adopts value (the caller's reference; NULL makes the JSON null).
    void SetNewPimpl(JsonTokenImpl* value);
    // The value without giving it up; throws when unpopulated.
    JsonTokenImpl* PeekPopulatedPimpl();
    JsonTokenImpl* PeekPopulatedPimpl() const;
    // The value with its reference; the token ends unpopulated. Throws when unpopulated.
    JsonTokenImpl* GiveUpPopulatedPimpl();
    // Exchanges the two tokens' states; other must not be NULL (assertion).
    void Swap(JsonToken* other);
    // Moves other's state here (releasing this token's previous value); other ends unpopulated.
    void TransferFrom(JsonToken* other);

    // Replace the value with a new one of the given type. If building it throws, the token is
    // unchanged.
    void MakeNull();
    void MakeObject();
    void MakeArray();
    void MakeNumber(int value);
    void MakeNumber(double value);
    void MakeNumber(int64_t value);
    void MakeNumber(uint64_t value);
    // Any other arithmetic type: see the class comment.
    template <typename T, typename = std::enable_if_t<kIsOtherNumber<T>>>
    void MakeNumber(T value) {
        MakeNumber(AsStoredNumber(value));
    }
    void MakeBoolean(bool value);
    void MakeString(const char* text);

    // json-c's internal string, valid while the value lives. The type must be string.
    const char* StringPeekValue() const;
    bool BooleanGetValue() const;
    // Integers are returned as doubles (the nearest one: above 2^53 not every integer is one).
    double NumberGetValue() const;
    // True for a number held as an integer: made from one, or parsed without fraction or
    // exponent. Throws std::invalid_argument when the token is not a number.
    bool NumberIsInteger() const;
    // The number as an integer, exactly: an integer in the type's range, or a double whose value
    // is one ("1e3", "2.0"). Throws std::invalid_argument when the token is not a number and
    // std::out_of_range for a fraction or a value outside the type.
    int64_t NumberGetInt64() const;
    uint64_t NumberGetUint64() const;
    // The encoding of the value, owned by the value and valid until it changes. It is always
    // JSON: a value that JSON cannot say (a string or name that is not UTF-8, or a NaN or
    // infinite double adopted through SetNewPimpl) throws std::invalid_argument instead.
    const char* GenerateJsonEncodingAndPeek() const;
    // Replaces the value with the parsed document and returns true; returns false and leaves the
    // token unchanged when text is not exactly one JSON value (RFC 8259, UTF-8, white space
    // around it allowed, nesting at most json-c's default depth) or holds a number that json-c
    // cannot keep: an integer beyond int64_t/uint64_t or a number that overflows a double.
    // NULL throws. The document "null" gives a populated null token.
    bool ParseJsonString(const char* text);

    // Arrays: this token must be an array.
    int ArrayGetLength() const;
    // An iterator on element index; throws std::out_of_range outside 0..length-1.
    JsonArrayConstIterator ArrayGetValueAt(int index) const;
    // Iterators on the first element and past the last.
    JsonArrayConstIterator ArrayBegin() const;
    JsonArrayConstIterator ArrayEnd() const;
    // Moves value into the array at index: -1 appends, 0 or more replaces the element or extends
    // the array with nulls up to index; below -1 throws.
    void ArraySetElement(int index, JsonToken* value);
    // ArraySetElement with a new value of the given type.
    void ArraySetNullElement(int index);
    void ArraySetNumberElement(int index, int value);
    void ArraySetNumberElement(int index, double value);
    void ArraySetNumberElement(int index, int64_t value);
    void ArraySetNumberElement(int index, uint64_t value);
    // Any other arithmetic type: see the class comment.
    template <typename T, typename = std::enable_if_t<kIsOtherNumber<T>>>
    void ArraySetNumberElement(int index, T value) {
        ArraySetNumberElement(index, AsStoredNumber(value));
    }
    void ArraySetBooleanElement(int index, bool value);
    void ArraySetStringElement(int index, const char* text);

    // Objects: this token must be an object. A pair of the same name is replaced.
    void ObjectSetPair(const char* name, JsonToken* value);
    // ObjectSetPair with a new value of the given type.
    void ObjectSetNullPair(const char* name);
    void ObjectSetNumberPair(const char* name, int value);
    void ObjectSetNumberPair(const char* name, double value);
    void ObjectSetNumberPair(const char* name, int64_t value);
    void ObjectSetNumberPair(const char* name, uint64_t value);
    // Any other arithmetic type: see the class comment.
    template <typename T, typename = std::enable_if_t<kIsOtherNumber<T>>>
    void ObjectSetNumberPair(const char* name, T value) {
        ObjectSetNumberPair(name, AsStoredNumber(value));
    }
    void ObjectSetBooleanPair(const char* name, bool value);
    void ObjectSetStringPair(const char* name, const char* text);
    // The value of the pair called name; see JsonObjectConstFindResult.
    JsonObjectConstFindResult ObjectFindPair(const char* name) const;
    // Iterators on the first pair and past the last, in json-c's order.
    JsonObjectConstIterator ObjectBegin() const;
    JsonObjectConstIterator ObjectEnd() const;

  private:
    static json_object* PimplToCjson_(JsonTokenImpl* pimpl);
    static JsonTokenImpl* PimplFromCjson_(json_object* value);

    // Bit 0: populated. Other bits are kept as they are.
    uint32_t flags;
    // The owned value; NULL in a populated token is the JSON null.
    JsonTokenImpl* pimpl;
};

// Validation helpers shared by the JSON classes. Each returns its argument (or its value) and
// throws std::invalid_argument when the check fails.
class JsonImplUtil {
  public:
    // A populated token.
    static JsonToken* ValidateTokenHasValue(JsonToken* token);
    static const JsonToken* ValidateTokenHasValue(const JsonToken* token);
    // A populated object token.
    static JsonToken* ValidateObjectToken(JsonToken* token);
    static const JsonToken* ValidateObjectToken(const JsonToken* token);
    // A populated array token.
    static JsonToken* ValidateArrayToken(JsonToken* token);
    static const JsonToken* ValidateArrayToken(const JsonToken* token);
    // The value of a populated token.
    static JsonTokenImpl* PeekValueTokenPimpl(JsonToken* token);
    static JsonTokenImpl* PeekValueTokenPimpl(const JsonToken* token);
    // The value of a populated object token.
    static JsonTokenImpl* PeekObjectTokenPimpl(JsonToken* token);
    static JsonTokenImpl* PeekObjectTokenPimpl(const JsonToken* token);
    // The value of a populated array token.
    static JsonTokenImpl* PeekArrayTokenPimpl(JsonToken* token);
    static JsonTokenImpl* PeekArrayTokenPimpl(const JsonToken* token);
};

}  // namespace vok

// The iterator and find-result types returned above.
#include <vok/JsonArrayUtils.h>
#include <vok/JsonObjectFindResult.h>
#include <vok/JsonObjectUtils.h>

#endif  // VOK_JSONTOKEN_H
