// Descriptions of probed movies and their streams.
//
// A MovieCtx is made once per path by the probe and kept for the life of the
// process: records are never freed or changed after they are published, so
// their addresses serve as identities (a StreamCtx* names a stream) and any
// thread may read them without a lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "clipdec_export.h"
#include "rational.h"

namespace ff {

// The value of an unknown time or duration (FFmpeg's AV_NOPTS_VALUE).
constexpr int64_t kNoPts = INT64_MIN;

enum StreamType : int32_t { STREAM_VIDEO = 0, STREAM_AUDIO = 1, STREAM_SUBTITLE = 2 };

struct Subtitle {
    int64_t start;     // microseconds
    int64_t end;       // microseconds: start plus the packet's duration (start when it has none)
    std::string text;  // the packet's bytes as stored, markup included
};

struct MovieCtx;

// How a stored picture is turned to be seen upright, from the stream's display
// matrix (its rotation and flips). Quarter turns are clockwise; TRANSPOSE
// mirrors across the main diagonal (a quarter turn counter-clockwise, then
// upside down), TRANSVERSE across the other one.
enum Orientation : int32_t {
    OR_NORMAL = 0,
    OR_ROTATE_90 = 1,
    OR_ROTATE_180 = 2,
    OR_ROTATE_270 = 3,
    OR_HFLIP = 4,
    OR_VFLIP = 5,
    OR_TRANSPOSE = 6,
    OR_TRANSVERSE = 7,
};

// One stream. The common fields come first; of the three groups after them,
// only the one of `type` is filled (the others stay zero).
struct StreamCtx {
    int index = -1;                // the stream's index in the container
    StreamType type = STREAM_VIDEO;
    Rational time_base{0, 0};
    int64_t duration = kNoPts;     // in time_base units, measured when the container does not say
    int64_t start_time = kNoPts;   // in time_base units
    MovieCtx* movie = nullptr;

    // video
    int width = 0;
    int height = 0;
    int codec_pix_fmt = -1;        // FFmpeg pixel format of the stream parameters; -1: nothing decoded
    int frame_pix_fmt = -1;        // format of decoded frames when it differs (hardware), else -1
    int pix_fmt = -1;              // the format decoded frames really have
    double rotation = 0;           // display rotation, degrees in [-0.9, 359.1)
    bool still_image = false;      // the stream yields exactly one picture
    Rational sample_aspect_ratio{0, 1};
    Rational frame_rate{0, 0};     // {0, 0} when no frame could be decoded

    // audio
    uint64_t channel_layout = 0;   // FFmpeg channel mask (the default for `channels` when none)
    int channels = 0;
    int sample_rate = 0;
    int sample_fmt = -1;           // FFmpeg sample format of the stream parameters

    // subtitle (SubRip only)
    std::vector<Subtitle> subtitles;

    // video: how the pictures are to be shown. Decoded pictures keep the
    // stored orientation; `orientation` (with `rotation` above) says how to
    // turn them upright.
    Orientation orientation = OR_NORMAL;
    // The colour description, as FFmpeg numbers it (AVColorSpace,
    // AVColorRange, AVColorPrimaries, AVColorTransferCharacteristic,
    // AVChromaLocation, AVFieldOrder; av_color_space_name and its sisters give
    // the names). The first decoded frame's, else the container's; FFmpeg's
    // "unspecified" / "unknown" when nobody says (and on other streams).
    // A transfer of 16 (SMPTE ST 2084, PQ) or 18 (ARIB STD-B67, HLG) marks HDR.
    int color_space = 2;           // AVCOL_SPC_UNSPECIFIED
    int color_range = 0;           // AVCOL_RANGE_UNSPECIFIED
    int color_primaries = 2;       // AVCOL_PRI_UNSPECIFIED
    int color_trc = 2;             // AVCOL_TRC_UNSPECIFIED
    int chroma_location = 0;       // AVCHROMA_LOC_UNSPECIFIED
    int field_order = 0;           // AV_FIELD_UNKNOWN

    // FFmpeg's AVCodecID of the stream parameters (AV_CODEC_ID_NONE: 0).
    int codec_id = 0;
};

constexpr int kMaxMovieStreams = 32;
constexpr int kMaxStreamsPerType = 8;

// One probed file. Streams beyond kMaxMovieStreams get no record, and a kind
// with more than kMaxStreamsPerType streams lists only its first ones.
//
// The per-kind index lists hold positions in `streams`, so that
// `streams[video_indexes[i]]` is the i-th video stream even when the container
// has streams the probe left out (no decoder, data tracks). A subtitle track
// that got no record (not SubRip) is listed with -1. The container's own
// index of a stream is its record's `index`.
struct MovieCtx {
    char* path = nullptr;          // copy of the probed path
    StreamCtx* streams[kMaxMovieStreams] = {};
    int nb_streams = 0;
    int64_t start_time = kNoPts;   // microseconds
    int64_t duration = kNoPts;     // microseconds, after the probe's corrections
    int64_t bit_rate = 0;          // bits per second
    int8_t audio_indexes[kMaxStreamsPerType] = {};
    int8_t video_indexes[kMaxStreamsPerType] = {};
    int8_t subtitle_indexes[kMaxStreamsPerType] = {};
    int nb_audio = 0;
    int nb_video = 0;
    int nb_subtitle = 0;
};

}  // namespace ff
