#include "utils/wave_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class WaveFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::string(CLIPDEC_TEST_TMP) + "/WaveFilesTest_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::system(("rm -rf '" + dir_ + "'").c_str());
        ASSERT_EQ(::mkdir(dir_.c_str(), 0777), 0);
    }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

    std::vector<std::string> paths(int n) const {
        std::vector<std::string> out;
        for (int i = 0; i < n; ++i) out.push_back(dir_ + "/plane " + std::to_string(i) + ".pcm");
        return out;
    }

    // Writes two planes of `n` bytes each, in two calls; byte i of plane p
    // holds (i * 7 + p * 100) & 0xff.
    void write_group(int n) {
        std::vector<unsigned char> a(n), b(n);
        for (int i = 0; i < n; ++i) {
            a[i] = static_cast<unsigned char>(i * 7);
            b[i] = static_cast<unsigned char>(i * 7 + 100);
        }
        const unsigned char* planes[] = {a.data(), b.data()};
        ff::WaveFiles wf;
        ASSERT_TRUE(wf.open(paths(2), "wb"));
        EXPECT_FALSE(wf.readonly);
        EXPECT_EQ(wf.size(), 0);
        EXPECT_EQ(wf.write(planes, n - 100), n - 100);
        EXPECT_EQ(wf.write(planes, -1), -1);
        EXPECT_EQ(wf.write(nullptr, 1), -1);
        const unsigned char* rest[] = {a.data() + n - 100, b.data() + n - 100};
        EXPECT_EQ(wf.write(rest, 100), 100);
        EXPECT_EQ(wf.size(), n);  // position of the first file
    }

    std::string dir_;
};

TEST_F(WaveFilesTest, FailedOpenClosesTheGroup) {
    std::vector<std::string> group = paths(2);
    const std::string bad = dir_ + "/missing dir/plane 2.pcm";
    group.push_back(bad);

    ff::WaveFiles wf;
    EXPECT_FALSE(wf.readonly);
    EXPECT_LT(wf.file_size, 0);

    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(wf.open(group, "wb"));
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_FALSE(wf.is_opened());
    EXPECT_TRUE(wf.files.empty());

    // Logged once, for the third path only (no host table: plain stdout).
    const std::string line = "[wave files] can't open (mode=wb): " + bad;
    const size_t at = out.find(line);
    EXPECT_NE(at, std::string::npos) << out;
    EXPECT_EQ(out.find(line, at + 1), std::string::npos);
    EXPECT_EQ(out.find("plane 0"), std::string::npos);

    const unsigned char* planes[3] = {};
    EXPECT_EQ(wf.write(planes, 4), -1);
    EXPECT_EQ(wf.size(), 0);
    EXPECT_FALSE(wf.open({}, "wb"));
    EXPECT_FALSE(wf.open(paths(1), nullptr));
}

TEST_F(WaveFilesTest, ReadGroupKnowsItsSize) {
    write_group(6000);

    ff::WaveFiles wf;
    ASSERT_TRUE(wf.open(paths(2), "rb"));
    EXPECT_TRUE(wf.readonly);
    EXPECT_EQ(wf.size(), 6000);

    // Bytes 4096..5119 of each plane come from the files; the rest is untouched.
    std::vector<unsigned char> a(6000, 0xEE), b(6000, 0xEE);
    unsigned char* planes[] = {a.data(), b.data()};
    EXPECT_EQ(wf.read(planes, 4096, 1024), 1024);
    EXPECT_EQ(wf.size(), 6000);  // measured, not the position
    for (int i = 0; i < 6000; ++i) {
        const bool filled = i >= 4096 && i < 5120;
        const int k = i - 4096;
        ASSERT_EQ(a[i], filled ? static_cast<unsigned char>(k * 7) : 0xEE) << i;
        ASSERT_EQ(b[i], filled ? static_cast<unsigned char>(k * 7 + 100) : 0xEE) << i;
    }

    // Seeking moves every file; a short read reports the last file's count.
    wf.seek(5990, SEEK_SET);
    EXPECT_EQ(wf.read(planes, 0, 100), 10);
    EXPECT_EQ(a[0], static_cast<unsigned char>(5990 * 7));
    EXPECT_EQ(b[9], static_cast<unsigned char>(5999 * 7 + 100));

    // Bad arguments leave the files where they are.
    wf.seek(0, SEEK_SET);
    EXPECT_EQ(wf.read(nullptr, 0, 10), -1);
    EXPECT_EQ(wf.read(planes, -1, 10), -1);
    unsigned char* half[] = {a.data(), nullptr};
    EXPECT_EQ(wf.read(half, 0, 10), -1);
    EXPECT_EQ(wf.read(planes, 0, 1), 1);
    EXPECT_EQ(a[0], 0);

    // close keeps the measured size and the read-only flag.
    wf.close();
    EXPECT_FALSE(wf.is_opened());
    EXPECT_EQ(wf.read(planes, 0, 1), -1);
    EXPECT_EQ(wf.size(), 6000);
    EXPECT_TRUE(wf.readonly);
}

}  // namespace
