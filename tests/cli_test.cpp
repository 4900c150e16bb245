// The command-line tool end to end on the generated media, as one table of
// commands: each row gives the arguments, the exit code and the checks on what
// the run printed and wrote, read back with FFmpeg (size, the index a picture
// shows, sample count, format, the samples themselves). A failing row must say
// why in exactly one line on standard error, naming the tool.
#ifdef CLIPDEC_TOOL
#include <sys/wait.h>

#include <iterator>

#include "audio_overview.h"
#include "support.h"

using testmedia::ramp_sample;
using testsupport::contains;

namespace {

constexpr int kOk = 0, kInput = 1, kUsage = 2, kOutput = 3;

struct Result { int code = -1; std::string out, err; };
using Check = std::function<void(const Result&)>;

std::string read_all(const std::string& path) {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}

long count_of(const std::string& text, char c) { return std::count(text.begin(), text.end(), c); }

// Bounded, so that a hanging command fails its row (killed: 137) instead of the suite.
Result run_tool(const std::vector<std::string>& args, const std::string& dir) {
    std::string command = "timeout -s KILL 120 '" CLIPDEC_TOOL "'";
    for (const std::string& a : args) command += " '" + a + "'";
    const int status = std::system((command + " >'" + dir + "/stdout' 2>'" + dir + "/stderr'").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_all(dir + "/stdout"), read_all(dir + "/stderr")};
}

struct Picture { int width = 0, height = 0, index = -1, turned_index = -1; };
// The first picture of a file; width 0 when there is none.
Picture picture_of(const std::string& path) {
    Picture p;
    cli::PlainStream d;
    const ff::UniqueAVFrame f = ff::make_frame();
    if (d.open(path.c_str(), -1) && d.next(f.get()) >= 0)
        p = {f->width, f->height, testmedia::frame_index(f.get()), testmedia::frame_index(f.get(), true)};
    return p;
}

struct Audio { std::string codec; int rate = 0, channels = 0; long long samples = 0; std::vector<int16_t> s16; };
Audio audio_of(const std::string& path) {
    Audio a;
    cli::PlainStream d;
    if (!d.open(path.c_str(), -1, AVMEDIA_TYPE_AUDIO)) return a;
    const AVCodecParameters* par = d.stream()->codecpar;
    a = {avcodec_get_name(par->codec_id), par->sample_rate, par->ch_layout.nb_channels, 0, {}};
    for (const ff::UniqueAVFrame f = ff::make_frame(); d.next(f.get()) >= 0; a.samples += f->nb_samples) {
        const auto* s = reinterpret_cast<const int16_t*>(f->data[0]);
        if (f->format == AV_SAMPLE_FMT_S16) a.s16.insert(a.s16.end(), s, s + f->nb_samples * a.channels);
    }
    return a;
}

Check prints(std::vector<std::string> parts) {
    return [parts](const Result& r) {
        for (const std::string& p : parts) EXPECT_TRUE(contains(r.out, p)) << p << " in " << r.out;
    };
}

// `turned`: the index reads as on a picture turned a quarter counter-clockwise.
Check picture(std::string file, int width, int height, int index = -1, bool turned = false) {
    return [=](const Result&) {
        const Picture p = picture_of(file);
        EXPECT_TRUE(p.width == width && p.height == height) << p.width << "x" << p.height;
        EXPECT_TRUE(index < 0 || (turned ? p.turned_index : p.index) == index) << p.index << " " << p.turned_index;
    };
}

// Picture k (160 wide) of a sequence shows first + k * step, and there are `count`.
Check frames(std::string dir, int count, int first, int step) {
    return [=](const Result&) {
        for (int k = 0; k <= count; ++k) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame_%06d.png", k);
            const Picture p = picture_of(dir + name);
            EXPECT_EQ(p.width, k < count ? 160 : 0) << "picture " << k << " of " << count;
            EXPECT_TRUE(k == count || p.index == first + k * step) << "picture " << k << " shows " << p.index;
        }
    };
}

