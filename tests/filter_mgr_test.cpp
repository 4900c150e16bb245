// The filter graphs: source arguments, building and rebuilding, refusals and
// failures with their reports, and frames through video chains (pictures
// that show their index). Audio through filters is the decoder tests' part.

#include <cstdarg>

#include "ff_compat.h"  // and with it FFmpeg's log, pixel and sample formats
#include "ffmpeg_error.h"
#include "filter_mgr.h"
#include "support.h"

using namespace ff;

namespace {

// What is logged to FFmpeg's own log without a context (where the builders
// write, and libavfilter some of its lines), kept off stderr while a capture lives.
std::string g_avlog;
void av_log_capture(void* avcl, int level, const char* fmt, va_list vl) {
    if (avcl || level > AV_LOG_INFO) return;
    char line[1024];
    vsnprintf(line, sizeof(line), fmt, vl);
    g_avlog += line;
}
struct AvLogCapture {
    AvLogCapture() { g_avlog.clear(), av_log_set_callback(av_log_capture); }
    ~AvLogCapture() { av_log_set_callback(av_log_default_callback); }
};

// What the decoder core fills in for the video of h264_cfr.mp4.
const CodecContext kVideo{STREAM_VIDEO, 1, 12800, AV_PIX_FMT_YUV420P, 320, 240, 1, 1};
CodecContext audio_cc(int sample_fmt, uint64_t layout, int channels) {
    return {STREAM_AUDIO, 1, 48000, -1, 0, 0, 0, 0, sample_fmt, layout, channels, 48000};
}
const CodecContext kStereo = audio_cc(AV_SAMPLE_FMT_FLTP, 3, 2);

// "<source name>/<filter> <sink name>/<filter>" of a built graph.
std::string ends(const AVFilterMgr& mgr) {
    if (!mgr.buffersrc_ctx || !mgr.buffersink_ctx) return "<none>";
    return std::string(mgr.buffersrc_ctx->name) + "/" + mgr.buffersrc_ctx->filter->name + " " +
           mgr.buffersink_ctx->name + "/" + mgr.buffersink_ctx->filter->name;
}

}  // namespace

// Subtitle and unknown streams get no graph; a refused call changes nothing;
// the builders rebuild over the graph in place; failures are reported; and
// uninit frees even a half-built graph.
TEST(FilterBuild, RefusalsRebuildsFailuresAndUninit) {
    // A source without a known layout takes the default one of its channel count.
    EXPECT_TRUE(testsupport::contains(audio_buffer_args(audio_cc(AV_SAMPLE_FMT_S16, 0, 6)), ":channel_layout=0x3f"));
    AvLogCapture avlog;
    AVFilterMgr mgr;  // reused throughout: the sanitizer build reports any graph left behind
    for (const int type : {static_cast<int>(STREAM_SUBTITLE), 7}) {
        CodecContext cc = kVideo;
        cc.type = type;
        EXPECT_EQ(mgr.init_filters(&cc, "null"), -1) << type;
    }
    EXPECT_TRUE(ends(mgr) == "<none>" && !mgr.filter_graph);
    ASSERT_EQ(mgr.init_filters(&kVideo, "null"), 0);
    const AVFilterGraph* graph = mgr.filter_graph;
    const AVFilterContext* src = mgr.buffersrc_ctx;
    for (int ret : {mgr.init_filters(nullptr, "null"), mgr.init_filters(&kVideo, nullptr),
                    mgr.init_video_filters(nullptr, "null"), mgr.init_audio_filters(&kVideo, nullptr)})
        EXPECT_EQ(ret, AVERROR(EINVAL));
    EXPECT_TRUE(mgr.filter_graph == graph && mgr.buffersrc_ctx == src);

    ASSERT_EQ(mgr.init_video_filters(&kVideo, "scale=160:120"), 0);
    g_avlog.clear();
    ASSERT_EQ(mgr.init_audio_filters(&kStereo, "atempo=2.0"), 0);
    // atempo picks its own sample format; the line reports what it chose.
    const auto chosen = static_cast<AVSampleFormat>(mgr.buffersink_ctx->inputs[0]->format);
    EXPECT_EQ(g_avlog, std::string("Output: srate:48000Hz fmt:") + av_get_sample_fmt_name(chosen) + " chlayout:stereo\n");

    int ret = 0;
    auto fail = [&](const CodecContext& cc, const char* descr) {
        g_avlog.clear();
        ret = mgr.init_filters(&cc, descr);
        EXPECT_LT(ret, 0) << descr;
        return g_avlog;
    };
    std::string log = fail(kVideo, "nosuchfilter");
    // libavfilter adds its own line naming the filter; ours follows it.
    EXPECT_NE(log.find("filter parse failed: " + std::string(ffmpeg_error(ret)) + "\n"), std::string::npos) << log;
    // The half-built graph stays, but nothing can be pushed into it.
    EXPECT_TRUE(mgr.filter_graph && !mgr.buffersrc_ctx && !mgr.buffersink_ctx);
    UniqueAVFrame frame = make_frame();
    EXPECT_TRUE(mgr.buffersrc_add_frame_flags(frame.get(), 0) == AVERROR(EINVAL) && mgr.buffersink_get_frame(frame.get()) == AVERROR(EINVAL));
    // The audio builder leaves parse failures to libavfilter's own lines.
    log = fail(kStereo, "nosuchfilter");
    EXPECT_TRUE(log.find("nosuchfilter") != std::string::npos && log.find("filter parse failed") == std::string::npos)
        << log;
    EXPECT_EQ(fail(kVideo, "crop=640:480").rfind("filter config failed: ", 0), 0u);  // larger than the picture
    EXPECT_EQ(fail({STREAM_VIDEO, 1, 12800, -1, 320, 240, 1, 1}, "null"), "Cannot create buffer source\n");
    EXPECT_EQ(fail(audio_cc(-1, 3, 2), "anull"), "Cannot create audio buffer source\n");
    mgr.uninit();
    EXPECT_TRUE(!mgr.filter_graph && !mgr.buffersrc_ctx && !mgr.buffersink_ctx);
    mgr.uninit();  // twice is harmless
}

