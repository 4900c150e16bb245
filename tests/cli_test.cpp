// The command-line tool end to end on the generated media: what each command
// writes decodes back with FFmpeg to the expected size, picture, sample count,
// format and samples; bad arguments and bad files give the documented exit
// codes with one line on standard error.
#ifdef CLIPDEC_TOOL
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "audio_overview.h"
#include "cli_support.h"
#include "media.h"

using clitest::run_tool;
using testmedia::ramp_sample;

namespace {

constexpr int kOk = 0, kInput = 1, kUsage = 2, kOutput = 3;

std::string media(const char* name) { return testmedia::path(name); }

std::vector<int16_t> as_s16(const clitest::Audio& audio) {
    std::vector<int16_t> samples(audio.data.size() / 2);
    std::memcpy(samples.data(), audio.data.data(), samples.size() * 2);
    return samples;
}

TEST(Cli, ProbeDescribesMoviesAsTextAndJson) {
    const auto text = run_tool({"probe", media("h264_cfr.mp4")});
    ASSERT_EQ(text.exit_code, kOk) << text.err;
    EXPECT_NE(text.out.find("320x240 yuv420p, 25.000 fps"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("48000 Hz, 2 channels"), std::string::npos) << text.out;
    const auto hdr = run_tool({"probe", "--json", media("color_bt2020_10bit.mp4")});
    EXPECT_NE(hdr.out.find("\"color_space\":\"bt2020nc\",\"color_range\":\"tv\",\"color_primaries\":\"bt2020\","
                           "\"color_trc\":\"smpte2084\""),
              std::string::npos)
        << hdr.out;

    const auto json = run_tool({"probe", "--json", media("h264_cfr.mp4"), media("missing.mp4"), media("subs.mkv")});
    EXPECT_EQ(json.exit_code, kInput);
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 3) << "one line per file";
    EXPECT_NE(json.out.find("\"width\":320,\"height\":240"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"frame_rate\":{\"num\":25,\"den\":1}"), std::string::npos);
    EXPECT_NE(json.out.find("\"error\":\"cannot open\""), std::string::npos);
    EXPECT_NE(json.out.find("\"text\":\"<i>first</i> line\""), std::string::npos) << json.out;
    EXPECT_EQ(std::count(json.err.begin(), json.err.end(), '\n'), 1) << json.err;
}

TEST(Cli, ThumbWritesThePredictedPictureAtTheDividedSize) {
    const std::string dir = clitest::scratch_dir("cli_thumb");
    struct Case {
        const char* file;
        std::vector<std::string> where;
        int width, height, index;
        bool turned;  // the index reads as on a picture turned a quarter counter-clockwise
    } cases[] = {
        {"h264_cfr.mp4", {"--at", "1.5", "--size", "160x0"}, 160, 120, 37, false},  // on screen at 1.5 s: frame 37
        {"h264_cfr.mp4", {"--at", "00:00:02.000"}, 320, 240, 50, false},
        {"h264_cfr.mp4", {"--at", "1001/1000", "--size", "130x0"}, 112, 80, 25, false},  // divider 3, width padded
        {"h264_cfr.mp4", {"--ratio", "0.25", "--size", "0x60"}, 80, 60, 25, false},      // a quarter of 4 s
        // A clip whose display matrix turns it a quarter counter-clockwise
        // comes upright (portrait) unless asked to keep the stored picture.
        {"rotated.mp4", {"--at", "1"}, 240, 320, 25, true},
        {"rotated.mp4", {"--at", "1", "--no-autorotate"}, 320, 240, 25, false},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"thumb", media(c.file), "-o", dir + "/t.png"};
        args.insert(args.end(), c.where.begin(), c.where.end());
        const auto run = run_tool(args);
        ASSERT_EQ(run.exit_code, kOk) << run.err;
        const clitest::Picture picture = clitest::decode_picture(dir + "/t.png");
        EXPECT_EQ(picture.width, c.width) << c.file << " " << c.where[1];
        EXPECT_EQ(picture.height, c.height);
        EXPECT_EQ(c.turned ? picture.turned_index : picture.index, c.index) << c.file << " " << c.where[1];
    }
}

