#include "ffdec_probe.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/display.h>
#include <libavutil/eval.h>
#include <libavutil/mathematics.h>
}

#include "cancel_flag.h"
#include "ff_compat.h"
#include "ff_ptr.h"
#include "ffdec_instance.h"
#include "frame_helpers.h"
#include "log.h"
#include "parked_instances.h"
#include "picture_orientation.h"
#include "rational_convert.h"

namespace ff {

std::unordered_map<std::string, MovieCtx*>& g_mvctx_map = *new std::unordered_map<std::string, MovieCtx*>(10);
std::mutex& g_mvctx_mtx = *new std::mutex();

// Records replaced in the cache by a concurrent probe of the same path stay
// valid (their first caller may be using them); kept here, under
// g_mvctx_mtx, so that they remain reachable like every other record.
static std::vector<MovieCtx*>& g_replaced_records = *new std::vector<MovieCtx*>();

namespace {

constexpr AVRational kMicroseconds{1, 1000000};
constexpr int64_t kStillMovieDuration = 40000;  // one frame at 25 fps

std::atomic<bool> g_inited{false};

bool set_or_measure_known(AVStream* st, long long movie_duration, bool unreliable) {
    if (!unreliable && st->duration != AV_NOPTS_VALUE) return true;
    if (!unreliable && movie_duration != AV_NOPTS_VALUE) {
        st->duration = av_rescale_q(movie_duration, kMicroseconds, st->time_base);
        return true;
    }
    return false;
}

StreamCtx* new_record(MovieCtx* mv, AVStream* st, StreamType type) {
    auto* s = new StreamCtx();
    s->index = st->index;
    s->type = type;
    s->time_base = rational_convert(st->time_base);
    s->codec_id = st->codecpar->codec_id;
    s->start_time = st->start_time;
    s->movie = mv;
    return s;
}

StreamCtx* append(MovieCtx* mv, StreamCtx* s) {
    mv->streams[mv->nb_streams++] = s;
    return s;
}

// Decodes to the end of the stream; returns the best-effort timestamp of the
// last frame decoded before the end or a cancel, and counts the frames seen.
int64_t last_frame_timestamp(Instance& inst, AVPacket* pkt, AVFrame* frame, bool have_frame,
                             std::atomic<bool>* cancel, long long* count) {
    int64_t last = have_frame ? frame->best_effort_timestamp : AV_NOPTS_VALUE;
    long long n = have_frame ? 1 : 0;
    for (;;) {
        if (cancelled(cancel)) break;
        if (inst.get_frame(pkt, frame) < 0) break;
        last = frame->best_effort_timestamp;
        ++n;
    }
    if (count) *count = n;
    return last;
}

int8_t* index_list(MovieCtx* mv, AVMediaType type, int** count) {
    switch (type) {
        case AVMEDIA_TYPE_VIDEO: *count = &mv->nb_video; return mv->video_indexes;
        case AVMEDIA_TYPE_AUDIO: *count = &mv->nb_audio; return mv->audio_indexes;
        default: *count = &mv->nb_subtitle; return mv->subtitle_indexes;
    }
}

void list_stream(MovieCtx* mv, AVMediaType type, const StreamCtx* record) {
    int* count = nullptr;
    int8_t* list = index_list(mv, type, &count);
    if (*count >= kMaxStreamsPerType) return;  // no room: the stream stays reachable through `streams`
    // A record is always the newest entry of `streams` when it gets listed.
    list[(*count)++] = static_cast<int8_t>(record ? mv->nb_streams - 1 : -1);
}

void fix_duration(MovieCtx* mv, bool unreliable, bool last_still) {
    if (mv->duration != AV_NOPTS_VALUE && !unreliable) return;
    if (last_still && mv->nb_audio == 0) {
        mv->duration = kStillMovieDuration;
        return;
    }
    if (unreliable) CLIPDEC_LOG(kLogWarning, kTagDefault, "unreliable duration detected ...");
    if (mv->nb_streams == 0) return;
    const StreamCtx* reference = mv->streams[0];
    if (!last_still && mv->nb_video > 0) {
        reference = nullptr;
        for (int i = 0; i < mv->nb_streams && !reference; ++i)
            if (mv->streams[i]->type == STREAM_VIDEO) reference = mv->streams[i];
        if (!reference) return;
    }
    // A reference of unknown length has nothing to correct with.
    if (reference->duration == AV_NOPTS_VALUE) return;
    mv->duration = av_rescale_q(reference->duration, rational_convert(reference->time_base), kMicroseconds);
    CLIPDEC_LOG(kLogError, kTagDefault, "** correct movie duration: %lld(sec)",
                static_cast<long long>(mv->duration / 1000000));
}

// The container's colour description of `st`.
void describe_colors(StreamCtx* s, const AVCodecParameters* par) {
    s->color_space = par->color_space;
    s->color_range = par->color_range;
    s->color_primaries = par->color_primaries;
    s->color_trc = par->color_trc;
    s->chroma_location = par->chroma_location;
    s->field_order = par->field_order;
}

// What the first decoded frame says, where it says more than the container
// (codecs such as VP9 carry their description in the bitstream only).
void describe_colors(StreamCtx* s, const AVFrame* frame) {
    if (frame->colorspace != AVCOL_SPC_UNSPECIFIED) s->color_space = frame->colorspace;
    if (frame->color_range != AVCOL_RANGE_UNSPECIFIED) s->color_range = frame->color_range;
    if (frame->color_primaries != AVCOL_PRI_UNSPECIFIED) s->color_primaries = frame->color_primaries;
    if (frame->color_trc != AVCOL_TRC_UNSPECIFIED) s->color_trc = frame->color_trc;
    if (frame->chroma_location != AVCHROMA_LOC_UNSPECIFIED) s->chroma_location = frame->chroma_location;
    if (s->field_order == AV_FIELD_UNKNOWN)
        s->field_order = !frame->interlaced_frame  ? AV_FIELD_PROGRESSIVE
                         : frame->top_field_first ? AV_FIELD_TT
                                                  : AV_FIELD_BB;
}

}  // namespace

double get_rotation(AVStream* st) {
    double theta = 0;
    const AVDictionaryEntry* rotate = av_dict_get(st->metadata, "rotate", nullptr, 0);
    if (rotate && *rotate->value && std::strcmp(rotate->value, "0") != 0) {
        char* tail = nullptr;
        theta = av_strtod(rotate->value, &tail);
        if (tail && *tail) theta = 0;
    }
    if (theta == 0) {
        const uint8_t* matrix = av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
        if (matrix) theta = -av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    }
    // A degenerate matrix gives NaN; treat it as no rotation.
    if (!std::isfinite(theta)) theta = 0;
    return theta - 360 * std::floor(theta / 360 + 0.9 / 360);
}

namespace {

// The first video stream of a probe decodes on the probe's own container
// (`container`, taken over when given), the others on instances of their
// own; each that decoded its first two frames and stopped there leaves
// instance and frames in `start` for the stream's first decoder. An instance
// that took the container is left in `start` in any case (without frames).
StreamCtx* describe_video_stream(MovieCtx* mv, AVStream* st, long long movie_duration, bool unreliable,
                                 std::atomic<bool>* cancel, UniqueAVFormatInput* container, ParkedStart* start) {
    StreamCtx* s = new_record(mv, st, STREAM_VIDEO);
    AVRational sar = st->codecpar->sample_aspect_ratio;
    AVRational frame_rate{0, 0};
    UniqueAVPacket pkt = make_packet();
    std::shared_ptr<AVFrame> first = create_avframe_ptr(av_frame_alloc());
    std::shared_ptr<AVFrame> second = create_avframe_ptr(av_frame_alloc());
    auto inst = std::make_unique<Instance>();
    describe_colors(s, st->codecpar);
    // Without an opened decoder the record is built from the container's data alone.
    const bool on_container = container && *container;
    const bool opened = pkt && first && second &&
                        (on_container ? inst->open(std::move(*container), st->index)
                                      : inst->open(mv->path, st->index));
    bool parkable = false;
    if (opened) {
        sar = inst->codec_context()->sample_aspect_ratio;
        if (inst->get_frame(pkt.get(), first.get()) >= 0) {
            sar = av_guess_sample_aspect_ratio(inst->format_contex(), inst->avstream(), first.get());
            frame_rate = av_guess_frame_rate(inst->format_contex(), inst->avstream(), first.get());
            describe_colors(s, first.get());
            s->codec_pix_fmt = st->codecpar->format;
            if (first->format != s->codec_pix_fmt) {
                s->frame_pix_fmt = first->format;
                CLIPDEC_LOG(kLogError, kTagDefault, "[hw enabled] pix_fmt convert: %d --> %d",
                            s->codec_pix_fmt, first->format);
            }
            // A second frame tells a still picture from a moving stream. (It is
            // only tried after a first one: a stream that decodes nothing at all
            // is broken, not still.)
            const int decoded = inst->get_frame(pkt.get(), second.get());
            s->still_image = decoded == AVERROR_EOF;
            if (decoded >= 0 && !set_or_measure_known(st, movie_duration, unreliable)) {
                long long n = 0;
                const int64_t last = last_frame_timestamp(*inst, pkt.get(), second.get(), true, cancel, &n);
                st->duration = last != AV_NOPTS_VALUE
                                   ? last
                                   : av_rescale_q(n, AVRational{frame_rate.den, frame_rate.num}, st->time_base);
            } else {
                parkable = decoded >= 0;
            }
        }
    }
    // An instance holding the probe's container must outlive the probe's
    // loop over that container's streams, parked or not.
    if (start && (parkable || on_container)) {
        start->instance = std::move(inst);
        if (parkable) start->frames = {first, second};
    }
    s->duration = st->duration;
    s->width = st->codecpar->width;
    s->height = st->codecpar->height;
    s->pix_fmt = s->frame_pix_fmt != -1 ? s->frame_pix_fmt : s->codec_pix_fmt;
    s->rotation = get_rotation(st);
    s->orientation = orientation_of(st, s->rotation);
    s->sample_aspect_ratio = rational_convert(sar);
    s->frame_rate = rational_convert(frame_rate);
    return append(mv, s);
}

}  // namespace

StreamCtx* probe_video_stream(MovieCtx* mv, AVStream* st, long long movie_duration, bool unreliable,
                              std::atomic<bool>* cancel) {
    return describe_video_stream(mv, st, movie_duration, unreliable, cancel, nullptr, nullptr);
}

StreamCtx* probe_audio_stream(MovieCtx* mv, AVStream* st, long long movie_duration, bool unreliable,
                              std::atomic<bool>* cancel) {
    StreamCtx* s = new_record(mv, st, STREAM_AUDIO);
    const AVCodecParameters* par = st->codecpar;
    s->channels = compat_codecpar_channels(par);
    s->channel_layout = compat_codecpar_channel_layout(par);
    if (s->channel_layout == 0) s->channel_layout = compat_default_channel_layout(s->channels);
    s->sample_rate = par->sample_rate;
    s->sample_fmt = par->format;

    if (!set_or_measure_known(st, movie_duration, unreliable)) {
        UniqueAVPacket pkt = make_packet();
        UniqueAVFrame frame = make_frame();
        Instance inst;
        if (pkt && frame && inst.open(mv->path, st->index)) {
            st->duration = last_frame_timestamp(inst, pkt.get(), frame.get(), false, cancel, nullptr);
        }
    }
    s->duration = st->duration;
    return append(mv, s);
}

StreamCtx* probe_subtitle_stream(MovieCtx* mv, AVStream* st, long long, bool, std::atomic<bool>*) {
    if (st->codecpar->codec_id != AV_CODEC_ID_SUBRIP) return nullptr;
    StreamCtx* s = new_record(mv, st, STREAM_SUBTITLE);
    s->duration = st->duration;
    UniqueAVPacket pkt = make_packet();
    Instance inst;
    if (pkt && inst.open(mv->path, st->index)) {
        while (inst.get_packet(pkt.get()) >= 0) {
            Subtitle sub;
            sub.start = av_rescale_q(pkt->pts, st->time_base, kMicroseconds);
            sub.end = pkt->duration > 0 ? av_rescale_q(pkt->pts + pkt->duration, st->time_base, kMicroseconds)
                                        : sub.start;
            sub.text.assign(reinterpret_cast<const char*>(pkt->data), pkt->size);
            s->subtitles.push_back(std::move(sub));
        }
    }
    return append(mv, s);
}

MovieCtx* probe_movie(const char* path, std::atomic<bool>* cancel) {
    // The cache key is built from the path under the lock; a null path never gets there.
    if (!path) return nullptr;
    if (!g_inited.exchange(true)) compat_register_all();
    {
        std::lock_guard<std::mutex> lock(g_mvctx_mtx);
        const auto it = g_mvctx_map.find(path);
        if (it != g_mvctx_map.end()) {
            CLIPDEC_LOG(kLogDebug, kTagDefault, "mvCtx from cache: %s", path);
            return it->second;
        }
    }

    AVFormatContext* raw = nullptr;
    const int opened = avformat_open_input(&raw, path, nullptr, nullptr);
    UniqueAVFormatInput fmt(raw);  // null after a failed open, which frees its own context
    if (opened != 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "can't open input file: %s", path);
        return nullptr;
    }
    auto* mv = new MovieCtx();
    mv->path = av_strdup(path);
    avformat_find_stream_info(fmt.get(), nullptr);
    mv->start_time = fmt->start_time;
    mv->duration = fmt->duration;
    mv->bit_rate = fmt->bit_rate;
    const bool unreliable = fmt->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;

