// The probe: what it says of every kind of file (stream counts, kinds, sizes,
// rates and lengths, measured where the container only guesses), its cache,
// its failures, the angle of a rotated picture, and the decoding it hands on.

#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include "ff_tools.h"
#include "ffdec_probe.h"
#include "parked_instances.h"
#include "support.h"

using namespace ff;
using testsupport::Counts;
using testsupport::index_at;
using testsupport::stdout_of;

namespace {

// The cache is keyed by the path string, so a fresh copy is an unprobed file.
std::string fresh_copy(const char* name, const std::string& tag) {
    const std::string to = std::string(CLIPDEC_TEST_TMP) + "/" + tag + "_" + name;
    testsupport::copy_file(testmedia::path(name), to);
    return to;
}

}  // namespace

TEST(Probe, EveryKindOfFileIsDescribed) {
    // Streams, video, audio and subtitle counts, length in microseconds within
    // `slack`, and of the first video: still or not, size, angle. -1: not checked.
    const struct Row {
        const char* file;
        int streams, video, audio, subtitle;
        long long duration, slack;
        bool still;
        int width, height, rotation;
    } rows[] = {
        {"h264_cfr.mp4", 2, 1, 1, 0, 4000000, 0, false, 320, 240, 0},
        {"nodecoder_first.mp4", 1, 1, -1, -1, -1, 0, false, 320, 240, 0},  // a TTML track without decoder first
        {"subs.mkv", 2, 1, -1, 2, -1, 0, false, 320, 240, 0},               // ASS is listed without a record
        {"still.png", 1, 1, 0, -1, 40000, 0, true, 320, -1, 0},
        {"mp3_cover.mp3", -1, 1, 1, -1, 3030000, 30000, true, -1, -1, 0},    // the audio's length
        {"adts.aac", 1, 0, 1, -1, 3000000, 30000, false, -1, -1, 0},        // measured by decoding
        {"raw.h264", 1, 1, 0, -1, 2960000, 0, false, 320, 240, 0},          // measured: last frame at 74/25 s
        {"rotated.mp4", -1, 1, -1, -1, -1, 0, false, 320, -1, 270},         // from the display matrix
        {"audio40.mkv", kMaxMovieStreams, 0, kMaxStreamsPerType, -1, -1, 0, false, -1, -1, 0},
        // Random bytes and a truncated file still open; whatever they describe is complete.
        {"random.bin", -1, -1, -1, -1, -1, 0, false, -1, -1, 0},
        {"truncated.mp4", -1, -1, -1, -1, -1, 0, false, -1, -1, 0},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.file);
        MovieCtx* mv = FFDecoder::probe(testmedia::path(r.file).c_str(), nullptr);
        ASSERT_NE(mv, nullptr);
        ASSERT_TRUE(r.video < 0 || mv->nb_video == r.video) << mv->nb_video << " video streams";
        const int counts[][2] = {{r.streams, mv->nb_streams}, {r.audio, mv->nb_audio}, {r.subtitle, mv->nb_subtitle}};
        for (const auto& c : counts) EXPECT_TRUE(c[0] < 0 || c[0] == c[1]) << c[1] << " streams, not " << c[0];
        EXPECT_TRUE(r.duration < 0 || std::llabs(mv->duration - r.duration) <= r.slack) << mv->duration;
        for (int i = 0; i < mv->nb_streams; ++i) EXPECT_EQ(mv->streams[i]->movie, mv);
        // The index lists point into the records, also past streams left out.
        for (int i = 0; i < std::min<int>(mv->nb_audio, kMaxStreamsPerType); ++i)
            EXPECT_EQ(mv->streams[mv->audio_indexes[i]]->type, STREAM_AUDIO);
        if (r.video <= 0) continue;
        const StreamCtx* v = mv->streams[mv->video_indexes[0]];
        EXPECT_TRUE(v->type == STREAM_VIDEO && v->still_image == r.still && v->rotation == r.rotation) << v->rotation;
        EXPECT_TRUE((r.width < 0 || v->width == r.width) && (r.height < 0 || v->height == r.height))
            << v->width << "x" << v->height;
    }
    const MovieCtx* skipped = FFDecoder::probe(testmedia::path("nodecoder_first.mp4").c_str(), nullptr);
    EXPECT_TRUE(skipped->video_indexes[0] == 0 && skipped->streams[0]->index == 1);
    const MovieCtx* many = FFDecoder::probe(testmedia::path("audio40.mkv").c_str(), nullptr);
    for (int i = 0; i < kMaxStreamsPerType; ++i) EXPECT_EQ(many->streams[many->audio_indexes[i]]->index, i);

    // SubRip gets a record with its text (Cli.EveryCommandAndExitCode's probe row reads the first, markup kept).
    const MovieCtx* subs = FFDecoder::probe(testmedia::path("subs.mkv").c_str(), nullptr);
    EXPECT_EQ(subs->subtitle_indexes[1], -1);
    const StreamCtx* srt = subs->streams[subs->subtitle_indexes[0]];
    ASSERT_TRUE(srt->type == STREAM_SUBTITLE && srt->subtitles.size() == 2u);
    EXPECT_TRUE(srt->subtitles[0].start == 500000 && srt->subtitles[0].end == 1500000 &&
                srt->subtitles[1].start == 2000000);
    EXPECT_EQ(srt->subtitles[1].text, "second line");

    const MovieCtx* ts = FFDecoder::probe(testmedia::path("ts_offset.ts").c_str(), nullptr);
    EXPECT_TRUE(ts->start_time > 10000000 && ts->streams[0]->start_time > 900000);
    EXPECT_EQ(ts->streams[0]->time_base, Rational(1, 90000));
}

