// Text and number conversion, quirks included: -1 as the second-to-last position, empty tokens kept,
// the empty prefix matching only texts of length 0 or 1.
#include "textconv.h"

#include <gtest/gtest.h>

#include <climits>
#include <tuple>

using Tokens = std::vector<std::string>;

TEST(TextConv, SubStringHasInclusiveEndsAndNegativeLastCountsFromTheSecondToLast) {
    for (const auto& [first, last, part] : {std::tuple{1u, 1 + 2, "bcd"},
                                            {0u, -1, "abcd"},
                                            {0u, -4, "a"},
                                            {0u, -5, ""},
                                            {5u, 9, ""},
                                            {3u, 1, ""},
                                            {3u, 99, "de"}}) {
        EXPECT_EQ(util::subString("abcde", first, last), part) << first << " " << last;
    }
}

TEST(TextConv, SplitStringKeepsEveryEmptyToken) {
    for (const auto& [text, delimiters, tokens] : {std::tuple{"", ",", Tokens{}},
                                                   {"abc", ",", Tokens{"abc"}},
                                                   {"a,,b", ",", Tokens{"a", "", "b"}},
                                                   {"/a/b/", "/", Tokens{"", "a", "b", ""}},
                                                   {"a-b_c", "-_", Tokens{"a", "b", "c"}}}) {
        EXPECT_EQ(util::splitString(text, delimiters), tokens) << text;
    }
}

TEST(TextConv, StartsWithAndTheEmptyPrefixThatMatchesOnlyShortTexts) {
    for (const auto& [text, prefix, starts] : {std::tuple{"abc", "ab", true},
                                               {"abc", "abc", true},
                                               {"abc", "abcd", false},
                                               {"abc", "b", false},
                                               {"ab", "", false},
                                               {"a", "", true},
                                               {"", "", true}}) {
        EXPECT_EQ(util::startsWith(text, prefix), starts) << text << " / " << prefix;
    }
}

TEST(TextConv, IntToTextInEveryBaseWithSignAndDigitCase) {
    for (const auto& [value, base, upper, text] : {std::tuple{255, 16, true, "FF"},
                                                   {255, 16, false, "ff"},
                                                   {-10, 2, false, "-1010"},
                                                   {0, 7, false, "0"},
                                                   {35, 36, true, "Z"},
                                                   {INT_MIN, 10, false, "-2147483648"}}) {
        EXPECT_EQ(util::intToText(value, base, upper), text) << value << " base " << base;
    }
}
