#include "base/text.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace cbsd::base;

TEST(Text, TrimRemovesSurroundingWhiteSpaceOnly) {
    char text[] = "  a b \n";
    EXPECT_STREQ(trim(text), "a b");
}

TEST(Text, TrimRightOfBlanksOnlyGivesEmptyText) {
    char text[] = "     ";
    EXPECT_STREQ(trim_right(text), "");
}

TEST(Text, TrimLeftMovesTheRestWithItsTerminator) {
    char text[] = "\t\v\f\r x y";
    EXPECT_STREQ(trim_left(text), "x y");
}

TEST(Text, TrimAcceptsNullAndEmpty) {
    EXPECT_EQ(trim(nullptr), nullptr);
    EXPECT_EQ(trim_left(nullptr), nullptr);
    EXPECT_EQ(trim_right(nullptr), nullptr);
    char empty[] = "";
    EXPECT_STREQ(trim(empty), "");
}

TEST(Text, StripNewlinesKeepsBlanksAndCarriageReturns) {
    char text[] = "\n\nx \n";
    strip_newlines(text);
    EXPECT_STREQ(text, "x ");
    char crlf[] = "\r\nvalue\r\n";
    strip_newlines(crlf);
    EXPECT_STREQ(crlf, "\r\nvalue\r");
    strip_newlines(nullptr);  // must not crash
}

TEST(Text, StripNewlinesOfOnlyNewlinesGivesEmptyText) {
    char text[] = "\n\n\n";
    strip_newlines(text);
    EXPECT_STREQ(text, "");
}

TEST(Text, CopyTextKeepsAtMostSizeLessOneAndTerminates) {
    char field[8];
    std::memset(field, 'x', sizeof field);
    copy_text(field, sizeof field, "0123456789");
    EXPECT_STREQ(field, "0123456");
    copy_text(field, sizeof field, nullptr);
    EXPECT_STREQ(field, "");
    copy_text(field, 0, "abc");  // nothing written
    EXPECT_STREQ(field, "");
}
