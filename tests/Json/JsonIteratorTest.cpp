// Array and object iterators and find results: walking, misuse, and the lifetime of the
// elements they present.
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

#include "vok/JsonToken.h"

namespace vok {
namespace {

JsonToken* Parse(JsonToken* token, const char* text) {
    EXPECT_TRUE(token->ParseJsonString(text)) << text;
    return token;
}

// An iterator sees elements appended while it walks, stops at the end, and keeps the element it
// presents alive after the array lets go of it.
TEST(JsonArrayIteratorTest, WalksToTheEndAndNoFurther) {
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
    JsonArrayConstIterator copy = it;  // A copy takes its own reference on the element.
    ++it;
    EXPECT_TRUE(it == array.ArrayEnd());
    EXPECT_THROW(++it, std::out_of_range);
    EXPECT_THROW(*it, std::invalid_argument);
    array.Reset();
    EXPECT_STREQ("appended", copy->StringPeekValue());

    JsonToken empty;
    empty.MakeArray();
    EXPECT_TRUE(empty.ArrayBegin() == empty.ArrayEnd());
}

TEST(JsonObjectIteratorTest, VisitsEveryPairAndKeepsTheValueItPresents) {
    JsonToken object;
    Parse(&object, "{\"a\": 1, \"b\": null, \"c\": [true]}");
    std::map<std::string, std::string> seen;
    for (JsonObjectConstIterator it = object.ObjectBegin(); it != object.ObjectEnd(); ++it) {
        seen[it->name] = (*it).value->GenerateJsonEncodingAndPeek();
    }
    std::map<std::string, std::string> expected = {{"a", "1"}, {"b", "null"}, {"c", "[ true ]"}};
    EXPECT_EQ(expected, seen);

    Parse(&object, "{\"only\": \"v\"}");
    JsonObjectConstIterator copy(object.ObjectBegin());
    EXPECT_STREQ("only", copy->name);
    // The value a dereference presented stays valid after the object is gone.
    object.Reset();
    EXPECT_STREQ("v", copy->value->StringPeekValue());
}

TEST(JsonFindResultTest, AbsentNullAndPresentDiffer) {
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
