// Many threads, many decoders, three files: random requests, opens and
// closes for a bounded time. Nothing may deadlock and every delivered frame
// must be the one the reference decode predicts.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "engine_support.h"
#include "ffdecoder_private.h"
#include "scheduler.h"
#include "watchdog.h"

using namespace ff;

namespace {

struct Slot {
    std::mutex mutex;  // one request at a time per decoder, as the facade does
    std::unique_ptr<FFDecoderPrivate> decoder;
    const enginetest::VideoUnderTest* video = nullptr;
};

}  // namespace

TEST(EngineStress, RandomRequestsOpensAndClosesNeverDeadlockOrMisanswer) {
    const enginetest::VideoUnderTest videos[] = {enginetest::load_video("h264_cfr.mp4"),
                                                 enginetest::load_video("vfr.mkv"),
                                                 enginetest::load_video("ts_offset.ts")};
    for (const auto& v : videos) ASSERT_NE(v.stream, nullptr) << v.name;

    constexpr int kThreads = 8;
    constexpr int kSlots = 16;
    std::vector<Slot> slots(kSlots);
    for (int i = 0; i < kSlots; ++i) slots[i].video = &videos[i % 3];

    testsupport::Watchdog watchdog("engine stress", std::chrono::seconds(120));
    std::atomic<int> wrong{0}, answered{0}, missing{0};
    // At least three seconds and 200 answers (sanitizer builds are slow), at most a minute.
    const auto start = std::chrono::steady_clock::now();
    const auto keep_going = [&] {
        const auto elapsed = std::chrono::steady_clock::now() - start;
        return elapsed < std::chrono::seconds(60) && (elapsed < std::chrono::seconds(3) || answered < 200);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(1000 + t);
            while (keep_going()) {
                Slot& slot = slots[rng() % kSlots];
                std::lock_guard<std::mutex> lock(slot.mutex);
                const auto& v = *slot.video;
                const unsigned op = rng() % 20;
                if (!slot.decoder || op == 0) {
                    if (slot.decoder) slot.decoder->close();
                    slot.decoder = std::make_unique<FFDecoderPrivate>();
                    if (!slot.decoder->open(v.stream)) ++wrong;
                    continue;
                }
                if (op == 1) {
                    slot.decoder.reset();  // closes
                    continue;
                }
                const long long span = v.reference.back().pts - v.reference.front().pts;
                const long long ts = v.reference.front().pts - span / 10 + static_cast<long long>(rng() % (span + span / 5));
                const auto f = slot.decoder->get_frame(ts, nullptr);
                if (!f) {
                    ++missing;
                    continue;
                }
                ++answered;
                if (testmedia::frame_index(f.get()) != enginetest::expect_down(v, ts).index) ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (auto& slot : slots) slot.decoder.reset();

    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(missing.load(), 0);
    EXPECT_GE(answered.load(), 200);
    for (const auto& v : videos) EXPECT_EQ(g_decoder_mgr.pool_of(v.stream)->worker_count(), 0u) << v.name;
}
