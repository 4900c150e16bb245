#include "ffdecoder.h"

extern "C" {
#include <libavfilter/buffersrc.h>
}

#include <algorithm>
#include <climits>
#include <vector>

#include "async_helper.h"
#include "ff_compat.h"
#include "ff_tools.h"
#include "ffdec_probe.h"
#include "ffdecoder_audio.h"
#include "ffdecoder_private.h"
#include "rational_convert.h"
#include "ffmpeg_error.h"
#include "filter_mgr.h"
#include "frame_helpers.h"
#include "guarded.h"
#include "log.h"

namespace ff {

MovieCtx* FFDecoder::probe(const char* path, std::atomic<bool>* cancel) {
    return guarded("FFDecoder::probe", static_cast<MovieCtx*>(nullptr), [&] { return probe_movie(path, cancel); });
}

void FFDecoder::memCollection(unsigned ms) {
    guarded_void("FFDecoder::memCollection", [&] { mem_collection(ms); });
}

int excute_filting(AVFilterMgr* mgr, std::shared_ptr<AVFrame>& frame) {
    // The input is usually shared with a task's cache: the graph must take its
    // own reference rather than move the buffers out of it.
    int ret = mgr ? mgr->buffersrc_add_frame_flags(frame.get(), AV_BUFFERSRC_FLAG_KEEP_REF) : AVERROR(EINVAL);
    if (ret < 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "Error while feeding the filtergraph: err=%s", ffmpeg_error(ret));
        return ret;
    }

    frame = create_avframe_ptr(av_frame_alloc());
    if (!frame) {
        ret = AVERROR(ENOMEM);
        CLIPDEC_LOG(kLogError, kTagDefault, "[filter] buffersink error: %s", ffmpeg_error(ret));
        return ret;
    }
    ret = mgr->buffersink_get_frame(frame.get());
    // EAGAIN is the normal answer of chains that gather several inputs per
    // output (atempo and the like); the caller simply feeds the next frame.
    if (ret < 0 && ret != AVERROR(EAGAIN)) {
        CLIPDEC_LOG(kLogError, kTagDefault, "[filter] buffersink error: %s", ffmpeg_error(ret));
    }
    return ret;
}

}  // namespace ff

// ---------------------------------------------------------------- the facade

