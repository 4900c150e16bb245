// What the tests share: streams of the generated media, the frame a stream
// should show at a timestamp (from one plain decode), ramp checks for the
// position-coded audio, decode-counter deltas, captured output, text and
// files, and a gate and a bounded wait for tests that order threads.
// Including it brings GoogleTest, media.h and the library's decoder, instance
// and counter headers: a test file includes only what it needs beyond those.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "decode_counters.h"
#include "ffdec_instance.h"
#include "ffdecoder.h"
#include "frame_helpers.h"
#include "media.h"
#include "movie_info.h"

namespace testsupport {

// Only against a hang: every bounded wait below normally ends at once.
constexpr auto kHangGuard = std::chrono::seconds(60);

// The first stream of `type` in a generated file, or null.
inline const ff::StreamCtx* stream_of(const char* name, ff::StreamType type) {
    ff::MovieCtx* mv = ff::FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv) return nullptr;
    for (int i = 0; i < mv->nb_streams; ++i)
        if (mv->streams[i]->type == type) return mv->streams[i];
    return nullptr;
}

struct VideoUnderTest {
    std::string name;
    const ff::StreamCtx* stream = nullptr;
    std::vector<testmedia::RefFrame> reference;  // in presentation order
};

// The first video stream of a file with every frame of a plain decode.
inline VideoUnderTest load_video(const char* name) {
    VideoUnderTest v;
    v.name = name;
    ff::MovieCtx* mv = ff::FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv || mv->nb_video < 1) return v;
    v.stream = mv->streams[mv->video_indexes[0]];
    v.reference = testmedia::reference_decode(testmedia::path(name), v.stream->index);
    std::sort(v.reference.begin(), v.reference.end(), [](const auto& a, const auto& b) { return a.pts < b.pts; });
    return v;
}

// The frame on screen at t: the last one at or before t; before the first,
// the first.
inline const testmedia::RefFrame& expect_down(const VideoUnderTest& v, long long t) {
    auto it = std::upper_bound(v.reference.begin(), v.reference.end(), t,
                               [](long long value, const testmedia::RefFrame& f) { return value < f.pts; });
    return it == v.reference.begin() ? v.reference.front() : *std::prev(it);
}

// The first frame strictly after t; at the end, the last one.
inline const testmedia::RefFrame& expect_next(const VideoUnderTest& v, long long t) {
    auto it = std::upper_bound(v.reference.begin(), v.reference.end(), t,
                               [](long long value, const testmedia::RefFrame& f) { return value < f.pts; });
    return it == v.reference.end() ? v.reference.back() : *it;
}

inline ff::RequireAudioFrame audio_request(ff::Rational begin, ff::Rational end, ff::SampleFormat format, int rate,
                                           int channels = 2) {
    ff::RequireAudioFrame req;
    req.range = ff::Range(begin, end);
    req.format = format;
    req.sample_rate = rate;
    req.channels = channels;
    return req;
}

// Whether `count` interleaved s16 samples of `channels` channels carry the
// ramp from sample `first` on; the failure names the first wrong sample.
inline testing::AssertionResult is_ramp(const int16_t* s, int channels, long long count, long long first) {
    for (long long i = 0; i < count; ++i)
        for (int c = 0; c < channels; ++c)
            if (s[i * channels + c] != testmedia::ramp_sample(first + i, c))
                return testing::AssertionFailure()
                       << "sample " << first + i << " channel " << c << " is " << s[i * channels + c];
    return testing::AssertionSuccess();
}
inline testing::AssertionResult is_ramp(const ff::AFrameCtx& a, long long first) {
    return is_ramp(reinterpret_cast<const int16_t*>(a.data[0]), a.channels, a.nb_samples, first);
}

// The decode counters at one moment; `since()` gives what happened after it.
struct Counts {
    uint64_t frames = 0, packets = 0, seeks = 0, jobs = 0, hits = 0, waits = 0;
    static Counts now() {
        const ff::DecodeCounters& c = ff::decode_counters();
        return {c.frames_decoded.load(), c.packets_read.load(), c.seeks.load(),
                c.jobs.load(),           c.cache_hits.load(),   c.waits.load()};
    }
    Counts since() const {
        const Counts n = now();
        return {n.frames - frames, n.packets - packets, n.seeks - seeks, n.jobs - jobs, n.hits - hits, n.waits - waits};
    }
};

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Text the library hands back in malloc'ed memory, freed; "<null>" for none.
inline std::string take_text(const char* p) {
    const std::string s = p ? p : "<null>";
    std::free(const_cast<char*>(p));
    return s;
}

inline void copy_file(const std::string& from, const std::string& to) {
    std::ofstream(to, std::ios::binary | std::ios::trunc) << std::ifstream(from, std::ios::binary).rdbuf();
}

// What `action` writes to standard output or standard error.
template <typename F>
std::string stdout_of(F&& action) {
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    action();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}
template <typename F>
std::string stderr_of(F&& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

[[noreturn]] inline void stuck(const char* what) {
    std::fprintf(stderr, "test is stuck (%s); aborting instead of hanging\n", what);
    std::abort();
}

// Polls until `pred` holds; the outcome never depends on how long this takes.
template <typename Pred>
void wait_until(Pred pred, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    for (; !pred(); std::this_thread::sleep_for(std::chrono::microseconds(200)))
        if (std::chrono::steady_clock::now() > deadline) stuck(what);
}

// A one-shot gate. Opening notifies under the lock: once a waiter is
// through, the opener no longer touches the gate, which may then go.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    // False when the gate stayed shut for `limit`.
    bool wait(std::chrono::seconds limit = kHangGuard) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, limit, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// The index a picture shows (RGBA, YUV420P or NV12); -1 without a picture or
// in another format.
inline int index_of(const std::shared_ptr<ff::VFrameCtx>& p) { return p ? testmedia::picture_index(*p) : -1; }
// The index a decoded frame shows, or -1 without a frame.
inline int index_of(const std::shared_ptr<AVFrame>& f) { return f ? testmedia::frame_index(f.get()) : -1; }

// The index of the full-size RGBA picture a decoder shows at `t`, or -1.
template <typename Decoder>
int index_at(Decoder& dec, ff::Rational t) {
    return index_of(dec.getVideoFrame(ff::RequireVideoFrame{t, ff::PF_RGBA, 1, nullptr}));
}

// One stream of a generated file decoded in order by the library's own
// instance; `ok` says whether it opened.
struct InstanceDecoding {
    ff::Instance inst;
    ff::UniqueAVPacket pkt = ff::make_packet();
    ff::UniqueAVFrame frame = ff::make_frame();
    bool ok;
    explicit InstanceDecoding(const char* name, int stream = 0)
        : ok(inst.open(testmedia::path(name).c_str(), stream)) {}
    int next() { return inst.get_frame(pkt.get(), frame.get()); }
    int index() const { return testmedia::frame_index(frame.get()); }
    // The next frame as the cache would share it; null at the end.
    std::shared_ptr<AVFrame> next_shared() {
        return next() < 0 ? nullptr : ff::create_avframe_ptr(av_frame_clone(frame.get()));
    }
};

}  // namespace testsupport
