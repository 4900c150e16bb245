#include "utils/wave_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class WaveFilesTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(std::system(("rm -rf '" + dir_ + "' && mkdir '" + dir_ + "'").c_str()), 0); }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    const std::string dir_ = std::string(CLIPDEC_TEST_TMP) + "/WaveFilesTest_" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::vector<std::string> paths_ = {dir_ + "/plane 0.pcm", dir_ + "/plane 1.pcm"};
};

TEST_F(WaveFilesTest, FailedOpenClosesTheGroup) {
    std::vector<std::string> group = paths_;
    group.push_back(dir_ + "/missing dir/plane 2.pcm");
    ff::WaveFiles wf;
    EXPECT_TRUE(!wf.readonly && wf.file_size < 0);
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(wf.open(group, "wb"));
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(!wf.is_opened() && wf.files.empty());
    // Logged once, for the third path only (no host table: plain stdout).
    const std::string line = "[wave files] can't open (mode=wb): " + group[2];
    const size_t at = out.find(line);
    EXPECT_TRUE(at != std::string::npos && out.find(line, at + 1) == std::string::npos &&
                out.find("plane 0") == std::string::npos) << out;

    const unsigned char* planes[3] = {};
    EXPECT_TRUE(wf.write(planes, 4) == -1 && wf.size() == 0);
    EXPECT_FALSE(wf.open({}, "wb") || wf.open({paths_[0]}, nullptr));
}

TEST_F(WaveFilesTest, WrittenGroupReadsBack) {
    // Byte i of plane p holds (i * 7 + p * 100) & 0xff; written in two calls.
    std::vector<unsigned char> a(6000), b(6000);
    for (int i = 0; i < 6000; ++i) a[i] = static_cast<unsigned char>(i * 7), b[i] = static_cast<unsigned char>(i * 7 + 100);
    {
        ff::WaveFiles wf;
        ASSERT_TRUE(wf.open(paths_, "wb"));
        EXPECT_TRUE(!wf.readonly && wf.size() == 0);
        const unsigned char* planes[] = {a.data(), b.data()};
        const unsigned char* rest[] = {a.data() + 5900, b.data() + 5900};
        EXPECT_EQ(wf.write(planes, 5900), 5900);
        EXPECT_TRUE(wf.write(planes, -1) == -1 && wf.write(nullptr, 1) == -1);
        EXPECT_EQ(wf.write(rest, 100), 100);
        EXPECT_EQ(wf.size(), 6000);  // position of the first file
    }
    ff::WaveFiles wf;
    ASSERT_TRUE(wf.open(paths_, "rb"));
    EXPECT_TRUE(wf.readonly && wf.size() == 6000);

    // Bytes 4096..5119 of each plane come from the files; the rest is untouched.
    std::vector<unsigned char> ra(6000, 0xEE), rb(6000, 0xEE);
    unsigned char* planes[] = {ra.data(), rb.data()};
    EXPECT_EQ(wf.read(planes, 4096, 1024), 1024);
    EXPECT_EQ(wf.size(), 6000);  // measured, not the position
    for (int i = 0; i < 6000; ++i) {
        const bool filled = i >= 4096 && i < 5120;
        ASSERT_TRUE(ra[i] == (filled ? a[i - 4096] : 0xEE) && rb[i] == (filled ? b[i - 4096] : 0xEE)) << i;
    }
    // Seeking moves every file; a short read reports the last file's count.
    wf.seek(5990, SEEK_SET);
    EXPECT_EQ(wf.read(planes, 0, 100), 10);
    EXPECT_TRUE(ra[0] == a[5990] && rb[9] == b[5999]);
    // Bad arguments leave the files where they are.
    wf.seek(0, SEEK_SET);
    unsigned char* half[] = {ra.data(), nullptr};
    EXPECT_TRUE(wf.read(nullptr, 0, 10) == -1 && wf.read(planes, -1, 10) == -1 && wf.read(half, 0, 10) == -1);
    EXPECT_TRUE(wf.read(planes, 0, 1) == 1 && ra[0] == a[0]);
    // close keeps the measured size and the read-only flag.
    wf.close();
    EXPECT_FALSE(wf.is_opened());
    EXPECT_EQ(wf.read(planes, 0, 1), -1);
    EXPECT_TRUE(wf.size() == 6000 && wf.readonly);
}

}  // namespace
