#include "filmstrip.h"

#include <algorithm>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "cancel_flag.h"
#include "ff_ptr.h"
#include "ff_tools.h"
#include "ffdec_instance.h"
#include "ffdecoder.h"
#include "ffdecoder_private.h"
#include "first_video.h"
#include "frame_helpers.h"
#include "guarded.h"
#include "movie_info.h"
#include "rational_convert.h"

namespace ff {
namespace {

constexpr int kMaxStepsBack = 24;  // seeks that land after their target, before giving up on one picture

long long stream_start(const StreamCtx& st) { return st.start_time == kNoPts ? 0 : st.start_time; }

// Seconds from the stream's start of a picture's microsecond timestamp.
Rational shown_time(const StreamCtx& st, long long picture_us) {
    const long long start_us = av_rescale_q(stream_start(st), rational_convert(st.time_base), AVRational{1, 1000000});
    Rational shown(picture_us - start_us, 1000000);
    shown.reduce();
    return shown;
}

// The key frame at or before each time, from an instance that decodes key
// frames only: after a seek to the time (which lands on the key frame before
// it), the first frame out is that key frame.
class KeyFrameReader {
public:
    explicit KeyFrameReader(const StreamCtx& st) : st_(st) {}

    bool open() {
        if (!st_.movie || !packet_ || !inst_.open(st_.movie->path, st_.index)) return false;
        inst_.decode_key_frames_only(true);
        return true;
    }

    std::shared_ptr<AVFrame> at_or_before(long long ts, std::atomic<bool>* cancel) {
        // Where the container has an index, a time whose key frame entry is
        // that of the last picture shares it, without a seek or a decode.
        const int entry = av_index_search_timestamp(inst_.avstream(), ts, AVSEEK_FLAG_BACKWARD);
        if (entry >= 0 && entry == last_entry_ && last_) return last_;
        std::shared_ptr<AVFrame> key = decode_at_or_before(ts, cancel);
        last_ = key;
        last_entry_ = key ? entry : -1;
        return key;
    }

private:
    std::shared_ptr<AVFrame> decode_at_or_before(long long ts, std::atomic<bool>* cancel) {
        const long long begin = stream_start(st_);
        long long target = ts, step = std::max<long long>(st_.time_base.num > 0 ? st_.time_base.den / st_.time_base.num : 1, 1);
        for (int tries = 0; tries < kMaxStepsBack && !cancelled(cancel); ++tries) {
            std::shared_ptr<AVFrame> frame = create_avframe_ptr(av_frame_alloc());
            if (!frame || !inst_.seek(target <= begin ? 0 : target, true)) return {};
            if (inst_.get_frame(packet_.get(), frame.get()) < 0) return {};
            if (frame->best_effort_timestamp <= ts || target <= begin) return frame;
            // The demuxer landed after the time: further back, twice as far each time.
            target = target - begin > step ? target - step : begin;
            step *= 2;
        }
        return {};
    }

    const StreamCtx& st_;
    Instance inst_;
    UniqueAVPacket packet_ = make_packet();
    std::shared_ptr<AVFrame> last_;  // the last key frame decoded
    int last_entry_ = -1;            // its entry in the container's index, or -1
};

std::vector<FilmstripPicture> exact_strip(FFDecoder& decoder, const std::vector<Rational>& times,
                                          const RequireVideoFrame& base) {
    const StreamCtx& st = *decoder.streamContex();
    std::vector<FilmstripPicture> strip;
    for (const Rational& t : times) {
        if (cancelled(base.cancel)) break;
        RequireVideoFrame req = base;
        req.time = t;
        std::shared_ptr<VFrameCtx> picture = decoder.getVideoFrame(req);
        if (!picture) break;
        strip.push_back({picture, t, shown_time(st, picture->pts)});
    }
    return strip;
}

std::vector<FilmstripPicture> fast_strip(const StreamCtx& st, const std::vector<Rational>& times,
                                         const RequireVideoFrame& base) {
    std::vector<FilmstripPicture> strip;
    KeyFrameReader keys(st);
    if (!keys.open()) return strip;
    // Pictures are converted as the decoders convert theirs.
    FFDecoderPrivate converter;
    converter.stream = &st;
    std::shared_ptr<AVFrame> previous;
    for (const Rational& t : times) {
        if (cancelled(base.cancel)) break;
        const long long ts = time_to_timestamp(t, st.time_base) + stream_start(st);
        std::shared_ptr<AVFrame> key = keys.at_or_before(ts, base.cancel);
        if (!key) break;
        // Times in one group of pictures share their key frame: one picture.
        if (!strip.empty() && previous && previous->best_effort_timestamp == key->best_effort_timestamp) {
            strip.push_back({strip.back().picture, t, strip.back().shown});
            continue;
        }
        std::shared_ptr<VFrameCtx> picture = converter.convert_to_dst_frame(key.get(), base);
        if (!picture) break;
        strip.push_back({picture, t, shown_time(st, picture->pts)});
        previous = key;
    }
    converter.stream = nullptr;
    return strip;
}

// Times (i + 0.5) * duration / count from the stream's start; the movie's
// duration stands in for a stream that has none (a still picture); none when
// neither is known.
std::vector<Rational> strip_times(const StreamCtx& st, int count) {
    std::vector<Rational> times;
    Rational duration;
    if (st.duration != kNoPts && st.duration > 0) {
        duration = timestamp_to_time(st.duration, st.time_base);
    } else if (st.movie && st.movie->duration > 0) {
        duration = Rational(st.movie->duration, 1000000);
    } else {
        return times;
    }
    for (int i = 0; i < count; ++i) times.push_back(duration * Rational(2 * i + 1, 2LL * count));
    return times;
}

RequireVideoFrame picture_request(const StreamCtx& st, const RequireFilmstrip& req) {
    RequireVideoFrame base;
    base.format = req.format;
    base.divider = movie_image_divider(st.width, st.height, req.width, req.height);
    base.cancel = req.cancel;
    return base;
}

std::vector<FilmstripPicture> filmstrip(const char* path, const RequireFilmstrip& req) {
    if (req.count <= 0) return {};
    MovieCtx* movie = FFDecoder::probe(path, req.cancel);
    if (!movie || movie->nb_video <= 0) return {};
    if (req.fast) {
        // The key frames come from an instance of their own: no decoder.
        const int position = movie->video_indexes[0];
        if (position < 0 || position >= movie->nb_streams || !movie->streams[position]) return {};
        const StreamCtx& st = *movie->streams[position];
        return fast_strip(st, strip_times(st, req.count), picture_request(st, req));
    }
    std::unique_ptr<FFDecoder> decoder = open_first_video(movie);
    if (!decoder) return {};
    const StreamCtx& st = *decoder->streamContex();
    return exact_strip(*decoder, strip_times(st, req.count), picture_request(st, req));
}

}  // namespace

std::vector<FilmstripPicture> getFilmstrip(const char* path, const RequireFilmstrip& req) {
    return guarded("getFilmstrip", std::vector<FilmstripPicture>(), [&] { return filmstrip(path, req); });
}

}  // namespace ff
