#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <set>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include "decode_counters.h"
#include "ff_tools.h"
#include "ffdec_probe.h"
#include "ffdecoder.h"
#include "media.h"
#include "parked_instances.h"

using namespace ff;
using testmedia::LogCapture;

namespace {

// The cache is keyed by the path string, so a fresh copy is an unprobed file.
std::string fresh_copy(const char* name, const std::string& tag) {
    const std::string to = std::string(CLIPDEC_TEST_TMP) + "/" + tag + "_" + name;
    std::ifstream in(testmedia::path(name), std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    return to;
}

uint64_t frames_decoded() { return decode_counters().frames_decoded.load(); }

}  // namespace

TEST(Probe, DescribesVideoAndAudioFromTwoDecodedFrames) {
    const std::string file = fresh_copy("h264_cfr.mp4", "describe");
    const uint64_t before = frames_decoded();
    MovieCtx* mv = FFDecoder::probe(file.c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    EXPECT_EQ(frames_decoded() - before, 2u);  // two video frames, no audio
    EXPECT_STREQ(mv->path, file.c_str());
    EXPECT_EQ(mv->start_time, 0);
    EXPECT_EQ(mv->duration, 4000000);
    EXPECT_GT(mv->bit_rate, 0);
    ASSERT_EQ(mv->nb_streams, 2);
    ASSERT_EQ(mv->nb_video, 1);
    ASSERT_EQ(mv->nb_audio, 1);
    EXPECT_EQ(mv->nb_subtitle, 0);

    const StreamCtx* v = mv->streams[mv->video_indexes[0]];
    EXPECT_EQ(v->type, STREAM_VIDEO);
    EXPECT_EQ(v->index, 0);
    EXPECT_EQ(v->movie, mv);
    EXPECT_EQ(v->time_base, Rational(1, 12800));
    EXPECT_EQ(v->duration, 4 * 12800);
    EXPECT_EQ(v->start_time, 0);
    EXPECT_EQ(v->width, 320);
    EXPECT_EQ(v->height, 240);
    EXPECT_EQ(v->codec_pix_fmt, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(v->frame_pix_fmt, -1);
    EXPECT_EQ(v->pix_fmt, AV_PIX_FMT_YUV420P);
    EXPECT_FALSE(v->still_image);
    EXPECT_EQ(v->frame_rate, Rational(25, 1));
    EXPECT_EQ(v->sample_aspect_ratio, Rational(1, 1));
    EXPECT_EQ(v->rotation, 0);

    const StreamCtx* a = mv->streams[mv->audio_indexes[0]];
    EXPECT_EQ(a->type, STREAM_AUDIO);
    EXPECT_EQ(a->index, 1);
    EXPECT_EQ(a->channels, 2);
    EXPECT_EQ(a->channel_layout, AV_CH_LAYOUT_STEREO);
    EXPECT_EQ(a->sample_rate, 48000);
    EXPECT_EQ(a->sample_fmt, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(a->duration, 4 * 48000);

    // The same path again: the same record, from the cache, with nothing decoded.
    LogCapture log;
    const uint64_t cached = frames_decoded();
    EXPECT_EQ(getMovieInfo(file.c_str(), nullptr), mv);
    EXPECT_EQ(frames_decoded(), cached);
    EXPECT_EQ(log.take(), "\"mvCtx from cache: " + file + "\"\n");
}

TEST(Probe, FilesThatCannotBeOpenedAnswerNullAndAreNotCached) {
    const std::string missing = std::string(CLIPDEC_TEST_TMP) + "/no-such-file.mp4";
    for (const std::string& file : {missing, testmedia::path("empty.mp4"), std::string(CLIPDEC_TEST_TMP)}) {
        LogCapture log;
        EXPECT_EQ(FFDecoder::probe(file.c_str(), nullptr), nullptr) << file;
        EXPECT_EQ(FFDecoder::probe(file.c_str(), nullptr), nullptr) << file;
        const std::string line = "\"can't open input file: " + file + "\"\n";
        EXPECT_EQ(log.take(), line + line);
        std::lock_guard<std::mutex> lock(g_mvctx_mtx);
        EXPECT_EQ(g_mvctx_map.count(file), 0u);
    }
    EXPECT_EQ(FFDecoder::probe(nullptr, nullptr), nullptr);
    // Random bytes and a truncated file still open; whatever they describe is complete.
    for (const char* name : {"random.bin", "truncated.mp4"}) {
        MovieCtx* mv = FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
        ASSERT_NE(mv, nullptr) << name;
        for (int i = 0; i < mv->nb_streams; ++i) EXPECT_EQ(mv->streams[i]->movie, mv);
    }
}

TEST(Probe, IndexListsPointIntoStreamsEvenPastSkippedStreams) {
    // A TTML track (no decoder) comes before the video.
    MovieCtx* mv = FFDecoder::probe(testmedia::path("nodecoder_first.mp4").c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    ASSERT_EQ(mv->nb_streams, 1);
    ASSERT_EQ(mv->nb_video, 1);
    EXPECT_EQ(mv->video_indexes[0], 0);
    EXPECT_EQ(mv->streams[mv->video_indexes[0]]->index, 1);

    // SubRip gets a record with its text; ASS is listed without one.
    MovieCtx* subs = FFDecoder::probe(testmedia::path("subs.mkv").c_str(), nullptr);
    ASSERT_NE(subs, nullptr);
    ASSERT_EQ(subs->nb_subtitle, 2);
    EXPECT_EQ(subs->nb_streams, 2);
    EXPECT_EQ(subs->subtitle_indexes[1], -1);
    const StreamCtx* srt = subs->streams[subs->subtitle_indexes[0]];
    EXPECT_EQ(srt->type, STREAM_SUBTITLE);
    ASSERT_EQ(srt->subtitles.size(), 2u);
    EXPECT_EQ(srt->subtitles[0].start, 500000);
    EXPECT_EQ(srt->subtitles[0].end, 1500000);
    EXPECT_EQ(srt->subtitles[0].text, "<i>first</i> line");
    EXPECT_EQ(srt->subtitles[1].start, 2000000);
    EXPECT_EQ(srt->subtitles[1].text, "second line");

    // Forty audio streams: records stop at the array's size, lists at theirs.
    MovieCtx* many = FFDecoder::probe(testmedia::path("audio40.mkv").c_str(), nullptr);
    ASSERT_NE(many, nullptr);
    EXPECT_EQ(many->nb_streams, kMaxMovieStreams);
    EXPECT_EQ(many->nb_audio, kMaxStreamsPerType);
    for (int i = 0; i < kMaxStreamsPerType; ++i) EXPECT_EQ(many->streams[many->audio_indexes[i]]->index, i);
    EXPECT_EQ(many->streams[31]->index, 31);
}

TEST(Probe, StillPicturesAndMeasuredDurations) {
    MovieCtx* png = FFDecoder::probe(testmedia::path("still.png").c_str(), nullptr);
    ASSERT_NE(png, nullptr);
    ASSERT_EQ(png->nb_video, 1);
    EXPECT_TRUE(png->streams[0]->still_image);
    EXPECT_EQ(png->nb_audio, 0);
    EXPECT_EQ(png->duration, 40000);

    // Cover art next to audio: a still stream, and the movie keeps the audio's length.
    MovieCtx* mp3 = FFDecoder::probe(testmedia::path("mp3_cover.mp3").c_str(), nullptr);
    ASSERT_NE(mp3, nullptr);
    ASSERT_EQ(mp3->nb_video, 1);
    ASSERT_EQ(mp3->nb_audio, 1);
    EXPECT_TRUE(mp3->streams[mp3->video_indexes[0]]->still_image);
    EXPECT_NEAR(mp3->duration, 3030000, 30000);

    // Raw H.264: the container only estimates its length from the bit rate, so
    // the stream is decoded to its end and the movie corrected from it.
    const std::string raw = fresh_copy("raw.h264", "measure");
    LogCapture log;
    const uint64_t before = frames_decoded();
    MovieCtx* mv = FFDecoder::probe(raw.c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    EXPECT_EQ(frames_decoded() - before, 75u);
    const std::string text = log.take();
    EXPECT_NE(text.find("\"unreliable duration detected ...\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\"** correct movie duration: 2(sec)\"\n"), std::string::npos) << text;
    const StreamCtx* v = mv->streams[0];
    // The last frame (index 74) starts at 74/25 s.
    EXPECT_EQ(timestamp_to_time(v->duration, v->time_base), Rational(74, 25));
    EXPECT_EQ(mv->duration, 2960000);

    // Cancelled before it starts, the measurement stops at the frame in hand.
    std::atomic<bool> cancel{true};
    const std::string raw2 = fresh_copy("raw.h264", "cancel");
    const uint64_t cancelled_before = frames_decoded();
    MovieCtx* cut = FFDecoder::probe(raw2.c_str(), &cancel);
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(frames_decoded() - cancelled_before, 2u);
    EXPECT_EQ(timestamp_to_time(cut->streams[0]->duration, cut->streams[0]->time_base), Rational(1, 25));
    EXPECT_EQ(FFDecoder::probe(raw2.c_str(), nullptr), cut);  // cached even so

    // ADTS audio: measured the same way.
    MovieCtx* aac = FFDecoder::probe(testmedia::path("adts.aac").c_str(), nullptr);
    ASSERT_NE(aac, nullptr);
    EXPECT_NEAR(aac->duration, 3000000, 30000);
}

TEST(Probe, StartTimesAndRotation) {
    MovieCtx* ts = FFDecoder::probe(testmedia::path("ts_offset.ts").c_str(), nullptr);
    ASSERT_NE(ts, nullptr);
    EXPECT_GT(ts->start_time, 10000000);
    EXPECT_EQ(ts->streams[0]->time_base, Rational(1, 90000));
    EXPECT_GT(ts->streams[0]->start_time, 900000);

    // The file's display matrix gives the angle (the tag "rotate" of the
    // writing tool is not kept by the demuxer).
    MovieCtx* rotated = FFDecoder::probe(testmedia::path("rotated.mp4").c_str(), nullptr);
    ASSERT_NE(rotated, nullptr);
    EXPECT_EQ(rotated->streams[0]->rotation, 270);
    EXPECT_EQ(rotated->streams[0]->width, 320);

    // The "rotate" tag wins over the matrix unless it is "0" or not a number.
    AVFormatContext* ctx = avformat_alloc_context();
    AVStream* st = avformat_new_stream(ctx, nullptr);
    const std::pair<const char*, double> tags[] = {
        {"90", 90}, {"-90", 270}, {"359.5", -0.5}, {"720", 0}, {"0", 0}, {"12abc", 0}, {"", 0}};
    for (const auto& [tag, want] : tags) {
        av_dict_set(&st->metadata, "rotate", tag, 0);
        EXPECT_DOUBLE_EQ(get_rotation(st), want) << tag;
    }
    auto* matrix = reinterpret_cast<int32_t*>(av_stream_new_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
    av_display_rotation_set(matrix, 90);
    // The angle is the negated matrix angle, brought into [-0.9, 359.1).
    const double from_matrix = std::fmod(360 - av_display_rotation_get(matrix), 360);
    EXPECT_DOUBLE_EQ(std::fabs(from_matrix - 180), 90);
    av_dict_set(&st->metadata, "rotate", "0", 0);
    EXPECT_DOUBLE_EQ(get_rotation(st), from_matrix);
    av_dict_set(&st->metadata, "rotate", "x", 0);
    EXPECT_DOUBLE_EQ(get_rotation(st), from_matrix);
    av_dict_set(&st->metadata, "rotate", "180", 0);
    EXPECT_DOUBLE_EQ(get_rotation(st), 180);
    avformat_free_context(ctx);
}


// The probe's decoding is not thrown away: the first decoder of the stream
// adopts its instance and first frames. What is parked is let go by
// mem_collection and when the movie's last decoder of a stream closes.
TEST(Probe, FirstPictureAfterAProbeDecodesNothingTwice) {
    ParkedInstances& parked = ParkedInstances::instance();
    mem_collection(0);
    const uint64_t before = frames_decoded(), seeks = decode_counters().seeks.load();
    const MovieCtx* mv = FFDecoder::probe(fresh_copy("h264_cfr.mp4", "parked").c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    EXPECT_EQ(frames_decoded() - before, 2u);
    EXPECT_EQ(parked.size(), 1u);
    {
        FFDecoder dec;
        ASSERT_TRUE(dec.open(mv->streams[mv->video_indexes[0]]));
        EXPECT_EQ(parked.size(), 0u);
        for (int index : {0, 1}) {
            const auto picture = dec.getVideoFrame(RequireVideoFrame{Rational(index, 25), PF_RGBA, 1, nullptr});
            ASSERT_NE(picture, nullptr);
            EXPECT_EQ(testmedia::picture_index(*picture), index);
        }
        EXPECT_EQ(frames_decoded() - before, 2u);
        EXPECT_EQ(decode_counters().seeks.load(), seeks);
        EXPECT_EQ(testmedia::picture_index(*dec.getVideoFrame(RequireVideoFrame{Rational(3, 1), PF_RGBA, 1, nullptr})),
                  75);
    }

    // Released unused: by mem_collection(0), and by closing the last decoder
    // of the movie (here of its audio stream); the picture comes all the same.
    for (const char* release : {"mem_collection", "close"}) {
        SCOPED_TRACE(release);
        const MovieCtx* again = FFDecoder::probe(fresh_copy("h264_cfr.mp4", release).c_str(), nullptr);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(parked.size(), 1u);
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
        const auto picture = dec.getVideoFrame(RequireVideoFrame{Rational(0, 1), PF_RGBA, 1, nullptr});
        ASSERT_NE(picture, nullptr);
        EXPECT_EQ(testmedia::picture_index(*picture), 0);
    }
}
