// A bounded stress run of the public interface, as a busy host drives it:
// 16 threads and 24 decoders over 4 files (three videos, one with a key frame
// only every 250 frames so that seeks decode far, and a position-coded audio
// ramp), synchronous and asynchronous requests, positioning, close, reopen
// and open while open, filter setters from any thread, callbacks that throw,
// decoders replaced, and probes of new paths to the same movies. Nothing may
// deadlock or escape and every delivered picture and span must be exact.
// CLIPDEC_STRESS_SECONDS sets the length (default 4 s; scripts/stress.sh runs 60).
#include <unistd.h>

#include <random>
#include <stdexcept>

#include "ff_tools.h"
#include "ffdecoder2.h"
#include "support.h"
#include "watchdog.h"

using namespace ff;

namespace {

struct Source {
    testsupport::VideoUnderTest video;   // empty stream for the audio ramp
    const StreamCtx* audio = nullptr;
    long long length_ms = 4200;         // pictures are asked for before this
};

struct Slot {
    std::mutex mutex;                   // guards `decoder` (the pointer), not its use
    std::shared_ptr<FFDecoder2> decoder;
    const Source* source = nullptr;
};

struct Tally {
    // `wrong` counts every inexact answer: a picture, a span or a probe.
    std::atomic<int> pictures{0}, spans{0}, async_answers{0}, wrong{0}, probes{0}, thrown{0};
};

const StreamCtx* stream_of(const Source& s) { return s.audio ? s.audio : s.video.stream; }

int expected_index(const testsupport::VideoUnderTest& v, const Rational& t) {
    const int64_t start = v.stream->start_time == kNoPts ? 0 : v.stream->start_time;
    return testsupport::expect_down(v, start + time_to_timestamp(t, v.stream->time_base)).index;
}

void ask_picture(FFDecoder& dec, const Source& src, std::mt19937& rng, bool async, Tally& tally) {
    const RequireVideoFrame req{Rational(static_cast<long long>(rng() % src.length_ms), 1000),
                                rng() % 2 ? PF_RGBA : PF_YUV420P, 1, nullptr};
    const int expected = expected_index(src.video, req.time);
    if (!async) {
        const auto p = dec.getVideoFrame(req);
        if (p) tally.wrong += testmedia::picture_index(*p) != expected, ++tally.pictures;
        return;
    }
    const bool throws = rng() % 8 == 0;  // the library catches it and the worker goes on
    dec.getVideoFrameAsync(req, [&tally, expected, throws](std::shared_ptr<VFrameCtx> p) {
        tally.wrong += testmedia::picture_index(*p) != expected, ++tally.async_answers;
        if (throws) ++tally.thrown, throw std::runtime_error("host callback failed");
    });
}

void ask_span(FFDecoder& dec, std::mt19937& rng, Tally& tally) {
    const long long first = rng() % (3 * 48000);
    const long long end = first + 960 + rng() % 4000;
    const auto a = dec.getAudioFrame(testsupport::audio_request({first, 48000}, {end, 48000}, SF_S16, 48000));
    if (a) tally.wrong += !testsupport::is_ramp(*a, first), ++tally.spans;
}

// A new path to the same movie: a fresh probe, a decoder on it, one answer.
void probe_new_path(const Source& src, int serial, Tally& tally) {
    const std::string original = src.audio ? testmedia::path("pcm_s16.wav") : testmedia::path(src.video.name.c_str());
    const std::string link = std::string(CLIPDEC_TEST_TMP) + "/stress_" + std::to_string(getpid()) + "_" +
                             std::to_string(serial) + (src.audio ? ".wav" : ".mp4");
    unlink(link.c_str());
    if (::link(original.c_str(), link.c_str()) != 0) return;
    const MovieCtx* mv = getMovieInfo(link.c_str(), nullptr);
    if (mv) tally.wrong += mv->nb_streams < 1, ++tally.probes;
    unlink(link.c_str());
}

}  // namespace

TEST(PublicStress, ThreadsDecodersRequestsAndReopensNeverDeadlockOrMisanswer) {
    Source sources[4];
    sources[0].video = testsupport::load_video("h264_cfr.mp4");
    sources[1].video = testsupport::load_video("vfr.mkv");
    sources[2].video = testsupport::load_video("long_gop.mp4");
    sources[2].length_ms = 12000;
    sources[3].audio = testsupport::stream_of("pcm_s16.wav", STREAM_AUDIO);
    for (const Source& source : sources) ASSERT_NE(stream_of(source), nullptr);

    constexpr int kThreads = 16, kDecoders = 24;
    std::vector<Slot> slots(kDecoders);
    for (int i = 0; i < kDecoders; ++i) slots[i].source = &sources[i % 4];

    const char* length = std::getenv("CLIPDEC_STRESS_SECONDS");
    const int seconds = length && std::atoi(length) > 0 ? std::atoi(length) : 4;
    testsupport::Watchdog watchdog("public stress", std::chrono::seconds(seconds + 120));
    Tally tally;
    std::atomic<int> serial{0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(4242 + t);
            while (std::chrono::steady_clock::now() < end) {
                Slot& slot = slots[rng() % kDecoders];
                const unsigned op = rng() % 100;
                std::shared_ptr<FFDecoder2> dec;
                {
                    std::lock_guard<std::mutex> lock(slot.mutex);
                    if (!slot.decoder || op < 3) {  // a new decoder; the old one goes with its last user
                        slot.decoder = std::make_shared<FFDecoder2>();
                        slot.decoder->open(stream_of(*slot.source));
                        continue;
                    }
                    dec = slot.decoder;
                }
                const Source& src = *slot.source;
                if (op < 6) {
                    dec->close();  // other threads' requests on it may now answer nothing
                } else if (op < 8) {
                    dec->reopen();
                } else if (op < 10) {
                    dec->open(stream_of(src));  // open while open
                } else if (op < 12) {
                    probe_new_path(src, serial++, tally);
                } else if (op < 15) {
                    // A graph that passes everything through, swapped in and out
                    // while other threads' requests of the decoder run.
                    dec->pri_setFilters(rng() % 2 ? (src.audio ? "anull" : "null") : nullptr);
                } else if (op < 18 && src.audio) {  // positioning, which answers nothing
                    dec->getAudioFrame(testsupport::audio_request(Rational(rng() % 3, 1), Rational(rng() % 3 + 1, 1),
                                                                  static_cast<SampleFormat>(FMT_SEEK_ONLY), 48000));
                } else if (op < 18) {
                    dec->pri_seek(Rational(static_cast<long long>(rng() % 4000), 1000), rng() % 2);
                } else if (src.audio) {
                    ask_span(*dec, rng, tally);
                } else {
                    ask_picture(*dec, src, rng, op < 40, tally);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    for (Slot& slot : slots) slot.decoder.reset();  // closes; waiting callbacks are made stale

    EXPECT_EQ(tally.wrong.load(), 0);
    EXPECT_GT(tally.pictures.load(), 50);
    EXPECT_GT(tally.spans.load(), 20);
    EXPECT_GT(tally.probes.load(), 0);
    EXPECT_GT(tally.thrown.load(), 0);  // a callback counts its answer before it throws
    std::printf("public stress, %d s: %d pictures, %d spans, %d async answers (%d callbacks threw), %d probes\n",
                seconds, tally.pictures.load(), tally.spans.load(), tally.async_answers.load(), tally.thrown.load(),
                tally.probes.load());
}