    bool last_still = false;
    // The first video stream's instance takes the container over; it is read
    // through `container` until the loop ends, and the instances are parked
    // only then, so that nothing can release them while it is read.
    AVFormatContext* const container = fmt.get();
    std::vector<std::pair<const StreamCtx*, ParkedStart>> starts;
    for (unsigned i = 0; i < container->nb_streams; ++i) {
        AVStream* st = container->streams[i];
        const AVMediaType type = st->codecpar->codec_type;
        if (!avcodec_find_decoder(st->codecpar->codec_id)) continue;
        if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_SUBTITLE) continue;
        // Streams past the record array's capacity are left out.
        if (mv->nb_streams >= kMaxMovieStreams) break;
        StreamCtx* record = nullptr;
        if (type == AVMEDIA_TYPE_VIDEO) {
            ParkedStart start;
            record = describe_video_stream(mv, st, mv->duration, unreliable, cancel, &fmt, &start);
            last_still = record->still_image;
            if (start.instance) starts.emplace_back(record, std::move(start));
        } else if (type == AVMEDIA_TYPE_AUDIO) {
            record = probe_audio_stream(mv, st, mv->duration, unreliable, cancel);
        } else {
            record = probe_subtitle_stream(mv, st, mv->duration, unreliable, cancel);
        }
        list_stream(mv, type, record);
    }
    fix_duration(mv, unreliable, last_still);
    fmt.reset();
    for (auto& [stream, start] : starts)
        if (!start.frames.empty()) ParkedInstances::instance().park(stream, std::move(start));

    std::lock_guard<std::mutex> lock(g_mvctx_mtx);
    MovieCtx*& slot = g_mvctx_map[path];
    if (slot) g_replaced_records.push_back(slot);
    slot = mv;
    return mv;
}

}  // namespace ff
