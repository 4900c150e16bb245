// The host's decoder of one stream of a probed movie.
//
// Pictures at any time and audio in exactly the requested spans, converted to
// the requested format, synchronously or through a worker thread of the
// decoder (asynchronous requests: every new one discards those still waiting,
// answers arrive on the worker thread, failures call nothing).
//
// Requests are numbered: close() makes every request issued before it stale,
// so work queued before a close never produces a frame. One request of a
// decoder runs at a time; different decoders run in parallel and share the
// decoding of a stream they have in common. No exception leaves any member:
// a failure inside answers null, false or nothing (and is logged).
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "clipdec_export.h"
#include "frame_records.h"
#include "movie_info.h"
#include "rational.h"

namespace ff {

class FFDecoderPrivate;

class CLIPDEC_API FFDecoder {
public:
    FFDecoder();
    virtual ~FFDecoder();
    FFDecoder(const FFDecoder&) = delete;
    FFDecoder& operator=(const FFDecoder&) = delete;

    // The description of the file at `path`: probed once, then answered from
    // a process-wide cache keyed by the exact path string. Null when the file
    // cannot be opened (nothing is cached then) or `path` is null. `cancel`,
    // when set, cuts duration measurements short.
    static MovieCtx* probe(const char* path, std::atomic<bool>* cancel);

    // Gives back to the system the pool's free buffers idle for more than `ms`
    // milliseconds (0: all).
    static void memCollection(unsigned ms);

    // Opens the decoder on a stream record from probe(); false when the
    // stream cannot be decoded. An open decoder is closed first.
    bool open(const StreamCtx* sc);
    // Ends running work of this decoder early (the request under way stops at
    // its next cancel check, requests waiting for it or for a busy worker give
    // up), makes waiting requests stale, stops the worker thread (unless
    // called from it) and releases everything.
    void close();
    // Opens again on the stream of the last open(); false when there is none.
    bool reopen();
    bool isOpened() const;
    // The stream of the last open(), or null.
    StreamCtx const* streamContex() const;
    // The image divider `mode` allows for this stream's pictures; 1 for
    // audio, subtitles and a decoder never opened.
    int getImageDivider(MemoryMode mode);

    // The picture on screen at req.time, or null (stale, cancelled, nothing
    // decodable, positioning request with format FMT_SEEK_ONLY).
    // Colours follow the source's own matrix and range (untagged sources:
    // BT.709 from 1280 wide or over 576 lines, BT.601 below, limited range
    // unless the format is a `yuvj` one); RGBA is full range and keeps the
    // source's alpha (255 where it has none); YUV pictures keep the source's
    // matrix in limited range. The picture keeps the stored orientation:
    // StreamCtx::rotation and StreamCtx::orientation say how to show it
    // upright (getUprightImage turns it).
    std::shared_ptr<VFrameCtx> getVideoFrame(const RequireVideoFrame& req);
    // Exactly the samples of req.range at the requested rate: contiguous
    // requests continue without seeking; a late start is filled with silence.
    std::shared_ptr<AFrameCtx> getAudioFrame(const RequireAudioFrame& req);

    // Queued on the decoder's worker; `callback` runs there with a non-null
    // answer, with no library lock held. It must not close or destroy this
    // decoder's worker's owner synchronously expecting to be joined. A
    // callback that throws is logged at level 2; later requests still run.
    void getVideoFrameAsync(const RequireVideoFrame& req, std::function<void(std::shared_ptr<VFrameCtx>)> callback);
    void getAudioFrameAsync(const RequireAudioFrame& req, std::function<void(std::shared_ptr<AFrameCtx>)> callback);

    // Brings the stream's frame cache to time t (seconds from the stream's
    // start), waiting for it or through the worker.
    virtual void pri_seek(const Rational& t, bool async);
    virtual std::shared_ptr<VFrameCtx> pri_getVideoFrame(const RequireVideoFrame& req, int seq);
    virtual std::shared_ptr<AFrameCtx> pri_getAudioFrame(const RequireAudioFrame& req, int seq);

protected:
    FFDecoderPrivate* private_data() const { return d; }

private:
    // The body of a picture request, with req_mutex held.
    std::shared_ptr<VFrameCtx> serve_video_request(const RequireVideoFrame& req, int seq);
    void position_at(const Rational& t, bool async);

    FFDecoderPrivate* d;
};

}  // namespace ff
