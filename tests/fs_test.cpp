#include "utils/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "utils/zo_md5.h"

namespace {

std::string md5_of(const std::string& text) {
    const char* hex = zo::MD5String(text.c_str());
    std::string out = hex;
    std::free(const_cast<char*>(hex));
    return out;
}

// A fresh directory per test under the build's scratch area.
class FsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::string(CLIPDEC_TEST_TMP) + "/FsTest_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::system(("rm -rf '" + dir_ + "'").c_str());
        ASSERT_EQ(::mkdir(dir_.c_str(), 0777), 0);
    }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

    void write_file(const std::string& path, const std::string& content) {
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr) << path;
        std::fwrite(content.data(), 1, content.size(), f);
        std::fclose(f);
    }

    std::string dir_;
};

TEST(FsPathTest, NativeSeparators) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"C:/a//b/c/", "C:/a/b/c/"},
        {"\\\\server\\x", "/server/x"},
        {"a\\/\\b", "a/b"},
        {"plain", "plain"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(fs::to_native_filepath(c.in), c.out) << c.in;
}

TEST_F(FsTest, OpensPastedUtf8Names) {
    const std::string path = dir_ + "/M\xc3\xbcsik \"live\" \xe6\x97\xa5.pcm";
    write_file(path, "12345");

    for (const std::string& spelled : {path, "\"" + path + "\"\r\n", " \t\b" + path + " "}) {
        FILE* f = fs::zo_fopen(spelled.c_str(), "rb");
        ASSERT_NE(f, nullptr) << spelled;
        char buf[8] = {};
        EXPECT_EQ(std::fread(buf, 1, sizeof(buf), f), 5u);
        std::fclose(f);
    }
    EXPECT_EQ(fs::zo_fopen((dir_ + "/missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(fs::zo_fopen(nullptr, "rb"), nullptr);
    EXPECT_EQ(fs::zo_fopen(path.c_str(), nullptr), nullptr);

    struct stat st;
    ASSERT_TRUE(fs::zo_file_stat(path.c_str(), st));
    EXPECT_EQ(st.st_size, 5);
    EXPECT_FALSE(fs::zo_file_stat((dir_ + "/missing").c_str(), st));
    EXPECT_FALSE(fs::zo_file_stat(nullptr, st));
}

TEST_F(FsTest, UniqueIdTracksPathSizeAndTime) {
    const std::string missing = dir_ + "//gone.wav";
    EXPECT_EQ(fs::file_unique_id(missing.c_str()), md5_of(dir_ + "/gone.wav_0_0"));

    const std::string path = dir_ + "/id file.wav";
    write_file(path, "abc");
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    const std::string id = fs::file_unique_id(path.c_str());
    EXPECT_EQ(id, md5_of(path + "_3_" + std::to_string(static_cast<long long>(st.st_mtime))));
    EXPECT_EQ(fs::file_unique_id((dir_ + "\\\\id file.wav").c_str()), id);

    write_file(path, "abcd");
    EXPECT_NE(fs::file_unique_id(path.c_str()), id);
    EXPECT_EQ(fs::file_unique_id(nullptr), "");
}

TEST_F(FsTest, DirectoriesAndRename) {
    const std::string sub = dir_ + "/n\xc3\xa9w dir";
    EXPECT_FALSE(fs::is_dir_exist(sub.c_str()));
    EXPECT_TRUE(fs::make_dir(sub.c_str(), 0));
    EXPECT_TRUE(fs::is_dir_exist(sub.c_str()));
    EXPECT_TRUE(fs::make_dir(sub.c_str(), 0));  // already there
    EXPECT_FALSE(fs::make_dir((dir_ + "/no/parent").c_str(), 0755));
    EXPECT_FALSE(fs::is_dir_exist((dir_ + "/no").c_str()));

    const std::string file = dir_ + "/a file";
    write_file(file, "x");
    EXPECT_FALSE(fs::make_dir(file.c_str(), 0));  // a file is not a directory
    EXPECT_FALSE(fs::is_dir_exist(file.c_str()));

    const std::string moved = sub + "/b \xe6\x97\xa5";
    EXPECT_EQ(fs::zo_rename(file.c_str(), moved.c_str()), 0);
    EXPECT_NE(::access(moved.c_str(), F_OK), -1);
    EXPECT_NE(fs::zo_rename(file.c_str(), moved.c_str()), 0);
    EXPECT_EQ(fs::zo_rename(nullptr, moved.c_str()), -1);
    EXPECT_FALSE(fs::make_dir(nullptr, 0));
    EXPECT_FALSE(fs::is_dir_exist(nullptr));
}

TEST(FsEnvTest, TmpDirFromEnvironment) {
    const char* old = std::getenv("TMPDIR");
    const std::string saved = old ? old : "";

    ::setenv("TMPDIR", "/var//scratch\\x/", 1);
    EXPECT_EQ(fs::tmp_dir(), "/var/scratch/x/");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(fs::tmp_dir(), "/tmp");
    ::unsetenv("TMPDIR");
    EXPECT_EQ(fs::tmp_dir(), "/tmp");

    if (old) ::setenv("TMPDIR", saved.c_str(), 1);
}

}  // namespace
