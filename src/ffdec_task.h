// A frame cache task: one stream instance plus a short cache of the frames it
// decoded last, and the policy that answers a stream timestamp from the
// cache, by decoding forward, or by seeking (with a one-second backward
// correction when a seek lands after the target).
//
// Owned by its stream's scheduler pool once added. The cache and its flags
// (`frames`, `at_begin`, `at_end`, `broken`, `last_ts`, `in_job`,
// `window_frames`) are read and written with `mutex` (the worker's) held.
// The instance, `packet` and `decoded_since_start` belong to the one job
// running on the task (the scheduler starts no second one), which gives
// `mutex` up while FFmpeg seeks and decodes and notifies `cond` after every
// appended frame: requests for cached frames are never held up by decoding,
// and those waiting on `cond` pick up a frame as soon as it arrives.
// `stream`, `ts_per_sec`, `max_frames` and `reverse_budget` are set by open,
// before the task joins a pool, and only read afterwards.
//
// Lock order: the pool's mutex, then `mutex` (see scheduler.h). Of the
// library's own locks, a job takes under `mutex` only the reverse-play
// registry's (asking whether its requester plays backwards), which is
// innermost.
#pragma once

#include <atomic>
#include <list>
#include <memory>

extern "C" {
#include <libavutil/frame.h>
}

#include "ff_ptr.h"
#include "scheduler.h"

namespace ff {

class Instance;
struct StreamCtx;

class FFDec_Task : public FrameScheduler::iWorker {
public:
    // Which frame answers a timestamp t (a bool `next` maps false/true to these).
    enum Ts_ROUND {
        ROUND_DOWN = 0,  // the last frame at or before t: the frame on screen at t
        ROUND_NEXT = 1,  // the first frame strictly after t
    };

    FFDec_Task();
    ~FFDec_Task() override;

    // Opens an instance on the stream and reads the cache limit from the host's
    // settings ("dec.max_vf", default 4, for video; "dec.max_af", default 20,
    // otherwise). A setting below 0 counts as the default, 0 as 1. The
    // window of backward play takes its budget from "dec.reverse_mb".
    bool open(const StreamCtx* sc);
    void close();
    bool is_opened() const;
    void clear_cache_frames();

    bool is_empty() const override;
    bool is_broken() const override;
    long long cached_first_ts() const override;  // -1 when empty
    bool pri_is_contain(long long t, Ts_ROUND r) const;
    bool is_contain(long long t, bool next) override;
    // Whether a job on this task would reach t by decoding forward: t between
    // the first cached frame and two seconds past the last requested position.
    // A job still working from an empty cache (right after opening or a seek)
    // counts from its own target on: requests arriving together for a new
    // position then wait for one decode instead of each starting their own.
    bool will_contain(long long t) override;
    std::shared_ptr<AVFrame> get_frame_from_cache(long long t, Ts_ROUND r) const;
    std::shared_ptr<AVFrame> get_exist_resource(long long t, bool next) override;

    // The full request. With `locked` the caller holds `mutex` and hands it
    // over; on every path the call returns with `mutex` released.
    std::shared_ptr<AVFrame> pri_get_frame(long long t, bool locked, std::atomic<bool>* cancel, Ts_ROUND r);
    std::shared_ptr<AVFrame> get_frame(long long t, bool locked, std::atomic<bool>* cancel, Ts_ROUND r);
    std::shared_ptr<AVFrame> do_job(long long t, bool locked, std::atomic<bool>* cancel, bool next) override;

    // The frame after `last_ts`, decoding forward without seeking. The caller
    // holds `mutex`, or has the task to itself (in no pool): unlike a job,
    // this decodes without giving the mutex up. At the end: the last frame
    // again when `repeat_last`.
    std::shared_ptr<AVFrame> get_next_frame(std::atomic<bool>* cancel, bool repeat_last);

    const StreamCtx* stream = nullptr;
    Instance* instance = nullptr;  // owned
    long long last_ts = 0;         // last requested or delivered timestamp (pts)
    long long ts_per_sec = 0;      // stream units per second
    std::list<std::shared_ptr<AVFrame>> frames;  // ascending, front = oldest
    bool at_begin = false;         // the front frame is the stream's first
    // Frames (video) or samples (audio) decoded since the stream's start, or
    // -1 once a seek put the instance somewhere unknown. Streams without any
    // timestamps (raw elementary streams) get theirs from this count.
    long long decoded_since_start = 0;
    bool at_end = false;           // the stream ends after the back frame
    bool broken = false;           // end of stream with nothing cached: answers nothing
    unsigned max_frames = 0;
    // Backward play: the memory the frames kept for it may take ("dec.reverse_mb",
    // default 256 MB; 0 turns the window off), and the frame count of the
    // window while the task serves backward requests (0: the short cache).
    size_t reverse_budget = 0;
    unsigned window_frames = 0;
    bool in_job = false;           // a request is running pri_get_frame
    // Packet space for the instance's reads, kept across calls so that a
    // steady stream of requests allocates none.
    UniqueAVPacket packet = make_packet();

