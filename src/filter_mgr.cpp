#include "filter_mgr.h"

#include <cstdio>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
}

#include "ff_compat.h"
#include "ff_ptr.h"
#include "movie_info.h"

namespace ff {

namespace {

constexpr size_t kArgsSize = 512;
constexpr size_t kErrSize = 64;

// What differs between the video and the audio graph's two ends.
struct GraphEnds {
    const char* source_filter;
    const char* sink_filter;
    const char* source_failed;  // messages, logged as they are
    const char* sink_failed;
    bool log_parse_and_config;  // the audio builder leaves those to libavfilter's own lines
};

const GraphEnds kVideoEnds = {"buffer", "buffersink", "Cannot create buffer source\n",
                              "Cannot create buffer sink\n", true};
const GraphEnds kAudioEnds = {"abuffer", "abuffersink", "Cannot create audio buffer source\n",
                              "Cannot create audio buffer sink\n", false};

// The open ends of the description, owned until the build ends, whichever
// way it ends.
struct InOutLists {
    UniqueAVFilterInOut outputs{avfilter_inout_alloc()};
    UniqueAVFilterInOut inputs{avfilter_inout_alloc()};
};

const char* error_text(int err, char (&text)[kErrSize]) {
    av_strerror(err, text, sizeof(text));
    return text;
}

// Builds source -> description -> sink into mgr's (already freed) slots. The
// graph is stored before anything can fail, so a failed build leaves it to
// the next uninit like a finished one.
int build_ends(AVFilterMgr& mgr, const GraphEnds& ends, const std::string& args, const char* descr) {
    const AVFilter* source = avfilter_get_by_name(ends.source_filter);
    const AVFilter* sink = avfilter_get_by_name(ends.sink_filter);
    InOutLists io;
    mgr.filter_graph = avfilter_graph_alloc();
    if (!source || !sink || !io.outputs || !io.inputs || !mgr.filter_graph) return AVERROR(ENOMEM);

    int ret = avfilter_graph_create_filter(&mgr.buffersrc_ctx, source, "in", args.c_str(), nullptr,
                                           mgr.filter_graph);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_ERROR, "%s", ends.source_failed);
        return ret;
    }
    // The sink takes whatever the chain produces; conversion to the caller's
    // format happens after filtering.
    ret = avfilter_graph_create_filter(&mgr.buffersink_ctx, sink, "out", nullptr, nullptr, mgr.filter_graph);
    if (ret < 0) {
        av_log(nullptr, AV_LOG_ERROR, "%s", ends.sink_failed);
        return ret;
    }

    // The lists name the description's open ends from its point of view: the
    // source feeds its input labelled "in", its output "out" feeds the sink.
    io.outputs->name = av_strdup("in");
    io.outputs->filter_ctx = mgr.buffersrc_ctx;
    io.outputs->pad_idx = 0;
    io.outputs->next = nullptr;
    io.inputs->name = av_strdup("out");
    io.inputs->filter_ctx = mgr.buffersink_ctx;
    io.inputs->pad_idx = 0;
    io.inputs->next = nullptr;
    if (!io.outputs->name || !io.inputs->name) return AVERROR(ENOMEM);

    ret = parse_filter_graph(mgr.filter_graph, descr, io.inputs, io.outputs);
    if (ret < 0) {
        char err[kErrSize];
        if (ends.log_parse_and_config)
            av_log(nullptr, AV_LOG_ERROR, "filter parse failed: %s\n", error_text(ret, err));
        return ret;
    }
    ret = avfilter_graph_config(mgr.filter_graph, nullptr);
    if (ret < 0) {
        char err[kErrSize];
        if (ends.log_parse_and_config)
            av_log(nullptr, AV_LOG_ERROR, "filter config failed: %s\n", error_text(ret, err));
        return ret;
    }
    return 0;
}

// A half-built graph has a source whose output leads nowhere, and pushing
// into it would crash inside libavfilter; so after a failure the manager keeps
// the graph (freed by the next init or uninit) but forgets both ends, which
// makes every push and pull fail cleanly.
int build_graph(AVFilterMgr& mgr, const GraphEnds& ends, const std::string& args, const char* descr) {
    const int ret = build_ends(mgr, ends, args, descr);
    if (ret < 0) {
        mgr.buffersrc_ctx = nullptr;
        mgr.buffersink_ctx = nullptr;
    }
    return ret;
}

}  // namespace

std::string video_buffer_args(const CodecContext& cc) {
    char args[kArgsSize];
    snprintf(args, sizeof(args), "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=%d/%d", cc.width,
             cc.height, cc.pix_fmt, cc.time_base_num, cc.time_base_den, cc.sar_num, cc.sar_den);
    return args;
}

std::string audio_buffer_args(const CodecContext& cc) {
    const uint64_t layout = cc.channel_layout ? cc.channel_layout : compat_default_channel_layout(cc.channels);
    // An unknown format has no name; "none" is one the source rejects cleanly.
    const char* fmt_name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(cc.sample_fmt));
    char args[kArgsSize];
    snprintf(args, sizeof(args), "time_base=%d/%d:sample_rate=%d:sample_fmt=%s:channel_layout=0x%llx",
             cc.time_base_num, cc.time_base_den, cc.sample_rate, fmt_name ? fmt_name : "none",
             static_cast<unsigned long long>(layout));
    return args;
}

AVFilterMgr::~AVFilterMgr() { uninit(); }

void AVFilterMgr::uninit() {
    buffersrc_ctx = nullptr;
    buffersink_ctx = nullptr;
    if (filter_graph) avfilter_graph_free(&filter_graph);
}

int AVFilterMgr::init_filters(const CodecContext* cc, const char* filters_descr) {
    if (!cc || !filters_descr) return AVERROR(EINVAL);
    uninit();
    switch (cc->type) {
    case STREAM_VIDEO:
        return init_video_filters(cc, filters_descr);
    case STREAM_AUDIO:
        return init_audio_filters(cc, filters_descr);
    default:
        return -1;
    }
}

int AVFilterMgr::init_video_filters(const CodecContext* cc, const char* filters_descr) {
    if (!cc || !filters_descr) return AVERROR(EINVAL);
    uninit();
    return build_graph(*this, kVideoEnds, video_buffer_args(*cc), filters_descr);
}

int AVFilterMgr::init_audio_filters(const CodecContext* cc, const char* filters_descr) {
    if (!cc || !filters_descr) return AVERROR(EINVAL);
    uninit();
    const int ret = build_graph(*this, kAudioEnds, audio_buffer_args(*cc), filters_descr);
    if (ret < 0) return ret;

    // What the chain really delivers, which may differ from the stream's
    // format once filters have negotiated; useful when a host reports odd audio.
    const AVFilterLink* link = buffersink_ctx->inputs[0];
    const char* fmt_name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(link->format));
    char layout[256];
    compat_link_channel_layout_describe(link, layout, sizeof(layout));
    av_log(nullptr, AV_LOG_INFO, "Output: srate:%dHz fmt:%s chlayout:%s\n", link->sample_rate,
           fmt_name ? fmt_name : "?", layout);
    return ret;
}

int AVFilterMgr::buffersrc_add_frame_flags(AVFrame* frame, int flags) {
    if (!buffersrc_ctx) return AVERROR(EINVAL);
    return av_buffersrc_add_frame_flags(buffersrc_ctx, frame, flags);
}

int AVFilterMgr::buffersink_get_frame(AVFrame* frame) {
    if (!buffersink_ctx || !frame) return AVERROR(EINVAL);
    return av_buffersink_get_frame(buffersink_ctx, frame);
}

}  // namespace ff
