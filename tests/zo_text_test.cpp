// The text utilities: trimming, affixes, formatting, replacing, UTF-8 and
// the narrow character set, and MD5 digests of text, bytes and files.
#include <clocale>
#include <cstring>
#include <utility>

#include "support.h"
#include "utils/zo_encoding.h"
#include "utils/zo_md5.h"
#include "utils/zo_text.h"

namespace {

using testsupport::take_text;

TEST(ZoTextTest, TrimAffixFormatAndCase) {
    // input, trim_begin, trim_end, trim; trim_begin2 and trim_end2 with the
    // trim space as their set give the same. The first character is never
    // cleared by trim_end or trim_end2 (" \t\n" keeps its " "); vertical tab is
    // not trim space.
    const char* const cases[][4] = {{"  a b \t\r\n", "a b \t\r\n", "  a b", "a b"}, {"abc", "abc", "abc", "abc"},
                                    {"", "", "", ""}, {" \t\n", "", " ", ""}, {"\va\v", "\va\v", "\va\v", "\va\v"}};
    for (const auto& c : cases) {
        char buf[32];
        std::strcpy(buf, c[0]);
        EXPECT_STREQ(zo::trim_begin(buf), c[1]) << c[0];
        EXPECT_STREQ(zo::trim_begin(static_cast<const char*>(buf)), c[1]) << c[0];
        EXPECT_STREQ(zo::trim_begin2(buf, " \t\r\n"), c[1]) << c[0];
        EXPECT_STREQ(zo::trim_end(buf), c[2]) << c[0];
        std::strcpy(buf, c[0]);
        EXPECT_STREQ(zo::trim_end2(buf, " \t\r\n"), c[2]) << c[0];
        std::strcpy(buf, c[0]);
        EXPECT_STREQ(zo::trim(buf), c[3]) << c[0];
    }
    EXPECT_TRUE(zo::trim(nullptr) == nullptr && zo::trim_begin(static_cast<const char*>(nullptr)) == nullptr);

    // A pasted name loses its quotes (the end trimmed in place); a set that is
    // empty or missing leaves the text as it is.
    char quoted[] = "\"My Movie.mp4\"", all[] = "xxx";
    EXPECT_EQ(zo::trim_end2(quoted, "\" "), quoted);
    EXPECT_STREQ(zo::trim_begin2(quoted, "\" "), "My Movie.mp4");
    EXPECT_TRUE(zo::trim_begin2(all, "") == all && zo::trim_begin2(all, nullptr) == all);
    EXPECT_TRUE(zo::trim_end2(all, "") == all && zo::trim_end2(all, nullptr) == all);
    EXPECT_TRUE(!zo::trim_begin2(nullptr, "x") && !zo::trim_end2(nullptr, "x"));

    // A missing text or affix never matches.
    struct Affix { const char *s, *affix; bool case_sensitive, begins, ends; };
    const Affix affixes[] = {{"Video.MP4", "video", false, true, false}, {"Video.MP4", "video", true, false, false},
                             {"a.mp4", ".MP4", false, false, true},      {"a.mp4", ".MP4", true, false, false},
                             {"abc", "", true, true, true},              {"ab", "abc", false, false, false},
                             {nullptr, "", true, false, false},          {"a", nullptr, false, false, false}};
    for (const Affix& c : affixes) {
        EXPECT_EQ(zo::begin_width(c.s, c.affix, c.case_sensitive), c.begins) << c.s << " / " << c.affix;
        EXPECT_EQ(zo::end_width(c.s, c.affix, c.case_sensitive), c.ends) << c.s << " / " << c.affix;
    }

    EXPECT_EQ(zo::str_format("%s_%d_%05.1f", "x", -3, 2.5), "x_-3_002.5");
    const std::string big(5000, 'q');  // beyond any first guess of the length
    EXPECT_EQ(zo::str_format("%s", ""), "");
    EXPECT_EQ(zo::str_format("<%s>", big.c_str()), "<" + big + ">");
    char mixed[] = "MiXeD 123 \xc3\x9c";
    EXPECT_STREQ(zo::str_to_lower(mixed), "mixed 123 \xc3\x9c");
    EXPECT_STREQ(zo::str_to_upper(mixed), "MIXED 123 \xc3\x9c");
    EXPECT_TRUE(zo::str_to_upper(nullptr) == nullptr && zo::str_to_lower(nullptr) == nullptr);

    EXPECT_TRUE(zo::rand_str(0).empty() && zo::rand_str(-5).empty());
    const std::string a = zo::rand_str(8);
    EXPECT_EQ(a.size(), 8u);
    EXPECT_EQ(a.find_first_not_of("1234567890abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos);
    EXPECT_NE(zo::rand_str(24), zo::rand_str(24));  // different seeds even within one second
}

TEST(ZoTextTest, Replace) {
    // source, from, to, replace_all, replace_all_distinct; "a-a" would never
    // finish if searched from the start again: one pass. "ab" -> "bba" in "aab"
    // makes new matches, which replace_all follows and replace_all_distinct does not.
    // A missing source gives "", a missing or empty pattern the source itself.
    const char* const cases[][5] = {
        {"aaa", "a", "b", "bbb", "bbb"},    {"aab", "ab", "b", "b", "ab"}, {"x.y.z", ".", "::", "x::y::z", "x::y::z"},
        {"abc", "b", "", "ac", "ac"},       {"a-a", "a", "aa", "aa-aa", "aa-aa"},
        {"abc", "", "x", "abc", "abc"},     {"abc", "b", nullptr, "ac", "ac"}, {"aab", "ab", "bba", "bbbbaa", "abba"},
        {nullptr, "a", "b", "", ""},        {"abc", nullptr, "x", "abc", "abc"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(zo::str_replace_all(c[0], c[1], c[2]), c[3]) << c[0] << " / " << c[1];
        EXPECT_EQ(zo::str_replace_all_distinct(c[0], c[1], c[2]), c[4]) << c[0] << " / " << c[1];
    }
    // A growing rewrite whose replacements create new matches is followed to
    // its end, however many steps it takes; a runaway one stops, bounded.
    EXPECT_EQ(zo::str_replace_all("aaaaaaab", "ab", "bba"), std::string(128, 'b') + std::string(7, 'a'));
    EXPECT_LE(zo::str_replace_all((std::string(40, 'a') + "b").c_str(), "ab", "bba").size(), size_t{64} << 20);
}

const char kUtf8[] = "Gr\xc3\xbc\xc3\x9f" "e \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x8e\xac";
const wchar_t kWide[] = {L'G', L'r', 0xFC, 0xDF, L'e', L' ', 0x65E5, 0x672C, L' ', 0x1F3AC, 0};

TEST(ZoEncodingTest, Utf8RoundTripAndInvalidInput) {
    EXPECT_EQ(zo::ASCII2Unicode(kUtf8, true), std::wstring(kWide));
    EXPECT_EQ(zo::Unicode2ACSII(kWide, true), kUtf8);
    EXPECT_TRUE(zo::ASCII2Unicode(nullptr, true).empty() && zo::ASCII2Unicode("", false).empty() &&
                zo::Unicode2ACSII(nullptr, true).empty() && zo::Unicode2ACSII(L"", false).empty());
    const std::wstring r(1, static_cast<wchar_t>(0xFFFD));
    const std::pair<const char*, std::wstring> cases[] = {
        {"a\xff" "b", L"a" + r + L"b"}, {"\xc0\xaf", r + r},                      // overlong '/'
        {"\xed\xa0\x80z", r + r + r + L"z"},                                      // UTF-16 surrogate
        {"x\xe6\x97", L"x" + r + r}, {"\xf4\x90\x80\x80", r + r + r + r},         // cut off; beyond U+10FFFF
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(zo::ASCII2Unicode(in, true), out) << in;
    const wchar_t bad_wide[] = {L'a', 0xD800, static_cast<wchar_t>(0x110000), -1, L'b', 0};
    EXPECT_EQ(zo::Unicode2ACSII(bad_wide, true), "a???b");
    EXPECT_EQ(zo::UTF8ToGBK("ok\xff"), zo::UTF8ToGBK("ok") + zo::UTF8ToGBK("\xef\xbf\xbd"));
}

// The library never changes the locale; the test does, to see that the
// narrow side follows whatever character set the C library is set to.
TEST(ZoEncodingTest, NarrowSideFollowsLocale) {
    const std::string saved = std::setlocale(LC_CTYPE, nullptr);
    ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
    // Plain ASCII (setlocale never called): the GBK functions convert GBK both
    // ways, and what GBK lacks (ß, the clapper board) becomes '?'.
    const std::pair<const char*, const char*> gbk[] = {{"\xe4\xb8\xad\xe6\x96\x87", "\xd6\xd0\xce\xc4"},
                                                       {"a\xc3\xbc", "a\xa8\xb9"}};
    for (const auto& [utf8, narrow] : gbk) {
        EXPECT_EQ(zo::UTF8ToGBK(utf8), narrow) << utf8;
        EXPECT_EQ(zo::GBKToUTF8(narrow), utf8) << utf8;
    }
    EXPECT_EQ(zo::UTF8ToGBK(kUtf8), "Gr\xa8\xb9?e \xc8\xd5\xb1\xbe ?");
    EXPECT_EQ(zo::GBKToUTF8("a\xe9"), "a\xef\xbf\xbd");  // a lead byte cut off by the end
    EXPECT_EQ(zo::ASCII2Unicode("a\xe9", false), L"a\xFFFD");
    if (std::setlocale(LC_CTYPE, "C.UTF-8") || std::setlocale(LC_CTYPE, "C.utf8")) {
        EXPECT_TRUE(zo::GBKToUTF8(kUtf8) == kUtf8 && zo::UTF8ToGBK(kUtf8) == kUtf8);
        EXPECT_TRUE(zo::Unicode2ACSII(kWide, false) == kUtf8 && zo::ASCII2Unicode(kUtf8, false) == kWide);
    }
    std::setlocale(LC_CTYPE, saved.c_str());
}

TEST(ZoMd5Test, VectorsPiecesMaskedShortAndFileForms) {
    const char* const vectors[][2] = {
        // empty, one block, padding spilling into a second block, several blocks
        {"", "d41d8cd98f00b204e9800998ecf8427e"}, {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& v : vectors) {
        SCOPED_TRACE(v[0]);
        std::string s = v[0];
        auto* bytes = reinterpret_cast<unsigned char*>(s.data());
        EXPECT_EQ(take_text(zo::MD5String(v[0])), v[1]);  // the bytes through MD5BinData
        zo::md5 ctx;  // fed in uneven pieces
        for (size_t pos = 0, step = 1; pos < s.size(); pos += step, step = step * 2 + 1)
            ctx.Update(bytes + pos, static_cast<unsigned int>(std::min(step, s.size() - pos)));
        ctx.Update(nullptr, 3);  // nothing to add: the digest stays that of the text
        ctx.Update(bytes, 0);
        ctx.Finalize();
        EXPECT_EQ(take_text(zo::PrintMD5(ctx.digest)), v[1]);
    }

    EXPECT_EQ(take_text(zo::MD5String_Masked("abc")), "900050983cd04cb0d4943c7c28e07c70");
    char* hex = const_cast<char*>(zo::MD5String("abc"));
    EXPECT_EQ(zo::MD5_32_to_16(hex), hex);
    EXPECT_EQ(take_text(hex), "3cd24fb0d6963f7d");
    char too_short[] = "0123456789";
    EXPECT_STREQ(zo::MD5_32_to_16(too_short), "0123456789");
    EXPECT_TRUE(!zo::MD5_32_to_16(nullptr) && !zo::MD5String(nullptr) && !zo::MD5String_Masked(nullptr) &&
                !zo::MD5BinData(nullptr, 3) && !zo::PrintMD5(nullptr) && !zo::MD5File(nullptr));

    // Spans several 10240-byte read chunks and ends mid-chunk and mid-block.
    const std::string path = std::string(CLIPDEC_TEST_TMP) + "/ZoMd5Test_file.bin";
    std::vector<unsigned char> data(10240 * 2 + 4321);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + i / 7);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), data.size());
    EXPECT_EQ(take_text(zo::MD5File(path.c_str())), take_text(zo::MD5BinData(data.data(), data.size())));
    std::remove(path.c_str());
    EXPECT_EQ(zo::MD5File(path.c_str()), nullptr);
}

}  // namespace
