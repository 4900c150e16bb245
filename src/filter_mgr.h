// A decoder's optional FFmpeg filter chain: built from a textual description
// for one stream, fed with decoded frames, drained one filtered frame at a
// time. Internal to the library; the decoder core owns at most one manager and
// uses it under its request mutex, so a manager has no lock of its own.
//
// The builders report through FFmpeg's own log (av_log without a context),
// not through the host's bridge: their messages sit next to the ones
// libavfilter itself prints while parsing and configuring the same graph.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavutil/frame.h>
}

namespace ff {

// What the graph's source is told about the frames it will receive. Filled
// from the stream's description; only the group of `type` is read.
struct CodecContext {
    int type = 0;            // 0 video, 1 audio (StreamType values)
    int time_base_num = 0;   // low 32 bits of the stream's time base
    int time_base_den = 0;

    // video
    int pix_fmt = -1;        // AVPixelFormat of the decoded frames
    int width = 0;
    int height = 0;
    int sar_num = 0;
    int sar_den = 0;

    // audio
    int sample_fmt = -1;        // AVSampleFormat of the decoded frames
    uint64_t channel_layout = 0; // channel mask; 0 when unknown (the count's default is used)
    int channels = 0;
    int sample_rate = 0;
};

class AVFilterMgr {
public:
    AVFilterMgr() = default;
    ~AVFilterMgr();
    AVFilterMgr(const AVFilterMgr&) = delete;
    AVFilterMgr& operator=(const AVFilterMgr&) = delete;

    // Frees the current graph, if any, and builds one for `cc` from
    // `filters_descr`: 0 on success, -1 for a stream type other than video or
    // audio, else a negative FFmpeg code. A null `cc` or `filters_descr`
    // gives AVERROR(EINVAL) and leaves the manager exactly as it was.
    //
    // The description's open input joins the source and its open output the
    // sink, whether they are labelled "[in]" / "[out]" or left unlabelled.
    // After a failure the half-built graph stays until the next init, uninit
    // or destruction, but both context fields are null: pushes and pulls fail
    // with AVERROR(EINVAL) until a build succeeds.
    int init_filters(const CodecContext* cc, const char* filters_descr);
    // The two builders behind init_filters; each frees a previous graph first.
    // Same results and argument checks (without the -1 case).
    int init_video_filters(const CodecContext* cc, const char* filters_descr);
    int init_audio_filters(const CodecContext* cc, const char* filters_descr);

    // av_buffersrc_add_frame_flags / av_buffersink_get_frame on this graph;
    // AVERROR(EINVAL) when there is no source or sink. A null `frame` pushed
    // marks the end of input, after which the sink drains.
    int buffersrc_add_frame_flags(AVFrame* frame, int flags);
    int buffersink_get_frame(AVFrame* frame);

    // Frees the graph (and with it both contexts); the manager is empty again.
    void uninit();

    AVFilterContext* buffersrc_ctx = nullptr;   // "buffer"/"abuffer" named "in", owned by the graph
    AVFilterContext* buffersink_ctx = nullptr;  // "buffersink"/"abuffersink" named "out", owned by the graph
    AVFilterGraph* filter_graph = nullptr;      // owned
};

// The argument strings the graph's source is created with. Exposed so the
// exact text can be checked; callers never need them.
std::string video_buffer_args(const CodecContext& cc);
// A zero channel_layout is replaced by FFmpeg's default for `channels`.
std::string audio_buffer_args(const CodecContext& cc);

// One filter step. Pushes `frame` into the graph (the graph takes its own
// reference, so the caller's frame, possibly shared with a cache, is left
// untouched), then replaces `frame` with a fresh frame and pulls one filtered
// frame into it.
//   >= 0               `frame` holds a filtered frame;
//   AVERROR(EAGAIN)    the graph wants more input; `frame` is empty, nothing logged;
//   other negatives    logged (level 2) and returned. When the push itself
//                      fails, `frame` is still the caller's input.
// A null `mgr` or one without a graph fails the push with AVERROR(EINVAL).
// An empty `frame` marks the end of input; further filtered frames are then
// drained with mgr->buffersink_get_frame.
int excute_filting(AVFilterMgr* mgr, std::shared_ptr<AVFrame>& frame);

}  // namespace ff
