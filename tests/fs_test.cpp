// The file-system layer on UTF-8 names (paths as pasted, ids, directories,
// renames, the scratch directory) and the group of per-plane wave files.
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"
#include "utils/fs.h"
#include "utils/wave_files.h"
#include "utils/zo_md5.h"

namespace {

// A fresh directory per test under the build's scratch area.
class FsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(std::system(("rm -rf '" + dir_ + "' && mkdir '" + dir_ + "'").c_str()), 0); }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    const std::string dir_ = std::string(CLIPDEC_TEST_TMP) + "/FsTest_" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::vector<std::string> planes_ = {dir_ + "/plane 0.pcm", dir_ + "/plane 1.pcm"};
};

TEST(FsPathTest, NativeSeparatorsAndTmpDir) {
    const char* const cases[][2] = {
        {"C:/a//b/c/", "C:/a/b/c/"}, {"\\\\server\\x", "/server/x"}, {"a\\/\\b", "a/b"}, {"plain", "plain"}, {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(fs::to_native_filepath(c[0]), c[1]) << c[0];
    const std::string saved = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "";
    for (const auto& [value, dir] : {std::pair("/var//scratch\\x/", "/var/scratch/x/"), {"", "/tmp"}, {nullptr, "/tmp"}}) {
        value ? ::setenv("TMPDIR", value, 1) : ::unsetenv("TMPDIR");
        EXPECT_EQ(fs::tmp_dir(), dir) << (value ? value : "(unset)");
    }
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

    // The id is the MD5 of "<native path>_<size>_<mtime>": a file that changes gets another.
    const auto md5_of = [](const std::string& text) { return testsupport::take_text(zo::MD5String(text.c_str())); };
    EXPECT_EQ(fs::file_unique_id((dir_ + "//gone.wav").c_str()), md5_of(dir_ + "/gone.wav_0_0"));
    const std::string id = fs::file_unique_id(path.c_str());
    EXPECT_EQ(id, md5_of(path + "_5_" + std::to_string(static_cast<long long>(st.st_mtime))));
    EXPECT_EQ(fs::file_unique_id((dir_ + "\\\\M\xc3\xbcsik \"live\" \xe6\x97\xa5.pcm").c_str()), id);
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
    EXPECT_FALSE(fs::zo_rename(nullptr, moved.c_str()) != -1 || fs::make_dir(nullptr, 0) || fs::is_dir_exist(nullptr));
}

TEST_F(FsTest, WaveFilesFailedOpenClosesTheGroup) {
    std::vector<std::string> group = planes_;
    group.push_back(dir_ + "/missing dir/plane 2.pcm");
    ff::WaveFiles wf;
    const std::string out = testsupport::stdout_of([&] { EXPECT_FALSE(wf.open(group, "wb")); });
    EXPECT_TRUE(!wf.is_opened() && wf.files.empty());
    // Logged once, for the third path only (no host table: the quoted line on stdout).
    EXPECT_EQ(out, "\"[wave files] can't open (mode=wb): " + group[2] + "\"\n");
    const unsigned char* planes[3] = {};
    EXPECT_TRUE(wf.write(planes, 4) == -1 && wf.size() == 0);
    EXPECT_FALSE(wf.open({}, "wb") || wf.open({planes_[0]}, nullptr));
}

TEST_F(FsTest, WaveFilesWrittenGroupReadsBack) {
    // Byte i of plane p holds (i * 7 + p * 100) & 0xff; written in two calls.
    std::vector<unsigned char> a(6000), b(6000);
    for (int i = 0; i < 6000; ++i) a[i] = static_cast<unsigned char>(i * 7), b[i] = static_cast<unsigned char>(i * 7 + 100);
    {
        ff::WaveFiles wf;
        ASSERT_TRUE(wf.open(planes_, "wb"));  // not read-only: the size below is the write position
        const unsigned char* planes[] = {a.data(), b.data()};
        const unsigned char* rest[] = {a.data() + 5900, b.data() + 5900};
        EXPECT_EQ(wf.write(planes, 5900), 5900);
        EXPECT_TRUE(wf.write(planes, -1) == -1 && wf.write(nullptr, 1) == -1);
        EXPECT_TRUE(wf.write(rest, 100) == 100 && wf.size() == 6000);  // size: position of the first file
    }
    ff::WaveFiles wf;
    ASSERT_TRUE(wf.open(planes_, "rb"));
    // Bytes 4096..5119 of each plane come from the files; the rest is untouched.
    std::vector<unsigned char> ra(6000, 0xEE), rb(6000, 0xEE);
    unsigned char* planes[] = {ra.data(), rb.data()};
    EXPECT_TRUE(wf.read(planes, 4096, 1024) == 1024 && wf.size() == 6000);  // size: measured, not the position
    for (int i = 0; i < 6000; ++i) {
        const bool filled = i >= 4096 && i < 5120;
        ASSERT_TRUE(ra[i] == (filled ? a[i - 4096] : 0xEE) && rb[i] == (filled ? b[i - 4096] : 0xEE)) << i;
    }
    // Seeking moves every file; a short read reports the last file's count.
    wf.seek(5990, SEEK_SET);
    EXPECT_TRUE(wf.read(planes, 0, 100) == 10 && ra[0] == a[5990] && rb[9] == b[5999]);
    // Bad arguments leave the files where they are.
    wf.seek(0, SEEK_SET);
    unsigned char* half[] = {ra.data(), nullptr};
    EXPECT_TRUE(wf.read(nullptr, 0, 10) == -1 && wf.read(planes, -1, 10) == -1 && wf.read(half, 0, 10) == -1);
    EXPECT_TRUE(wf.read(planes, 0, 1) == 1 && ra[0] == a[0]);
    // close keeps the measured size and the read-only flag.
    wf.close();
    EXPECT_TRUE(!wf.is_opened() && wf.read(planes, 0, 1) == -1 && wf.size() == 6000 && wf.readonly);
}

}  // namespace
