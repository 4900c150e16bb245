#include "utils/zo_md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

// The library hands back malloc'ed text; own it for the length of a check.
struct FreeDeleter {
    void operator()(const char* p) const { std::free(const_cast<char*>(p)); }
};
using Owned = std::unique_ptr<const char, FreeDeleter>;

std::string take(const char* p) {
    Owned owned(p);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

TEST(ZoMd5Test, Rfc1321Vectors) {
    const struct {
        const char* text;
        const char* hex;
    } vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.text);
        EXPECT_EQ(take(zo::MD5String(v.text)), v.hex);
        const std::string s = v.text;
        std::vector<unsigned char> bytes(s.begin(), s.end());
        bytes.push_back(0);
        EXPECT_EQ(take(zo::MD5BinData(bytes.data(), s.size())), v.hex);

        // Feeding the text in uneven pieces must not change the digest.
        zo::md5 ctx;
        for (size_t pos = 0, step = 1; pos < s.size(); pos += step, step = step * 2 + 1) {
            const size_t n = std::min(step, s.size() - pos);
            ctx.Update(bytes.data() + pos, static_cast<unsigned int>(n));
        }
        ctx.Finalize();
        EXPECT_EQ(take(zo::PrintMD5(ctx.digest)), v.hex);
    }
}

TEST(ZoMd5Test, MaskedAndShortForms) {
    EXPECT_EQ(take(zo::MD5String_Masked("abc")), "900050983cd04cb0d4943c7c28e07c70");

    Owned full(zo::MD5String("abc"));
    char* hex = const_cast<char*>(full.get());
    EXPECT_EQ(zo::MD5_32_to_16(hex), hex);
    EXPECT_STREQ(hex, "3cd24fb0d6963f7d");

    char too_short[] = "0123456789";
    EXPECT_STREQ(zo::MD5_32_to_16(too_short), "0123456789");
    EXPECT_EQ(zo::MD5_32_to_16(nullptr), nullptr);
    EXPECT_EQ(zo::MD5String(nullptr), nullptr);
    EXPECT_EQ(zo::MD5String_Masked(nullptr), nullptr);
    EXPECT_EQ(zo::MD5BinData(nullptr, 3), nullptr);
    EXPECT_EQ(zo::PrintMD5(nullptr), nullptr);
}

TEST(ZoMd5Test, FileDigestMatchesMemoryDigest) {
    const std::string path = std::string(CLIPDEC_TEST_TMP) + "/ZoMd5Test_file.bin";
    // Spans several 10240-byte read chunks and ends mid-chunk and mid-block.
    std::vector<unsigned char> data(10240 * 2 + 4321);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + i / 7);
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(data.data(), 1, data.size(), f), data.size());
    std::fclose(f);

    const std::string expected = take(zo::MD5BinData(data.data(), data.size()));
    EXPECT_EQ(take(zo::MD5File(path.c_str())), expected);
    EXPECT_EQ(expected.size(), 32u);
    std::remove(path.c_str());

    EXPECT_EQ(zo::MD5File(path.c_str()), nullptr);
    EXPECT_EQ(zo::MD5File(nullptr), nullptr);
}

}  // namespace
