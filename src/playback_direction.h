// Which decoders play backwards, by decoder id. A decode task serving a
// request of such a decoder keeps the window of backward play from the very
// first request, instead of learning the direction from the second.
//
// `mutex` (in the .cpp) guards the set and is taken alone.
#pragma once

namespace ff {

void set_plays_backward(int decoder_id, bool on);
bool plays_backward(int decoder_id);

}  // namespace ff
