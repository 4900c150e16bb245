// Access to the generated test media and to what their frames carry.
//
// Every generated video frame shows its own index as 16 vertical bars (bar k
// white when bit k of the index is set); lossless audio sample n of channel c
// holds (n + 1000*c) mod 65536 - 32768.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The owners come in by this path before the tool's loop includes them as
// <clipdec/ff_ptr.h>: one file, so coverage names them once, under src/. They
// bring FFmpeg's headers (AVFrame and the rest of libavutil).
#include "ff_ptr.h"
#include "frame_records.h"
#include "plain_ffmpeg.h"  // the tool's plain FFmpeg loop, which decodes the references

namespace testmedia {

// Full path of a generated file, e.g. path("h264_cfr.mp4").
std::string path(const char* name);

// The index a frame shows, or -1 when its picture cannot be read; `turned`
// reads it from a picture turned a quarter counter-clockwise (bars from the
// bottom up).
int frame_index(const AVFrame* frame, bool turned = false);

// The index a converted picture shows (RGBA: the red channel; YUV420P and
// NV12: the luma plane), or -1 for another format.
int picture_index(const ff::VFrameCtx& picture);

// The value sample n of channel c carries in the position-coded audio.
inline int16_t ramp_sample(int64_t n, int c) {
    return static_cast<int16_t>((n + 1000 * c) % 65536 - 32768);
}

// A digest of a video frame's visible pixels, to compare two decodes.
std::string picture_digest(const AVFrame* frame);

struct RefFrame {
    int64_t pts;  // best-effort timestamp, stream time base
    int index;    // the index the picture shows
    bool key = false;
};

// Every frame of a stream from one plain sequential FFmpeg decode (the loop
// the tool's bench command measures the library against).
std::vector<RefFrame> reference_decode(const std::string& file, int stream_index);

// Captures what the library logs to standard output (no host table in tests).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    // Everything logged since construction (or the previous call).
    std::string take();
};

}  // namespace testmedia
