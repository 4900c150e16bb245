// Which decoders play backwards, by decoder id. A decode task serving a
// request of such a decoder keeps the window of backward play from the very
// first request, instead of learning the direction from the second.
//
// `mutex` (in the .cpp) guards the set. It is innermost: nothing is locked
// while it is held, and it is taken with a decode task's mutex held (a job
// asks for its requester) and with FFDecoder2Private's mutex held (setRevert).
#pragma once

namespace ff {

void set_plays_backward(int decoder_id, bool on);
bool plays_backward(int decoder_id);

}  // namespace ff
