#include "utils/zo_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(ZoTextTest, TrimWhiteSpace) {
    // input, trim_begin, trim_end, trim
    const char* const cases[][4] = {
        {"  a b \t\r\n", "a b \t\r\n", "  a b", "a b"},
        {"abc", "abc", "abc", "abc"}, {"", "", "", ""},
        // The first character is never cleared by trim_end; trim still ends
        // up empty because the leading pass skips it.
        {" \t\n", "", " ", ""},
        {"\va\v", "\va\v", "\va\v", "\va\v"},  // vertical tab is not trim space
    };
    for (const auto& c : cases) {
        char buf[32];
        std::strcpy(buf, c[0]);
        EXPECT_STREQ(zo::trim_begin(buf), c[1]) << c[0];
        EXPECT_STREQ(zo::trim_begin(static_cast<const char*>(buf)), c[1]) << c[0];
        EXPECT_STREQ(zo::trim_end(buf), c[2]) << c[0];
        std::strcpy(buf, c[0]);
        EXPECT_STREQ(zo::trim(buf), c[3]) << c[0];
    }
    EXPECT_TRUE(zo::trim(nullptr) == nullptr && zo::trim_begin(static_cast<const char*>(nullptr)) == nullptr);
}

TEST(ZoTextTest, TrimWithCharacterSet) {
    char quoted[] = "\"My Movie.mp4\"";
    EXPECT_EQ(zo::trim_end2(quoted, "\" "), quoted);
    EXPECT_STREQ(quoted, "\"My Movie.mp4");
    EXPECT_STREQ(zo::trim_begin2(quoted, "\" "), "My Movie.mp4");

    char lone[] = "\"";
    EXPECT_STREQ(zo::trim_end2(lone, "\""), "\"");  // length 1 is left alone
    char all[] = "xxx";
    EXPECT_STREQ(zo::trim_end2(all, "x"), "x");
    EXPECT_STREQ(zo::trim_begin2(all, ""), "x");
    EXPECT_EQ(zo::trim_begin2(nullptr, "x"), nullptr);
    EXPECT_STREQ(zo::trim_end2(all, nullptr), "x");
}

TEST(ZoTextTest, PrefixAndSuffix) {
    struct Case { const char *s, *affix; bool case_sensitive, begins, ends; };
    const Case cases[] = {
        {"Video.MP4", "video", false, true, false}, {"Video.MP4", "video", true, false, false},
        {"a.mp4", ".MP4", false, false, true},      {"a.mp4", ".MP4", true, false, false},
        {"abc", "", true, true, true},              {"ab", "abc", false, false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(zo::begin_width(c.s, c.affix, c.case_sensitive), c.begins) << c.s << " / " << c.affix;
        EXPECT_EQ(zo::end_width(c.s, c.affix, c.case_sensitive), c.ends) << c.s << " / " << c.affix;
    }
    EXPECT_FALSE(zo::begin_width(nullptr, "", true) || zo::end_width("a", nullptr, false));
}

TEST(ZoTextTest, FormatCaseAndRandom) {
    EXPECT_EQ(zo::str_format("%s_%d_%05.1f", "x", -3, 2.5), "x_-3_002.5");
    const std::string big(5000, 'q');  // beyond any first guess of the length
    EXPECT_EQ(zo::str_format("%s", ""), "");
    EXPECT_EQ(zo::str_format("<%s>", big.c_str()), "<" + big + ">");

    char mixed[] = "MiXeD 123 \xc3\x9c";
    EXPECT_STREQ(zo::str_to_lower(mixed), "mixed 123 \xc3\x9c");
    EXPECT_STREQ(zo::str_to_upper(mixed), "MIXED 123 \xc3\x9c");
    EXPECT_EQ(zo::str_to_upper(nullptr), nullptr);

    EXPECT_TRUE(zo::rand_str(0).empty() && zo::rand_str(-5).empty());
    const std::string a = zo::rand_str(8);
    EXPECT_EQ(a.size(), 8u);
    EXPECT_EQ(a.find_first_not_of("1234567890abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
              std::string::npos);
    // Back-to-back calls get different seeds even within one second.
    EXPECT_NE(zo::rand_str(24), zo::rand_str(24));
}

TEST(ZoTextTest, Replace) {
    // source, from, to, replace_all, replace_all_distinct
    const char* const cases[][5] = {
        {"aaa", "a", "b", "bbb", "bbb"},       {"aab", "ab", "b", "b", "ab"},
        {"x.y.z", ".", "::", "x::y::z", "x::y::z"}, {"abc", "b", "", "ac", "ac"},
        // Would never finish if searched from the start again: one pass.
        {"a-a", "a", "aa", "aa-aa", "aa-aa"},
        {"abc", "", "x", "abc", "abc"},        {"abc", "b", nullptr, "ac", "ac"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(zo::str_replace_all(c[0], c[1], c[2]), c[3]) << c[0] << " / " << c[1];
        EXPECT_EQ(zo::str_replace_all_distinct(c[0], c[1], c[2]), c[4]) << c[0] << " / " << c[1];
    }
    EXPECT_EQ(zo::str_replace_all(nullptr, "a", "b"), "");
    // A growing rewrite whose replacements create new matches is followed to
    // its end, however many steps it takes; a runaway one stops, bounded.
    EXPECT_EQ(zo::str_replace_all("aab", "ab", "bba"), "bbbbaa");
    EXPECT_EQ(zo::str_replace_all("aaaaaaab", "ab", "bba"), std::string(128, 'b') + std::string(7, 'a'));
    EXPECT_LE(zo::str_replace_all((std::string(40, 'a') + "b").c_str(), "ab", "bba").size(), size_t{64} << 20);
}

}  // namespace