TEST(Cli, FramesWritesTheSequenceForEachPlayMode) {
    struct Case {
        const char* name;
        std::vector<std::string> options;
        int count;
        int first, step;  // index of picture k: first + k * step
    } cases[] = {
        {"plain", {"--from", "1", "--to", "2"}, 25, 25, 1},
        {"fps", {"--to", "2", "--fps", "5"}, 10, 0, 5},
        {"speed", {"--to", "1", "--speed", "2"}, 25, 0, 2},
        {"reverse", {"--from", "1/25", "--to", "1", "--reverse", "--async"}, 24, 99, -1},  // 4 s - t
    };
    for (const Case& c : cases) {
        const std::string dir = clitest::scratch_dir(std::string("cli_frames_") + c.name) + "/out";
        std::vector<std::string> args = {"frames", media("h264_cfr.mp4"), "-o", dir, "--size", "160x120"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        const auto run = run_tool(args);
        ASSERT_EQ(run.exit_code, kOk) << c.name << ": " << run.err;
        for (int k = 0; k <= c.count; ++k) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame_%06d.png", k);
            const clitest::Picture picture = clitest::decode_picture(dir + name);
            if (k == c.count) {
                EXPECT_EQ(picture.width, 0) << c.name << ": one picture too many";
                break;
            }
            EXPECT_EQ(picture.width, 160) << c.name << " " << k;
            EXPECT_EQ(picture.index, c.first + k * c.step) << c.name << " picture " << k;
        }
    }
}

TEST(Cli, AudioExportHoldsExactlyTheRequestedSamples) {
    const std::string dir = clitest::scratch_dir("cli_audio");
    // Same rate and format: the ramp itself, from its first sample on.
    auto run = run_tool({"audio", media("pcm_s16.wav"), "-o", dir + "/a.wav", "--range", "0.5:1.5"});
    ASSERT_EQ(run.exit_code, kOk) << run.err;
    clitest::Audio audio = clitest::decode_audio(dir + "/a.wav");
    EXPECT_EQ(audio.codec, "pcm_s16le");
    EXPECT_EQ(audio.sample_rate, 48000);
    ASSERT_EQ(audio.samples, 48000);
    const std::vector<int16_t> s = as_s16(audio);
    int wrong = 0;
    for (int n = 0; n < 48000; ++n)
        for (int c = 0; c < 2; ++c) wrong += s[2 * n + c] != ramp_sample(24000 + n, c);
    EXPECT_EQ(wrong, 0);

    // Another rate, channel count and format: the count is exact.
    struct Case {
        std::vector<std::string> options;
        const char* codec;
        int rate, channels;
        int64_t samples;
    } cases[] = {
        {{"--rate", "22050", "--channels", "1", "--format", "flt", "--range", "0:3.3"}, "pcm_f32le", 22050, 1, 72765},
        {{"--format", "u8", "--range", "1001/30000:2"}, "pcm_u8", 48000, 2, 94398},
        {{"--format", "s32", "--speed", "2", "--filter", "volume=0.5"}, "pcm_s32le", 48000, 2, 96000},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"audio", media("h264_cfr.mp4"), "-o", dir + "/b.wav"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        run = run_tool(args);
        ASSERT_EQ(run.exit_code, kOk) << run.err;
        audio = clitest::decode_audio(dir + "/b.wav");
        EXPECT_EQ(audio.codec, c.codec);
        EXPECT_EQ(audio.sample_rate, c.rate);
        EXPECT_EQ(audio.channels, c.channels);
        EXPECT_EQ(audio.samples, c.samples) << c.codec;
    }
}

