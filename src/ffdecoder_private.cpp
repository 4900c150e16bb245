#include "ffdecoder_private.h"

#include <cstdio>
#include <cstdlib>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
}

#include "async_helper.h"
#include "color_conversion.h"
#include "ff_compat.h"
#include "ffdec_task.h"
#include "ffmpeg_error.h"
#include "filter_mgr.h"
#include "frame_helpers.h"
#include "log.h"
#include "movie_info.h"
#include "parked_instances.h"
#include "rational_convert.h"
#include "scheduler.h"
#include "utils/mempool.h"

namespace ff {
namespace {

constexpr AVRational kMicroseconds{1, 1000000};

int round_up(int value, int multiple) { return (value + multiple - 1) / multiple * multiple; }

}  // namespace

FFDecoderPrivate::FFDecoderPrivate() {
    static std::atomic<int> s_count{0};
    id = ++s_count;
    name = static_cast<char*>(std::malloc(10));
    if (name) std::snprintf(name, 10, "dec_%d", id);
}

FFDecoderPrivate::~FFDecoderPrivate() {
    close();
    // A part used only to convert (never opened) still holds its scaler.
    sws_freeContext(sws);
    sws = nullptr;
    reset_resampler_fifo();
    close_filter();
    // No lock is held here, so the worker can be joined even when its job is
    // about to ask for req_mutex.
    detach_async().reset();
    std::free(name);
    stream = nullptr;
}

bool FFDecoderPrivate::open(const StreamCtx* sc) {
    if (!sc) return false;
    // Each open adds a task to the pool: an open decoder gives its first back.
    close();
    stop = false;
    end_audio_run();  // the first audio request after an open seeks
    stream = sc;
    published_stream = sc;
    auto* task = new FFDec_Task();
    if (!task->open(sc)) {
        delete task;
        return false;
    }
    g_decoder_mgr.pool_of(sc)->add_worker(task);
    opened = true;
    return true;
}

void FFDecoderPrivate::close() {
    if (!opened) return;
    stop = true;  // a job still decoding for this decoder ends early
    opened = false;
    // The asynchronous worker is left to the caller: it must be joined with
    // req_mutex released, since its job may be waiting for that mutex.
    sws_freeContext(sws);
    sws = nullptr;
    reset_resampler_fifo();
    last_vframe.reset();
    decoded_pix_fmt = -1;
    decoded_width = decoded_height = 0;
    audio_pos = 0;
    audio_start = Rational(0, 0);
    audio_range = Range(Rational(0, 0), Rational(0, 0));
    end_audio_run();
    close_filter();
    if (!stream) return;
    FrameScheduler* pool = g_decoder_mgr.pool_of(stream);
    pool->remove_worker(nullptr, true);
    // The movie's last decoder of this stream gone: what the probe left for
    // its streams is not kept waiting for a decoder that may never come.
    if (pool->worker_count() == 0) ParkedInstances::instance().release_movie(stream->movie);
}

long long FFDecoderPrivate::sec_to_stream_ts(const Rational& sec) const {
    if (!stream) return 0;
    long long ts = time_to_timestamp(sec, stream->time_base);
    if (stream->start_time != kNoPts) ts += stream->start_time;
    return ts;
}

std::shared_ptr<AVFrame> FFDecoderPrivate::get_frame(long long ts, std::atomic<bool>* cancel) {
    // A decoder that never opened has no pool and must not create one.
    if (!opened || !stream) return {};
    std::shared_ptr<AVFrame> frame = g_decoder_mgr.pool_of(stream)->do_working(ts, cancel, false, id, name);
    if (frame) last_ts = frame->pts;
    return frame;
}

std::shared_ptr<AVFrame> FFDecoderPrivate::get_next_frame(std::atomic<bool>* cancel, bool repeat_last) {
    if (!opened || !stream) return {};
    std::shared_ptr<AVFrame> frame = g_decoder_mgr.pool_of(stream)->do_working(last_ts, cancel, true, id, name);
    if (!frame) return {};
    if (frame->pts != last_ts) {
        last_ts = frame->pts;
        return frame;
    }
    return repeat_last ? frame : nullptr;
}

std::shared_ptr<VFrameCtx> FFDecoderPrivate::convert_to_dst_frame(AVFrame* frame, const RequireVideoFrame& req) {
    if (!frame || !stream) return {};
    const auto dst_format = static_cast<AVPixelFormat>(pixfmt_to_avpixfmt(req.format));
    // The stream's size decides the picture's; a stream that does not know
    // its size takes the frame's.
    int width = stream->width > 0 ? stream->width : frame->width;
    int height = stream->height > 0 ? stream->height : frame->height;
    const int src_width = width;
    const int src_height = height;
    if (req.divider > 1) {
        width = round_up(width / req.divider, 16);
        height = round_up(height / req.divider, 2);
    }
    const ScalerSettings wanted = scaler_settings_for(*frame, width, height, dst_format);
    if (!prepare_scaler(&sws, &sws_settings, wanted)) {
        CLIPDEC_LOG(kLogError, name, "no scaler for %dx%d fmt %d -> %dx%d fmt %d", frame->width, frame->height,
                    frame->format, width, height, static_cast<int>(dst_format));
        return {};
    }
    const int size = av_image_get_buffer_size(dst_format, width, height, 32);
    if (size <= 0) return {};
    // The record first: a block it owns cannot leak if making it throws.
    auto picture = std::make_shared<VFrameCtx>();
    void* buffer = bg::mempool::malloc(static_cast<unsigned>(size), 16);
    if (!buffer) return {};
    picture->buffer = buffer;
    picture->size = size;
    picture->width = width;
    picture->height = height;
    picture->format = dst_format;
    av_image_fill_arrays(picture->data, picture->linesize, static_cast<const uint8_t*>(buffer), dst_format, width,
                         height, 32);
    picture->src_width = src_width;
    picture->src_height = src_height;
    picture->divider = req.divider;
    picture->pts = av_rescale_q(frame->best_effort_timestamp, rational_convert(stream->time_base), kMicroseconds);
    picture->color_space = wanted.dst_full_range ? AVCOL_SPC_RGB : wanted.dst_matrix;
    picture->color_range = wanted.dst_full_range ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;

    const int ret = sws_scale(sws, frame->data, frame->linesize, 0, frame->height, picture->data, picture->linesize);
    if (ret < 0) CLIPDEC_LOG(kLogError, name, "sws error: %s", ffmpeg_error(ret));
    return picture;
}

std::shared_ptr<AFrameCtx> FFDecoderPrivate::convert_to_dst_aframe(AVFrame* frame, const RequireAudioFrame& req) {
    if (!frame) return {};
    const auto dst_format = static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(req.format));
    const int src_channels = compat_frame_channels(frame);
    const bool reusable = swr && swr_dst_channels == req.channels && swr_dst_rate == req.sample_rate &&
                          swr_dst_format == req.format && swr_src_channels == src_channels &&
                          swr_src_rate == frame->sample_rate && swr_src_format == frame->format;
    if (!reusable) {
        if (swr) swr_close(swr);
        // A request without a real format, rate or channel count has no resampler.
        const bool valid = dst_format != AV_SAMPLE_FMT_NONE && req.channels > 0 && req.sample_rate > 0;
        if (!valid || compat_swr_configure(&swr, req.channels, dst_format, req.sample_rate, frame) < 0 || swr_init(swr) < 0) {
            swr_free(&swr);
            return {};
        }
        swr_dst_channels = req.channels;
        swr_dst_rate = req.sample_rate;
        swr_dst_format = req.format;
        swr_src_channels = src_channels;
        swr_src_rate = frame->sample_rate;
        swr_src_format = frame->format;
    }

