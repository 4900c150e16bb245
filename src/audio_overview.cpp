#include "audio_overview.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "ff_compat.h"
#include "ff_ptr.h"
#include "ffdec_instance.h"
#include "guarded.h"
#include "log.h"
#include "utils/fs.h"

namespace ff {

long long AudioOverview::bucketStart(int k) const {
    if (bucket.den <= 0 || bucket.num <= 0 || sampleRate <= 0) return 0;
    return av_rescale_rnd(k, bucket.num * sampleRate, bucket.den, AV_ROUND_NEAR_INF);
}

namespace {

// ---------------------------------------------------------------- the cache

struct OverviewKey {
    std::string file;  // path, size and modification time (file_unique_id)
    int stream;
    Rational bucket;   // reduced

    bool operator==(const OverviewKey& o) const {
        return file == o.file && stream == o.stream && bucket.num == o.bucket.num && bucket.den == o.bucket.den;
    }
};

// The most recent overviews; `mutex` guards `recent`, and nothing else is
// locked while it is held (an overview holds only plain vectors).
class OverviewCache {
public:
    static constexpr size_t kEntries = 16;

    std::shared_ptr<const AudioOverview> find(const OverviewKey& key) {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto it = recent.begin(); it != recent.end(); ++it) {
            if (!(it->first == key)) continue;
            recent.splice(recent.begin(), recent, it);
            return recent.front().second;
        }
        return {};
    }
    void insert(const OverviewKey& key, std::shared_ptr<const AudioOverview> overview) {
        std::lock_guard<std::mutex> lock(mutex);
        recent.emplace_front(key, std::move(overview));
        if (recent.size() > kEntries) recent.pop_back();
    }

private:
    std::mutex mutex;
    std::list<std::pair<OverviewKey, std::shared_ptr<const AudioOverview>>> recent;  // newest first
};

OverviewCache& overview_cache() {
    static OverviewCache* const cache = new OverviewCache();  // never destroyed: answers may be asked for at exit
    return *cache;
}

// ---------------------------------------------------------------- samples as float full scale

inline float full_scale(uint8_t v) { return (static_cast<float>(v) - 128.0f) / 128.0f; }
inline float full_scale(int16_t v) { return static_cast<float>(v) / 32768.0f; }
inline float full_scale(int32_t v) { return static_cast<float>(static_cast<double>(v) / 2147483648.0); }
inline float full_scale(int64_t v) { return static_cast<float>(static_cast<double>(v) / 9223372036854775808.0); }
inline float full_scale(float v) { return v; }
inline float full_scale(double v) { return static_cast<float>(v); }

// One channel's running figures within the current bucket.
struct ChannelBucket {
    float lo = 0;
    float hi = 0;
    double squares = 0;
};

// The loop every sample goes through; `Stride` fixed at compile time for
// planar samples, so that it runs over contiguous memory. Four lanes of
// running figures keep the processor's pipelines full (the minimum and the
// maximum do not depend on the order; the squares move by rounding only).
// Squares are summed in float over blocks of 64 samples (exact enough for
// samples of at most full scale) and the blocks in double, so that long
// buckets keep their precision.
template <typename T, int Stride>
void accumulate_run(const T* p, int stride, long long count, ChannelBucket& b) {
    const long long step = Stride > 0 ? Stride : stride;
    float lo[4] = {b.lo, b.lo, b.lo, b.lo}, hi[4] = {b.hi, b.hi, b.hi, b.hi};
    double squares = 0;
    long long i = 0;
    while (i < count) {
        const long long block_end = std::min(count, i + 64);
        float sq[4] = {0, 0, 0, 0};
        for (; i + 4 <= block_end; i += 4) {
            for (int lane = 0; lane < 4; ++lane) {
                const float v = full_scale(p[(i + lane) * step]);
                lo[lane] = v < lo[lane] ? v : lo[lane];
                hi[lane] = v > hi[lane] ? v : hi[lane];
                sq[lane] += v * v;
            }
        }
        for (; i < block_end; ++i) {
            const float v = full_scale(p[i * step]);
            lo[0] = v < lo[0] ? v : lo[0];
            hi[0] = v > hi[0] ? v : hi[0];
            sq[0] += v * v;
        }
        squares += static_cast<double>(sq[0]) + sq[1] + sq[2] + sq[3];
    }
    b.lo = std::min(std::min(lo[0], lo[1]), std::min(lo[2], lo[3]));
    b.hi = std::max(std::max(hi[0], hi[1]), std::max(hi[2], hi[3]));
    b.squares += squares;
}

template <typename T>
void accumulate(const uint8_t* bytes, int stride, long long count, bool first, ChannelBucket& b) {
    const T* p = reinterpret_cast<const T*>(bytes);
    if (first) b.lo = b.hi = full_scale(p[0]);
    if (stride == 1) {
        accumulate_run<T, 1>(p, 1, count, b);
    } else {
        accumulate_run<T, 0>(p, stride, count, b);
    }
}

using Accumulate = void (*)(const uint8_t*, int, long long, bool, ChannelBucket&);

Accumulate accumulator_for(AVSampleFormat packed) {
    switch (packed) {
        case AV_SAMPLE_FMT_U8: return accumulate<uint8_t>;
        case AV_SAMPLE_FMT_S16: return accumulate<int16_t>;
        case AV_SAMPLE_FMT_S32: return accumulate<int32_t>;
        case AV_SAMPLE_FMT_S64: return accumulate<int64_t>;
        case AV_SAMPLE_FMT_FLT: return accumulate<float>;
        case AV_SAMPLE_FMT_DBL: return accumulate<double>;
        default: return nullptr;
    }
}

// ---------------------------------------------------------------- buckets

// Cuts decoded samples into the overview's buckets as they arrive.
class BucketCutter {
public:
    explicit BucketCutter(AudioOverview& out)
        : out_(out), channel_(static_cast<size_t>(out.channels)), end_(out.bucketStart(1)) {}

