#include "utils/zo_encoding.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <utility>

namespace {

const char kUtf8[] = "Gr\xc3\xbc\xc3\x9f" "e \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x8e\xac";
const wchar_t kWide[] = {L'G', L'r', 0xFC, 0xDF, L'e', L' ', 0x65E5, 0x672C, L' ', 0x1F3AC, 0};

TEST(ZoEncodingTest, Utf8RoundTripAndInvalidInput) {
    EXPECT_EQ(zo::ASCII2Unicode(kUtf8, true), std::wstring(kWide));
    EXPECT_EQ(zo::Unicode2ACSII(kWide, true), kUtf8);
    EXPECT_TRUE(zo::ASCII2Unicode(nullptr, true).empty() && zo::ASCII2Unicode("", false).empty() &&
                zo::Unicode2ACSII(nullptr, true).empty());

    const std::wstring fffd(1, static_cast<wchar_t>(0xFFFD));
    const std::pair<const char*, std::wstring> cases[] = {
        {"a\xff" "b", L"a" + fffd + L"b"},
        {"\xc0\xaf", fffd + fffd},                      // overlong '/'
        {"\xed\xa0\x80z", fffd + fffd + fffd + L"z"},   // UTF-16 surrogate
        {"x\xe6\x97", L"x" + fffd + fffd},              // cut off by the end
        {"\xf4\x90\x80\x80", fffd + fffd + fffd + fffd},  // beyond U+10FFFF
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
    // A locale of plain ASCII (setlocale never called): the GBK functions
    // convert GBK both ways, and what GBK lacks (ß, the clapper board) becomes '?'.
    const std::pair<const char*, const char*> gbk[] = {
        {"\xe4\xb8\xad\xe6\x96\x87", "\xd6\xd0\xce\xc4"},  // 中文
        {"a\xc3\xbc", "a\xa8\xb9"},                        // aü
    };
    for (const auto& [utf8, narrow] : gbk) {
        EXPECT_EQ(zo::UTF8ToGBK(utf8), narrow) << utf8;
        EXPECT_EQ(zo::GBKToUTF8(narrow), utf8) << utf8;
    }
    EXPECT_EQ(zo::UTF8ToGBK(kUtf8), "Gr\xa8\xb9?e \xc8\xd5\xb1\xbe ?");
    EXPECT_EQ(zo::GBKToUTF8("a\xe9"), "a\xef\xbf\xbd");  // a lead byte cut off by the end
    EXPECT_EQ(zo::ASCII2Unicode("a\xe9", false), L"a\xFFFD");
    if (std::setlocale(LC_CTYPE, "C.UTF-8") || std::setlocale(LC_CTYPE, "C.utf8")) {
        EXPECT_EQ(zo::GBKToUTF8(kUtf8), kUtf8);
        EXPECT_EQ(zo::UTF8ToGBK(kUtf8), kUtf8);
        EXPECT_EQ(zo::Unicode2ACSII(kWide, false), kUtf8);
        EXPECT_EQ(zo::ASCII2Unicode(kUtf8, false), std::wstring(kWide));
    }
    std::setlocale(LC_CTYPE, saved.c_str());
}

}  // namespace
