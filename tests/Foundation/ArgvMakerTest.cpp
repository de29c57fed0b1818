// Command-line splitting.
#include <gtest/gtest.h>

#include "vok/ArgvMaker.h"

namespace vok {
namespace {

TEST(ArgvMakerTest, SplitsWithShellQuoting) {
    ArgvMaker argv("a 'b c' d");
    EXPECT_EQ(0u, argv.ParseFailed());
    ASSERT_EQ(3, argv.Argc());
    EXPECT_STREQ("a", argv.Argv()[0]);
    EXPECT_STREQ("b c", argv.Argv()[1]);
    EXPECT_STREQ("d", argv.Argv()[2]);
    EXPECT_EQ(nullptr, argv.Argv()[3]);
    EXPECT_EQ(nullptr, argv.ErrorText());
}

// Blank texts are empty lists, not failures; an unterminated quote fails with GLib's message.
TEST(ArgvMakerTest, BlankTextsAreEmptyListsAndUnterminatedQuotesFailures) {
    for (const char* text : {"", "   "}) {
        ArgvMaker argv(text);
        EXPECT_EQ(0u, argv.ParseFailed()) << "<" << text << ">";
        EXPECT_EQ(0, argv.Argc());
        EXPECT_EQ(nullptr, argv.Argv());
        EXPECT_EQ(nullptr, argv.ErrorText());
    }
    ArgvMaker argv("a 'b");
    EXPECT_EQ(1u, argv.ParseFailed());
    ASSERT_NE(nullptr, argv.ErrorText());
    EXPECT_NE(std::string::npos, std::string(argv.ErrorText()).find("quote"));
    EXPECT_EQ(0, argv.Argc());
    EXPECT_EQ(nullptr, argv.Argv());
}

}  // namespace
}  // namespace vok