TEST(Probe, DescribesEveryFieldFromTwoDecodedFramesAndCachesIt) {
    const std::string file = fresh_copy("h264_cfr.mp4", "describe");
    const Counts before = Counts::now();
    MovieCtx* mv = FFDecoder::probe(file.c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    EXPECT_EQ(before.since().frames, 2u);  // two video frames, no audio
    EXPECT_TRUE(mv->start_time == 0 && mv->bit_rate > 0);
    const StreamCtx* v = mv->streams[mv->video_indexes[0]];
    EXPECT_TRUE(v->index == 0 && v->start_time == 0 && v->duration == 4 * 12800 && v->time_base == Rational(1, 12800));
    EXPECT_TRUE(v->codec_pix_fmt == AV_PIX_FMT_YUV420P && v->pix_fmt == AV_PIX_FMT_YUV420P && v->frame_pix_fmt == -1);
    EXPECT_TRUE(v->frame_rate == Rational(25, 1) && v->sample_aspect_ratio == Rational(1, 1));
    const StreamCtx* a = mv->streams[mv->audio_indexes[0]];
    EXPECT_TRUE(a->index == 1 && a->channels == 2 && a->sample_rate == 48000 && a->duration == 4 * 48000);
    EXPECT_TRUE(a->channel_layout == AV_CH_LAYOUT_STEREO && a->sample_fmt == AV_SAMPLE_FMT_FLTP);

    // The same path again: the same record, from the cache, with nothing decoded.
    const Counts cached = Counts::now();
    const MovieCtx* again = nullptr;
    EXPECT_EQ(stdout_of([&] { again = getMovieInfo(file.c_str(), nullptr); }), "\"mvCtx from cache: " + file + "\"\n");
    EXPECT_TRUE(again == mv && cached.since().frames == 0u);

    // Files that cannot be opened answer null every time and are not cached.
    const std::string missing = std::string(CLIPDEC_TEST_TMP) + "/no-such-file.mp4";
    for (const std::string& bad : {missing, testmedia::path("empty.mp4"), std::string(CLIPDEC_TEST_TMP)}) {
        const MovieCtx* answers[2] = {mv, mv};
        const std::string logged = stdout_of([&] {
            for (const MovieCtx*& answer : answers) answer = FFDecoder::probe(bad.c_str(), nullptr);
        });
        EXPECT_TRUE(!answers[0] && !answers[1]) << bad;
        const std::string line = "\"can't open input file: " + bad + "\"\n";
        EXPECT_EQ(logged, line + line);
        std::lock_guard<std::mutex> lock(g_mvctx_mtx);
        EXPECT_EQ(g_mvctx_map.count(bad), 0u);
    }
    EXPECT_EQ(FFDecoder::probe(nullptr, nullptr), nullptr);
}

// A raw stream's container only estimates its length from the bit rate, so the
// stream is decoded to its end; a raised cancel stops at the frame in hand.
TEST(Probe, UnreliableLengthsAreMeasuredUnlessCancelled) {
    const std::string raw = fresh_copy("raw.h264", "measure");
    const Counts before = Counts::now();
    MovieCtx* mv = nullptr;
    const std::string text = stdout_of([&] { mv = FFDecoder::probe(raw.c_str(), nullptr); });
    ASSERT_TRUE(mv && before.since().frames == 75u);
    EXPECT_TRUE(testsupport::contains(text, "\"unreliable duration detected ...\"\n")) << text;
    EXPECT_TRUE(testsupport::contains(text, "\"** correct movie duration: 2(sec)\"\n")) << text;
    EXPECT_EQ(timestamp_to_time(mv->streams[0]->duration, mv->streams[0]->time_base), Rational(74, 25));

    std::atomic<bool> cancel{true};
    const std::string raw2 = fresh_copy("raw.h264", "cancel");
    const Counts cancelled = Counts::now();
    MovieCtx* cut = FFDecoder::probe(raw2.c_str(), &cancel);
    ASSERT_TRUE(cut && cancelled.since().frames == 2u);
    EXPECT_EQ(timestamp_to_time(cut->streams[0]->duration, cut->streams[0]->time_base), Rational(1, 25));
    EXPECT_EQ(FFDecoder::probe(raw2.c_str(), nullptr), cut);  // cached even so
}

TEST(Probe, TheRotateTagWinsOverTheMatrixUnlessZeroOrNotANumber) {
    AVFormatContext* ctx = avformat_alloc_context();
    AVStream* st = avformat_new_stream(ctx, nullptr);
    const auto tagged = [st](const char* tag) {
        av_dict_set(&st->metadata, "rotate", tag, 0);
        return get_rotation(st);
    };
    const std::pair<const char*, double> tags[] = {
        {"90", 90}, {"-90", 270}, {"359.5", -0.5}, {"720", 0}, {"0", 0}, {"12abc", 0}, {"", 0}};
    for (const auto& [tag, want] : tags) EXPECT_DOUBLE_EQ(tagged(tag), want) << tag;
    // FFmpeg reads this matrix back as -90 degrees: a quarter turn the probe gives as 90.
    uint8_t* matrix = av_stream_new_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
    av_display_rotation_set(reinterpret_cast<int32_t*>(matrix), 90);
    for (const auto& [tag, want] : {std::pair<const char*, double>{"0", 90}, {"x", 90}, {"180", 180}})
        EXPECT_DOUBLE_EQ(tagged(tag), want) << tag;
    avformat_free_context(ctx);
}

// The probe's decoding is not thrown away: the first decoder of the stream
// adopts its instance and first frames. What is parked is let go by
// mem_collection and when the movie's last decoder of a stream closes.
TEST(Probe, FirstPictureAfterAProbeDecodesNothingTwice) {
    ParkedInstances& parked = ParkedInstances::instance();
    mem_collection(0);
    const Counts before = Counts::now();
    const MovieCtx* mv = FFDecoder::probe(fresh_copy("h264_cfr.mp4", "parked").c_str(), nullptr);
    ASSERT_TRUE(mv && parked.size() == 1u);
    {
        FFDecoder dec;
        ASSERT_TRUE(dec.open(mv->streams[mv->video_indexes[0]]));
        EXPECT_EQ(parked.size(), 0u);
        EXPECT_TRUE(index_at(dec, Rational(0, 25)) == 0 && index_at(dec, Rational(1, 25)) == 1);
        EXPECT_TRUE(before.since().frames == 2u && before.since().seeks == 0u);
        EXPECT_EQ(index_at(dec, Rational(3, 1)), 75);
    }
    // Released unused: by mem_collection(0), and by closing the last decoder
    // of the movie (here of its audio stream); the picture comes all the same.
    for (const char* release : {"mem_collection", "close"}) {
        SCOPED_TRACE(release);
        const MovieCtx* again = FFDecoder::probe(fresh_copy("h264_cfr.mp4", release).c_str(), nullptr);
        ASSERT_TRUE(again && parked.size() == 1u);
        if (std::strcmp(release, "close") == 0) {
            FFDecoder audio;
            ASSERT_TRUE(audio.open(again->streams[again->audio_indexes[0]]));
            audio.close();
        } else {
            FFDecoder::memCollection(0);
        }
        EXPECT_EQ(parked.size(), 0u);
        FFDecoder dec;
        ASSERT_TRUE(dec.open(again->streams[again->video_indexes[0]]));
        EXPECT_EQ(index_at(dec, Rational(0, 1)), 0);
    }
}
