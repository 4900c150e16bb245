// The decoder core over the scheduler and its tasks: the right frame for every
// timestamp in both rounding modes, shared decoding between decoders of one
// stream, conversions, and the decoder's life cycle.
#include <gtest/gtest.h>

#include <condition_variable>
#include <random>
#include <thread>

extern "C" {
#include <libavutil/imgutils.h>
}

#include "decode_counters.h"
#include "support.h"
#include "ffdec_instance.h"
#include "ff_ptr.h"
#include "ffdecoder_private.h"
#include "scheduler.h"

using namespace ff;
using testsupport::VideoUnderTest;

namespace {

std::shared_ptr<AVFrame> frame_after(FFDecoderPrivate& d, long long t) {
    return g_decoder_mgr.pool_of(d.stream)->do_working(t, nullptr, true, d.id, d.name);
}

// A reusable barrier for threads reading in lockstep.
class Barrier {
public:
    explicit Barrier(int n) : count_(n), waiting_(0), generation_(0) {}
    void arrive_and_wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const int gen = generation_;
        if (++waiting_ == count_) {
            waiting_ = 0;
            ++generation_;
            cv_.notify_all();
        } else {
            cv_.wait(lock, [&] { return gen != generation_; });
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int count_, waiting_, generation_;
};

}  // namespace

class DecoderExactness : public testing::TestWithParam<const char*> {};

TEST_P(DecoderExactness, EveryTimestampGivesTheReferenceFrame) {
    const VideoUnderTest v = testsupport::load_video(GetParam());
    ASSERT_NE(v.stream, nullptr);
    ASSERT_GT(v.reference.size(), 10u);
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(v.stream));

    const long long second = v.stream->time_base.den / std::max<long long>(v.stream->time_base.num, 1);
    std::vector<long long> times;
    std::mt19937_64 rng(20261123);
    std::uniform_int_distribution<long long> pick(v.reference.front().pts - second, v.reference.back().pts + second);
    for (int i = 0; i < 150; ++i) times.push_back(pick(rng));
    for (size_t i = 0; i < v.reference.size(); i += 5) {
        for (long long delta : {-1LL, 0LL, 1LL}) times.push_back(v.reference[i].pts + delta);
    }
    times.push_back(v.reference.front().pts - 10 * second);
    times.push_back(v.reference.back().pts + 10 * second);

    for (long long t : times) {
        const auto& down = testsupport::expect_down(v, t);
        const auto got = d.get_frame(t, nullptr);
        ASSERT_NE(got, nullptr) << v.name << " t=" << t;
        ASSERT_EQ(testmedia::frame_index(got.get()), down.index) << v.name << " down t=" << t;
        ASSERT_EQ(got->pts, down.pts) << v.name << " t=" << t;

        const auto& next = testsupport::expect_next(v, t);
        const auto after = frame_after(d, t);
        ASSERT_NE(after, nullptr) << v.name << " t=" << t;
        ASSERT_EQ(testmedia::frame_index(after.get()), next.index) << v.name << " next t=" << t;
    }
    d.close();
}

INSTANTIATE_TEST_SUITE_P(AllVideos, DecoderExactness,
                         testing::Values("h264_cfr.mp4", "h264_23976.mp4", "vfr.mkv", "ts_offset.ts",
                                         "vp9_opus.webm", "rotated.mp4", "subs.mkv", "nodecoder_first.mp4"));

TEST(DecoderCore, CachedAnswersRunNoJobAndNearTargetsDecodeForward) {
    const VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(v.stream));
    ASSERT_NE(d.get_frame(v.reference[10].pts, nullptr), nullptr);

    auto& counters = decode_counters();
    const uint64_t jobs = counters.jobs, hits = counters.cache_hits, seeks = counters.seeks;
    EXPECT_EQ(testmedia::frame_index(d.get_frame(v.reference[10].pts, nullptr).get()), 10);
    EXPECT_EQ(counters.jobs.load(), jobs);
    EXPECT_EQ(counters.cache_hits.load(), hits + 1);

    const uint64_t frames = counters.frames_decoded;
    EXPECT_EQ(testmedia::frame_index(d.get_frame(v.reference[45].pts, nullptr).get()), 45);
    EXPECT_EQ(counters.seeks.load(), seeks);
    EXPECT_EQ(counters.frames_decoded.load() - frames, 35u);

    // The next frame after the last delivered, to the end, and the last again.
    ASSERT_NE(d.get_frame(v.reference[98].pts, nullptr), nullptr);
    EXPECT_EQ(testmedia::frame_index(d.get_next_frame(nullptr, false).get()), 99);
    EXPECT_EQ(d.get_next_frame(nullptr, false), nullptr);
    EXPECT_EQ(testmedia::frame_index(d.get_next_frame(nullptr, true).get()), 99);
}

