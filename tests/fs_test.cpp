#include "utils/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "utils/zo_md5.h"

namespace {

std::string md5_of(const std::string& text) {
    const char* hex = zo::MD5String(text.c_str());
    const std::string out = hex;
    std::free(const_cast<char*>(hex));
    return out;
}

// A fresh directory per test under the build's scratch area.
class FsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(std::system(("rm -rf '" + dir_ + "' && mkdir '" + dir_ + "'").c_str()), 0); }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    const std::string dir_ = std::string(CLIPDEC_TEST_TMP) + "/FsTest_" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST(FsPathTest, NativeSeparatorsAndTmpDir) {
    const char* const cases[][2] = {
        {"C:/a//b/c/", "C:/a/b/c/"}, {"\\\\server\\x", "/server/x"}, {"a\\/\\b", "a/b"}, {"plain", "plain"}, {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(fs::to_native_filepath(c[0]), c[1]) << c[0];

    const std::string saved = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "";
    ::setenv("TMPDIR", "/var//scratch\\x/", 1);
    EXPECT_EQ(fs::tmp_dir(), "/var/scratch/x/");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(fs::tmp_dir(), "/tmp");
    ::unsetenv("TMPDIR");
    EXPECT_EQ(fs::tmp_dir(), "/tmp");
    if (!saved.empty()) ::setenv("TMPDIR", saved.c_str(), 1);
}

TEST_F(FsTest, OpenStatAndUniqueIdOfUtf8Names) {
    const std::string path = dir_ + "/M\xc3\xbcsik \"live\" \xe6\x97\xa5.pcm";
    std::ofstream(path) << "12345";
    for (const std::string& spelled : {path, "\"" + path + "\"\r\n", " \t\b" + path + " "}) {  // pasted
        FILE* f = fs::zo_fopen(spelled.c_str(), "rb");
        char buf[8];
        EXPECT_TRUE(f && std::fread(buf, 1, sizeof buf, f) == 5u) << spelled;
        if (f) std::fclose(f);
    }
    const std::string missing = dir_ + "/missing";
    EXPECT_FALSE(fs::zo_fopen(missing.c_str(), "rb") || fs::zo_fopen(nullptr, "rb") ||
                 fs::zo_fopen(path.c_str(), nullptr));
    struct stat st;
    EXPECT_FALSE(fs::zo_file_stat(missing.c_str(), st) || fs::zo_file_stat(nullptr, st));
    ASSERT_TRUE(fs::zo_file_stat(path.c_str(), st) && st.st_size == 5);

    // The id is the MD5 of "<native path>_<size>_<mtime>".
    EXPECT_EQ(fs::file_unique_id((dir_ + "//gone.wav").c_str()), md5_of(dir_ + "/gone.wav_0_0"));
    const std::string id = fs::file_unique_id(path.c_str());
    EXPECT_EQ(id, md5_of(path + "_5_" + std::to_string(static_cast<long long>(st.st_mtime))));
    EXPECT_EQ(fs::file_unique_id((dir_ + "\\\\M\xc3\xbcsik \"live\" \xe6\x97\xa5.pcm").c_str()), id);
    std::ofstream(path) << "1234";
    EXPECT_NE(fs::file_unique_id(path.c_str()), id);
    EXPECT_EQ(fs::file_unique_id(nullptr), "");
}

TEST_F(FsTest, DirectoriesAndRename) {
    const std::string sub = dir_ + "/n\xc3\xa9w dir";
    EXPECT_TRUE(!fs::is_dir_exist(sub.c_str()) && fs::make_dir(sub.c_str(), 0) && fs::is_dir_exist(sub.c_str()));
    EXPECT_TRUE(fs::make_dir(sub.c_str(), 0));  // already there
    EXPECT_FALSE(fs::make_dir((dir_ + "/no/parent").c_str(), 0755) || fs::is_dir_exist((dir_ + "/no").c_str()));

    const std::string file = dir_ + "/a file";
    std::ofstream(file) << "x";
    EXPECT_FALSE(fs::make_dir(file.c_str(), 0) || fs::is_dir_exist(file.c_str()));  // a file is no directory
    const std::string moved = sub + "/b \xe6\x97\xa5";
    EXPECT_TRUE(fs::zo_rename(file.c_str(), moved.c_str()) == 0 && ::access(moved.c_str(), F_OK) == 0);
    EXPECT_NE(fs::zo_rename(file.c_str(), moved.c_str()), 0);
    EXPECT_EQ(fs::zo_rename(nullptr, moved.c_str()), -1);
    EXPECT_FALSE(fs::make_dir(nullptr, 0) || fs::is_dir_exist(nullptr));
}

}  // namespace
