#include "ffdecoder2.h"

#include <cmath>
#include <cstdio>
#include <mutex>

#include "ffdecoder_private.h"
#include "guarded.h"
#include "log.h"
#include "playback_direction.h"
#include "movie_info.h"

namespace ff {

namespace {

constexpr size_t kMaxFilterText = 1023;  // the description buffer holds 1024 bytes
constexpr double kMinSpeed = 0.5;
constexpr double kMaxSpeed = 3.0;

// Clip time t reads stream time t * F with F = {speed * 100 truncated, 100}.
Rational speed_factor(double speed) { return Rational(static_cast<long long>(speed * 100), 100); }

}  // namespace

// `mutex` guards every field. Requests take it alone, to read the mapping
// before they take req_mutex; setSpeed and setFilters take it inside
// req_mutex; setRevert takes it without req_mutex and updates the
// reverse-play registry under it. Order: req_mutex -> `mutex` -> the
// registry's mutex.
class FFDecoder2Private {
public:
    double speed = 1.0;
    std::string filters;
    bool revert = false;
    Rational duration{0, 0};
    std::mutex mutex;
};

namespace {

// What a request reads of the settings, taken in one go.
struct TimeMapping {
    double speed;
    bool revert;
    Rational duration;
};

TimeMapping mapping_of(FFDecoder2Private* d2) {
    std::lock_guard<std::mutex> lock(d2->mutex);
    return {d2->speed, d2->revert, d2->duration};
}

}  // namespace

std::string combineFilters(StreamType type, const std::string& user, double speed) {
    return guarded("combineFilters", std::string(), [&] {
        std::string text;
        if (type == STREAM_AUDIO && !(speed == 1.0)) {
            char tempo[64];
            std::snprintf(tempo, sizeof tempo, "atempo=%lf", speed);
            text = tempo;
        }
        if (!user.empty() && user != "anull" && user != "null") {
            if (!text.empty()) text += ", ";
            text += user;
        }
        std::fprintf(stderr, "[filter] type=%d, *****-> %s\n", static_cast<int>(type), text.c_str());
        std::fflush(stderr);
        return text;
    });
}

FFDecoder2::FFDecoder2() : d2(new FFDecoder2Private()) {}

FFDecoder2::~FFDecoder2() {
    // Queued jobs call the overrides below: stop them before this part goes.
    close();
    set_plays_backward(private_data()->id, false);
    delete d2;
}

double FFDecoder2::speed() const { return mapping_of(d2).speed; }

bool FFDecoder2::install_filter_text(const std::string& text) {
    FFDecoderPrivate* d = private_data();
    d->end_audio_run();  // another speed or filter: the next audio request starts afresh
    if (text.empty()) {
        std::fprintf(stderr, "close filter: %s\n", text.c_str());
        std::fflush(stderr);
        d->close_filter();
        return true;
    }
    // A description that would not fit is refused, never cut.
    if (text.size() > kMaxFilterText) {
        CLIPDEC_LOG(kLogError, kTagDefault, "filter text too long: %zu > 1023", text.size());
        return false;
    }
    std::fprintf(stderr, "open filter: %s\n", text.c_str());
    std::fflush(stderr);
    return d->open_filter(text.c_str());
}

template <typename F>
bool FFDecoder2::between_requests(const char* where, F change) {
    return guarded(where, false, [&] {
        // Under the request mutex no request of this decoder runs, so the
        // graph being replaced is not in use.
        FFDecoderPrivate* d = private_data();
        std::lock_guard<std::mutex> lock(d->req_mutex);
        if (!d->stream || !d->opened) return false;  // nothing to filter on a decoder that is not open
        return change(d->stream->type);
    });
}

bool FFDecoder2::setSpeed(double s) {
    // `!(s >= min && s <= max)` also refuses a speed that is not a number.
    if (!(s >= kMinSpeed && s <= kMaxSpeed)) {
        CLIPDEC_LOG(kLogError, kTagDefault, "speed = %.3lf is invalid, limited: (0, 3.0]", s);
        return false;
    }
    return between_requests("FFDecoder2::setSpeed", [&](StreamType type) {
        std::string user;
        {
            std::lock_guard<std::mutex> lock(d2->mutex);
            d2->speed = s;
            user = d2->filters;
        }
        return install_filter_text(combineFilters(type, user, s));
    });
}

bool FFDecoder2::setFilters(const char* f) {
    return between_requests("FFDecoder2::setFilters", [&](StreamType type) {
        double s;
        std::string user = f ? f : "";
        {
            std::lock_guard<std::mutex> lock(d2->mutex);
            d2->filters = user;
            s = d2->speed;
        }
        return install_filter_text(combineFilters(type, user, s));
    });
}

bool FFDecoder2::pri_setFilters(const char* f) {
    return between_requests("FFDecoder2::pri_setFilters", [&](StreamType) {
        FFDecoderPrivate* d = private_data();
        d->end_audio_run();
        if (f && *f) {
            if (std::char_traits<char>::length(f) > kMaxFilterText) {
                CLIPDEC_LOG(kLogError, kTagDefault, "filter text too long: %zu > 1023", std::char_traits<char>::length(f));
                return false;
            }
            std::fprintf(stderr, "open filter: %s\n", f);
            std::fflush(stderr);
            return d->open_filter(f);
        }
        std::fprintf(stderr, "close filter: %s\n", f ? f : "");
        std::fflush(stderr);
        d->close_filter();
        return true;
    });
}

void FFDecoder2::setRevert(bool on) {
    guarded_void("FFDecoder2::setRevert", [&] {
        const StreamCtx* st = streamContex();
        if (!st) return;  // never opened: no stream to read
        if (st->type != STREAM_VIDEO) {
            std::fprintf(stderr, "(stream.type=%d) unsupport revert ...\n", static_cast<int>(st->type));
            std::fflush(stderr);
            return;
        }
        std::lock_guard<std::mutex> lock(d2->mutex);
        d2->revert = on;
        set_plays_backward(private_data()->id, on);  // its decode tasks keep a window from the first request
        // An unknown duration stays {0, 0}: reverse requests then answer nothing.
        if (on) d2->duration = st->duration == kNoPts ? Rational(0, 0) : timestamp_to_time(st->duration, st->time_base);
    });
}

std::shared_ptr<VFrameCtx> FFDecoder2::pri_getVideoFrame(const RequireVideoFrame& req, int seq) {
    return guarded("FFDecoder2::pri_getVideoFrame", std::shared_ptr<VFrameCtx>(), [&]() -> std::shared_ptr<VFrameCtx> {
        const TimeMapping m = mapping_of(d2);
        if (m.speed == 1.0 && !m.revert) return FFDecoder::pri_getVideoFrame(req, seq);
        RequireVideoFrame mapped = req;
        if (m.speed != 1.0) mapped.time = mapped.time * speed_factor(m.speed);
        if (m.revert) {
            if (m.duration.den == 0) return {};
            mapped.time = m.duration - mapped.time;
        }
        return FFDecoder::pri_getVideoFrame(mapped, seq);
    });
}

std::shared_ptr<AFrameCtx> FFDecoder2::pri_getAudioFrame(const RequireAudioFrame& req, int seq) {
    return guarded("FFDecoder2::pri_getAudioFrame", std::shared_ptr<AFrameCtx>(), [&] {
        const double speed = mapping_of(d2).speed;
        if (speed == 1.0) return FFDecoder::pri_getAudioFrame(req, seq);
        RequireAudioFrame mapped = req;
        mapped.range *= speed_factor(speed);
        return FFDecoder::pri_getAudioFrame(mapped, seq);
    });
}

}  // namespace ff