TEST(DecoderCore, DecodersOfOneStreamShareTheirWork) {
    const VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    ASSERT_EQ(v.reference.size(), 100u);
    for (int decoders : {1, 2, 8}) {
        std::vector<std::unique_ptr<FFDecoderPrivate>> all;
        for (int i = 0; i < decoders; ++i) {
            all.push_back(std::make_unique<FFDecoderPrivate>());
            ASSERT_TRUE(all.back()->open(v.stream));
        }
        const uint64_t before = decode_counters().frames_decoded;
        Barrier lockstep(decoders);
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < decoders; ++i) {
            threads.emplace_back([&, i] {
                for (const auto& ref : v.reference) {
                    lockstep.arrive_and_wait();
                    const auto f = all[i]->get_frame(ref.pts, nullptr);
                    if (!f || testmedia::frame_index(f.get()) != ref.index) ++wrong;
                }
            });
        }
        for (auto& t : threads) t.join();
        const uint64_t decoded = decode_counters().frames_decoded - before;
        EXPECT_EQ(wrong.load(), 0) << decoders << " decoders";
        // Each frame is decoded about once, whatever the number of readers.
        EXPECT_LE(decoded, 110u) << decoders << " decoders";
        std::printf("%d decoders in lockstep: %llu frames decoded\n", decoders, static_cast<unsigned long long>(decoded));
        for (auto& d : all) d->close();
        EXPECT_EQ(g_decoder_mgr.pool_of(v.stream)->worker_count(), 0u);
    }
}

TEST(DecoderCore, PicturesAreScaledIntoPooledMemory) {
    const VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(v.stream));
    const auto frame = d.get_frame(v.reference[50].pts, nullptr);
    ASSERT_NE(frame, nullptr);

    RequireVideoFrame req;
    req.format = PF_RGBA;
    for (int divider : {0, 1}) {
        req.divider = divider;
        const auto p = d.convert_to_dst_frame(frame.get(), req);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->width, 320);
        EXPECT_EQ(p->height, 240);
        EXPECT_EQ(p->format, AV_PIX_FMT_RGBA);
        EXPECT_EQ(p->divider, divider);
        EXPECT_EQ(p->pts, 2000000);
        EXPECT_EQ(p->src_width, 320);
        EXPECT_EQ(testmedia::picture_index(*p), 50);
        EXPECT_EQ(p->data[0], p->buffer);
        EXPECT_EQ(p->linesize[0] % 32, 0);
    }
    req.divider = 2;
    req.format = PF_NV12;
    const auto nv12 = d.convert_to_dst_frame(frame.get(), req);
    ASSERT_NE(nv12, nullptr);
    EXPECT_EQ(nv12->width, 160);
    EXPECT_EQ(nv12->height, 120);
    EXPECT_NE(nv12->data[1], nullptr);

    // Sizes for big streams: width to a multiple of 16, height even.
    StreamCtx big;
    big.type = STREAM_VIDEO;
    big.time_base = Rational(1, 25);
    UniqueAVFrame source = make_frame();
    const std::pair<std::pair<int, int>, std::pair<int, int>> sizes[] = {
        {{1920, 1080}, {480, 270}}, {{1280, 720}, {432, 240}}};
    const int dividers[] = {4, 3};
    for (int i = 0; i < 2; ++i) {
        big.width = sizes[i].first.first;
        big.height = sizes[i].first.second;
        av_frame_unref(source.get());
        source->width = big.width;
        source->height = big.height;
        source->format = AV_PIX_FMT_YUV420P;
        ASSERT_GE(av_frame_get_buffer(source.get(), 32), 0);
        FFDecoderPrivate conv;
        conv.stream = &big;
        req.format = PF_YUV420P;
        req.divider = dividers[i];
        const auto p = conv.convert_to_dst_frame(source.get(), req);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->width, sizes[i].second.first);
        EXPECT_EQ(p->height, sizes[i].second.second);
        conv.stream = nullptr;
        sws_freeContext(conv.sws);
        conv.sws = nullptr;
    }
    // No scaler for the format pair: nothing, and nothing written.
    req.format = PF_NONE;
    EXPECT_EQ(d.convert_to_dst_frame(frame.get(), req), nullptr);
}