namespace ff {

FFDecoder::FFDecoder() : d(new FFDecoderPrivate()) {}

FFDecoder::~FFDecoder() {
    close();
    delete d;  // joins a worker a racing asynchronous request may have made since
}

bool FFDecoder::open(const StreamCtx* sc) {
    return guarded("FFDecoder::open", false, [&] {
        std::lock_guard<std::mutex> lock(d->req_mutex);
        return d->open(sc);  // an open decoder is closed first
    });
}

void FFDecoder::close() {
    guarded_void("FFDecoder::close", [&] {
        // Raised before taking the request mutex, which a running request
        // holds: that request ends at its next cancel check instead of
        // running to its end, and requests waiting for the mutex are stale.
        d->stop = true;
        ++d->req_seq;
        {
            std::lock_guard<std::mutex> lock(d->req_mutex);
            d->close();
        }
        // Joined with no lock held: its job may be waiting for req_mutex.
        d->detach_async().reset();
    });
}

bool FFDecoder::reopen() {
    return guarded("FFDecoder::reopen", false, [&] {
        const StreamCtx* sc = d->published_stream;
        if (!sc) return false;  // never opened: nothing to reopen
        std::lock_guard<std::mutex> lock(d->req_mutex);
        return d->open(sc);
    });
}

bool FFDecoder::isOpened() const {
    return guarded("FFDecoder::isOpened", false, [&] {
        std::lock_guard<std::mutex> lock(d->req_mutex);
        return d->opened;
    });
}

StreamCtx const* FFDecoder::streamContex() const { return d->published_stream; }

int FFDecoder::getImageDivider(MemoryMode mode) {
    const StreamCtx* st = d->published_stream;
    if (!st || st->type != STREAM_VIDEO) return 1;
    return ff::getImageDivider(mode, st->width, st->height);
}

std::shared_ptr<VFrameCtx> FFDecoder::getVideoFrame(const RequireVideoFrame& req) {
    return guarded("FFDecoder::getVideoFrame", std::shared_ptr<VFrameCtx>(),
                   [&] { return pri_getVideoFrame(req, d->req_seq.load()); });
}

std::shared_ptr<AFrameCtx> FFDecoder::getAudioFrame(const RequireAudioFrame& req) {
    return guarded("FFDecoder::getAudioFrame", std::shared_ptr<AFrameCtx>(),
                   [&] { return pri_getAudioFrame(req, d->req_seq.load()); });
}

std::shared_ptr<VFrameCtx> FFDecoder::pri_getVideoFrame(const RequireVideoFrame& request, int seq) {
    return guarded("FFDecoder::pri_getVideoFrame", std::shared_ptr<VFrameCtx>(), [&] {
        RequireVideoFrame req = request;
        if (!req.cancel) req.cancel = &d->stop;
        std::lock_guard<std::mutex> lock(d->req_mutex);
        return serve_video_request(req, seq);
    });
}

std::shared_ptr<VFrameCtx> FFDecoder::serve_video_request(const RequireVideoFrame& req, int seq) {
    if (seq < d->req_seq) {
        CLIPDEC_LOG(kLogDebug, d->name, "> 异步取画面，已过时： %lld (serials=%d)", req.time.num, seq);
        return {};
    }
    // A decoder that is not open has no stream to touch.
    if (!d->opened || !d->stream) return {};
    if (d->last_vframe && d->last_vframe->divider == req.divider) return d->last_vframe;

    const long long ts = d->sec_to_stream_ts(req.time);
    std::shared_ptr<AVFrame> frame = d->get_frame(ts, req.cancel);
    if (!frame) return {};
    if (is_seek_only(req.format)) {
        CLIPDEC_LOG(kLogDebug, d->name, "Video: seek... pos=%lld", ts);
        return {};
    }
    if (d->filter && d->filter_picture(frame) < 0) return {};
    std::shared_ptr<VFrameCtx> picture = d->convert_to_dst_frame(frame.get(), req);
    if (picture && d->stream->still_image) d->last_vframe = picture;
    return picture;
}

std::shared_ptr<AFrameCtx> FFDecoder::pri_getAudioFrame(const RequireAudioFrame& request, int seq) {
    return guarded("FFDecoder::pri_getAudioFrame", std::shared_ptr<AFrameCtx>(), [&]() -> std::shared_ptr<AFrameCtx> {
        RequireAudioFrame req = request;
        if (!req.cancel) req.cancel = &d->stop;
        std::lock_guard<std::mutex> lock(d->req_mutex);
        if (seq < d->req_seq) {
            CLIPDEC_LOG(kLogDebug, d->name, "> 异步取音频，已过时： %lld (serials=%d)", req.range.begin.num, seq);
            return {};
        }
        const StreamCtx* st = d->stream;
        if (!d->opened || !st || st->type != STREAM_AUDIO || st->sample_rate <= 0 || st->channels <= 0) return {};
        return serve_audio_request(d, req);
    });
}

// ---------------------------------------------------------------- asynchronous requests

namespace {

// Runs `job` on the decoder's worker, made on first use, after dropping every
// job still waiting. Holding async_mutex across both keeps a concurrent close
// from destroying the worker in between, and makes two first requests racing
// each other create one worker.
void queue_on_worker(FFDecoderPrivate* d, AsyncHelper::Job job) {
    std::lock_guard<std::mutex> lock(d->async_mutex);
    if (!d->async) d->async = new AsyncHelper();
    d->async->replace_waiting(std::move(job));
}

// Calls the host's callback with a non-null answer. A callback that throws is
// logged; the worker goes on with the next request.
template <typename Frame>
void deliver(const std::function<void(std::shared_ptr<Frame>)>& callback, std::shared_ptr<Frame> answer) {
    if (!answer || !callback) return;
    guarded_void("asynchronous callback", [&] { callback(std::move(answer)); });
}

}  // namespace

void FFDecoder::getVideoFrameAsync(const RequireVideoFrame& request,
                                   std::function<void(std::shared_ptr<VFrameCtx>)> callback) {
    guarded_void("FFDecoder::getVideoFrameAsync", [&] {
        RequireVideoFrame req = request;
        if (!req.cancel) req.cancel = &d->stop;
        const int seq = d->req_seq.load();  // the number at queuing time decides staleness
        queue_on_worker(d, [this, callback = std::move(callback), req, seq] {
            if (req.cancel->load()) return;
            deliver(callback, pri_getVideoFrame(req, seq));
        });
    });
}

void FFDecoder::getAudioFrameAsync(const RequireAudioFrame& request,
                                   std::function<void(std::shared_ptr<AFrameCtx>)> callback) {
    guarded_void("FFDecoder::getAudioFrameAsync", [&] {
        RequireAudioFrame req = request;
        if (!req.cancel) req.cancel = &d->stop;
        const int seq = d->req_seq.load();
        queue_on_worker(d, [this, callback = std::move(callback), req, seq] {
            if (req.cancel->load()) return;
            deliver(callback, pri_getAudioFrame(req, seq));
        });
    });
}

void FFDecoder::pri_seek(const Rational& t, bool async) {
    guarded_void("FFDecoder::pri_seek", [&] { position_at(t, async); });
}

void FFDecoder::position_at(const Rational& t, bool async) {
    const StreamCtx* st = d->published_stream;
    if (!st) return;  // never opened
    if (st->type == STREAM_VIDEO) {
        RequireVideoFrame req;
        req.time = t;
        req.format = static_cast<PixelFormat>(FMT_SEEK_ONLY);
        req.divider = 1;
        req.cancel = &d->stop;
        if (async) {
            getVideoFrameAsync(req, nullptr);
        } else {
            pri_getVideoFrame(req, d->req_seq.load());
        }
    } else if (st->type == STREAM_AUDIO) {
        RequireAudioFrame req;
        req.range = Range(t, t);
        req.format = static_cast<SampleFormat>(FMT_SEEK_ONLY);
        req.sample_rate = 44100;
        req.channels = 2;
        req.cancel = &d->stop;
        if (async) {
            getAudioFrameAsync(req, nullptr);
        } else {
            pri_getAudioFrame(req, d->req_seq.load());
        }
    }
}

}  // namespace ff
