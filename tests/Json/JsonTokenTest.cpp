// JsonToken: values, ownership, parsing and encoding.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include "vok/JsonToken.h"

namespace vok {
namespace {

std::string Encode(const JsonToken& token) {
    return token.GenerateJsonEncodingAndPeek();
}

TEST(JsonTokenTest, RefusesWhatIsNotJsonAndKeepsThePreviousValue) {
    JsonToken token;
    ASSERT_TRUE(token.ParseJsonString("{\"keep\":true}"));
    // Incomplete, trailing text, leading zeros, bare dots, non-numbers, numbers no double or
    // integer can hold, raw control characters, single quotes, comments, invalid UTF-8 (overlong
    // forms too).
    // clang-format off
    const char* const kNotJson[] = {
        "{", "", " ", "[1,", "nul", "{\"a\" 1}", "[1,]", "{\"a\":1,}", "1 x", "{}garbage", "01e", "01",
        "00", "-01", "1.", "+1", "NaN", "Infinity", "-Infinity", "1e400", "-1e400",
        "18446744073709551616", "-9223372036854775809", "\"a\tb\"", "'a'", "\"\\x\"",
        "\"\\u12\"", "/* c */ 1", "\"\xff\"", "\"\xc0\x8e\""};
    // clang-format on
    for (const char* bad : kNotJson) {
        EXPECT_FALSE(token.ParseJsonString(bad)) << bad;
        EXPECT_EQ("{ \"keep\": true }", Encode(token));
    }
}

TEST(JsonTokenTest, AcceptedDocumentsAreWrittenBackAsJson) {
    JsonToken token;
    const struct {
        const char* text;
        const char* written;
    } cases[] = {{" \t\r\n[1, 2.50, -0, 1E5, 1e-400] \n", "[ 1, 2.50, 0, 1E5, 1e-400 ]"},
                 {"18446744073709551615", "18446744073709551615"},
                 {"-9223372036854775808", "-9223372036854775808"},
                 {"\"\\u00e9\\/\\ud800\\u0000\"", "\"\xc3\xa9\\/\xef\xbf\xbd\\u0000\""},
                 {"{\"a\":{\"b\":[null,true,false,\"\"]}}",
                  "{ \"a\": { \"b\": [ null, true, false, \"\" ] } }"}};
    for (const auto& c : cases) {
        ASSERT_TRUE(token.ParseJsonString(c.text)) << c.text;
        EXPECT_EQ(c.written, Encode(token)) << c.text;
    }
}

TEST(JsonTokenTest, WhatJsonCannotSayIsNeverWritten) {
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

TEST(JsonTokenTest, StoringAndGivingUpMoveOwnership) {
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
}

}  // namespace
}  // namespace vok