    // False when the frame's samples cannot be read (unknown layout).
    bool add(const AVFrame& frame) {
        const auto format = static_cast<AVSampleFormat>(frame.format);
        const Accumulate acc = accumulator_for(av_get_packed_sample_fmt(format));
        if (!acc) return false;
        const bool planar = av_sample_fmt_is_planar(format) != 0;
        const int size = av_get_bytes_per_sample(format);
        const int channels = out_.channels;
        for (long long i = 0; i < frame.nb_samples;) {
            const long long take = std::min<long long>(frame.nb_samples - i, end_ - out_.samples);
            for (int c = 0; c < channels; ++c) {
                const uint8_t* at = planar ? frame.extended_data[c] + i * size
                                           : frame.extended_data[0] + (i * channels + c) * size;
                acc(at, planar ? 1 : channels, take, in_bucket_ == 0, channel_[c]);
            }
            in_bucket_ += take;
            out_.samples += take;
            i += take;
            if (out_.samples == end_) close_bucket();
        }
        return true;
    }

    // The last bucket ends with the stream.
    void finish() {
        if (in_bucket_ > 0) close_bucket();
    }

private:
    void close_bucket() {
        for (ChannelBucket& b : channel_) {
            out_.min.push_back(b.lo);
            out_.max.push_back(b.hi);
            out_.rms.push_back(static_cast<float>(std::sqrt(b.squares / static_cast<double>(in_bucket_))));
            b = ChannelBucket();
        }
        ++out_.buckets;
        in_bucket_ = 0;
        end_ = out_.bucketStart(out_.buckets + 1);
    }