    // Testing only: called by a job before each frame it decodes, with the
    // task's mutex released, so that a test can hold a job mid-decode. Null
    // (one atomic load per frame) otherwise.
    using DecodeHook = void (*)(FFDec_Task* task, const std::atomic<bool>* cancel);

private:
    enum class SeekResult { Sought, Rewound, Lost };
    // How a request starts: answered from the cache, by decoding on from
    // where the instance stands, or by a seek.
    enum class Start { Cached, Forward, Seek };
    // The task's decision for a request at t (its reasoning beside it);
    // `hit` receives the answer when it is cached. Clears a cache of no use.
    Start choose_start(long long t, Ts_ROUND r, std::shared_ptr<AVFrame>* hit);
    // Takes over the instance and first frames the probe left for the
    // stream, if any: the first picture then needs no new open and no decode.
    bool adopt_probe_start();
    // The earliest stream timestamp: the stream's start when it is positive,
    // otherwise 0. A seek there puts the instance at the first frame.
    long long begin_ts() const;
    // Where the instance seeks for `ts`: 0 for any point at or before the start.
    long long seek_point(long long ts) const;
    // The instance's seek and decode, run with the task's mutex released.
    SeekResult seek_unlocked(std::unique_lock<std::mutex>& lock, long long ts);
    int decode_unlocked(std::unique_lock<std::mutex>& lock, AVPacket* pkt, AVFrame* frame,
                        const std::atomic<bool>* cancel);
    // Seeks the instance; a stream that cannot seek (raw elementary streams,
    // some pipes) is reopened instead, which puts it back at its start.
    SeekResult seek_or_rewind(long long ts);
    // Gives a frame without any timestamp the one its place in the stream
    // implies, and counts it.
    void stamp_frame(AVFrame* frame);
    // The cache's frame limit: max_frames, or the window of backward play.
    unsigned cache_limit() const;
    static size_t frame_bytes(const AVFrame& frame);
    // A decoded picture's size as the stream describes it.
    size_t picture_bytes() const;
    // Opens the window of backward play on a request before the previous one
    // (`previous`) and before the cache, and closes it when requests move
    // forward again.
    void follow_direction(long long t, long long previous);
    // In backward play, right after a seek towards `t`: lets the instance skip
    // the frames nobody refers to before the window that ends at `t`, and
    // returns where the window starts (no picture before it may be kept);
    // AV_NOPTS_VALUE when everything is decoded.
    long long skip_before_window(long long t);
    // One request that the cache does not answer: where it stands between
    // the seeks and decodes of pri_get_frame's steps.
    struct DecodeRun {
        long long t = 0;              // the requested timestamp
        Ts_ROUND r = ROUND_DOWN;
        long long begin = 0;          // begin_ts()
        long long s = 0;              // where the instance was last sent
        long long step = 0;           // the next correction backwards
        bool seeked = false;          // a seek put the instance somewhere not yet decoded from
        // In backward play the frames before the window are decoded only as
        // far as later frames need them, and none of them is kept.
        long long floor = AV_NOPTS_VALUE;
        int errors = 0;               // decode errors since the last good frame
        int pre_tries = 0;            // re-seeks while awaiting the first frame after a seek
    };
    // Records the answer's timestamp as the last one delivered.
    std::shared_ptr<AVFrame> deliver(const std::shared_ptr<AVFrame>& answer);
    // Seeks to run.s; false when the instance is lost.
    bool seek_to(std::unique_lock<std::mutex>& lock, DecodeRun& run);
    // Decodes from where the instance stands until a frame answers the run
    // (null on cancel, too many errors, a lost instance or an empty stream).
    std::shared_ptr<AVFrame> decode_towards(std::unique_lock<std::mutex>& lock, DecodeRun& run,
                                            std::atomic<bool>* cancel);
    // After a decode error: re-seeks (while awaiting the first frame after a
    // seek) or retries; false when the run gives up.
    bool retry_after_error(std::unique_lock<std::mutex>& lock, DecodeRun& run, int ret);
    bool seek_further_back(std::unique_lock<std::mutex>& lock, DecodeRun& run);
    // The answer at the end of the stream: the last cached frame, or none
    // (the task is then broken).
    std::shared_ptr<AVFrame> end_of_stream();
    // Caches a decoded frame; returns it, or the frame before it, when it
    // answers the run.
    std::shared_ptr<AVFrame> keep_frame(const DecodeRun& run, const std::shared_ptr<AVFrame>& frame);
    // Appends a decoded frame, dropping the oldest when the cache is over its
    // limit (so it holds at most cache_limit() + 1); returns the previous back.
    std::shared_ptr<AVFrame> append_frame(const std::shared_ptr<AVFrame>& frame);
};

extern std::atomic<FFDec_Task::DecodeHook> g_task_decode_hook;

}  // namespace ff
