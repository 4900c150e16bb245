#include "ffdec_instance.h"

#include "decode_counters.h"
#include "ff_compat.h"
#include "ffmpeg_error.h"
#include "hw/hw_decoder.h"
#include "log.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace ff {
namespace {

// The decoder for `st`. FFmpeg's native VP8 and VP9 decoders ignore the alpha
// plane that WebM carries beside the picture (marked by the track's
// "alpha_mode"); libvpx's decoders keep it, so such streams go to them when
// this FFmpeg has them.
AVCodecPtr choose_decoder(const AVStream* st) {
    const AVCodecID id = st->codecpar->codec_id;
    const AVDictionaryEntry* alpha = av_dict_get(st->metadata, "alpha_mode", nullptr, 0);
    if (alpha && std::strcmp(alpha->value, "1") == 0) {
        AVCodecPtr with_alpha = id == AV_CODEC_ID_VP9   ? avcodec_find_decoder_by_name("libvpx-vp9")
                                : id == AV_CODEC_ID_VP8 ? avcodec_find_decoder_by_name("libvpx")
                                                        : nullptr;
        if (with_alpha) return with_alpha;
    }
    return avcodec_find_decoder(id);
}

}  // namespace

Instance::~Instance() { close(); }

void Instance::close() {
    av_dict_free(&opts);
    HWDecoder::instance()->hw_codec_free_context(&codec_ctx);
    avformat_close_input(&fmt_ctx);
}

bool Instance::open(const char* path, int stream_index) {
    int err = avformat_open_input(&fmt_ctx, path, nullptr, nullptr);
    if (err != 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to open: %s, %s", path ? path : "(null)",
                    ffmpeg_error(err));
        return false;
    }
    err = avformat_find_stream_info(fmt_ctx, nullptr);
    if (err < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to find stream info: %s", ffmpeg_error(err));
        return false;
    }
    return open_decoder(stream_index);
}

bool Instance::open(UniqueAVFormatInput container, int stream_index) {
    close();
    fmt_ctx = container.release();
    return fmt_ctx && open_decoder(stream_index);
}

bool Instance::open_decoder(int stream_index) {
    const char* path = fmt_ctx->url ? fmt_ctx->url : "(null)";
    // The index comes from the caller; one outside the container's list must
    // not reach into it.
    if (stream_index < 0 || static_cast<unsigned>(stream_index) >= fmt_ctx->nb_streams) {
        CLIPDEC_LOG(kLogError, kTagDefault, "stream index out of range: %s, [%d], %u", path,
                    stream_index, fmt_ctx->nb_streams);
        return false;
    }
    stream = fmt_ctx->streams[stream_index];
    AVCodecPtr decoder = choose_decoder(stream);
    if (!decoder) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to find decoder for: %s, [%d], %d", path,
                    stream_index, static_cast<int>(stream->codecpar->codec_id));
        return false;
    }
    codec_ctx = HWDecoder::instance()->hw_codec_alloc_context3(decoder);
    if (!codec_ctx) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to alloc codec context");
        return false;
    }
    if (avcodec_parameters_to_context(codec_ctx, stream->codecpar) < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to copy parameters");
        return false;
    }
    // Frame timestamps are interpreted in the stream's time base everywhere above.
    codec_ctx->pkt_timebase = stream->time_base;
    if (av_dict_set(&opts, "threads", "auto", 0) < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to set codec options");
    }
    const int err = avcodec_open2(codec_ctx, decoder, &opts);
    if (err < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "failed to open codec: %d, err=%d, %s",
                    static_cast<int>(stream->codecpar->codec_id), err, ffmpeg_error(err));
        return false;
    }
    return true;
}

int Instance::read_own_packet(AVPacket* pkt) {
    int r;
    do {
        av_packet_unref(pkt);
        r = av_read_frame(fmt_ctx, pkt);
    } while (r >= 0 && pkt->stream_index != stream->index);
    if (r >= 0) count(decode_counters().packets_read);
    return r;
}