// Each pushed frame is the cache's: it must come back untouched and let go of.
// The descriptions connect with or without the [in] and [out] labels.
TEST(FilterVideo, ChainsGiveTheirPictureFailedPushesKeepItAndEofDrains) {
    // Non-geometric chains keep the picture, so the frame still shows its index.
    const struct { const char* descr; int width, height; bool same_picture; } chains[] = {
        {"[in]scale=160:120[out]", 160, 120, false}, {"null", 320, 240, true}, {"[in]format=yuv420p[out]", 320, 240, true},
        {"hflip,hflip", 320, 240, true}, {"hflip", 320, 240, false}};
    AvLogCapture avlog;
    AVFilterMgr mgr;  // rebuilt for each chain: the sanitizer build reports any graph left behind
    for (const auto& c : chains) {
        testsupport::InstanceDecoding dec("h264_cfr.mp4");
        ASSERT_EQ(mgr.init_filters(&kVideo, c.descr), 0) << c.descr;
        ASSERT_EQ(ends(mgr), "in/buffer out/buffersink");
        for (int i = 0; i < 12; ++i) {
            std::shared_ptr<AVFrame> f = dec.next_shared();
            ASSERT_TRUE(f);
            const std::shared_ptr<AVFrame> cached = f;
            const std::string digest = testmedia::picture_digest(cached.get());
            ASSERT_EQ(excute_filting(&mgr, f), 0) << c.descr << " " << i;
            EXPECT_TRUE(f->width == c.width && f->height == c.height && f->pts == cached->pts && f->format == AV_PIX_FMT_YUV420P &&
                        (!c.same_picture || testmedia::frame_index(f.get()) == i)) << c.descr << " " << i;
            EXPECT_TRUE(f != cached && cached.use_count() == 1) << c.descr;  // a fresh frame; input let go
            f.reset();
            // A push that moved the input's buffers out would leave it without size or format.
            EXPECT_EQ(testmedia::picture_digest(cached.get()), digest) << c.descr;
        }
    }
    EXPECT_EQ(g_avlog, "");

    // Without a graph, and with one the frame does not fit, a push fails,
    // logs, and leaves the frame; at the end of the input the sink drains.
    mgr.uninit();
    testsupport::InstanceDecoding dec("h264_cfr.mp4");
    std::shared_ptr<AVFrame> f = dec.next_shared();
    ASSERT_TRUE(f);
    const AVFrame* input = f.get();
    int ret = 0;
    // What one push logs; its result lands in `ret`.
    auto push = [&](AVFilterMgr* into, std::shared_ptr<AVFrame>& frame) {
        return testsupport::stdout_of([&] { ret = excute_filting(into, frame); });
    };
    const std::string line = "\"Error while feeding the filtergraph: err=";
    const std::string einval = line + ffmpeg_error(AVERROR(EINVAL)) + "\"\n";
    EXPECT_EQ(push(nullptr, f), einval);
    EXPECT_TRUE(ret == AVERROR(EINVAL) && f.get() == input);
    EXPECT_EQ(push(&mgr, f), einval);
    EXPECT_TRUE(ret == AVERROR(EINVAL) && f.get() == input);
    // A frame that does not match the source: libavfilter refuses it.
    ASSERT_EQ(mgr.init_filters(&kStereo, "anull"), 0);
    EXPECT_EQ(push(&mgr, f).rfind(line, 0), 0u);
    EXPECT_TRUE(ret < 0 && f.get() == input);
    ASSERT_EQ(mgr.init_filters(&kVideo, "null"), 0);
    f = dec.next_shared();
    EXPECT_EQ(push(&mgr, f), "");
    ASSERT_EQ(ret, 0);
    std::shared_ptr<AVFrame> end;
    EXPECT_EQ(push(&mgr, end), "\"[filter] buffersink error: " + std::string(ffmpeg_error(AVERROR_EOF)) + "\"\n");
    EXPECT_TRUE(ret == AVERROR_EOF && end && end->data[0] == nullptr);
}
