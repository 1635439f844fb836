#include "textconv.h"

#include <gtest/gtest.h>

#include <climits>

using util::intToText;
using util::splitString;
using util::startsWith;
using util::subString;
using Tokens = std::vector<std::string>;

TEST(SubString, InclusiveEndsAndNegativeLastCountsFromSecondToLast) {
    EXPECT_EQ(subString("abcde", 1, 3), "bcd");
    EXPECT_EQ(subString("abcde", 0, -1), "abcd");
    EXPECT_EQ(subString("abcde", 0, -4), "a");
    EXPECT_EQ(subString("abcde", 0, -5), "");
    EXPECT_EQ(subString("abcde", 5, 9), "");
    EXPECT_EQ(subString("abcde", 3, 1), "");
    EXPECT_EQ(subString("abcde", 3, 99), "de");
    EXPECT_EQ(subString("", 0, 0), "");
}

TEST(SplitString, KeepsEveryEmptyToken) {
    EXPECT_EQ(splitString("", ","), Tokens{});
    EXPECT_EQ(splitString(",", ","), (Tokens{"", ""}));
    EXPECT_EQ(splitString("abc", ","), Tokens{"abc"});
    EXPECT_EQ(splitString("a,,b", ","), (Tokens{"a", "", "b"}));
    EXPECT_EQ(splitString("/a/b/", "/"), (Tokens{"", "a", "b", ""}));
    EXPECT_EQ(splitString("a-b_c", "-_"), (Tokens{"a", "b", "c"}));
}

TEST(StartsWith, EmptyPrefixMatchesOnlyShortTexts) {
    EXPECT_TRUE(startsWith("abc", "ab"));
    EXPECT_TRUE(startsWith("abc", "abc"));
    EXPECT_FALSE(startsWith("abc", "abcd"));
    EXPECT_FALSE(startsWith("abc", "b"));
    EXPECT_FALSE(startsWith("abc", ""));
    EXPECT_TRUE(startsWith("a", ""));
    EXPECT_TRUE(startsWith("", ""));
}

TEST(IntToText, BasesSignsAndExtremes) {
    EXPECT_EQ(intToText(255, 16, true), "FF");
    EXPECT_EQ(intToText(255, 16, false), "ff");
    EXPECT_EQ(intToText(-10, 2, false), "-1010");
    EXPECT_EQ(intToText(0, 7, false), "0");
    EXPECT_EQ(intToText(35, 36, true), "Z");
    EXPECT_EQ(intToText(INT32_MIN, 10, false), "-2147483648");
    EXPECT_EQ(intToText(10, 1, false), "");
}