    AudioOverview& out_;
    std::vector<ChannelBucket> channel_;
    long long end_;           // the sample the current bucket ends before
    long long in_bucket_ = 0; // samples in the current bucket so far
};

// ---------------------------------------------------------------- decoding

// Tells the host how far the decode has come, in steps of a hundredth.
class Progress {
public:
    Progress(const std::function<void(double)>& report, long long expected)
        : report_(report), expected_(expected) {}
    void at(long long samples) {
        if (!report_ || expected_ <= 0) return;
        const double fraction = std::min(1.0, static_cast<double>(samples) / static_cast<double>(expected_));
        if (fraction - reported_ < 0.01) return;
        reported_ = fraction;
        report_(fraction);
    }
    void done() {
        if (report_) report_(1.0);
    }

private:
    const std::function<void(double)>& report_;
    long long expected_;
    double reported_ = 0;
};

bool open_audio(const char* path, int stream, Instance& inst) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path, nullptr, nullptr) != 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "overview: can't open input file: %s", path);
        return false;
    }
    UniqueAVFormatInput container(raw);
    if (avformat_find_stream_info(raw, nullptr) < 0) return false;
    if (stream < 0) stream = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (stream < 0 || stream >= static_cast<int>(raw->nb_streams) ||
        raw->streams[stream]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) {
        CLIPDEC_LOG(kLogError, kTagDefault, "overview: no audio stream %d in %s", stream, path);
        return false;
    }
    return inst.open(std::move(container), stream);
}

// Samples per channel the stream is expected to hold, for progress only.
long long expected_samples(const Instance& inst, int rate) {
    const AVStream* st = inst.avstream();
    if (st->duration != AV_NOPTS_VALUE) return av_rescale_q(st->duration, st->time_base, AVRational{1, rate});
    const AVFormatContext* fmt = inst.format_contex();
    return fmt->duration != AV_NOPTS_VALUE ? av_rescale(fmt->duration, rate, AV_TIME_BASE) : 0;
}

std::shared_ptr<AudioOverview> decode_overview(const char* path, int stream, const Rational& bucket,
                                               std::atomic<bool>* cancel,
                                               const std::function<void(double)>& progress) {
    Instance inst;
    if (!open_audio(path, stream, inst)) return {};
    UniqueAVPacket pkt = make_packet();
    UniqueAVFrame frame = make_frame();
    if (!pkt || !frame) return {};

    auto out = std::make_shared<AudioOverview>();
    out->bucket = bucket;
    std::unique_ptr<BucketCutter> cutter;
    std::unique_ptr<Progress> report;
    for (;;) {
        if (cancel && cancel->load()) return {};
        const int ret = inst.get_frame(pkt.get(), frame.get());
        if (ret == AVERROR_EOF) break;
        if (ret < 0) continue;  // a damaged packet: the rest of the stream still counts
        if (!cutter) {
            // The decoded frames say what the stream really is.
            out->sampleRate = frame->sample_rate;
            out->channels = compat_frame_channels(frame.get());
            if (out->sampleRate <= 0 || out->channels <= 0 || out->bucketStart(1) < 1) return {};
            cutter = std::make_unique<BucketCutter>(*out);
            report = std::make_unique<Progress>(progress, expected_samples(inst, out->sampleRate));
        }
        // A frame of another shape (a stream that changes its layout) would
        // be read with the wrong stride: it is left out.
        if (compat_frame_channels(frame.get()) != out->channels || !cutter->add(*frame)) continue;
        report->at(out->samples);
    }
    if (!cutter) return {};
    cutter->finish();
    report->done();
    return out;
}

}  // namespace

std::shared_ptr<const AudioOverview> getAudioOverview(const char* path, int stream, const Rational& bucket,
                                                      std::atomic<bool>* cancel,
                                                      const std::function<void(double)>& progress) {
    return guarded("getAudioOverview", std::shared_ptr<const AudioOverview>(),
                   [&]() -> std::shared_ptr<const AudioOverview> {
                       if (!path || bucket.num <= 0 || bucket.den <= 0) return {};
                       Rational reduced = bucket;
                       reduced.reduce();
                       const OverviewKey key{fs::file_unique_id(path), stream, reduced};
                       if (auto known = overview_cache().find(key)) return known;
                       std::shared_ptr<const AudioOverview> fresh = decode_overview(path, stream, reduced, cancel, progress);
                       if (fresh) overview_cache().insert(key, fresh);
                       return fresh;
                   });
}

}  // namespace ff