// The ramp is checked when `ramp_from` is not negative (s16 stereo only).
Check audio(std::string file, std::string codec, int rate, int channels, long long samples, long long ramp_from = -1) {
    return [=](const Result&) {
        const Audio a = audio_of(file);
        EXPECT_TRUE(a.codec == codec && a.rate == rate && a.channels == channels) << a.codec << " " << a.rate;
        ASSERT_EQ(a.samples, samples);
        if (ramp_from >= 0) { EXPECT_TRUE(testsupport::is_ramp(a.s16.data(), 2, samples, ramp_from)); }
    };
}

struct Row { std::vector<std::string> args; int code; std::vector<Check> checks; };

TEST(Cli, EveryCommandAndExitCode) {
    const std::string d = std::string(CLIPDEC_TEST_TMP) + "/cli";
    ASSERT_EQ(std::system(("rm -rf '" + d + "' && mkdir '" + d + "'").c_str()), 0);
    const auto m = [](const char* name) { return testmedia::path(name); };
    const std::string good = m("h264_cfr.mp4"), wav = m("pcm_s16.wav"), png = d + "/o.png", out_wav = d + "/o.wav";
    const auto frames_row = [&](const char* name, std::vector<std::string> options, int count, int first, int step) {
        std::vector<std::string> args = {"frames", good, "--size", "160x120", "-o", d + "/" + name};
        args.insert(args.end(), options.begin(), options.end());
        return Row{args, kOk, {frames(d + "/" + name, count, first, step)}};
    };
    int thumbs = 0;  // a new file per row, so that no row reads another's picture
    const auto thumb_row = [&](std::string file, std::vector<std::string> options, int w, int h, int index,
                               bool turned = false) {
        const std::string to = d + "/t" + std::to_string(++thumbs) + ".png";
        std::vector<std::string> args = {"thumb", file, "-o", to};
        args.insert(args.end(), options.begin(), options.end());
        return Row{args, kOk, {picture(to, w, h, index, turned)}};
    };

    // Mixed: the file, and from 1 s on the file again at volume 0.5 (64 of 128).
    const Check mixed = [&](const Result&) {
        const Audio a = audio_of(d + "/m.wav");
        ASSERT_EQ(a.samples, 5 * 48000);  // the second source ends at 1 + 4 s
        int wrong = 0;
        for (int n = 0; n < 5 * 48000; ++n)
            for (int c = 0; c < 2; ++c) {
                int expected = n < 4 * 48000 ? ramp_sample(n, c) : 0;
                if (n >= 48000) expected += ramp_sample(n - 48000, c) / 2;
                wrong += a.s16[2 * n + c] != std::clamp(expected, -32768, 32767);
            }
        EXPECT_EQ(wrong, 0);
    };
    // 4 s of 48 kHz stereo in 10 ms buckets, as getAudioOverview gives them:
    // six fixed fields' commas, then a value for every bucket in the three
    // arrays of each of the two lanes.
    const Check overview = [&](const Result& r) {
        const auto o = ff::getAudioOverview(wav.c_str(), -1, ff::Rational(1, 100));
        ASSERT_NE(o, nullptr);
        EXPECT_TRUE(contains(r.out, "\"samples\":" + std::to_string(o->samples) +
                                        ",\"buckets\":" + std::to_string(o->buckets)));
        EXPECT_EQ(count_of(r.out, ','), 6 * o->buckets + 5);
    };
    const Check records = [](const Result& r) { EXPECT_EQ(count_of(r.out, '{'), 5) << r.out; };
    // Five 160x120 pictures (240 wide asks for a divider of 2 of 320x240), each
    // with a label band, tiled with 6 pixels of margin and padding.
    const Check strip = picture(d + "/s.png", 5 * 160 + 4 * 6 + 2 * 6, 120 + 26 + 2 * 6);
    const Check usage = [](const Result& r) { EXPECT_EQ(r.out.rfind("usage: clipdec", 0), 0u) << r.out; };

    std::vector<Row> rows = {
        {{"probe", good}, kOk, {prints({"320x240 yuv420p, 25.000 fps", "48000 Hz, 2 channels"})}},
        {{"probe", "--json", m("color_bt2020_10bit.mp4")}, kOk,
         {prints({"\"color_space\":\"bt2020nc\",\"color_range\":\"tv\",\"color_primaries\":\"bt2020\","
                  "\"color_trc\":\"smpte2084\""})}},
        {{"probe", "--json", good, m("missing.mp4"), m("subs.mkv")}, kInput,
         {prints({"\"width\":320,\"height\":240", "\"frame_rate\":{\"num\":25,\"den\":1}", "\"error\":\"cannot open\"",
                  "\"text\":\"<i>first</i> line\""}),
          [](const Result& r) { EXPECT_EQ(count_of(r.out, '\n'), 3) << "one line per file"; }}},
        // On screen at 1.5 s: frame 37; 130 wide asks for a divider of 3, padded. The
        // rotated clip's display matrix turns it a quarter counter-clockwise:
        // upright unless asked to keep the stored picture.
        thumb_row(good, {"--at", "1.5", "--size", "160x0"}, 160, 120, 37),
        thumb_row(good, {"--at", "00:00:02.000"}, 320, 240, 50),
        thumb_row(good, {"--at", "1001/1000", "--size", "130x0"}, 112, 80, 25),
        thumb_row(good, {"--ratio", "0.25", "--size", "0x60"}, 80, 60, 25),
        thumb_row(m("rotated.mp4"), {"--at", "1"}, 240, 320, 25, true),
        thumb_row(m("rotated.mp4"), {"--at", "1", "--no-autorotate"}, 320, 240, 25),
        frames_row("plain", {"--from", "1", "--to", "2"}, 25, 25, 1),
        frames_row("fps", {"--to", "2", "--fps", "5"}, 10, 0, 5),
        frames_row("speed", {"--to", "1", "--speed", "2"}, 25, 0, 2),
        frames_row("reverse", {"--from", "1/25", "--to", "1", "--reverse", "--async"}, 24, 99, -1),  // 4 s - t
        // Same rate and format: the ramp itself; otherwise the count is exact.
        {{"audio", wav, "-o", d + "/a.wav", "--range", "0.5:1.5"}, kOk,
         {audio(d + "/a.wav", "pcm_s16le", 48000, 2, 48000, 24000)}},
        {{"audio", good, "-o", d + "/b.wav", "--rate", "22050", "--channels", "1", "--format", "flt",
          "--range", "0:3.3"}, kOk, {audio(d + "/b.wav", "pcm_f32le", 22050, 1, 72765)}},
        {{"audio", good, "-o", d + "/c.wav", "--format", "u8", "--range", "1001/30000:2"}, kOk,
         {audio(d + "/c.wav", "pcm_u8", 48000, 2, 94398)}},
        {{"audio", good, "-o", d + "/e.wav", "--format", "s32", "--speed", "2", "--filter", "volume=0.5"}, kOk,
         {audio(d + "/e.wav", "pcm_s32le", 48000, 2, 96000)}},
        // An 800x160 plot with its margins: dB labels left, time labels under it.
        {{"mix", "-o", d + "/m.wav", "--peaks", d + "/p.png", wav, wav + "@0.5+1"}, kOk,
         {prints({"0:00 |"}), mixed, picture(d + "/p.png", 800 + 108, 160 + 40)}},
        {{"waveform", wav, "-o", d + "/w.png", "--json", "--size", "600x200"}, kOk,
         {overview, picture(d + "/w.png", 600 + 108, 200 + 40)}},
        {{"filmstrip", m("long_gop.mp4"), "-n", "5", "-o", d + "/s.png", "--json", "--fast"}, kOk, {records, strip}},
        // 1 s of a 25 fps stream with 48 kHz audio; a figure of 0 would mean a side did nothing.
        {{"bench", good, "--seconds", "1", "--json"}, kOk,
         {prints({"\"sequential\":{\"frames\":25,", "\"requests\":50,", "\"samples\":48000,",
                  "\"shared_stream\":{\"frames\":25,"}),
          [](const Result& r) { EXPECT_TRUE(!contains(r.out, ":0,") && !contains(r.out, "null")) << r.out; }}},
        // Each argument rule of the tool has its row: a rule dropped or loosened
        // shows up as a wrong exit code.
        {{}, kUsage, {}}, {{"dance"}, kUsage, {}}, {{"probe"}, kUsage, {}},
        {{"thumb", good, "-o", png, "--at", "soon"}, kUsage, {}},
        {{"thumb", good, "-o", png, "--at", "1", "--ratio", "0.5"}, kUsage, {}},
        {{"thumb", good, "-o", png, "--size", "big"}, kUsage, {}}, {{"thumb", good, "-o"}, kUsage, {}},
        {{"thumb", good}, kUsage, {}}, {{"frames", good, "-o", d + "/f", "--speed", "9"}, kUsage, {}},
        {{"frames", good, "-o", d + "/f", "--fps", "0"}, kUsage, {}},
        {{"audio", good, "-o", out_wav, "--format", "s24"}, kUsage, {}},
        {{"audio", good, "-o", out_wav, "--channels", "0"}, kUsage, {}}, {{"waveform", good}, kUsage, {}},
        {{"frames", good, "-o", d + "/f", "--from", "3", "--to", "1"}, kUsage, {}},
        {{"audio", good, "-o", out_wav, "--range", "1:30:2:00"}, kUsage, {}},  // splits two ways
        {{"audio", good, "-o", out_wav, "--filter", "no_such_filter"}, kUsage, {}},
        {{"mix", "-o", out_wav, good + "@9"}, kUsage, {}},
        {{"waveform", good, "--json", "--bucket", "never"}, kUsage, {}},
        {{"filmstrip", good, "--json", "-n", "0"}, kUsage, {}}, {{"waveform", m("still.png"), "--json"}, kInput, {}},
        {{"filmstrip", m("aac.m4a"), "--json"}, kInput, {}}, {{"thumb", m("empty.mp4"), "-o", png}, kInput, {}},
        {{"thumb", m("missing.mp4"), "-o", png}, kInput, {}}, {{"thumb", m("aac.m4a"), "-o", png}, kInput, {}},
        {{"thumb", good, "-o", "/nonexistent/dir/o.png"}, kOutput, {}},
        {{"frames", m("aac.m4a"), "-o", d + "/f"}, kInput, {}}, {{"audio", m("still.png"), "-o", out_wav}, kInput, {}},
        {{"mix", "-o", out_wav, good, m("truncated_missing.mp4")}, kInput, {}},
        {{"filmstrip", good, "-o", "/nonexistent/dir/o.png"}, kOutput, {}}, {{"thumb", good, "-o", d}, kOutput, {}},
        {{"audio", good, "-o", "/proc/o.wav"}, kOutput, {}},
    };
    for (const char* command : {"probe", "thumb", "frames", "audio", "mix", "bench", "info", "time", "md5", "pool"})
        rows.push_back({{command, "--help"}, kOk, {usage}});

    for (const Row& row : rows) {
        std::string line = "clipdec";
        for (const std::string& a : row.args) line += " " + a;
        SCOPED_TRACE(line);
        const Result run = run_tool(row.args, d);
        EXPECT_EQ(run.code, row.code) << run.err;
        if (run.code != row.code) continue;
        if (row.code != kOk) {
            EXPECT_EQ(count_of(run.err, '\n'), 1) << run.err;
            EXPECT_EQ(run.err.rfind("clipdec", 0), 0u) << run.err;
        }
        for (const Check& check : row.checks) check(run);
    }
}

}  // namespace
#endif  // CLIPDEC_TOOL
