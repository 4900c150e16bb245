// The loops a host would write with FFmpeg alone, which `clipdec bench`
// measures the library against: one stream decoded with send/receive,
// conversion to RGBA with sws_scale, resampling with swr_convert.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <clipdec/ff_ptr.h>

namespace cli {

// The textbook loop on one stream of the file: its own demuxer, a decoder
// with threads "auto" (as the library opens its own), send/receive, packets
// of other streams dropped. It opens the container index the library's
// record names, so both sides read the same stream (a negative index: the
// best stream of type `best`, as a host opening a file of its own would take).
// The tool's bench command and the benchmarks both measure against it.
class PlainStream {
public:
    bool open(const char* path, int stream_index, AVMediaType best = AVMEDIA_TYPE_VIDEO) {
        return open_input(path) && find_stream_info() && open_decoder(stream_index, best);
    }

    // The steps of open, for a caller that times each.
    bool open_input(const char* path) {
        AVFormatContext* raw = nullptr;
        if (avformat_open_input(&raw, path, nullptr, nullptr) < 0) return false;  // frees `raw` itself
        fmt_.reset(raw);
        return true;
    }
    bool find_stream_info() { return avformat_find_stream_info(fmt_.get(), nullptr) >= 0; }
    bool open_decoder(int stream_index, AVMediaType best = AVMEDIA_TYPE_VIDEO) {
        AVFormatContext* raw = fmt_.get();
        if (stream_index < 0) stream_index = av_find_best_stream(raw, best, -1, -1, nullptr, 0);
        if (stream_index < 0 || stream_index >= static_cast<int>(raw->nb_streams)) return false;
        index_ = stream_index;
        stream_ = raw->streams[stream_index];
        const AVCodec* codec = avcodec_find_decoder(stream_->codecpar->codec_id);
        if (!codec) return false;
        codec_.reset(avcodec_alloc_context3(codec));
        if (!codec_ || avcodec_parameters_to_context(codec_.get(), stream_->codecpar) < 0) return false;
        codec_->pkt_timebase = stream_->time_base;
        AVDictionary* opts = nullptr;
        av_dict_set(&opts, "threads", "auto", 0);
        const int opened = avcodec_open2(codec_.get(), codec, &opts);
        av_dict_free(&opts);
        packet_.reset(av_packet_alloc());
        return opened >= 0 && packet_;
    }

    // 0 with `frame` filled, AVERROR_EOF after the last frame, or an error.
    int next(AVFrame* frame) {
        for (;;) {
            const int received = avcodec_receive_frame(codec_.get(), frame);
            if (received >= 0) ++decoded;
            if (received != AVERROR(EAGAIN)) return received;
            const int read = av_read_frame(fmt_.get(), packet_.get());
            if (read == AVERROR_EOF) {
                avcodec_send_packet(codec_.get(), nullptr);  // drain the frames still inside
                continue;
            }
            if (read < 0) return read;
            const int sent = packet_->stream_index == index_ ? avcodec_send_packet(codec_.get(), packet_.get()) : 0;
            av_packet_unref(packet_.get());
            if (sent < 0) return sent;
        }
    }

    // Key frame at or before `ts` (stream time base), decoder flushed.
    bool seek(int64_t ts) {
        ++seeks;
        const int sought = av_seek_frame(fmt_.get(), index_, ts, AVSEEK_FLAG_BACKWARD);
        avcodec_flush_buffers(codec_.get());
        return sought >= 0;
    }

    const AVStream* stream() const { return stream_; }
    AVRational time_base() const { return stream_->time_base; }
    int64_t start() const { return stream_->start_time == AV_NOPTS_VALUE ? 0 : stream_->start_time; }
    int64_t ticks_per_second() const { return stream_->time_base.den / std::max(stream_->time_base.num, 1); }

    // What the loop has done since it was opened, for comparison with the
    // library's own counters.
    uint64_t decoded = 0;
    uint64_t seeks = 0;

private:
    ff::UniqueAVFormatInput fmt_;
    ff::UniqueAVCodecContext codec_;
    ff::UniqueAVPacket packet_;
    const AVStream* stream_ = nullptr;
    int index_ = -1;
};

// Full-size RGBA into one reused buffer, with fast bilinear: the library's
// own scaler setting, so both sides pay for the same conversion.
class RgbaConverter {
public:
    RgbaConverter() = default;
    RgbaConverter(const RgbaConverter&) = delete;
    RgbaConverter& operator=(const RgbaConverter&) = delete;
    ~RgbaConverter() { av_freep(&data_[0]); }

    bool allocate(int width, int height) {
        width_ = width;
        height_ = height;
        return av_image_alloc(data_, linesize_, width, height, AV_PIX_FMT_RGBA, 32) >= 0;
    }
    bool convert(const AVFrame* frame) {
        sws_.reset(sws_getCachedContext(sws_.release(), frame->width, frame->height,
                                        static_cast<AVPixelFormat>(frame->format), width_, height_, AV_PIX_FMT_RGBA,
                                        SWS_FAST_BILINEAR, nullptr, nullptr, nullptr));
        if (!sws_) return false;
        sws_scale(sws_.get(), frame->data, frame->linesize, 0, frame->height, data_, linesize_);
        return true;
    }
    // The converted picture's first plane.
    const uint8_t* data() const { return data_[0]; }

private:
    ff::UniqueSwsContext sws_;
    uint8_t* data_[4] = {};
    int linesize_[4] = {};
    int width_ = 0;
    int height_ = 0;
};

// The frame on screen at `target` (stream time base): the key frame at or
// before it, then forward to the last frame not after it; null when nothing
// decodes. `cur` and `prev` are the caller's frames, reused between calls.
const AVFrame* plain_frame_at(PlainStream& s, int64_t target, ff::UniqueAVFrame& cur, ff::UniqueAVFrame& prev);

// A resampler to packed float at `rate` and `channels`, set up from a decoded
// frame (only decoded frames tell the real layout and rate).
bool open_resampler(ff::UniqueSwrContext& swr, const AVFrame* frame, int rate, int channels);

// Decodes on from where `s` stands and converts with swr_convert to packed
// float at `rate` and `channels`, until `wanted` samples are converted (a
// negative count: to the end of the stream, the resampler's tail included).
// Returns the samples converted, -1 when no frame can be allocated; `kept`,
// when given, receives them.
long long plain_resample(PlainStream& s, int rate, int channels, long long wanted, std::vector<float>* kept = nullptr);

}  // namespace cli
