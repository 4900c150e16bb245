#include "ffdecoder.h"

extern "C" {
#include <libavfilter/buffersrc.h>
}

#include <algorithm>
#include <climits>
#include <vector>

#include "async_helper.h"
#include "ff_compat.h"
#include "ff_tools.h"
#include "ffdec_probe.h"
#include "ffdecoder_audio.h"
#include "ffdecoder_private.h"
#include "rational_convert.h"
#include "ffmpeg_error.h"
#include "filter_mgr.h"
#include "frame_helpers.h"
#include "log.h"

namespace ff {

MovieCtx* FFDecoder::probe(const char* path, std::atomic<bool>* cancel) { return probe_movie(path, cancel); }

void FFDecoder::memCollection(unsigned ms) { mem_collection(ms); }

int excute_filting(AVFilterMgr* mgr, std::shared_ptr<AVFrame>& frame) {
    // The input is usually shared with a task's cache: the graph must take its
    // own reference rather than move the buffers out of it.
    int ret = mgr ? mgr->buffersrc_add_frame_flags(frame.get(), AV_BUFFERSRC_FLAG_KEEP_REF) : AVERROR(EINVAL);
    if (ret < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "Error while feeding the filtergraph: err=%s", ffmpeg_error(ret));
        return ret;
    }

    frame = create_avframe_ptr(av_frame_alloc());
    if (!frame) {
        ret = AVERROR(ENOMEM);
        CLIPDEC_LOG(kLogError, kTagDefault, "[filter] buffersink error: %s", ffmpeg_error(ret));
        return ret;
    }
    ret = mgr->buffersink_get_frame(frame.get());
    // EAGAIN is the normal answer of chains that gather several inputs per
    // output (atempo and the like); the caller simply feeds the next frame.
    if (ret < 0 && ret != AVERROR(EAGAIN)) {
        CLIPDEC_LOG(kLogError, kTagDefault, "[filter] buffersink error: %s", ffmpeg_error(ret));
    }
    return ret;
}

}  // namespace ff

// ---------------------------------------------------------------- the facade