TEST(Cli, MixSumsOffsetSourcesSampleBySample) {
    const std::string dir = clitest::scratch_dir("cli_mix");
    const auto run = run_tool({"mix", "-o", dir + "/m.wav", "--peaks", dir + "/p.png", media("pcm_s16.wav"),
                               media("pcm_s16.wav") + "@0.5+1"});
    ASSERT_EQ(run.exit_code, kOk) << run.err;
    EXPECT_NE(run.out.find("0:00 |"), std::string::npos) << run.out;

    const clitest::Audio audio = clitest::decode_audio(dir + "/m.wav");
    ASSERT_EQ(audio.samples, 5 * 48000);  // the second source ends at 1 + 4 s
    const std::vector<int16_t> s = as_s16(audio);
    int wrong = 0;
    for (int n = 0; n < 5 * 48000; ++n) {
        for (int c = 0; c < 2; ++c) {
            int expected = n < 4 * 48000 ? ramp_sample(n, c) : 0;
            if (n >= 48000) expected += ramp_sample(n - 48000, c) / 2;  // volume 64 of 128
            expected = std::clamp(expected, -32768, 32767);
            wrong += s[2 * n + c] != expected;
        }
    }
    EXPECT_EQ(wrong, 0);
    // An 800x160 plot with its margins: dB labels left, time labels under it.
    const clitest::Picture peaks = clitest::decode_picture(dir + "/p.png");
    EXPECT_EQ(peaks.width, 800 + 108);
    EXPECT_EQ(peaks.height, 160 + 40);
}

TEST(Cli, WaveformAndFilmstripDrawTheLibrarysNumbers) {
    const std::string dir = clitest::scratch_dir("cli_timeline");
    const auto wave = run_tool({"waveform", media("pcm_s16.wav"), "-o", dir + "/w.png", "--json", "--size", "600x200"});
    ASSERT_EQ(wave.exit_code, kOk) << wave.err;
    // 4 s of 48 kHz stereo in 10 ms buckets, as getAudioOverview gives them.
    const auto overview = ff::getAudioOverview(media("pcm_s16.wav").c_str(), -1, ff::Rational(1, 100));
    ASSERT_NE(overview, nullptr);
    const std::string counts = "\"samples\":" + std::to_string(overview->samples) +
                               ",\"buckets\":" + std::to_string(overview->buckets);
    EXPECT_NE(wave.out.find(counts), std::string::npos) << wave.out.substr(0, 200);
    // Six fixed fields' commas, then a value for every bucket in the three
    // arrays of each of the two lanes.
    EXPECT_EQ(std::count(wave.out.begin(), wave.out.end(), ','), 6 * overview->buckets + 5);
    const clitest::Picture w = clitest::decode_picture(dir + "/w.png");
    EXPECT_TRUE(w.width == 600 + 108 && w.height == 200 + 40) << w.width << "x" << w.height;

    for (bool fast : {true, false}) {
        std::vector<std::string> args = {"filmstrip", media("long_gop.mp4"), "-n", "5", "-o", dir + "/s.png", "--json"};
        if (fast) args.push_back("--fast");
        const auto strip = run_tool(args);
        ASSERT_EQ(strip.exit_code, kOk) << strip.err;
        EXPECT_EQ(std::count(strip.out.begin(), strip.out.end(), '{'), 5) << strip.out;
        // Five 160x120 pictures (240 wide asks for a divider of 2 of 320x240),
        // each with a label band, tiled with 6 pixels of margin and padding.
        const clitest::Picture s = clitest::decode_picture(dir + "/s.png");
        EXPECT_TRUE(s.width == 5 * 160 + 4 * 6 + 2 * 6 && s.height == 120 + 26 + 2 * 6) << s.width << "x" << s.height;
    }
}

