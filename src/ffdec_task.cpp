#include "ffdec_task.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <climits>
#include <functional>

#include "cancel_flag.h"
#include "ffdec_instance.h"
#include "ff_ptr.h"
#include "ffmpeg_error.h"
#include "frame_helpers.h"
#include "log.h"
#include "movie_info.h"
#include "no_bridge.h"
#include "parked_instances.h"
#include "playback_direction.h"
#include "rational_convert.h"

namespace ff {

std::atomic<FFDec_Task::DecodeHook> g_task_decode_hook{nullptr};

namespace {

constexpr int kDefaultVideoCache = 4;
constexpr int kDefaultAudioCache = 20;
constexpr int kDefaultReverseMb = 256;
constexpr unsigned kMaxWindowFrames = 100000;  // a bound on the count whatever the frames' size
constexpr int kMaxPreTries = 4;   // re-seeks without flush while awaiting the first frame after a seek
constexpr int kMaxErrors = 4;     // plain retries; the next error ends the call
constexpr int kMaxNextErrors = 5; // get_next_frame gives up on this error

long long bets(const std::shared_ptr<AVFrame>& f) { return f->best_effort_timestamp; }

// Lookups use the best-effort timestamp; a frame without pts takes it as pts.
void fix_pts(AVFrame* f) {
    if (f->pts == AV_NOPTS_VALUE) f->pts = f->best_effort_timestamp;
}

// Runs `work` with `lock` released and takes the lock back afterwards, also
// when `work` throws.
template <typename F>
auto without_lock(std::unique_lock<std::mutex>& lock, F work) -> decltype(work()) {
    struct Relock {
        std::unique_lock<std::mutex>& lock;
        ~Relock() { lock.lock(); }
    };
    lock.unlock();
    Relock relock{lock};
    return work();
}

// Runs on every way out of a request unless disarmed: wakes the waiters and
// gives up the task's mutex, as the caller relies on.
class ReleaseGuard {
public:
    explicit ReleaseGuard(std::function<void()> release) : release_(std::move(release)) {}
    ~ReleaseGuard() {
        if (release_) release_();
    }
    void disarm() { release_ = nullptr; }

private:
    std::function<void()> release_;
};

}  // namespace

FFDec_Task::FFDec_Task() = default;

FFDec_Task::~FFDec_Task() { close(); }

bool FFDec_Task::open(const StreamCtx* sc) {
    if (!sc) return false;
    if (instance) return true;
    stream = sc;
    const int num = static_cast<int>(sc->time_base.num);
    const int den = static_cast<int>(sc->time_base.den);
    ts_per_sec = num > 0 ? static_cast<long long>(static_cast<double>(den) / num) : 1;
    if (ts_per_sec < 1) ts_per_sec = 1;

    if (!adopt_probe_start()) {
        auto* inst = new Instance();
        if (!sc->movie || !inst->open(sc->movie->path, sc->index)) {
            delete inst;
            return false;
        }
        instance = inst;
    }
    const bool video = sc->type == STREAM_VIDEO;
    const int fallback = video ? kDefaultVideoCache : kDefaultAudioCache;
    const int limit = NoBridge::instance()->get_int_setting(video ? "dec.max_vf" : "dec.max_af", fallback);
    // A limit of 0 still keeps one frame besides the newest: the frame on
    // screen at t is only known once the next one has been decoded.
    max_frames = static_cast<unsigned>(limit >= 1 ? limit : limit == 0 ? 1 : fallback);
    const int reverse_mb = video ? NoBridge::instance()->get_int_setting("dec.reverse_mb", kDefaultReverseMb) : 0;
    reverse_budget = reverse_mb > 0 ? static_cast<size_t>(reverse_mb) << 20 : 0;
    return true;
}

bool FFDec_Task::adopt_probe_start() {
    ParkedStart start;
    if (!ParkedInstances::instance().adopt(stream, &start)) return false;
    instance = start.instance.release();
    // The probe decoded these from the very start, in order: the cache begins
    // at the stream's first frame and the instance goes on after the last.
    decoded_since_start = 0;
    for (const std::shared_ptr<AVFrame>& frame : start.frames) {
        stamp_frame(frame.get());
        frames.push_back(frame);
    }
    at_begin = !frames.empty();
    if (!frames.empty() && frames.back()->pts != AV_NOPTS_VALUE) last_ts = frames.back()->pts;
    return true;
}

void FFDec_Task::close() {
    delete instance;
    instance = nullptr;
    clear_cache_frames();
}

bool FFDec_Task::is_opened() const { return stream && instance && instance->is_open(); }

void FFDec_Task::clear_cache_frames() {
    frames.clear();
    at_begin = false;
    at_end = false;
}

bool FFDec_Task::is_empty() const { return frames.empty(); }

bool FFDec_Task::is_broken() const { return broken; }

long long FFDec_Task::cached_first_ts() const { return frames.empty() ? -1 : bets(frames.front()); }

bool FFDec_Task::pri_is_contain(long long t, Ts_ROUND r) const {
    if (frames.empty()) return false;
    if (t < bets(frames.front())) return at_begin;
    if (t > bets(frames.back())) return at_end;
    return !(r == ROUND_NEXT && t == bets(frames.back()));
}

bool FFDec_Task::is_contain(long long t, bool next) { return pri_is_contain(t, next ? ROUND_NEXT : ROUND_DOWN); }

bool FFDec_Task::will_contain(long long t) {
    if (frames.empty()) return in_job && t >= last_ts && t <= last_ts + 2 * ts_per_sec;
    return t >= bets(frames.front()) && t <= last_ts + 2 * ts_per_sec;
}

std::shared_ptr<AVFrame> FFDec_Task::get_frame_from_cache(long long t, Ts_ROUND r) const {
    if (frames.empty()) return {};
    if (t < bets(frames.front())) return at_begin ? frames.front() : nullptr;
    if (t > bets(frames.back())) return at_end ? frames.back() : nullptr;
    auto later = std::find_if(frames.begin(), frames.end(), [t](const auto& f) { return bets(f) > t; });
    if (r == ROUND_NEXT) return later != frames.end() ? *later : nullptr;
    return later == frames.end() ? frames.back() : *std::prev(later);
}

std::shared_ptr<AVFrame> FFDec_Task::get_exist_resource(long long t, bool next) {
    return get_frame_from_cache(t, next ? ROUND_NEXT : ROUND_DOWN);
}

FFDec_Task::SeekResult FFDec_Task::seek_or_rewind(long long ts) {
    if (instance->seek(seek_point(ts), true)) {
        decoded_since_start = ts <= begin_ts() ? 0 : -1;
        return SeekResult::Sought;
    }
    // A failed seek may leave the demuxer anywhere (often at the end, after
    // searching for an index); a fresh instance starts at the beginning.
    CLIPDEC_LOG(kLogDebug, kTagDefault, "seek failed, decoding from the start: %s", name);
    auto* fresh = new Instance();
    if (!fresh->open(stream->movie->path, stream->index)) {
        delete fresh;
        return SeekResult::Lost;
    }
    delete instance;
    instance = fresh;
    decoded_since_start = 0;
    return SeekResult::Rewound;
}

void FFDec_Task::stamp_frame(AVFrame* f) {
    fix_pts(f);
    const long long counted = decoded_since_start;
    if (counted >= 0) decoded_since_start += stream->type == STREAM_AUDIO ? std::max(f->nb_samples, 0) : 1;
    if (f->pts != AV_NOPTS_VALUE || counted < 0) return;
    const AVRational base = rational_convert(stream->time_base);
    AVRational unit{0, 1};
    if (stream->type == STREAM_AUDIO && stream->sample_rate > 0) unit = {1, stream->sample_rate};
    if (stream->type == STREAM_VIDEO && stream->frame_rate.num > 0 && stream->frame_rate.den > 0)
        unit = {static_cast<int>(stream->frame_rate.den), static_cast<int>(stream->frame_rate.num)};
    if (unit.num == 0 || base.num <= 0 || base.den <= 0) return;
    const long long start = stream->start_time == kNoPts ? 0 : stream->start_time;
    f->pts = f->best_effort_timestamp = start + av_rescale_q(counted, unit, base);
}

unsigned FFDec_Task::cache_limit() const { return window_frames > 0 ? window_frames : max_frames; }

size_t FFDec_Task::picture_bytes() const {
    const int bytes = av_image_get_buffer_size(static_cast<AVPixelFormat>(stream->pix_fmt), stream->width,
                                               stream->height, 1);
    return bytes > 0 ? static_cast<size_t>(bytes) : 0;
}

size_t FFDec_Task::frame_bytes(const AVFrame& frame) {
    size_t bytes = 0;
    for (const AVBufferRef* buf : frame.buf)
        if (buf) bytes += buf->size;
    return bytes;
}

void FFDec_Task::follow_direction(long long t, long long previous) {
    if (t >= previous && window_frames > 0) {
        // Moving forward again: back to the short cache, newest frames kept.
        window_frames = 0;
        while (frames.size() > max_frames + 1) {
            frames.pop_front();
            at_begin = false;
        }
        return;
    }
    // A request before the previous one and before everything cached: the
    // host plays backwards. The frames decoded on the way from the key frame
    // to this target are the next requests' answers, so as many as the budget
    // holds are kept, and each later refill decodes a stretch once instead of
    // a whole run from the key frame for every few frames.
    // A decoder that plays backwards says so (FFDecoder2's reverse mode):
    // then even its first request keeps the window.
    const bool backward_miss = t < previous && !frames.empty() && t < bets(frames.front());
    const bool told = plays_backward(owner) && (frames.empty() || t < bets(frames.front()));
    if (!(backward_miss || told) || reverse_budget == 0 || window_frames > 0 || stream->type != STREAM_VIDEO) return;
    // The window is counted in frames of the size decoded so far, or of the
    // size the stream describes; with neither known it waits for a frame.
    const size_t bytes = frames.empty() ? picture_bytes() : frame_bytes(*frames.back());
    if (bytes == 0) return;
    window_frames = static_cast<unsigned>(std::min<size_t>(reverse_budget / bytes, kMaxWindowFrames));
    if (window_frames <= max_frames) window_frames = 0;  // the budget holds no more than the cache anyway
}

long long FFDec_Task::skip_before_window(long long t) {
    const Rational rate = stream->frame_rate;
    if (window_frames == 0 || rate.num <= 0 || rate.den <= 0 || stream->duration == kNoPts) return AV_NOPTS_VALUE;
    const long long frame = av_rescale_q(1, AVRational{static_cast<int>(rate.den), static_cast<int>(rate.num)},
                                         rational_convert(stream->time_base));
    // Only within the stream: past its end the answer is the last frame,
    // which the skipping could leave out.
    if (frame <= 0 || t > begin_ts() + stream->duration - frame) return AV_NOPTS_VALUE;
    const long long floor = t - static_cast<long long>(window_frames - 1) * frame;
    if (floor <= begin_ts()) return AV_NOPTS_VALUE;
    instance->skip_unreferenced_before(floor);
    return floor;
}

std::shared_ptr<AVFrame> FFDec_Task::append_frame(const std::shared_ptr<AVFrame>& frame) {
    // Taken before any eviction: with a one-frame cache the previous back is
    // the very frame that eviction would drop.
    std::shared_ptr<AVFrame> previous = frames.empty() ? nullptr : frames.back();
    if (frames.size() > cache_limit()) {
        frames.pop_front();
        at_begin = false;
    }
    frames.push_back(frame);
    return previous;
}

FFDec_Task::Start FFDec_Task::choose_start(long long t, Ts_ROUND r, std::shared_ptr<AVFrame>* hit) {
    if (stream->type == STREAM_VIDEO && stream->still_image) {
        // One picture whatever the time: the cached one, or decode it once
        // from where the instance stands.
        if (frames.empty()) return Start::Forward;
        *hit = frames.front();
        return Start::Cached;
    }
    if (frames.empty()) return Start::Seek;
    // Within the cache the answer is there (or, past the back frame, one
    // decode away). Up to two seconds past it, decoding on is cheaper than a
    // seek, which must decode from a key frame anyway. Before the cache or
    // further on, the cache is of no use: it goes, and the instance seeks.
    if (frames.front()->pts <= t && (at_end || t <= frames.back()->pts + 2 * ts_per_sec)) {
        *hit = get_frame_from_cache(t, r);
        return *hit ? Start::Cached : Start::Forward;
    }
    clear_cache_frames();
    return Start::Seek;
}

long long FFDec_Task::begin_ts() const {
    return stream->start_time != kNoPts && stream->start_time > 0 ? stream->start_time : 0;
}

long long FFDec_Task::seek_point(long long ts) const {
    // Demuxers that search for a timestamp (MPEG-TS) can land after the first
    // frame when asked for exactly the start; 0 lies before every frame.
    return ts <= begin_ts() ? 0 : ts;
}

FFDec_Task::SeekResult FFDec_Task::seek_unlocked(std::unique_lock<std::mutex>& lock, long long ts) {
    return without_lock(lock, [&] { return seek_or_rewind(ts); });
}

int FFDec_Task::decode_unlocked(std::unique_lock<std::mutex>& lock, AVPacket* pkt, AVFrame* frame,
                                const std::atomic<bool>* cancel) {
    return without_lock(lock, [&] {
        if (DecodeHook hook = g_task_decode_hook.load()) hook(this, cancel);
        return instance->get_frame(pkt, frame);
    });
}

std::shared_ptr<AVFrame> FFDec_Task::pri_get_frame(long long t, bool locked, std::atomic<bool>* cancel,
                                                   Ts_ROUND r) {
    std::unique_lock<std::mutex> lock = locked ? std::unique_lock<std::mutex>(mutex, std::adopt_lock)
                                               : std::unique_lock<std::mutex>(mutex);
    ReleaseGuard guard([this, &lock] {
        if (!lock.owns_lock()) lock.lock();
        in_job = false;
        cond.notify_all();
        lock.unlock();
    });
    in_job = true;
    const long long previous = last_ts;
    last_ts = t;
    if (!instance || broken) return {};
    follow_direction(t, previous);

    std::shared_ptr<AVFrame> hit;
    const Start start = choose_start(t, r, &hit);
    if (start == Start::Cached) return deliver(hit);
    DecodeRun run;
    run.t = t;
    run.r = r;
    run.begin = begin_ts();
    run.s = std::max(t, run.begin);
    run.step = ts_per_sec;
    if (start == Start::Seek) {
        if (!seek_to(lock, run)) return {};
        run.floor = skip_before_window(t);
    }
    return deliver(decode_towards(lock, run, cancel));  // the guard notifies and unlocks
}

std::shared_ptr<AVFrame> FFDec_Task::deliver(const std::shared_ptr<AVFrame>& answer) {
    if (answer && answer->pts != AV_NOPTS_VALUE) last_ts = answer->pts;
    return answer;
}

bool FFDec_Task::seek_to(std::unique_lock<std::mutex>& lock, DecodeRun& run) {
    const SeekResult result = seek_unlocked(lock, run.s);
    if (result == SeekResult::Lost) return false;
    run.seeked = result == SeekResult::Sought && run.s != run.begin;
    if (!run.seeked) at_begin = true;
    return true;
}

std::shared_ptr<AVFrame> FFDec_Task::decode_towards(std::unique_lock<std::mutex>& lock, DecodeRun& run,
                                                    std::atomic<bool>* cancel) {
    AVPacket* pkt = packet.get();
    std::shared_ptr<AVFrame> frame = create_avframe_ptr(av_frame_alloc());
    if (!pkt || !frame) return {};
    for (;;) {
        if (cancelled(cancel)) return {};
        // The decoder runs without the task's mutex: only this job touches the
        // instance, and other requests meanwhile read the cache or wait.
        const int ret = decode_unlocked(lock, pkt, frame.get(), cancel);
        const bool eof = ret == AVERROR_EOF;
        if (ret < 0 && !eof) {
            if (!retry_after_error(lock, run, ret)) return {};
            continue;
        }
        if (!eof) stamp_frame(frame.get());
        if (run.seeked && (eof || frame->best_effort_timestamp > run.t)) {
            if (!seek_further_back(lock, run)) return {};
            continue;
        }
        if (!eof && run.floor != AV_NOPTS_VALUE && frame->best_effort_timestamp < run.floor) {
            at_begin = false;  // the stream's first frames are not kept
            continue;
        }
        if (eof && frames.empty() && run.floor != AV_NOPTS_VALUE) {
            // Nothing at or after the window's start: once more, whole.
            run.floor = AV_NOPTS_VALUE;
            if (!seek_to(lock, run)) return {};
            continue;
        }
        if (eof) return end_of_stream();
        if (std::shared_ptr<AVFrame> answer = keep_frame(run, frame)) return answer;
        // Let waiters look at the new frame before decoding on.
        cond.notify_all();
        frame = create_avframe_ptr(av_frame_alloc());
        if (!frame) return {};
        run.errors = run.pre_tries = 0;
        run.seeked = false;
    }
}

bool FFDec_Task::retry_after_error(std::unique_lock<std::mutex>& lock, DecodeRun& run, int ret) {
    CLIPDEC_LOG(kLogError, kTagDefault, "failed to dec frame: %s", ffmpeg_error(ret));
    if (run.seeked && run.pre_tries <= kMaxPreTries) {
        ++run.pre_tries;
        CLIPDEC_LOG(kLogDebug, kTagDefault, "seek pre without flush, try=%d", run.pre_tries);
        without_lock(lock, [&] { return instance->seek(seek_point(run.s), false); });
        decoded_since_start = run.s <= run.begin ? 0 : -1;
        return true;
    }
    if (++run.errors > kMaxErrors) return false;
    CLIPDEC_LOG(kLogDebug, kTagDefault, "ret<0, try again (try_count=%d)", run.errors);
    return true;
}

bool FFDec_Task::seek_further_back(std::unique_lock<std::mutex>& lock, DecodeRun& run) {
    // The seek landed after the target: further back, down to the start. Each
    // correction goes twice as far back as the last, so that a stream whose
    // first frame lies far after its start costs a few seeks, not one per
    // second of the gap.
    run.s = run.s - run.begin > run.step ? run.s - run.step : run.begin;
    run.step = run.step > LLONG_MAX / 2 ? run.step : run.step * 2;
    CLIPDEC_LOG(kLogDebug, kTagDefault, "---> seek (%lld), backward (1sec=%lld), ts=%lld", run.t, ts_per_sec, run.s);
    const SeekResult result = seek_unlocked(lock, run.s);
    if (result == SeekResult::Lost) return false;
    run.errors = run.pre_tries = 0;
    if (run.s == run.begin || result == SeekResult::Rewound) {
        run.seeked = false;
        at_begin = true;
    }
    run.floor = skip_before_window(run.t);
    return true;
}

std::shared_ptr<AVFrame> FFDec_Task::end_of_stream() {
    at_end = true;
    if (!frames.empty()) return frames.back();
    CLIPDEC_LOG(kLogError, kTagDefault, "bad movie: unexpected eof");
    broken = true;
    return {};
}

std::shared_ptr<AVFrame> FFDec_Task::keep_frame(const DecodeRun& run, const std::shared_ptr<AVFrame>& frame) {
    const std::shared_ptr<AVFrame> previous = append_frame(frame);
    const long long b = frame->best_effort_timestamp;
    if (b == run.t && run.r == ROUND_DOWN) return frame;
    if (b > run.t) return run.r == ROUND_NEXT ? frame : (previous ? previous : frame);
    return {};
}

std::shared_ptr<AVFrame> FFDec_Task::get_frame(long long t, bool locked, std::atomic<bool>* cancel, Ts_ROUND r) {
    return pri_get_frame(t, locked, cancel, r);
}

std::shared_ptr<AVFrame> FFDec_Task::do_job(long long t, bool locked, std::atomic<bool>* cancel, bool next) {
    return pri_get_frame(t, locked, cancel, next ? ROUND_NEXT : ROUND_DOWN);
}

std::shared_ptr<AVFrame> FFDec_Task::get_next_frame(std::atomic<bool>* cancel, bool repeat_last) {
    if (!instance) return {};
    std::shared_ptr<AVFrame> answer;
    if (at_end && !frames.empty() && last_ts >= frames.back()->pts) {
        answer = repeat_last ? frames.back() : nullptr;
    } else {
        auto later = std::find_if(frames.begin(), frames.end(), [this](const auto& f) { return f->pts > last_ts; });
        if (later != frames.end()) {
            answer = *later;
        } else {
            std::shared_ptr<AVFrame> frame = create_avframe_ptr(av_frame_alloc());
            int errors = 0;
            while (packet && frame) {
                if (cancelled(cancel)) break;
                const int ret = instance->get_frame(packet.get(), frame.get());
                if (ret == AVERROR_EOF) {
                    if (!frames.empty()) {
                        at_end = true;
                        if (repeat_last) answer = frames.back();
                    }
                    break;
                }
                if (ret < 0) {
                    CLIPDEC_LOG(kLogError, kTagDefault, "(2) failed to dec frame: %s", ffmpeg_error(ret));
                    if (++errors >= kMaxNextErrors) break;
                    CLIPDEC_LOG(kLogDebug, kTagDefault, "ret<0, try again (try_count=%d)", errors);
                    continue;
                }
                stamp_frame(frame.get());
                append_frame(frame);
                answer = frame;
                break;
            }
        }
    }
    if (answer) last_ts = answer->pts;
    return answer;
}

}  // namespace ff
