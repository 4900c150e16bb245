#include "host_walk.h"

#include <chrono>
#include <future>
#include <memory>
#include <tuple>

#include "audio_mixer.h"
#include "audio_overview.h"
#include "ff_tools.h"
#include "ffdecoder2.h"
#include "filmstrip.h"
#include "movie_info.h"

namespace hostwalk {

namespace {

using ff::Rational;

constexpr int kMaxStreamsWalked = 8;

// The stream's duration in seconds, or 1 s when unknown (times are still asked).
Rational duration_of(const ff::StreamCtx& st) {
    if (st.duration != ff::kNoPts && st.duration > 0 && st.time_base.den > 0 && st.time_base.num > 0)
        return ff::timestamp_to_time(st.duration, st.time_base);
    return Rational(1, 1);
}

bool picture_ok(const std::shared_ptr<ff::VFrameCtx>& p) {
    return p && p->width > 0 && p->height > 0 && p->data[0];
}

// The answer, if it comes within `wait_ms`; the promise outlives a late one.
template <typename Frame, typename Ask>
std::shared_ptr<Frame> ask_async(int wait_ms, Ask ask) {
    auto answer = std::make_shared<std::promise<std::shared_ptr<Frame>>>();
    std::future<std::shared_ptr<Frame>> frame = answer->get_future();
    ask([answer](std::shared_ptr<Frame> f) { answer->set_value(std::move(f)); });
    if (frame.wait_for(std::chrono::milliseconds(wait_ms)) != std::future_status::ready) return nullptr;
    return frame.get();
}

void walk_video(const ff::StreamCtx& st, int wait_ms, Report& r) {
    ff::FFDecoder2 dec;
    if (!dec.open(&st)) return;
    ++r.streams_opened;
    const Rational length = duration_of(st);
    const Rational times[] = {Rational(0, 1), length * Rational(1, 2), length - Rational(1, 1000),
                              length + Rational(5, 1), Rational(-1, 2), Rational(1, 3)};
    ff::RequireVideoFrame req;
    for (const Rational& t : times) {
        req.time = t;
        r.pictures += picture_ok(dec.getVideoFrame(req));
    }
    std::tie(req.format, req.divider) = std::make_tuple(ff::PF_YUV420P, 3);
    r.pictures += picture_ok(dec.getVideoFrame(req));
    std::tie(req.format, req.divider) = std::make_tuple(ff::PF_NV12, dec.getImageDivider(ff::MM_AUTO));
    r.pictures += picture_ok(dec.getVideoFrame(req));

    req.format = static_cast<ff::PixelFormat>(ff::FMT_SEEK_ONLY);
    req.time = length * Rational(1, 4);
    dec.getVideoFrame(req);  // positioning: no answer
    std::tie(req.format, req.divider) = std::make_tuple(ff::PF_RGBA, 1);
    r.pictures += picture_ok(ask_async<ff::VFrameCtx>(wait_ms, [&](auto callback) { dec.getVideoFrameAsync(req, callback); }));

    dec.setSpeed(2.0);
    dec.setRevert(true);
    dec.setFilters("hflip");
    req.time = Rational(1, 10);
    r.pictures += picture_ok(dec.getVideoFrame(req));
    dec.close();
    if (dec.reopen()) {
        req.time = length * Rational(3, 4);
        r.pictures += picture_ok(dec.getVideoFrame(req));
    }
}

void walk_audio(const ff::StreamCtx& st, int wait_ms, Report& r) {
    ff::FFDecoder2 dec;
    if (!dec.open(&st)) return;
    ++r.streams_opened;
    ff::AudioMixer mixer(48000, 2, ff::SF_S16);
    ff::RequireAudioFrame req;
    req.format = ff::SF_S16;
    for (int k = 0; k < 5; ++k) {  // contiguous 20 ms spans, mixed as a host's timeline would
        req.range = ff::Range(Rational(k, 50), Rational(k + 1, 50));
        const auto pcm = dec.getAudioFrame(req);
        mixer.begin(req.range);
        if (pcm) {
            ++r.audio_spans;
            ff::getAudioPeak(pcm, 100);
            mixer.getBuffer(&dec)->write(pcm, 100);
        }
        mixer.end();
    }
    const Rational length = duration_of(st);
    std::tie(req.format, req.sample_rate, req.channels) = std::make_tuple(ff::SF_FLT, 44100, 1);
    req.range = ff::Range(length * Rational(1, 2), length * Rational(1, 2) + Rational(1, 10));
    r.audio_spans += dec.getAudioFrame(req) != nullptr;
    req.range = ff::Range(length + Rational(2, 1), length + Rational(3, 1));
    r.audio_spans += dec.getAudioFrame(req) != nullptr;

    req.format = static_cast<ff::SampleFormat>(ff::FMT_SEEK_ONLY);
    dec.getAudioFrame(req);  // positioning
    std::tie(req.format, req.channels, req.sample_rate) = std::make_tuple(ff::SF_U8, 6, 8000);
    req.range = ff::Range(Rational(0, 1), Rational(1, 5));
    r.audio_spans += ask_async<ff::AFrameCtx>(wait_ms, [&](auto callback) { dec.getAudioFrameAsync(req, callback); }) != nullptr;

    dec.setSpeed(1.5);
    dec.setFilters("volume=0.5");
    std::tie(req.format, req.channels, req.sample_rate) = std::make_tuple(ff::SF_S32, 2, 48000);
    for (int k = 0; k < 3; ++k) {
        req.range = ff::Range(Rational(k, 50), Rational(k + 1, 50));
        r.audio_spans += dec.getAudioFrame(req) != nullptr;
    }
}

}  // namespace

Report walk(const std::string& path, int async_wait_ms) {
    Report r;
    ff::RequireMvImage thumb;
    std::tie(thumb.width, thumb.height) = std::make_tuple(160, 90);
    ff::Rational duration;
    r.thumbnail = picture_ok(ff::getMovieImage(path.c_str(), thumb, &duration));

    const ff::MovieCtx* movie = ff::getMovieInfo(path.c_str(), nullptr);
    if (!movie) return r;
    r.probed = true;
    for (int i = 0; i < movie->nb_streams && i < kMaxStreamsWalked; ++i) {
        const ff::StreamCtx* st = movie->streams[i];
        if (!st) continue;
        if (st->type == ff::STREAM_VIDEO) walk_video(*st, async_wait_ms, r);
        else if (st->type == ff::STREAM_AUDIO) walk_audio(*st, async_wait_ms, r);
    }
    std::tie(thumb.time, thumb.format) = std::make_tuple(Rational(1, 1), ff::PF_YUV420P);
    r.thumbnail = picture_ok(ff::getMovieImage(path.c_str(), thumb, nullptr)) || r.thumbnail;

    // The timeline tools over the whole file: a waveform, both filmstrips.
    ff::getAudioOverview(path.c_str(), -1, Rational(1, 50));
    ff::RequireFilmstrip strip;
    std::tie(strip.count, strip.width) = std::make_tuple(3, 64);
    for (bool fast : {false, true}) {
        strip.fast = fast;
        for (const ff::FilmstripPicture& p : ff::getFilmstrip(path.c_str(), strip)) r.pictures += picture_ok(p.picture);
    }
    return r;
}

}  // namespace hostwalk
