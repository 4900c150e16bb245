// Robustness: the hostile-input suite (scripts/gen_hostile.sh) through one
// host pass per file, every public entry point answering its failure result
// or real frames; the inputs the fuzz targets once crashed on, replayed
// through the same drivers; a file deleted or rewritten while decoders read
// it. Nothing crashes, hangs (each case is bounded) or leaks (the sanitizer
// build's leak check).

#include <unistd.h>

#include <filesystem>
#include <iterator>

#include "ff_tools.h"
#include "fuzz_drivers.h"
#include "host_walk.h"
#include "support.h"
#include "watchdog.h"

namespace {

constexpr auto kCaseLimit = std::chrono::seconds(120);  // sanitizer builds are slow

// The names in a directory but the hidden ones (the build's stamp), sorted.
std::vector<std::string> files_in(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code missing;  // no directory: no names
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing)) {
        std::string name = entry.path().filename();
        if (name[0] != '.') names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool starts_with(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

class HostileInput : public testing::TestWithParam<std::string> {};

TEST_P(HostileInput, AnswersFailureOrRealFrames) {
    const std::string name = GetParam();
    testsupport::Watchdog watchdog("hostile input " + name, kCaseLimit);
    testmedia::LogCapture quiet;  // the library says a lot about broken files
    const hostwalk::Report r = hostwalk::walk(std::string(CLIPDEC_TEST_HOSTILE) + "/" + name);
    EXPECT_FALSE(starts_with(name, "bad_") && (r.probed || r.thumbnail));
    EXPECT_TRUE(!starts_with(name, "ok_") ||
                (r.probed && r.thumbnail && r.streams_opened == 2 && r.pictures >= 8 && r.audio_spans >= 8))
        << r.probed << r.thumbnail << " " << r.streams_opened << " " << r.pictures << " " << r.audio_spans;
}

// Readable names for CTest: the file name with anything but letters and digits as '_'.
std::string case_name(const testing::TestParamInfo<std::string>& info) {
    std::string s = std::to_string(info.index) + "_";
    for (char c : info.param) s += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return s;
}

INSTANTIATE_TEST_SUITE_P(Suite, HostileInput, testing::ValuesIn(files_in(CLIPDEC_TEST_HOSTILE)), case_name);

TEST(HostileInputSuite, HasEveryKindOfCase) {
    const std::vector<std::string> files = files_in(CLIPDEC_TEST_HOSTILE);
    const auto count = [&](const char* prefix) {
        return std::count_if(files.begin(), files.end(), [&](const std::string& f) { return starts_with(f, prefix); });
    };
    EXPECT_TRUE(files.size() >= 30u && count("ok_") >= 3 && count("bad_") >= 4) << files.size();
}

TEST(HostileInputSuite, EveryFormerFuzzCrashNowPasses) {
    testsupport::Watchdog watchdog("fuzz regressions", std::chrono::seconds(300));
    testmedia::LogCapture quiet;
    for (const char* kind : {"movie", "pcm"}) {
        const std::string dir = std::string(CLIPDEC_FUZZ_REGRESSIONS) + "/" + kind;
        for (const std::string& name : files_in(dir)) {
            SCOPED_TRACE(dir + "/" + name);
            std::ifstream in(dir + "/" + name, std::ios::binary);
            const std::vector<uint8_t> data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            (kind[0] == 'm' ? fuzzdrive::movie_bytes : fuzzdrive::pcm_bytes)(data.data(), data.size());
        }
    }
    // The drivers also take what is too short to mean anything.
    const uint8_t tiny[2] = {9, 9};
    fuzzdrive::pcm_bytes(tiny, sizeof tiny);
    fuzzdrive::movie_bytes(tiny, 0);
}

// The file goes away, or becomes other bytes, while two decoders read it:
// whatever they answer, nothing crashes and closing afterwards is clean.
TEST(HostileInputSuite, FileDeletedOrRewrittenWhileDecodersRead) {
    testsupport::Watchdog watchdog("file changed under decoders", kCaseLimit);
    testmedia::LogCapture quiet;
    for (const std::string change : {"delete", "rewrite", "truncate"}) {
        const std::string path = std::string(CLIPDEC_TEST_TMP) + "/changing_" + change + ".mp4";
        testsupport::copy_file(testmedia::path("h264_cfr.mp4"), path);
        const ff::MovieCtx* movie = ff::getMovieInfo(path.c_str(), nullptr);
        ASSERT_NE(movie, nullptr);
        ff::FFDecoder video, audio;
        ASSERT_TRUE(video.open(movie->streams[movie->video_indexes[0]]));
        ASSERT_TRUE(audio.open(movie->streams[movie->audio_indexes[0]]));
        ASSERT_EQ(testsupport::index_at(video, ff::Rational(1, 2)), 12);  // at 25 fps, 0.5 s shows frame 12
        if (change == "delete") unlink(path.c_str());
        if (change == "rewrite") testsupport::copy_file(testmedia::path("random.bin"), path);
        EXPECT_TRUE(change != "truncate" || truncate(path.c_str(), 3000) == 0);
        for (int k = 0; k < 100; ++k) {
            // Pictures forward and back over the whole file, and 40 ms spans (float, 48 kHz, stereo).
            testsupport::index_at(video, ff::Rational((k * 37) % 100, 25));
            audio.getAudioFrame(testsupport::audio_request({k, 25}, {k + 1, 25}, ff::SF_FLT, 48000));
        }
        ff::RequireMvImage thumb;
        thumb.time = ff::Rational(3, 1);
        ff::getMovieImage(path.c_str(), thumb, nullptr);
        video.reopen();
        video.close();
        audio.close();
        unlink(path.c_str());
    }
}

}  // namespace