    return convert_samples(const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples, req);
}

std::shared_ptr<AFrameCtx> FFDecoderPrivate::flush_dst_aframe(const RequireAudioFrame& req) {
    if (!swr || swr_dst_rate != req.sample_rate || swr_dst_channels != req.channels || swr_dst_format != req.format)
        return {};
    return convert_samples(nullptr, 0, req);
}

std::shared_ptr<AFrameCtx> FFDecoderPrivate::convert_samples(const uint8_t** in, int count, const RequireAudioFrame& req) {
    // Converted straight into the pooled record: no intermediate frame, no copy.
    // (swr_convert rather than swr_convert_frame: the latter refuses input whose
    // channel layout is described differently from the context's, e.g. an
    // unspecified stereo against native stereo, though the samples are the same.)
    // No input drains what the resampler holds back.
    const int capacity = swr_get_out_samples(swr, count);
    if (capacity < 0 || (!in && capacity == 0)) return {};
    std::shared_ptr<AFrameCtx> result = create_audioframe_ctx(req, capacity > 0 ? capacity : 1);
    if (!result) return {};
    const int produced = swr_convert(swr, result->data, capacity, in, count);
    if (produced < 0) {
        CLIPDEC_LOG(kLogError, name, "--> swr convert failed: %s", ffmpeg_error(produced));
        return {};
    }
    // The record describes exactly the samples produced (none when the
    // resampler kept everything back this time).
    const auto dst_format = static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(req.format));
    result->nb_samples = produced;
    const int bytes = produced > 0 ? av_samples_get_buffer_size(nullptr, req.channels, produced, dst_format, 1) : 0;
    result->size = bytes;
    result->linesize[0] = bytes;
    return result;
}

