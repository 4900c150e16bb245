#include "ffdecoder_audio.h"

extern "C" {
#include <libavcodec/codec_desc.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <climits>
#include <numeric>
#include <string>
#include <vector>

#include "ff_compat.h"
#include "ffdecoder_private.h"
#include "ffmpeg_error.h"
#include "filter_mgr.h"
#include "frame_helpers.h"
#include "movie_info.h"
#include "log.h"
#include "rational_convert.h"

namespace ff {
namespace {

constexpr int kSilenceLimit = 192000;  // samples of silence written for a late start or a gap, at most
// A single request above this many samples per channel is refused rather
// than sized into an int.
constexpr long long kMaxRequestSamples = 1LL << 28;
// Frames passed over because they were already queued, per request at most.
constexpr int kMaxSkippedFrames = 256;
// Stream samples taken into the resampler at a time, at most.
constexpr long long kMaxResampleChunk = 1LL << 20;

int queued(const FFDecoderPrivate* d) { return d->fifo ? av_audio_fifo_size(d->fifo) : 0; }

// ---------------------------------------------------------------- the sample queue

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

// Writes `count` samples from `skip` on of the planes at `data` into `fifo`.
int write_samples(AVAudioFifo* fifo, uint8_t* const* data, int format, int channels, int skip, int count) {
    if (count <= 0) return 0;
    // Every decoded frame and converted span comes here: the planes are
    // offset only when the front of a frame is dropped.
    if (skip == 0) return av_audio_fifo_write(fifo, reinterpret_cast<void**>(const_cast<uint8_t**>(data)), count);
    const auto sample_format = static_cast<AVSampleFormat>(format);
    const bool planar = av_sample_fmt_is_planar(sample_format) != 0;
    const int step = av_get_bytes_per_sample(sample_format) * (planar ? 1 : channels);
    std::vector<uint8_t*> planes(static_cast<size_t>(planar ? channels : 1));
    for (size_t i = 0; i < planes.size(); ++i) planes[i] = data[i] + static_cast<size_t>(skip) * step;
    return av_audio_fifo_write(fifo, reinterpret_cast<void**>(planes.data()), count);
}

int write_to_queue(AVAudioFifo* fifo, const AVFrame* f, int skip = 0) {
    return write_samples(fifo, f->extended_data, f->format, compat_frame_channels(f), skip, f->nb_samples - skip);
}

bool write_silence(FFDecoderPrivate* d, long long samples) {
    auto quiet = create_avframe_with(d->fifo_channels, d->stream->sample_rate, static_cast<AVSampleFormat>(d->fifo_format),
                                     static_cast<int>(samples));
    return quiet && write_to_queue(d->fifo, quiet.get()) >= 0;
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

// The frame that continues the queue: `f` as it is, or trimmed at the front
// (`skip`) where it overlaps what is queued, or the frame holding the queue's
// end when `f` leaves a gap that a frame of another task fills. A gap that no
// frame fills is the stream's own: `silence` samples go before `f`. Null when
// `f` is wholly behind the queue's end.
std::shared_ptr<AVFrame> continue_queue(FFDecoderPrivate* d, std::shared_ptr<AVFrame> f, std::atomic<bool>* cancel,
                                        int& skip, long long& silence) {
    skip = 0;
    silence = 0;
    const StreamCtx* st = d->stream;
    if (d->queued_end == FFDecoderPrivate::kNoSample || f->pts == AV_NOPTS_VALUE) return f;
    const long long tolerance = sample_tolerance(st);
    long long at = sample_position(f.get(), st);
    if (at > d->queued_end + tolerance) {
        const long long gap_ts = av_rescale_q(d->queued_end, {1, st->sample_rate}, rational_convert(st->time_base));
        std::shared_ptr<AVFrame> holder = d->get_frame(gap_ts, cancel);
        if (holder && holder->pts != AV_NOPTS_VALUE && fit_queue(d, holder.get())) {
            const long long holder_at = sample_position(holder.get(), st);
            if (holder_at <= d->queued_end && holder_at + holder->nb_samples > d->queued_end) {
                f = holder;
                at = holder_at;
            }
        }
        if (at > d->queued_end + tolerance) silence = std::min<long long>(at - d->queued_end, kSilenceLimit);
    }
    if (at < d->queued_end - tolerance) {
        if (at + f->nb_samples <= d->queued_end) return {};
        skip = static_cast<int>(d->queued_end - at);
    }
    return f;
}

// ---------------------------------------------------------------- the start of a run

// Samples decoded before a run's first one, so that a lossy decoder (whose
// first frame after a seek lacks the overlap of the frame before it)
// delivers from that sample on what decoding straight through delivers: a
// few frames, and at least the 80 ms Opus asks for. Lossless codecs need none.
long long codec_preroll(const StreamCtx* st) {
    const AVCodecDescriptor* desc = avcodec_descriptor_get(static_cast<AVCodecID>(st->codec_id));
    if (desc && (desc->props & AV_CODEC_PROP_LOSSLESS) && !(desc->props & AV_CODEC_PROP_LOSSY)) return 0;
    return std::max<long long>(4096, st->sample_rate * 2LL / 25);
}

// Where a run's first fill starts: `target` is the stream timestamp of the
// run's first sample, `seek_ts` where decoding starts (earlier by the codec's
// preroll; the samples in between are dropped).
struct RunStart {
    bool pending = false;
    long long target = 0;
    long long seek_ts = 0;
};

RunStart run_start_at(const FFDecoderPrivate* d, long long target) {
    const StreamCtx* st = d->stream;
    const long long preroll = av_rescale_q(codec_preroll(st), {1, st->sample_rate}, rational_convert(st->time_base));
    return {true, target, target - preroll};
}

// Places the first frame of a run: returns how many of its samples lie
// before the run's target (to be dropped), or writes silence for the time
// between the target and a frame that starts after it.
long long place_first_frame(FFDecoderPrivate* d, const AVFrame* f, long long target) {
    const StreamCtx* st = d->stream;
    const long long k = av_rescale_q(target - f->pts, rational_convert(st->time_base), {1, st->sample_rate});
    if (k > 0) {
        CLIPDEC_LOG(kLogDebug, d->name, "seek: target=%lld, f->pts=%lld, nb_drain=%lld", target,
                    static_cast<long long>(f->pts), k);
        return k;
    }
    if (k < 0) {
        CLIPDEC_LOG(kLogError, d->name, "***Warnning***: first packet lost, fill silence; target=%lld, f->pts=%lld, nb_silence=%lld",
                    target, static_cast<long long>(f->pts), k);
        long long silence = -k;
        if (silence > kSilenceLimit) {
            CLIPDEC_LOG(kLogError, d->name, "nb_drain is too bigger: %d, limit to 192000",
                        static_cast<int>(std::min<long long>(silence, INT32_MAX)));
            silence = kSilenceLimit;
        }
        write_silence(d, silence);
    }
    return 0;
}

// Decodes into the sample queue until it holds `want` samples (after the
// samples before a run's target are dropped). False when decoding stopped
// first: end of stream, cancel, error or a change of layout.
bool fill_queue(FFDecoderPrivate* d, long long want, RunStart& start, std::atomic<bool>* cancel) {
    const StreamCtx* st = d->stream;
    long long drain = 0;
    long long previous_pts = AV_NOPTS_VALUE;
    int skipped = 0;
    while (queued(d) < want + drain) {
        const bool first = start.pending;
        std::shared_ptr<AVFrame> f = first ? d->get_frame(start.seek_ts, cancel) : d->get_next_frame(cancel, false);
        if (!f || !fit_queue(d, f.get())) break;
        int skip = 0;
        long long silence = 0;
        if (first) {
            start.pending = false;
            drain = place_first_frame(d, f.get(), start.target);
        }
        // Only frames whose timestamps do not go back are lined up: a damaged
        // stream whose timestamps go back is queued as it comes, so every
        // turn of this loop adds samples and the loop ends. (A frame given
        // again after a look-up of the frame holding a gap has the same
        // timestamp as the one before: it is lined up, and so passed over.)
        const bool rising = previous_pts == AV_NOPTS_VALUE || f->pts == AV_NOPTS_VALUE || f->pts >= previous_pts;
        previous_pts = f->pts;
        if (!first && rising && skipped < kMaxSkippedFrames) {
            f = continue_queue(d, std::move(f), cancel, skip, silence);
            if (!f) {  // already queued: take the one after it
                ++skipped;
                continue;
            }
        }
        if (silence > 0 && !write_silence(d, silence)) break;
        if (write_to_queue(d->fifo, f.get(), skip) < 0) break;
        // Without a timestamp there is nothing to line the next frame up with.
        d->queued_end = f->pts == AV_NOPTS_VALUE ? FFDecoderPrivate::kNoSample
                                                 : sample_position(f.get(), st) + f->nb_samples;
    }
    if (drain > 0 && d->fifo) av_audio_fifo_drain(d->fifo, static_cast<int>(std::min<long long>(drain, queued(d))));
    return queued(d) >= want;
}

// Up to `count` queued samples in a frame of the queue's layout; null when
// the queue holds none. Without a filter the frame only feeds the resampler,
// so the decoder keeps it for the next span; a filter takes the frame over,
// so it gets a fresh one.
std::shared_ptr<AVFrame> take_span(FFDecoderPrivate* d, long long count) {
    count = std::min<long long>(count, queued(d));
    if (count <= 0) return {};
    std::shared_ptr<AVFrame> span;
    const auto queue_format = static_cast<AVSampleFormat>(d->fifo_format);
    if (!d->filter && d->span_frame && d->span_capacity >= count && d->span_frame->format == queue_format &&
        compat_frame_channels(d->span_frame.get()) == d->fifo_channels) {
        span = d->span_frame;
        span->nb_samples = static_cast<int>(count);
    } else {
        span = create_avframe_buffers(d->fifo_channels, d->stream->sample_rate, queue_format, static_cast<int>(count));
        if (!span) return {};
        if (!d->filter) {
            d->span_frame = span;
            d->span_capacity = static_cast<int>(count);
        }
    }
    const int got = av_audio_fifo_read(d->fifo, reinterpret_cast<void**>(span->extended_data), static_cast<int>(count));
    if (got < 0) {
        CLIPDEC_LOG(kLogError, d->name, "audio io read failed: %s", ffmpeg_error(got));
        return {};
    }
    if (got == 0) return {};
    span->nb_samples = got;
    return span;
}

// Rebuilds the decoder's filter from its own text.
bool restart_filter(FFDecoderPrivate* d) {
    const std::string text = d->filter_text;  // open_filter replaces the stored text
    return d->open_filter(text.c_str());
}

std::shared_ptr<AFrameCtx> filter_and_convert(FFDecoderPrivate* d, std::shared_ptr<AVFrame> span,
                                              const RequireAudioFrame& req) {
    if (d->filter_sample_fmt != span->format && !restart_filter(d)) return {};
    const int ret = excute_filting(d->filter, span);
    if (ret < 0) {
        CLIPDEC_LOG(kLogError, d->name, "excute filter failed: %s", ffmpeg_error(ret));
        return {};
    }
    return d->convert_to_dst_aframe(span.get(), req);
}

// ---------------------------------------------------------------- runs at another rate

bool resamples(const FFDecoderPrivate* d, const RequireAudioFrame& req) {
    return !d->filter && req.sample_rate != d->stream->sample_rate;
}

// The phase of a conversion from `in_rate` to `out_rate` repeats every
// in_rate / gcd input samples (out_rate / gcd outputs). A run whose first
// sample is output `n` of the whole stream's conversion feeds the resampler
// from such a period boundary, early enough that its filter (about 32 taps
// of the lower rate) works on real samples by output n.
struct ResampleStart {
    long long input = 0;  // the first stream sample fed
    long long drop = 0;   // outputs before output n
};

ResampleStart plan_resampled_start(long long n, int in_rate, int out_rate) {
    const long long g = std::gcd(in_rate, out_rate);
    const long long in_period = in_rate / g, out_period = out_rate / g;
    const long long margin = 64LL * ((in_rate + out_rate - 1) / out_rate) + 64;
    const long long wanted = av_rescale_rnd(n, in_period, out_period, AV_ROUND_DOWN) - margin;
    const long long periods = wanted > 0 ? wanted / in_period : 0;
    return {periods * in_period, n - periods * out_period};
}

bool ensure_out_queue(FFDecoderPrivate* d, const RequireAudioFrame& req) {
    const auto format = static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(req.format));
    if (d->out_fifo && (d->out_fifo_format != format || d->out_fifo_channels != req.channels)) d->out_fifo.reset();
    if (!d->out_fifo) {
        d->out_fifo.reset(av_audio_fifo_alloc(format, req.channels, 1024));
        d->out_fifo_format = format;
        d->out_fifo_channels = req.channels;
    }
    return d->out_fifo != nullptr;
}

// Queues converted samples, less those still to be dropped at the run's start.
bool queue_converted(FFDecoderPrivate* d, const std::shared_ptr<AFrameCtx>& converted) {
    if (!converted) return false;
    const long long dropped = std::min<long long>(d->resample_drop, converted->nb_samples);
    d->resample_drop -= dropped;
    return write_samples(d->out_fifo.get(), converted->data, converted->format, converted->channels,
                         static_cast<int>(dropped), converted->nb_samples - static_cast<int>(dropped)) >= 0;
}

// A new run at another rate: a fresh resampler, silence for the time before
// the stream's start, and the input planned in phase with the whole stream.
RunStart begin_resampled_run(FFDecoderPrivate* d, const RequireAudioFrame& req) {
    const StreamCtx* st = d->stream;
    if (d->swr) swr_free(&d->swr);
    d->resample_flushed = false;
    long long first_output = time_to_timestamp(req.range.begin, Rational(1, req.sample_rate));
    if (first_output < 0) {
        const auto format = static_cast<AVSampleFormat>(d->out_fifo_format);
        auto quiet = create_avframe_with(req.channels, req.sample_rate, format,
                                         static_cast<int>(std::min<long long>(-first_output, kSilenceLimit)));
        if (quiet) write_to_queue(d->out_fifo.get(), quiet.get());
        first_output = 0;
    }
    const ResampleStart plan = plan_resampled_start(first_output, st->sample_rate, req.sample_rate);
    d->resample_drop = plan.drop;
    long long target = av_rescale_q(plan.input, {1, st->sample_rate}, rational_convert(st->time_base));
    if (st->start_time != kNoPts) target += st->start_time;
    return run_start_at(d, target);
}

// Resamples until the run has converted samples up to the request's end (or
// the stream ends), then hands out exactly the span's samples: the counts of
// a run add up to exactly its length at the requested rate.
std::shared_ptr<AFrameCtx> serve_resampled(FFDecoderPrivate* d, const RequireAudioFrame& req, bool new_run) {
    const StreamCtx* st = d->stream;
    d->audio_range = req.range;
    if (!ensure_out_queue(d, req)) return {};
    RunStart start;
    if (new_run) start = begin_resampled_run(d, req);
    const long long out_end = time_to_timestamp(req.range.end - d->audio_start, Rational(1, req.sample_rate));
    const long long out_need = out_end - d->out_pos;
    if (out_need <= 0 || out_need > kMaxRequestSamples) return {};

    while (av_audio_fifo_size(d->out_fifo.get()) < out_need && !d->resample_flushed) {
        if (req.cancel && req.cancel->load()) break;
        const long long missing = out_need - av_audio_fifo_size(d->out_fifo.get()) + d->resample_drop;
        const long long chunk =
            std::clamp<long long>(av_rescale(missing, st->sample_rate, req.sample_rate) + 256, 256, kMaxResampleChunk);
        const bool filled = fill_queue(d, chunk, start, req.cancel);
        if (std::shared_ptr<AVFrame> span = take_span(d, chunk)) {
            if (!queue_converted(d, d->convert_to_dst_aframe(span.get(), req))) return {};
        }
        if (!filled) {
            if (req.cancel && req.cancel->load()) break;  // cancelled, not ended: nothing to flush
            if (std::shared_ptr<AFrameCtx> rest = d->flush_dst_aframe(req)) queue_converted(d, rest);
            d->resample_flushed = true;
        }
    }
    const long long deliver = std::min<long long>(out_need, av_audio_fifo_size(d->out_fifo.get()));
    if (deliver <= 0) return {};
    std::shared_ptr<AFrameCtx> exact = create_audioframe_ctx(req, static_cast<int>(deliver));
    if (!exact) return {};
    const int got = av_audio_fifo_read(d->out_fifo.get(), reinterpret_cast<void**>(exact->data), static_cast<int>(deliver));
    if (got <= 0) return {};
    exact->nb_samples = got;
    d->out_pos += got;
    return exact;
}

// A request that only positions: on a new run the frame at its start is
// decoded, and so cached, ahead of the requests that follow.
void position_run(FFDecoderPrivate* d, const RequireAudioFrame& req, bool new_run) {
    const long long target = d->sec_to_stream_ts(req.range.begin);
    if (new_run) d->get_frame(target, req.cancel);
    CLIPDEC_LOG(kLogDebug, d->name, "Audio: seek... pos=%lld", new_run ? target : -1LL);
}

}  // namespace

bool is_audio_ts_discontinuous(FFDecoderPrivate* d, const RequireAudioFrame& req) {
    const bool same_layout = is_seek_only(req.format) || (req.sample_rate == d->run_rate &&
                                                          req.channels == d->run_channels && req.format == d->run_format);
    if (d->audio_run_live && req.range.begin == d->audio_range.end && same_layout) return false;
    d->audio_pos = 0;
    d->queued_end = FFDecoderPrivate::kNoSample;
    d->audio_start = req.range.begin;
    if (d->fifo) av_audio_fifo_reset(d->fifo);
    if (d->out_fifo) av_audio_fifo_reset(d->out_fifo.get());
    d->out_pos = 0;
    // Positioning leaves no run to continue: the request after it seeks.
    d->audio_run_live = !is_seek_only(req.format);
    d->run_rate = req.sample_rate;
    d->run_channels = req.channels;
    d->run_format = req.format;
    return true;
}

std::shared_ptr<AFrameCtx> serve_audio_request(FFDecoderPrivate* d, const RequireAudioFrame& req) {
    const StreamCtx* st = d->stream;
    const bool new_run = is_audio_ts_discontinuous(d, req);
    // A filter (a tempo change above all) keeps state from the audio it saw:
    // a new run starts it afresh, so that a position sounds the same however
    // it was reached.
    if (new_run && d->filter && !is_seek_only(req.format) && !restart_filter(d)) return {};

    // Both ends counted from the start of the run: no rounding drift.
    const long long end_pos = time_to_timestamp(req.range.end - d->audio_start, Rational(1, st->sample_rate));
    const long long need = end_pos - d->audio_pos;
    d->audio_pos = end_pos;

    if (is_seek_only(req.format)) {
        position_run(d, req, new_run);
        return {};
    }
    if (resamples(d, req)) return serve_resampled(d, req, new_run);
    if (need <= 0 || need > kMaxRequestSamples) {
        d->audio_range = req.range;
        return {};
    }

    // (The target may be negative: before the stream's start the seek goes
    // to 0 and the gap becomes silence.)
    RunStart start;
    if (new_run) start = run_start_at(d, d->sec_to_stream_ts(req.range.begin));
    fill_queue(d, need, start, req.cancel);
    d->audio_range = req.range;

    std::shared_ptr<AVFrame> span = take_span(d, need);
    if (!span) return {};
    // The span starts at the request's begin, in the stream's time base.
    span->pts = d->sec_to_stream_ts(req.range.begin);
    if (d->filter) return filter_and_convert(d, std::move(span), req);
    return d->convert_to_dst_aframe(span.get(), req);
}

}  // namespace ff
