#include "utils/zo_md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// The library hands back malloc'ed text.
std::string take(const char* p) {
    const std::string s = p ? p : "<null>";
    std::free(const_cast<char*>(p));
    return s;
}

TEST(ZoMd5Test, Rfc1321Vectors) {
    const char* const vectors[][2] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"}, {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"}, {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& v : vectors) {
        SCOPED_TRACE(v[0]);
        std::string s = v[0];
        auto* bytes = reinterpret_cast<unsigned char*>(s.data());
        EXPECT_EQ(take(zo::MD5String(v[0])), v[1]);
        EXPECT_EQ(take(zo::MD5BinData(bytes, s.size())), v[1]);
        // Feeding the text in uneven pieces must not change the digest.
        zo::md5 ctx;
        for (size_t pos = 0, step = 1; pos < s.size(); pos += step, step = step * 2 + 1)
            ctx.Update(bytes + pos, static_cast<unsigned int>(std::min(step, s.size() - pos)));
        ctx.Finalize();
        EXPECT_EQ(take(zo::PrintMD5(ctx.digest)), v[1]);
    }
}

TEST(ZoMd5Test, MaskedShortAndFileForms) {
    EXPECT_EQ(take(zo::MD5String_Masked("abc")), "900050983cd04cb0d4943c7c28e07c70");
    char* hex = const_cast<char*>(zo::MD5String("abc"));
    EXPECT_EQ(zo::MD5_32_to_16(hex), hex);
    EXPECT_EQ(take(hex), "3cd24fb0d6963f7d");
    char too_short[] = "0123456789";
    EXPECT_STREQ(zo::MD5_32_to_16(too_short), "0123456789");
    EXPECT_TRUE(!zo::MD5_32_to_16(nullptr) && !zo::MD5String(nullptr) && !zo::MD5String_Masked(nullptr) &&
                !zo::MD5BinData(nullptr, 3) && !zo::PrintMD5(nullptr) && !zo::MD5File(nullptr));

    // Spans several 10240-byte read chunks and ends mid-chunk and mid-block.
    const std::string path = std::string(CLIPDEC_TEST_TMP) + "/ZoMd5Test_file.bin";
    std::vector<unsigned char> data(10240 * 2 + 4321);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + i / 7);
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f && std::fwrite(data.data(), 1, data.size(), f) == data.size());
    std::fclose(f);
    const std::string expected = take(zo::MD5BinData(data.data(), data.size()));
    EXPECT_EQ(take(zo::MD5File(path.c_str())), expected);
    std::remove(path.c_str());
    EXPECT_EQ(zo::MD5File(path.c_str()), nullptr);
}

}  // namespace