std::unique_ptr<AsyncHelper> FFDecoderPrivate::detach_async() {
    std::lock_guard<std::mutex> lock(async_mutex);
    std::unique_ptr<AsyncHelper> worker(async);
    async = nullptr;
    return worker;
}

void FFDecoderPrivate::reset_resampler_fifo() {
    if (fifo) av_audio_fifo_free(fifo);
    fifo = nullptr;
    out_fifo.reset();
    out_pos = 0;
    span_frame.reset();
    span_capacity = 0;
    if (swr) swr_close(swr);
    swr_free(&swr);
}

bool FFDecoderPrivate::open_filter(const char* filters_descr) {
    CLIPDEC_SCOPE("open_filter", nullptr);
    // The decoder holds no filter while a new one is built: on failure it has none.
    std::unique_ptr<AVFilterMgr> mgr(filter ? filter : new AVFilterMgr());
    filter = nullptr;
    if (!stream) return false;

    CodecContext cc;
    cc.type = stream->type;
    cc.time_base_num = static_cast<int>(stream->time_base.num);
    cc.time_base_den = static_cast<int>(stream->time_base.den);
    if (stream->type == STREAM_VIDEO) {
        // Once pictures have been decoded, the graph takes in what the decoder
        // really delivers, which can differ from the probed parameters.
        cc.pix_fmt = decoded_pix_fmt >= 0 ? decoded_pix_fmt : stream->pix_fmt;
        cc.width = decoded_width > 0 ? decoded_width : stream->width;
        cc.height = decoded_height > 0 ? decoded_height : stream->height;
        cc.sar_num = static_cast<int>(stream->sample_aspect_ratio.num);
        cc.sar_den = static_cast<int>(stream->sample_aspect_ratio.den);
    } else if (stream->type == STREAM_AUDIO) {
        // Once audio has been decoded, the graph takes in what the decoder
        // really delivers, which can differ from the stream's parameters.
        cc.sample_fmt = fifo_format >= 0 ? fifo_format : stream->sample_fmt;
        cc.channel_layout = stream->channel_layout;
        cc.channels = stream->channels;
        cc.sample_rate = stream->sample_rate;
    } else {
        CLIPDEC_LOG(kLogError, kTagDefault, "no support for stream->type='%d'", static_cast<int>(stream->type));
        return false;
    }
    if (mgr->init_filters(&cc, filters_descr) != 0) return false;
    filter = mgr.release();
    filter_text = filters_descr;
    filter_sample_fmt = cc.sample_fmt;
    filter_pix_fmt = cc.pix_fmt;
    filter_width = cc.width;
    filter_height = cc.height;
    last_vframe.reset();
    return true;
}

int FFDecoderPrivate::filter_picture(std::shared_ptr<AVFrame>& frame) {
    if (frame->format != filter_pix_fmt || frame->width != filter_width || frame->height != filter_height) {
        decoded_pix_fmt = frame->format;
        decoded_width = frame->width;
        decoded_height = frame->height;
        const std::string text = filter_text;  // open_filter replaces the stored text
        if (!open_filter(text.c_str())) return AVERROR(EINVAL);
    }
    return excute_filting(filter, frame);
}

void FFDecoderPrivate::close_filter() {
    if (!filter) return;
    last_vframe.reset();
    delete filter;
    filter = nullptr;
}

}  // namespace ff