TEST(DecoderCore, AudioIsResampledExactlyAndTheResamplerReused) {
    MovieCtx* mv = FFDecoder::probe(testmedia::path("pcm_s16.wav").c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(mv->streams[0]));
    Instance source;
    ASSERT_TRUE(source.open(testmedia::path("pcm_s16.wav").c_str(), 0));
    UniqueAVPacket pkt = make_packet();
    UniqueAVFrame frame = make_frame();

    RequireAudioFrame s16;
    s16.format = SF_S16;
    s16.sample_rate = 48000;
    s16.channels = 2;
    RequireAudioFrame flt = s16;
    flt.format = SF_FLT;
    int64_t n = 0;
    SwrContext* first = nullptr;
    for (int k = 0; k < 10 && source.get_frame(pkt.get(), frame.get()) >= 0; ++k) {
        const auto same = d.convert_to_dst_aframe(frame.get(), s16);
        ASSERT_NE(same, nullptr);
        if (!first) first = d.swr;
        EXPECT_EQ(d.swr, first);  // identical requests keep the resampler
        ASSERT_EQ(same->nb_samples, frame->nb_samples);
        const auto* s = reinterpret_cast<const int16_t*>(same->data[0]);
        for (int i = 0; i < same->nb_samples; ++i) {
            ASSERT_EQ(s[2 * i], testmedia::ramp_sample(n + i, 0));
            ASSERT_EQ(s[2 * i + 1], testmedia::ramp_sample(n + i, 1));
        }
        n += same->nb_samples;
    }
    ASSERT_GE(source.get_frame(pkt.get(), frame.get()), 0);
    const auto f = d.convert_to_dst_aframe(frame.get(), flt);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(d.swr_dst_format, SF_FLT);
    EXPECT_FLOAT_EQ(reinterpret_cast<const float*>(f->data[0])[0], testmedia::ramp_sample(n, 0) / 32768.0f);

    RequireAudioFrame slower = flt;
    slower.sample_rate = 44100;
    ASSERT_GE(source.get_frame(pkt.get(), frame.get()), 0);
    const auto resampled = d.convert_to_dst_aframe(frame.get(), slower);
    ASSERT_NE(resampled, nullptr);
    EXPECT_EQ(d.swr_dst_rate, 44100);
    EXPECT_EQ(resampled->sample_rate, 44100);

    RequireAudioFrame none = flt;
    none.format = SF_NONE;
    EXPECT_EQ(d.convert_to_dst_aframe(frame.get(), none), nullptr);
    EXPECT_EQ(d.swr, nullptr);
}

TEST(DecoderCore, FiltersInstallOnlyOnVideoAndAudio) {
    MovieCtx* mv = FFDecoder::probe(testmedia::path("subs.mkv").c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    FFDecoderPrivate video, subtitle;
    ASSERT_TRUE(video.open(mv->streams[mv->video_indexes[0]]));
    EXPECT_TRUE(video.open_filter("hflip"));
    EXPECT_NE(video.filter, nullptr);
    EXPECT_FALSE(video.open_filter("no_such_filter"));
    EXPECT_EQ(video.filter, nullptr);

    ASSERT_TRUE(subtitle.open(mv->streams[mv->subtitle_indexes[0]]));
    testmedia::LogCapture log;
    EXPECT_FALSE(subtitle.open_filter("null"));
    EXPECT_NE(log.take().find("\"no support for stream->type='2'\"\n"), std::string::npos);
}
