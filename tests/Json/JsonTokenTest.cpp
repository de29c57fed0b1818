// JsonToken: values, ownership, parsing and encoding, misuse, and the standard reply values.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cmath>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "vok/JsonToken.h"
#include "vok/KelvraSvcUtils.h"

namespace vok {
namespace {

// Runs fn and checks that it throws exactly an E whose what() is text.
template <typename E>
void ExpectThrowText(const std::function<void()>& fn, const std::string& text) {
    try {
        fn();
        ADD_FAILURE() << "no exception, expected: " << text;
    } catch (const std::exception& e) {
        EXPECT_EQ(typeid(E), typeid(e)) << e.what();
        EXPECT_EQ(text, e.what());
    }
}

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
        ExpectThrowText<std::invalid_argument>(
            [&]() { object.ObjectSetNumberPair("a", value); },
            "JSON Number value creation failed: not a finite number");
        ExpectThrowText<std::invalid_argument>(
            [&]() { object.MakeNumber(value); },
            "JSON Number value creation failed: not a finite number");
    }
    EXPECT_EQ("{ }", Encode(object));
    // A json-c value adopted as it is: the encoder refuses it rather than write "NaN".
    JsonToken adopted;
    adopted.MakeArray();
    JsonToken element;
    element.SetNewPimpl(reinterpret_cast<JsonTokenImpl*>(json_object_new_double(HUGE_VAL)));
    adopted.ArraySetElement(-1, &element);
    ExpectThrowText<std::invalid_argument>([&]() { adopted.GenerateJsonEncodingAndPeek(); },
                                           "JSON encoding generator failed: not a finite number");
    JsonToken latin1;
    latin1.MakeString("caf\xe9");
    ExpectThrowText<std::invalid_argument>([&]() { latin1.GenerateJsonEncodingAndPeek(); },
                                           "JSON encoding generator failed: string is not UTF-8");
}

TEST(JsonTokenTest, StoringSwappingAndTransferringMoveOwnership) {
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

    // Swapping, transferring and giving up the value move it whole.
    JsonToken other;
    other.MakeString("b");
    value.Swap(&other);
    EXPECT_STREQ("b", value.StringPeekValue());
    EXPECT_EQ(9.0, other.NumberGetValue());
    value.TransferFrom(&other);
    EXPECT_FALSE(other.HasValue());
    EXPECT_EQ(9.0, value.NumberGetValue());
    other.SetNewPimpl(value.GiveUpPopulatedPimpl());  // Adopts the reference given up.
    EXPECT_FALSE(value.HasValue());
    EXPECT_EQ(9.0, other.NumberGetValue());
}

// Misuse throws the family's exception and leaves every token involved as it was.
TEST(JsonTokenTest, MisuseThrowsAndChangesNothing) {
    JsonToken empty;
    JsonToken number;
    number.MakeNumber(1);
    JsonToken array;
    array.MakeArray();
    JsonToken object;
    object.MakeObject();
    typedef std::invalid_argument Inv;
    EXPECT_THROW(number.StringPeekValue(), Inv);
    EXPECT_THROW(empty.NumberGetValue(), Inv);
    EXPECT_THROW(empty.GenerateJsonEncodingAndPeek(), Inv);
    EXPECT_THROW(array.ArrayGetValueAt(0), std::out_of_range);  // empty: 0 is past the end
    EXPECT_THROW(array.ArrayGetValueAt(-1), std::out_of_range);
    // Storing nothing, or into the wrong type.
    EXPECT_THROW(array.ArraySetElement(0, &empty), Inv);
    EXPECT_THROW(number.ObjectSetPair("a", &array), Inv);
    EXPECT_THROW(object.ArrayGetLength(), Inv);
    EXPECT_EQ("[ ]", Encode(array));
    EXPECT_EQ(1.0, number.NumberGetValue());
    EXPECT_FALSE(empty.HasValue());
}

TEST(KelvraSvcUtilsTest, StandardReplyValues) {
    JsonToken reply;
    reply.MakeObject();
    reply.ObjectSetNumberPair("alarmId", 4);
    EXPECT_TRUE(KelvraSvcUtilAddStandardReplyValues(&reply, true, 5, "ignored"));
    EXPECT_EQ("{ \"alarmId\": 4, \"returnValue\": true }", Encode(reply));

    reply.MakeObject();
    EXPECT_TRUE(KelvraSvcUtilAddStandardReplyValues(&reply, false, 5, ""));
    EXPECT_EQ("{ \"returnValue\": false, \"errorCode\": 5 }", Encode(reply));
    reply.MakeObject();
    EXPECT_TRUE(KelvraSvcUtilAddStandardReplyValues(&reply, false, -2, "bad \"key\""));
    EXPECT_EQ("{ \"returnValue\": false, \"errorCode\": -2, \"errorText\": \"bad \\\"key\\\"\" }",
              Encode(reply));
}

}  // namespace
}  // namespace vok
