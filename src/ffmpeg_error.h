// FFmpeg error codes as text, for log messages.
#pragma once

#include "clipdec_export.h"

namespace ff {

// FFmpeg's text for `err`, in one of ten slots used in turn. The slots belong
// to the calling thread: the text stays intact until that thread has made ten
// further calls, so use it at once, as an argument of the message being written.
CLIPDEC_API const char* ffmpeg_error(int err);

}  // namespace ff
