// The private half of every public decoder: ties one decoder to one stream,
// contributes a frame cache task to the stream's scheduler pool, asks the pool
// for frames by stream timestamp and converts them to what the caller asked
// for (pictures scaled into pooled memory, audio resampled), with an optional
// filter graph.
//
// No locking of its own: the facade runs one decoder's requests one at a time
// under `req_mutex` and calls open and close under it too; every field below
// is guarded by `req_mutex` unless said otherwise. `stop`, `req_seq`,
// `published_stream` and `audio_run_live` are atomics read and written
// without it.
//
// Lock order: `req_mutex` comes before every other lock of the engine a
// request reaches (the stream's pool, a task's mutex, the pool registry, the
// parked instances, FFDecoder2Private::mutex in the setters, the buffer
// pool). `async` is guarded by `async_mutex`, and the two are never held
// together: close takes req_mutex to close the decoder, releases it, and
// only then takes async_mutex to take the worker out, which it joins with
// neither held (the worker's job may be waiting for req_mutex, and a job
// takes req_mutex without async_mutex). Queuing a job takes the job queue's
// own mutex inside async_mutex, and nothing else.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "color_conversion.h"
#include "ff_ptr.h"
#include "frame_records.h"
#include "range.h"
#include "rational.h"

namespace ff {

struct StreamCtx;
class AVFilterMgr;
class AsyncHelper;

class FFDecoderPrivate {
public:
    FFDecoderPrivate();
    ~FFDecoderPrivate();
    FFDecoderPrivate(const FFDecoderPrivate&) = delete;
    FFDecoderPrivate& operator=(const FFDecoderPrivate&) = delete;

    // Adds a new task for `sc` to the stream's pool (each call adds one).
    bool open(const StreamCtx* sc);
    // Stops running jobs of this decoder, releases every converter and the
    // filter, and takes one idle worker out of the pool. Nothing when not open.
    void close();

    // Seconds from the stream's start as a stream timestamp.
    long long sec_to_stream_ts(const Rational& sec) const;
    // The frame on screen at `ts` (stream time base), or null.
    std::shared_ptr<AVFrame> get_frame(long long ts, std::atomic<bool>* cancel);
    // The frame after the last one delivered; at the end the last one again
    // when `repeat_last`, otherwise null.
    std::shared_ptr<AVFrame> get_next_frame(std::atomic<bool>* cancel, bool repeat_last);

    // A picture in the request's format, the stream's size shrunk by the
    // request's divider (width rounded up to 16, height to 2), in pooled
    // memory. Null when no scaler fits the formats or memory runs out.
    std::shared_ptr<VFrameCtx> convert_to_dst_frame(AVFrame* frame, const RequireVideoFrame& req);
    // The frame's samples resampled to the request's format, rate and channel
    // count (including any the resampler held back). Null on failure; a
    // record with no samples when the resampler produced none.
    std::shared_ptr<AFrameCtx> convert_to_dst_aframe(AVFrame* frame, const RequireAudioFrame& req);
    // The samples the resampler still holds at the end of the stream, in the
    // request's layout; null when it holds none or there is no resampler.
    std::shared_ptr<AFrameCtx> flush_dst_aframe(const RequireAudioFrame& req);
    // `count` samples at `in` (null: none, which drains the resampler)
    // through the current resampler into a pooled record.
    std::shared_ptr<AFrameCtx> convert_samples(const uint8_t** in, int count, const RequireAudioFrame& req);
    void reset_resampler_fifo();

    bool open_filter(const char* filters_descr);
    void close_filter();
    // Runs a decoded picture through `filter`, first rebuilding the graph for
    // the picture's format and size when they are not those it was built for
    // (a graph fed other pictures than it negotiated reads out of bounds).
    int filter_picture(std::shared_ptr<AVFrame>& frame);

    int id;
    char* name;  // "dec_<id>": the log tag of this decoder
    bool opened = false;
    std::atomic<bool> stop{false};
    long long last_ts = 0;
    std::shared_ptr<VFrameCtx> last_vframe;  // a single-picture stream's last delivered picture
    const StreamCtx* stream = nullptr;  // read and written under req_mutex
    // The same stream for readers that take no lock (the stream a facade was
    // last opened on, positioning, the speed setters); written with `stream`.
    std::atomic<const StreamCtx*> published_stream{nullptr};
    AVFilterMgr* filter = nullptr;
    std::string filter_text;      // the description `filter` was built from
    int filter_sample_fmt = -1;   // the sample format an audio `filter` takes in
    int filter_pix_fmt = -1;      // the pictures a video `filter` takes in
    int filter_width = 0;
    int filter_height = 0;
    // What the decoder really delivered last time a graph was rebuilt for it
    // (-1, 0: nothing yet, the probed parameters stand).
    int decoded_pix_fmt = -1;
    int decoded_width = 0;
    int decoded_height = 0;
    SwsContext* sws = nullptr;
    ScalerSettings sws_settings;  // what `sws` was built for
    AVAudioFifo* fifo = nullptr;
    int fifo_format = -1;         // the queue's layout: that of the decoded frames
    int fifo_channels = 0;
    SwrContext* swr = nullptr;
    // Audio continuity: every part zero, so that no first request counts as
    // continuing ({0, 0} equals no other value).
    long long audio_pos = 0;
    // Where the next decoded frame must start, in samples of the stream's rate
    // (kNoSample before the first frame of a run).
    long long queued_end = kNoSample;
    static constexpr long long kNoSample = INT64_MIN;
    Rational audio_start{0, 0};
    Range audio_range{Rational(0, 0), Rational(0, 0)};
    int swr_dst_channels = 0;
    int swr_dst_rate = 0;
    SampleFormat swr_dst_format = SF_NONE;
    int swr_src_channels = 0;
    int swr_src_rate = 0;
    int swr_src_format = -1;
    std::mutex req_mutex;
    AsyncHelper* async = nullptr;  // the worker thread of asynchronous requests, made on first use
    std::atomic<int> req_seq{0};
    // Guards `async`, which two threads' first asynchronous requests may race
    // to create and a close takes away. Never held together with req_mutex
    // (see the head of this file); under it only the job queue's mutex.
    std::mutex async_mutex;
    // Converted samples carried from one audio request to the next, so that a
    // run of contiguous requests at another rate than the stream's gets
    // exactly the sample count of each span (the resampler holds some back).
    UniqueAVAudioFifo out_fifo;
    long long out_pos = 0;  // converted samples handed out since audio_start
    int out_fifo_format = -1;
    int out_fifo_channels = 0;
    // The audio run under way: the next request continues it only when it
    // starts where the last one ended and asks for the same layout. Ended by
    // open, close and the filter setters (a new speed is a new run); written
    // by setters that take no lock, hence atomic.
    std::atomic<bool> audio_run_live{false};
    int run_rate = 0;
    int run_channels = 0;
    SampleFormat run_format = SF_NONE;
    // A run at another rate than the stream's feeds the resampler from a
    // point in phase with the whole stream's conversion and drops its first
    // `resample_drop` outputs; `resample_flushed` once the stream's end has
    // been pushed through.
    long long resample_drop = 0;
    bool resample_flushed = false;
    void end_audio_run() { audio_run_live = false; }
    // The frame audio spans are cut into, reused while it is large enough
    // (only when no filter takes it over).
    std::shared_ptr<AVFrame> span_frame;
    int span_capacity = 0;

    // Takes the worker out of the decoder, for the caller to destroy after
    // releasing req_mutex (its job may be waiting for that mutex).
    std::unique_ptr<AsyncHelper> detach_async();
};

}  // namespace ff
