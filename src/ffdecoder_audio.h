// The continuity test of audio requests (internal).
#pragma once

#include "frame_records.h"

namespace ff {

class FFDecoderPrivate;

// True when `req` does not continue the previous audio request of the
// decoder: a new run starts at req.range.begin (position and queue reset).
// Otherwise nothing changes.
bool is_audio_ts_discontinuous(FFDecoderPrivate* d, const RequireAudioFrame& req);

}  // namespace ff
