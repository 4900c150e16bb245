// Audio spans of a decoder (internal): runs of contiguous requests, the
// sample queue that cuts decoded frames into exactly the requested spans,
// and resampling that stays in phase with the whole stream.
//
// Placement follows the stream's timestamps, whichever way a position is
// reached (contiguous requests, one long request, a new run): a frame is
// placed at its timestamp; a gap between frames is filled with silence; what
// overlaps samples already placed is dropped. Frames whose timestamps go back
// (damaged streams) are queued as they come, so that a fill always ends.
//
// At another rate than the stream's, sample k of a run that begins at
// `begin` is the stream's signal at begin + k / rate: the resampler is fed
// from a point in phase with a conversion of the whole stream from its first
// sample, early enough that its filter has real history, and its outputs
// before `begin` are dropped. A begin between two output samples is taken at
// the nearest one.
//
// Everything here runs under the decoder's req_mutex.
#pragma once

#include <memory>

#include "frame_records.h"

namespace ff {

class FFDecoderPrivate;

// Whether a request only positions the decoder (and answers nothing).
constexpr bool is_seek_only(int32_t format) { return format == FMT_SEEK_ONLY; }

// True when `req` does not continue the previous audio request of the
// decoder: a new run starts at req.range.begin (position and queue reset).
// A request continues only a live run (not after open, close or a change of
// speed or filter), starting where the last one ended, with the same rate,
// channel count and format. Otherwise nothing changes.
bool is_audio_ts_discontinuous(FFDecoderPrivate* d, const RequireAudioFrame& req);

// The samples of `req`'s span (the facade's audio request once it is known
// to be current and the decoder open on an audio stream).
std::shared_ptr<AFrameCtx> serve_audio_request(FFDecoderPrivate* d, const RequireAudioFrame& req);

}  // namespace ff