int Instance::get_frame(AVPacket* pkt, AVFrame* frame) {
    if (!fmt_ctx || !codec_ctx || !pkt || !frame) return AVERROR(EINVAL);
    av_frame_unref(frame);
    bool draining = false;
    for (;;) {
        const int ret = HWDecoder::instance()->hw_codec_receive_frame(codec_ctx, frame);
        if (ret >= 0) count(decode_counters().frames_decoded);
        if (ret != AVERROR(EAGAIN) || draining) return ret;

        const int r = read_own_packet(pkt);
        if (r == AVERROR_EOF) {
            // A null packet starts draining: the decoder gives out what it buffered.
            avcodec_send_packet(codec_ctx, nullptr);
            draining = true;
            continue;
        }
        if (r < 0) {
            CLIPDEC_LOG(kLogError, kTagDefault, "read packet failed: %s", ffmpeg_error(r));
            return r;
        }
        apply_skip(pkt->pts);
        const int sent = avcodec_send_packet(codec_ctx, pkt);
        av_packet_unref(pkt);
        if (sent < 0) return sent;
        draining = false;
    }
}

void Instance::skip_unreferenced_before(long long pts) { skip_before = pts; }

void Instance::decode_key_frames_only(bool on) {
    base_discard = on ? AVDISCARD_NONKEY : AVDISCARD_DEFAULT;
    if (codec_ctx) codec_ctx->skip_frame = base_discard;
}

void Instance::apply_skip(long long packet_pts) {
    if (skip_before == AV_NOPTS_VALUE) return;
    // Packets come in decoding order: the first one at or past the limit ends
    // the skipping for good (B-frames after it are decoded whole).
    const bool skip = packet_pts != AV_NOPTS_VALUE && packet_pts < skip_before;
    if (!skip) skip_before = AV_NOPTS_VALUE;
    codec_ctx->skip_frame = skip ? std::max(AVDISCARD_NONREF, base_discard) : base_discard;
}

int Instance::get_packet(AVPacket* pkt) {
    if (!fmt_ctx || !pkt) return AVERROR(EINVAL);
    return read_own_packet(pkt);
}

int Instance::get_subtitle(AVPacket* pkt, AVSubtitle* sub) {
    if (!fmt_ctx || !codec_ctx || !pkt || !sub) return AVERROR(EINVAL);
    const int r = read_own_packet(pkt);
    if (r < 0) return r;
    int got = 0;
    const int ret = avcodec_decode_subtitle2(codec_ctx, sub, &got, pkt);
    return got ? ret : -1;
}

uint8_t* Instance::get_subtitle_header() { return codec_ctx ? codec_ctx->subtitle_header : nullptr; }

bool Instance::seek(long long ts, bool flush) {
    if (!fmt_ctx || !codec_ctx || !stream) return false;
    skip_before = AV_NOPTS_VALUE;
    codec_ctx->skip_frame = base_discard;
    if (flush) avcodec_flush_buffers(codec_ctx);
    count(decode_counters().seeks);
    int r;
    if (codec_ctx->codec_type == AVMEDIA_TYPE_AUDIO) {
        // Stream index -1: the bounds are in microseconds, accepting a landing
        // point from 100 us before to 2 us after the target.
        const long long target = av_rescale_q(ts, stream->time_base, AVRational{1, 1000000});
        CLIPDEC_LOG(kLogDebug, kTagDefault, "[seek convert] ---> audio target = %lld usec", target);
        r = avformat_seek_file(fmt_ctx, -1, target - 100, target, target + 2, AVSEEK_FLAG_BACKWARD);
    } else {
        r = av_seek_frame(fmt_ctx, stream->index, ts, AVSEEK_FLAG_BACKWARD);
    }
    if (r < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "---> seek failed: %s", ffmpeg_error(r));
        return false;
    }
    return true;
}

}  // namespace ff