TEST(Cli, BenchMeasuresEveryCaseOnBothSides) {
    const auto run = run_tool({"bench", media("h264_cfr.mp4"), "--seconds", "1", "--json"});
    ASSERT_EQ(run.exit_code, kOk) << run.err;
    // 1 s of a 25 fps stream with 48 kHz audio; a figure of 0 would mean a side did nothing.
    for (const char* expected : {"\"sequential\":{\"frames\":25,", "\"requests\":50,", "\"samples\":48000,",
                                 "\"shared_stream\":{\"frames\":25,"})
        EXPECT_NE(run.out.find(expected), std::string::npos) << expected << " in " << run.out;
    EXPECT_EQ(run.out.find(":0,"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("null"), std::string::npos) << run.out;
}

TEST(Cli, BadArgumentsAndBadFilesGiveTheDocumentedExitCodes) {
    const std::string dir = clitest::scratch_dir("cli_errors");
    const std::string out = dir + "/o.png";
    const std::string wav = dir + "/o.wav";
    const std::string good = media("h264_cfr.mp4");
    struct Case {
        std::vector<std::string> args;
        int code;
    } cases[] = {
        {{}, kUsage},
        {{"dance"}, kUsage},
        {{"probe"}, kUsage},
        {{"thumb", good, "-o", out, "--at", "soon"}, kUsage},
        {{"thumb", good, "-o", out, "--at", "1", "--ratio", "0.5"}, kUsage},
        {{"thumb", good, "-o", out, "--size", "big"}, kUsage},
        {{"thumb", good, "-o"}, kUsage},
        {{"thumb", good}, kUsage},
        {{"frames", good, "-o", dir + "/f", "--speed", "9"}, kUsage},
        {{"frames", good, "-o", dir + "/f", "--from", "3", "--to", "1"}, kUsage},
        {{"frames", good, "-o", dir + "/f", "--fps", "0"}, kUsage},
        {{"audio", good, "-o", wav, "--format", "s24"}, kUsage},
        {{"audio", good, "-o", wav, "--range", "1:30:2:00"}, kUsage},  // splits two ways
        {{"audio", good, "-o", wav, "--filter", "no_such_filter"}, kUsage},
        {{"audio", good, "-o", wav, "--channels", "0"}, kUsage},
        {{"mix", "-o", wav, good + "@9"}, kUsage},
        {{"waveform", good}, kUsage},
        {{"waveform", good, "--json", "--bucket", "never"}, kUsage},
        {{"filmstrip", good, "--json", "-n", "0"}, kUsage},
        {{"waveform", media("still.png"), "--json"}, kInput},
        {{"filmstrip", media("aac.m4a"), "--json"}, kInput},
        {{"filmstrip", good, "-o", "/nonexistent/dir/o.png"}, kOutput},
        {{"thumb", media("missing.mp4"), "-o", out}, kInput},
        {{"thumb", media("empty.mp4"), "-o", out}, kInput},
        {{"thumb", media("aac.m4a"), "-o", out}, kInput},
        {{"frames", media("aac.m4a"), "-o", dir + "/f"}, kInput},
        {{"audio", media("still.png"), "-o", wav}, kInput},
        {{"mix", "-o", wav, good, media("truncated_missing.mp4")}, kInput},
        {{"thumb", good, "-o", "/nonexistent/dir/o.png"}, kOutput},
        {{"thumb", good, "-o", dir}, kOutput},
        {{"audio", good, "-o", "/proc/o.wav"}, kOutput},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const std::string& a : c.args) line += a + " ";
        const auto run = run_tool(c.args);
        EXPECT_EQ(run.exit_code, c.code) << line << "\n" << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << line << "\n" << run.err;
        EXPECT_EQ(run.err.rfind("clipdec", 0), 0u) << run.err;
    }
    for (const char* command : {"probe", "thumb", "frames", "audio", "mix", "bench", "info", "time", "md5", "pool"}) {
        const auto help = run_tool({command, "--help"});
        EXPECT_EQ(help.exit_code, kOk) << command;
        EXPECT_EQ(help.out.rfind("usage: clipdec", 0), 0u) << command << ": " << help.out;
    }
}

}  // namespace
#endif  // CLIPDEC_TOOL
