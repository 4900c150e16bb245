#include "utils/zo_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(ZoTextTest, TrimWhiteSpace) {
    struct Case {
        const char* in;
        const char* begin;  // trim_begin
        const char* end;    // trim_end
        const char* both;   // trim
    };
    const Case cases[] = {
        {"  a b \t\r\n", "a b \t\r\n", "  a b", "a b"},
        {"abc", "abc", "abc", "abc"},
        {"", "", "", ""},
        // The first character is never cleared by trim_end; trim still ends
        // up empty because the leading pass skips it.
        {" \t\n", "", " ", ""},
        {"\va\v", "\va\v", "\va\v", "\va\v"},  // vertical tab is not trim space
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in);
        char buf[32];
        std::strcpy(buf, c.in);
        EXPECT_STREQ(zo::trim_begin(buf), c.begin);
        EXPECT_STREQ(zo::trim_begin(static_cast<const char*>(buf)), c.begin);
        EXPECT_STREQ(zo::trim_end(buf), c.end);
        std::strcpy(buf, c.in);
        EXPECT_STREQ(zo::trim(buf), c.both);
    }
    EXPECT_EQ(zo::trim(nullptr), nullptr);
    EXPECT_EQ(zo::trim_begin(static_cast<const char*>(nullptr)), nullptr);
}

TEST(ZoTextTest, TrimWithCharacterSet) {
    char quoted[] = "\"My Movie.mp4\"";
    char* end = zo::trim_end2(quoted, "\" ");
    EXPECT_EQ(end, quoted);
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
    struct Case {
        const char* s;
        const char* affix;
        bool case_sensitive;
        bool begins;
        bool ends;
    };
    const Case cases[] = {
        {"Video.MP4", "video", false, true, false},
        {"Video.MP4", "video", true, false, false},
        {"a.mp4", ".MP4", false, false, true},
        {"a.mp4", ".MP4", true, false, false},
        {"abc", "", true, true, true},
        {"ab", "abc", false, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.s) + " / " + c.affix);
        EXPECT_EQ(zo::begin_width(c.s, c.affix, c.case_sensitive), c.begins);
        EXPECT_EQ(zo::end_width(c.s, c.affix, c.case_sensitive), c.ends);
    }
    EXPECT_FALSE(zo::begin_width(nullptr, "", true));
    EXPECT_FALSE(zo::end_width("a", nullptr, false));
}

TEST(ZoTextTest, FormatAndCase) {
    EXPECT_EQ(zo::str_format("%s_%d_%05.1f", "x", -3, 2.5), "x_-3_002.5");
    EXPECT_EQ(zo::str_format("%s", ""), "");
    const std::string big(5000, 'q');
    EXPECT_EQ(zo::str_format("<%s>", big.c_str()), "<" + big + ">");

    char mixed[] = "MiXeD 123 \xc3\x9c";
    EXPECT_STREQ(zo::str_to_lower(mixed), "mixed 123 \xc3\x9c");
    EXPECT_STREQ(zo::str_to_upper(mixed), "MIXED 123 \xc3\x9c");
    EXPECT_EQ(zo::str_to_upper(nullptr), nullptr);
}

TEST(ZoTextTest, RandomStrings) {
    EXPECT_TRUE(zo::rand_str(0).empty());
    EXPECT_TRUE(zo::rand_str(-5).empty());
    const std::string a = zo::rand_str(8);
    ASSERT_EQ(a.size(), 8u);
    EXPECT_EQ(a.find_first_not_of("1234567890abcdefghijklmnopqrstuvwxyz"
                                  "ABCDEFGHIJKLMNOPQRSTUVWXYZ"),
              std::string::npos);
    // Back-to-back calls get different seeds even within one second.
    EXPECT_NE(zo::rand_str(24), zo::rand_str(24));
}

TEST(ZoTextTest, Replace) {
    struct Case {
        const char* src;
        const char* from;
        const char* to;
        const char* all;
        const char* distinct;
    };
    const Case cases[] = {
        {"aaa", "a", "b", "bbb", "bbb"},
        {"aab", "ab", "b", "b", "ab"},
        {"x.y.z", ".", "::", "x::y::z", "x::y::z"},
        {"abc", "b", "", "ac", "ac"},
        // Would never finish if searched from the start again: one pass.
        {"a-a", "a", "aa", "aa-aa", "aa-aa"},
        {"abc", "", "x", "abc", "abc"},
        {"abc", "b", nullptr, "ac", "ac"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.src) + " / " + c.from);
        EXPECT_EQ(zo::str_replace_all(c.src, c.from, c.to), c.all);
        EXPECT_EQ(zo::str_replace_all_distinct(c.src, c.from, c.to), c.distinct);
    }
    EXPECT_EQ(zo::str_replace_all(nullptr, "a", "b"), "");
    // A growing rewrite whose replacements create new matches is followed
    // to its end.
    EXPECT_EQ(zo::str_replace_all("aab", "ab", "bba"), "bbbbaa");
}

}  // namespace
