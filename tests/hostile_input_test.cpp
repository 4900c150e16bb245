// The hostile-input suite (scripts/gen_hostile.sh): every public entry point,
// through one host pass per file, answers its failure result or real frames;
// nothing crashes, hangs (each case is bounded) or leaks (the sanitizer
// build's leak check). Also a file deleted or rewritten while decoders read it.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ff_tools.h"
#include "ffdecoder.h"
#include "host_walk.h"
#include "media.h"
#include "watchdog.h"

namespace {

constexpr auto kCaseLimit = std::chrono::seconds(120);  // sanitizer builds are slow

std::vector<std::string> hostile_files() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(CLIPDEC_TEST_HOSTILE)) {
        while (const dirent* e = readdir(dir))
            if (e->d_name[0] != '.') names.emplace_back(e->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string path_of(const std::string& name) { return std::string(CLIPDEC_TEST_HOSTILE) + "/" + name; }

bool starts_with(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

class HostileInput : public testing::TestWithParam<std::string> {};

TEST_P(HostileInput, AnswersFailureOrRealFrames) {
    const std::string name = GetParam();
    testsupport::Watchdog watchdog("hostile input " + name, kCaseLimit);
    testmedia::LogCapture quiet;  // the library says a lot about broken files
    const hostwalk::Report r = hostwalk::walk(path_of(name));
    if (starts_with(name, "bad_")) {
        EXPECT_FALSE(r.probed);
        EXPECT_FALSE(r.thumbnail);
    }
    if (starts_with(name, "ok_")) {
        EXPECT_TRUE(r.probed);
        EXPECT_EQ(r.streams_opened, 2);
        EXPECT_GE(r.pictures, 8);
        EXPECT_GE(r.audio_spans, 8);
        EXPECT_TRUE(r.thumbnail);
    }
}

// Readable names for CTest: the file name with anything but letters and digits as '_'.
std::string case_name(const testing::TestParamInfo<std::string>& info) {
    std::string s = std::to_string(info.index) + "_";
    for (char c : info.param) s += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return s;
}

INSTANTIATE_TEST_SUITE_P(Suite, HostileInput, testing::ValuesIn(hostile_files()), case_name);

TEST(HostileInputSuite, HasEveryKindOfCase) {
    const std::vector<std::string> files = hostile_files();
    EXPECT_GE(files.size(), 30u);
    EXPECT_GE(std::count_if(files.begin(), files.end(), [](const std::string& f) { return starts_with(f, "ok_"); }), 3);
    EXPECT_GE(std::count_if(files.begin(), files.end(), [](const std::string& f) { return starts_with(f, "bad_"); }), 4);
}

void copy_file(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
}

// The file goes away, or becomes other bytes, while two decoders read it:
// answers are frames or nothing, and closing afterwards is clean.
TEST(HostileInputSuite, FileDeletedOrRewrittenWhileDecodersRead) {
    testsupport::Watchdog watchdog("file changed under decoders", kCaseLimit);
    testmedia::LogCapture quiet;
    for (const char* change : {"delete", "rewrite", "truncate"}) {
        const std::string path = std::string(CLIPDEC_TEST_TMP) + "/changing_" + change + ".mp4";
        copy_file(testmedia::path("h264_cfr.mp4"), path);
        const ff::MovieCtx* movie = ff::getMovieInfo(path.c_str(), nullptr);
        ASSERT_NE(movie, nullptr);
        ff::FFDecoder video, audio;
        ASSERT_TRUE(video.open(movie->streams[movie->video_indexes[0]]));
        ASSERT_TRUE(audio.open(movie->streams[movie->audio_indexes[0]]));
        ff::RequireVideoFrame vreq;
        vreq.time = ff::Rational(1, 2);
        ASSERT_NE(video.getVideoFrame(vreq), nullptr);

        if (std::string(change) == "delete") {
            unlink(path.c_str());
        } else if (std::string(change) == "rewrite") {
            copy_file(testmedia::path("random.bin"), path);
        } else {
            truncate(path.c_str(), 3000);
        }
        int answered = 0;
        for (int k = 0; k < 100; ++k) {
            vreq.time = ff::Rational((k * 37) % 100, 25);  // forward and back over the whole file
            answered += video.getVideoFrame(vreq) != nullptr;
            ff::RequireAudioFrame areq;
            areq.range = ff::Range(ff::Rational(k, 25), ff::Rational(k + 1, 25));
            answered += audio.getAudioFrame(areq) != nullptr;
        }
        ff::RequireMvImage thumb;
        thumb.time = ff::Rational(3, 1);
        ff::getMovieImage(path.c_str(), thumb, nullptr);
        EXPECT_TRUE(video.reopen() || true);  // either answer is fine; it must not crash
        video.close();
        audio.close();
        EXPECT_GE(answered, 0) << change;
        unlink(path.c_str());
    }
}

}  // namespace
