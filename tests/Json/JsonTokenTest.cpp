// JsonToken: values, ownership, parsing, encoding, iterators and find results.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "vok/JsonToken.h"

namespace vok {
namespace {

std::string Encode(const JsonToken& token) {
    return token.GenerateJsonEncodingAndPeek();
}

TEST(JsonTokenTest, RefusesWhatIsNotJsonAndKeepsThePreviousValue) {
    JsonToken token;
    ASSERT_TRUE(token.ParseJsonString("{\"keep\":true}"));
    // clang-format off
    const char* const kNotJson[] = {"{", "", "{\"a\":1,}", "1 x", "01", "1.", "NaN", "1e400",
        "18446744073709551616", "'a'", "\"a\tb\"", "\"\\x\"", "/* c */ 1", "\"\xc0\x8e\""};
    // clang-format on
    for (const char* bad : kNotJson) {
        EXPECT_FALSE(token.ParseJsonString(bad)) << bad;
        EXPECT_EQ("{ \"keep\": true }", Encode(token));
    }
}

// Doubles as json-c writes them, the text kept while the value is; no NaN, infinity or bad UTF-8.
TEST(JsonTokenTest, NumbersAreWrittenAsJsonCWritesThemAndWhatJsonCannotSayNever) {
    JsonToken array;
    array.MakeArray();
    for (double value : {1.0, 0.1, 1e17, -0.0, 5e-324}) {
        JsonToken number;
        number.MakeNumber(value);
        number.GenerateJsonEncodingAndPeek();  // Kept with the value, and written from there.
        array.ArraySetElement(-1, &number);
    }
    const char* text = array.GenerateJsonEncodingAndPeek();
    EXPECT_STREQ("[ 1.0, 0.10000000000000001, 1e+17, -0.0, 4.9406564584124654e-324 ]", text);
    EXPECT_EQ(text, array.GenerateJsonEncodingAndPeek());
    array.ArraySetNullElement(0);
    EXPECT_STREQ("[ null, 0.10000000000000001, 1e+17, -0.0, 4.9406564584124654e-324 ]",
                 array.GenerateJsonEncodingAndPeek());

    // What JSON cannot say is never written.
    JsonToken object;
    object.MakeObject();
    const double kNotFinite[] = {std::nan(""), HUGE_VAL, -HUGE_VAL};
    for (double value : kNotFinite) {
        EXPECT_THROW(object.ObjectSetNumberPair("a", value), std::invalid_argument);
        EXPECT_THROW(object.MakeNumber(value), std::invalid_argument);
    }
    EXPECT_EQ("{ }", Encode(object));
    // A json-c value adopted as it is: the encoder refuses it rather than write "NaN".
    JsonToken adopted;
    adopted.MakeArray();
    JsonToken element;
    element.SetNewPimpl(reinterpret_cast<JsonTokenImpl*>(json_object_new_double(HUGE_VAL)));
    adopted.ArraySetElement(-1, &element);
    EXPECT_THROW(adopted.GenerateJsonEncodingAndPeek(), std::invalid_argument);
    JsonToken latin1;
    latin1.MakeString("caf\xe9");
    EXPECT_THROW(latin1.GenerateJsonEncodingAndPeek(), std::invalid_argument);
}

TEST(JsonTokenTest, StoringGivingUpAndMovingMoveOwnership) {
    JsonToken object;
    object.MakeObject();
    JsonToken value;
    value.MakeString("first");
    object.ObjectSetPair("a", &value);
    EXPECT_FALSE(value.HasValue());
    value.MakeNumber(2);
    object.ObjectSetPair("a", &value);  // Replaces the pair.
    object.ObjectSetNullPair("n");
    EXPECT_EQ("{ \"a\": 2, \"n\": null }", Encode(object));

    JsonToken array;
    array.MakeArray();
    array.ArraySetNumberElement(-1, 7);      // Appends.
    array.ArraySetStringElement(3, "x");     // Extends with nulls.
    array.ArraySetBooleanElement(0, false);  // Replaces.
    array.ArraySetElement(-1, &object);
    EXPECT_FALSE(object.HasValue());
    EXPECT_EQ(5, array.ArrayGetLength());
    EXPECT_EQ("[ false, null, null, \"x\", { \"a\": 2, \"n\": null } ]", Encode(array));

    // A rejected store leaves the element with its owner.
    value.MakeNumber(9);
    EXPECT_THROW(array.ArraySetElement(-2, &value), std::invalid_argument);
    EXPECT_EQ(9.0, value.NumberGetValue());
    EXPECT_EQ(5, array.ArrayGetLength());

    // Giving up the value hands over its reference.
    JsonToken other;
    other.SetNewPimpl(value.GiveUpPopulatedPimpl());
    EXPECT_FALSE(value.HasValue());
    EXPECT_EQ(9.0, other.NumberGetValue());
    JsonToken a;
    a.MakeNumber(uint32_t{42});
    JsonToken b(std::move(a));
    EXPECT_FALSE(a.HasValue());
    JsonToken c;
    c.MakeString("released on assignment");
    c = std::move(b);
    EXPECT_FALSE(b.HasValue());
    EXPECT_EQ(42u, c.NumberGetUint64());
}

// Numbers were doubles only: 2^53+1 came back as 2^53, and int64_t arguments were ambiguous.
TEST(JsonTokenTest, IntegersAreExactOver64BitsInAndOut) {
    const char* kDocument =
        "[ 9007199254740993, -9223372036854775808, 9223372036854775807, 18446744073709551615, "
        "1e3, 2.5, -1 ]";
    JsonToken array;
    ASSERT_TRUE(array.ParseJsonString(kDocument));
    EXPECT_EQ(kDocument, Encode(array));
    auto at = [&array](int i) { return array.ArrayGetValueAt(i); };
    EXPECT_EQ(INT64_C(9007199254740993), at(0)->NumberGetInt64());
    EXPECT_EQ(9007199254740992.0, at(0)->NumberGetValue());  // The nearest double.
    EXPECT_EQ(std::numeric_limits<int64_t>::min(), at(1)->NumberGetInt64());
    EXPECT_EQ(std::numeric_limits<int64_t>::max(), at(2)->NumberGetInt64());
    EXPECT_EQ(UINT64_C(9223372036854775807), at(2)->NumberGetUint64());
    EXPECT_EQ(std::numeric_limits<uint64_t>::max(), at(3)->NumberGetUint64());
    EXPECT_THROW(at(3)->NumberGetInt64(), std::out_of_range);  // Not clamped to INT64_MAX.
    EXPECT_FALSE(at(4)->NumberIsInteger());
    EXPECT_EQ(1000, at(4)->NumberGetInt64());
    EXPECT_EQ(1000u, at(4)->NumberGetUint64());
    EXPECT_THROW(at(5)->NumberGetInt64(), std::out_of_range);
    EXPECT_THROW(at(5)->NumberGetUint64(), std::out_of_range);
    EXPECT_TRUE(at(6)->NumberIsInteger());
    EXPECT_THROW(at(6)->NumberGetUint64(), std::out_of_range);  // Not 0.
    JsonToken text;
    text.MakeString("1");
    EXPECT_THROW(text.NumberGetInt64(), std::invalid_argument);

    // Every arithmetic type picks its form without a cast.
    JsonToken object;
    object.MakeObject();
    object.ObjectSetNumberPair("u32", uint32_t{4000000000u});
    object.ObjectSetNumberPair("i64", std::numeric_limits<int64_t>::min());
    object.ObjectSetNumberPair("u64", std::numeric_limits<uint64_t>::max());
    object.ObjectSetNumberPair("l", -7L);
    object.ObjectSetNumberPair("ull", 9007199254740993ULL);
    object.ObjectSetNumberPair("s", static_cast<short>(-3));
    object.ObjectSetNumberPair("f", 0.5f);
    object.ObjectSetNumberPair("i", 7);
    EXPECT_EQ(
        "{ \"u32\": 4000000000, \"i64\": -9223372036854775808, \"u64\": 18446744073709551615, "
        "\"l\": -7, \"ull\": 9007199254740993, \"s\": -3, \"f\": 0.5, \"i\": 7 }",
        Encode(object));
}

JsonToken* Parse(JsonToken* token, const char* text) {
    EXPECT_TRUE(token->ParseJsonString(text)) << text;
    return token;
}

// Iterators and find results see appended elements and keep what they present alive.
TEST(JsonIteratorTest, IteratorsAndFindResultsKeepWhatTheyPresent) {
    JsonToken array;
    Parse(&array, "[10, null, \"x\"]");
    JsonArrayConstIterator it = array.ArrayBegin();
    EXPECT_EQ(10.0, it->NumberGetValue());
    ++it;
    EXPECT_EQ(JsonToken::kValueTypeNull, (*it).GetValueType());
    ++it;
    array.ArraySetStringElement(-1, "appended");
    EXPECT_STREQ("x", it->StringPeekValue());
    ++it;
    JsonArrayConstIterator last = it;  // A copy takes its own reference on the element.
    ++it;
    EXPECT_TRUE(it == array.ArrayEnd());
    EXPECT_THROW(++it, std::out_of_range);
    EXPECT_THROW(*it, std::invalid_argument);
    array.Reset();
    EXPECT_STREQ("appended", last->StringPeekValue());

    JsonToken empty;
    empty.MakeArray();
    EXPECT_TRUE(empty.ArrayBegin() == empty.ArrayEnd());

    JsonToken single;
    Parse(&single, "{\"only\": \"v\"}");
    JsonObjectConstIterator pair(single.ObjectBegin());
    EXPECT_STREQ("only", pair->name);
    // The value a dereference presented stays valid after the object is gone.
    single.Reset();
    EXPECT_STREQ("v", pair->value->StringPeekValue());

    // Find results: absent, null and present differ.
    JsonToken object;
    Parse(&object, "{\"n\": null, \"s\": \"text\"}");
    JsonObjectConstFindResult absent = object.ObjectFindPair("missing");
    EXPECT_FALSE(absent->HasValue());
    JsonObjectConstFindResult null = object.ObjectFindPair("n");
    EXPECT_TRUE(null->HasValue());
    EXPECT_EQ(JsonToken::kValueTypeNull, null->GetValueType());
    JsonObjectConstFindResult found = object.ObjectFindPair("s");

    // Results hold their own reference: they survive the pair's replacement and the object.
    JsonObjectConstFindResult copy(found);
    object.ObjectSetNumberPair("s", 5);
    absent = found;
    object.Reset();
    EXPECT_STREQ("text", found->StringPeekValue());
    EXPECT_STREQ("text", (*copy).StringPeekValue());
    EXPECT_STREQ("text", absent->StringPeekValue());
}

}  // namespace
}  // namespace vok