namespace ff {
namespace {

constexpr int kSilenceLimit = 192000;  // samples of silence written for a late start, at most
// A single request above this many samples per channel is refused rather
// than sized into an int.
constexpr long long kMaxRequestSamples = 1LL << 28;
// Frames passed over because they were already queued, per request at most.
constexpr int kMaxSkippedFrames = 256;

bool is_seek_only(int32_t format) { return format == FMT_SEEK_ONLY; }

// Makes the sample queue fit the decoded frame. The queue takes the layout
// the decoder really delivers, which can differ from the stream's parameters
// (FFmpeg has an s16p and an fltp MP2 decoder, and either may have probed
// the stream). A layout change with samples still queued stops the fill.
bool fit_queue(FFDecoderPrivate* d, const AVFrame* f) {
    const int channels = compat_frame_channels(f);
    if (f->nb_samples < 0 || channels <= 0) return false;
    if (d->fifo && d->fifo_format == f->format && d->fifo_channels == channels) return true;
    if (d->fifo && av_audio_fifo_size(d->fifo) > 0) return false;
    if (d->fifo) av_audio_fifo_free(d->fifo);
    d->fifo = av_audio_fifo_alloc(static_cast<AVSampleFormat>(f->format), channels, 1024);
    d->fifo_format = f->format;
    d->fifo_channels = channels;
    return d->fifo != nullptr;
}

int write_to_queue(AVAudioFifo* fifo, const AVFrame* f, int skip = 0) {
    if (skip <= 0)
        return av_audio_fifo_write(fifo, reinterpret_cast<void**>(const_cast<uint8_t**>(f->extended_data)),
                                   f->nb_samples);
    const auto format = static_cast<AVSampleFormat>(f->format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const int channels = compat_frame_channels(f);
    const int step = av_get_bytes_per_sample(format) * (planar ? 1 : channels);
    std::vector<uint8_t*> planes(static_cast<size_t>(planar ? channels : 1));
    for (size_t i = 0; i < planes.size(); ++i) planes[i] = f->extended_data[i] + static_cast<size_t>(skip) * step;
    return av_audio_fifo_write(fifo, reinterpret_cast<void**>(planes.data()), f->nb_samples - skip);
}

// Frames of different decode tasks of one stream can be cut at different
// points (a PCM demuxer starts its packets wherever a seek landed), so the
// frame "after" the last one may overlap it or leave a gap. Positions are
// compared in samples; with a time base coarser than a sample, timestamps
// carry rounding, which this many samples absorb.
long long sample_tolerance(const StreamCtx* st) {
    const long long num = st->time_base.num * st->sample_rate, den = st->time_base.den;
    if (den <= 0 || num <= 0) return 0;
    return num % den == 0 ? 0 : num / den + 2;
}

long long sample_position(const AVFrame* f, const StreamCtx* st) {
    return av_rescale_q(f->pts, rational_convert(st->time_base), {1, st->sample_rate});
}

// The frame that continues the queue without overlap or gap: `f` as it is,
// or trimmed at the front (`skip`), or the frame holding the queue's end when
// `f` leaves a gap that a frame of another task fills. Null when `f` is
// wholly behind the queue's end.
std::shared_ptr<AVFrame> continue_queue(FFDecoderPrivate* d, std::shared_ptr<AVFrame> f, std::atomic<bool>* cancel,
                                        int& skip) {
    skip = 0;
    const StreamCtx* st = d->stream;
    if (d->queued_end == FFDecoderPrivate::kNoSample || f->pts == AV_NOPTS_VALUE) return f;
    const long long tolerance = sample_tolerance(st);
    long long at = sample_position(f.get(), st);
    if (at > d->queued_end + tolerance) {
        const long long gap_ts = av_rescale_q(d->queued_end, {1, st->sample_rate}, rational_convert(st->time_base));
        std::shared_ptr<AVFrame> holder = d->get_frame(gap_ts, cancel);
        if (holder && holder->pts != AV_NOPTS_VALUE && fit_queue(d, holder.get())) {
            const long long holder_at = sample_position(holder.get(), st);
            // A real gap in the stream leaves nothing to fill it: keep `f`.
            if (holder_at <= d->queued_end && holder_at + holder->nb_samples > d->queued_end) {
                f = holder;
                at = holder_at;
            }
        }
    }
    if (at < d->queued_end - tolerance) {
        if (at + f->nb_samples <= d->queued_end) return {};
        skip = static_cast<int>(d->queued_end - at);
    }
    return f;
}

// Converts one cut span and hands out exactly the samples the request's span
// holds at the requested rate. A resampler keeps some samples back (its
// latency), so the first span of a run is padded at the front by that much
// and every later span takes from a queue that carries the surplus forward:
// the counts of a run add up to exactly its length at the requested rate.
// Without a change of rate the converted span is already exact.
std::shared_ptr<AFrameCtx> convert_exact_span(FFDecoderPrivate* d, AVFrame* span, const RequireAudioFrame& req,
                                              bool complete) {
    std::shared_ptr<AFrameCtx> converted = d->convert_to_dst_aframe(span, req);
    if (!converted || req.sample_rate == span->sample_rate) return converted;

    const auto format = static_cast<AVSampleFormat>(converted->format);
    if (d->out_fifo && (d->out_fifo_format != format || d->out_fifo_channels != req.channels)) {
        av_audio_fifo_free(d->out_fifo);
        d->out_fifo = nullptr;
    }
    if (!d->out_fifo) {
        d->out_fifo = av_audio_fifo_alloc(format, req.channels, 1024);
        d->out_fifo_format = format;
        d->out_fifo_channels = req.channels;
        if (!d->out_fifo) return {};
    }
    const long long out_end = time_to_timestamp(req.range.end - d->audio_start, Rational(1, req.sample_rate));
    const long long out_need = out_end - d->out_pos;
    if (d->out_pos == 0 && av_audio_fifo_size(d->out_fifo) == 0 && complete) {
        // Two samples beyond the latency absorb the rounding of the rate ratio.
        const long long pad = out_need - converted->nb_samples + 2;
        if (pad > 0 && pad <= kSilenceLimit) {
            auto quiet = create_avframe_with(req.channels, req.sample_rate, format, static_cast<int>(pad));
            if (quiet) write_to_queue(d->out_fifo, quiet.get());
        }
    }
    if (converted->nb_samples > 0 &&
        av_audio_fifo_write(d->out_fifo, reinterpret_cast<void**>(converted->data), converted->nb_samples) < 0)
        return {};
    const long long deliver = std::min<long long>(out_need, av_audio_fifo_size(d->out_fifo));
    if (deliver <= 0) return {};
    std::shared_ptr<AFrameCtx> exact = create_audioframe_ctx(req, static_cast<int>(deliver));
    if (!exact) return {};
    const int got = av_audio_fifo_read(d->out_fifo, reinterpret_cast<void**>(exact->data), static_cast<int>(deliver));
    if (got <= 0) return {};
    exact->nb_samples = got;
    d->out_pos += got;
    return exact;
}

}  // namespace

bool is_audio_ts_discontinuous(FFDecoderPrivate* d, const RequireAudioFrame& req) {
    if (req.range.begin == d->audio_range.end) return false;
    d->audio_pos = 0;
    d->queued_end = FFDecoderPrivate::kNoSample;
    d->audio_start = req.range.begin;
    if (d->fifo) av_audio_fifo_reset(d->fifo);
    if (d->out_fifo) av_audio_fifo_reset(d->out_fifo);
    d->out_pos = 0;
    return true;
}

FFDecoder::FFDecoder() : d(new FFDecoderPrivate()) {}

FFDecoder::~FFDecoder() {
    close();
    delete d;
}

bool FFDecoder::open(const StreamCtx* sc) {
    std::lock_guard<std::mutex> lock(d->req_mutex);
    return d->open(sc);
}

void FFDecoder::close() {
    std::unique_ptr<AsyncHelper> worker;
    {
        std::lock_guard<std::mutex> lock(d->req_mutex);
        ++d->req_seq;
        d->stop = true;
        worker = d->detach_async();
        d->close();
    }
    worker.reset();  // joined after the lock is released: its job may be waiting for it
}

bool FFDecoder::reopen() {
    const StreamCtx* sc = d->published_stream;
    if (!sc) return false;  // never opened: nothing to reopen
    std::lock_guard<std::mutex> lock(d->req_mutex);
    return d->open(sc);
}

bool FFDecoder::isOpened() const {
    std::lock_guard<std::mutex> lock(d->req_mutex);
    return d->opened;
}

StreamCtx const* FFDecoder::streamContex() const { return d->published_stream; }

int FFDecoder::getImageDivider(MemoryMode mode) {
    const StreamCtx* st = d->published_stream;
    if (!st || st->type != STREAM_VIDEO) return 1;
    return ff::getImageDivider(mode, st->width, st->height);
}

std::shared_ptr<VFrameCtx> FFDecoder::getVideoFrame(const RequireVideoFrame& req) {
    return pri_getVideoFrame(req, d->req_seq.load());
}

std::shared_ptr<AFrameCtx> FFDecoder::getAudioFrame(const RequireAudioFrame& req) {
    return pri_getAudioFrame(req, d->req_seq.load());
}

std::shared_ptr<VFrameCtx> FFDecoder::pri_getVideoFrame(const RequireVideoFrame& request, int seq) {
    RequireVideoFrame req = request;
    if (!req.cancel) req.cancel = &d->stop;
    std::lock_guard<std::mutex> lock(d->req_mutex);
    if (seq < d->req_seq) {
        CLIPDEC_LOG(kLogDebug, d->name, "> 异步取画面，已过时： %lld (serials=%d)", req.time.num, seq);
        return {};
    }
    // A decoder that is not open has no stream to touch.
    if (!d->opened || !d->stream) return {};
    if (d->last_vframe && d->last_vframe->divider == req.divider) return d->last_vframe;

    const long long ts = d->sec_to_stream_ts(req.time);
    std::shared_ptr<AVFrame> frame = d->get_frame(ts, req.cancel);
    if (!frame) return {};
    if (is_seek_only(req.format)) {
        CLIPDEC_LOG(kLogDebug, d->name, "Video: seek... pos=%lld", ts);
        return {};
    }
    if (d->filter && excute_filting(d->filter, frame) < 0) return {};
    std::shared_ptr<VFrameCtx> picture = d->convert_to_dst_frame(frame.get(), req);
    if (picture && d->stream->still_image) d->last_vframe = picture;
    return picture;
}

std::shared_ptr<AFrameCtx> FFDecoder::pri_getAudioFrame(const RequireAudioFrame& request, int seq) {
    RequireAudioFrame req = request;
    if (!req.cancel) req.cancel = &d->stop;
    std::lock_guard<std::mutex> lock(d->req_mutex);
    if (seq < d->req_seq) {
        CLIPDEC_LOG(kLogDebug, d->name, "> 异步取音频，已过时： %lld (serials=%d)", req.range.begin.num, seq);
        return {};
    }
    const StreamCtx* st = d->stream;
    if (!d->opened || !st || st->type != STREAM_AUDIO || st->sample_rate <= 0 || st->channels <= 0) return {};

    // A request that does not continue the previous one starts a run with a
    // seek. (The target may be negative: before the stream's start the seek
    // goes to 0 and the gap becomes silence.)
    const bool new_run = is_audio_ts_discontinuous(d, req);
    const long long target = new_run ? d->sec_to_stream_ts(req.range.begin) : -1;

    // Both ends counted from the start of the run: no rounding drift.
    const Rational rate_base(1, st->sample_rate);
    const long long end_pos = time_to_timestamp(req.range.end - d->audio_start, rate_base);
    const long long need = end_pos - d->audio_pos;
    d->audio_pos = end_pos;

    if (is_seek_only(req.format)) {
        if (new_run) d->get_frame(target, req.cancel);
        CLIPDEC_LOG(kLogDebug, d->name, "Audio: seek... pos=%lld", target);
        return {};
    }
    if (need <= 0 || need > kMaxRequestSamples) {
        d->audio_range = req.range;
        return {};
    }

    long long drain = 0;
    bool first = new_run;
    long long previous_pts = AV_NOPTS_VALUE;
    int skipped = 0;
    while ((d->fifo ? av_audio_fifo_size(d->fifo) : 0) < need + drain) {  // made by the first frame
        const bool f_is_first = first;
        std::shared_ptr<AVFrame> f = first ? d->get_frame(target, req.cancel) : d->get_next_frame(req.cancel, false);
        if (!f || !fit_queue(d, f.get())) break;
        if (first) {
            first = false;
            const long long k = av_rescale_q(target - f->pts, rational_convert(st->time_base), {1, st->sample_rate});
            if (k > 0) {
                CLIPDEC_LOG(kLogDebug, d->name, "seek: target=%lld, f->pts=%lld, nb_drain=%lld", target,
                            static_cast<long long>(f->pts), k);
                drain = k;
            } else if (k < 0) {
                CLIPDEC_LOG(kLogError, d->name,
                            "***Warnning***: first packet lost, fill silence; target=%lld, f->pts=%lld, nb_silence=%lld",
                            target, static_cast<long long>(f->pts), k);
                long long silence = -k;
                if (silence > kSilenceLimit) {
                    CLIPDEC_LOG(kLogError, d->name, "nb_drain is too bigger: %d, limit to 192000",
                                static_cast<int>(std::min<long long>(silence, INT32_MAX)));
                    silence = kSilenceLimit;
                }
                auto quiet = create_avframe_with(d->fifo_channels, st->sample_rate,
                                                 static_cast<AVSampleFormat>(d->fifo_format), static_cast<int>(silence));
                if (quiet) write_to_queue(d->fifo, quiet.get());
            }
        }
        int skip = 0;
        // Only frames whose timestamps rise are lined up: a damaged stream
        // whose timestamps go back is queued as it comes, so every turn of
        // this loop adds samples and the loop ends.
        const bool rising = previous_pts == AV_NOPTS_VALUE || f->pts == AV_NOPTS_VALUE || f->pts > previous_pts;
        previous_pts = f->pts;
        if (!f_is_first && rising && skipped < kMaxSkippedFrames) {
            f = continue_queue(d, std::move(f), req.cancel, skip);
            if (!f) {  // already queued: take the one after it
                ++skipped;
                continue;
            }
        }
        if (write_to_queue(d->fifo, f.get(), skip) < 0) break;
        // Without a timestamp there is nothing to line the next frame up with.
        d->queued_end = f->pts == AV_NOPTS_VALUE ? FFDecoderPrivate::kNoSample
                                                 : sample_position(f.get(), st) + f->nb_samples;
    }
    if (drain > 0) av_audio_fifo_drain(d->fifo, static_cast<int>(std::min<long long>(drain, INT32_MAX)));
    d->audio_range = req.range;
    if (!d->fifo) return {};  // nothing was ever decoded

    // Filled from the queue at once: no need to clear it first. Without a
    // filter the frame only feeds the resampler, so the decoder keeps it for
    // the next span; a filter takes the frame over, so it gets a fresh one.
    std::shared_ptr<AVFrame> span;
    const auto queue_format = static_cast<AVSampleFormat>(d->fifo_format);
    if (!d->filter && d->span_frame && d->span_capacity >= need && d->span_frame->format == queue_format &&
        compat_frame_channels(d->span_frame.get()) == d->fifo_channels) {
        span = d->span_frame;
        span->nb_samples = static_cast<int>(need);
    } else {
        span = create_avframe_buffers(d->fifo_channels, st->sample_rate, queue_format, static_cast<int>(need));
        if (!span) return {};
        if (!d->filter) {
            d->span_frame = span;
            d->span_capacity = static_cast<int>(need);
        }
    }
    const int got = av_audio_fifo_read(d->fifo, reinterpret_cast<void**>(span->extended_data), static_cast<int>(need));
    if (got < 0) {
        CLIPDEC_LOG(kLogError, d->name, "audio io read failed: %s", ffmpeg_error(got));
        return {};
    }
    if (got == 0) return {};
    span->nb_samples = got;
    // The span starts at the request's begin, in the stream's time base.
    span->pts = d->sec_to_stream_ts(req.range.begin);

    if (d->filter && d->filter_sample_fmt != span->format) {
        const std::string text = d->filter_text;  // open_filter replaces the stored text
        if (!d->open_filter(text.c_str())) return {};
    }
    if (d->filter) {
        const int ret = excute_filting(d->filter, span);
        if (ret < 0) {
            CLIPDEC_LOG(kLogError, d->name, "excute filter failed: %s", ffmpeg_error(ret));
            return {};
        }
        return d->convert_to_dst_aframe(span.get(), req);
    }
    return convert_exact_span(d, span.get(), req, got == need);
}

// ---------------------------------------------------------------- asynchronous requests

namespace {

// Runs `job` on the decoder's worker, made on first use, after dropping every
// job still waiting. Holding async_mutex across both keeps a concurrent close
// from destroying the worker in between, and makes two first requests racing
// each other create one worker.
void queue_on_worker(FFDecoderPrivate* d, AsyncHelper::Job job) {
    std::lock_guard<std::mutex> lock(d->async_mutex);
    if (!d->async) d->async = new AsyncHelper();
    d->async->replace_waiting(std::move(job));
}

}  // namespace

void FFDecoder::getVideoFrameAsync(const RequireVideoFrame& request,
                                   std::function<void(std::shared_ptr<VFrameCtx>)> callback) {
    RequireVideoFrame req = request;
    if (!req.cancel) req.cancel = &d->stop;
    const int seq = d->req_seq.load();  // the number at queuing time decides staleness
    queue_on_worker(d, [this, callback = std::move(callback), req, seq] {
        if (req.cancel->load()) return;
        std::shared_ptr<VFrameCtx> picture = pri_getVideoFrame(req, seq);
        if (picture && callback) callback(picture);
    });
}

void FFDecoder::getAudioFrameAsync(const RequireAudioFrame& request,
                                   std::function<void(std::shared_ptr<AFrameCtx>)> callback) {
    RequireAudioFrame req = request;
    if (!req.cancel) req.cancel = &d->stop;
    const int seq = d->req_seq.load();
    queue_on_worker(d, [this, callback = std::move(callback), req, seq] {
        if (req.cancel->load()) return;
        std::shared_ptr<AFrameCtx> audio = pri_getAudioFrame(req, seq);
        if (audio && callback) callback(audio);
    });
}

void FFDecoder::pri_seek(const Rational& t, bool async) {
    const StreamCtx* st = d->published_stream;
    if (!st) return;  // never opened
    if (st->type == STREAM_VIDEO) {
        RequireVideoFrame req;
        req.time = t;
        req.format = static_cast<PixelFormat>(FMT_SEEK_ONLY);
        req.divider = 1;
        req.cancel = &d->stop;
        if (async) {
            getVideoFrameAsync(req, nullptr);
        } else {
            pri_getVideoFrame(req, d->req_seq.load());
        }
    } else if (st->type == STREAM_AUDIO) {
        RequireAudioFrame req;
        req.range = Range(t, t);
        req.format = static_cast<SampleFormat>(FMT_SEEK_ONLY);
        req.sample_rate = 44100;
        req.channels = 2;
        req.cancel = &d->stop;
        if (async) {
            getAudioFrameAsync(req, nullptr);
        } else {
            pri_getAudioFrame(req, d->req_seq.load());
        }
    }
}

}  // namespace ff
