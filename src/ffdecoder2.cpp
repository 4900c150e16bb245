#include "ffdecoder2.h"

#include <cmath>
#include <cstdio>

#include "ffdecoder_private.h"
#include "log.h"
#include "movie_info.h"

namespace ff {

namespace {

constexpr size_t kMaxFilterText = 1023;  // the description buffer holds 1024 bytes
constexpr double kMinSpeed = 0.5;
constexpr double kMaxSpeed = 3.0;

// Clip time t reads stream time t * F with F = {speed * 100 truncated, 100}.
Rational speed_factor(double speed) { return Rational(static_cast<long long>(speed * 100), 100); }

}  // namespace

class FFDecoder2Private {
public:
    double speed = 1.0;
    std::string filters;
    bool revert = false;
    Rational duration{0, 0};
};

std::string combineFilters(StreamType type, const std::string& user, double speed) {
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
}

FFDecoder2::FFDecoder2() : d2(new FFDecoder2Private()) {}

FFDecoder2::~FFDecoder2() {
    // Queued jobs call the overrides below: stop them before this part goes.
    close();
    delete d2;
}

double FFDecoder2::speed() const { return d2->speed; }

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

bool FFDecoder2::setSpeed(double s) {
    const StreamCtx* st = streamContex();
    // `!(s >= min && s <= max)` also refuses a speed that is not a number.
    if (!(s >= kMinSpeed && s <= kMaxSpeed)) {
        CLIPDEC_LOG(kLogError, kTagDefault, "speed = %.3lf is invalid, limited: (0, 3.0]", s);
        return false;
    }
    if (!st || !isOpened()) return false;  // nothing to filter on a decoder that is not open
    d2->speed = s;
    return install_filter_text(combineFilters(st->type, d2->filters, s));
}

bool FFDecoder2::setFilters(const char* f) {
    const StreamCtx* st = streamContex();
    if (!st || !isOpened()) return false;
    d2->filters = f ? f : "";
    return install_filter_text(combineFilters(st->type, d2->filters, d2->speed));
}

bool FFDecoder2::pri_setFilters(const char* f) {
    if (!streamContex() || !isOpened()) return false;
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
}

void FFDecoder2::setRevert(bool on) {
    const StreamCtx* st = streamContex();
    if (!st) return;  // never opened: no stream to read
    if (st->type != STREAM_VIDEO) {
        std::fprintf(stderr, "(stream.type=%d) unsupport revert ...\n", static_cast<int>(st->type));
        std::fflush(stderr);
        return;
    }
    d2->revert = on;
    // An unknown duration stays {0, 0}: reverse requests then answer nothing.
    if (on) d2->duration = st->duration == kNoPts ? Rational(0, 0) : timestamp_to_time(st->duration, st->time_base);
}

std::shared_ptr<VFrameCtx> FFDecoder2::pri_getVideoFrame(const RequireVideoFrame& req, int seq) {
    if (d2->speed == 1.0 && !d2->revert) return FFDecoder::pri_getVideoFrame(req, seq);
    RequireVideoFrame mapped = req;
    if (d2->speed != 1.0) mapped.time = mapped.time * speed_factor(d2->speed);
    if (d2->revert) {
        if (d2->duration.den == 0) return {};
        mapped.time = d2->duration - mapped.time;
    }
    return FFDecoder::pri_getVideoFrame(mapped, seq);
}

std::shared_ptr<AFrameCtx> FFDecoder2::pri_getAudioFrame(const RequireAudioFrame& req, int seq) {
    if (d2->speed == 1.0) return FFDecoder::pri_getAudioFrame(req, seq);
    RequireAudioFrame mapped = req;
    mapped.range *= speed_factor(d2->speed);
    return FFDecoder::pri_getAudioFrame(mapped, seq);
}

}  // namespace ff
