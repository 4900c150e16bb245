// Opening the inputs of a command: the probe, the stream of a kind, and the
// output paths, each failing with the tool's exit codes and one clear line.
#pragma once

#include <clipdec/clipdec.h>

#include <string>

namespace cli {

// The probed movie, or Failure(kExitInput).
const ff::MovieCtx& probe_or_fail(const std::string& path);

// The first stream of `type` that a decoder opens, opened on `decoder`;
// Failure(kExitInput) when there is none.
const ff::StreamCtx& open_first_stream(const std::string& path, const ff::MovieCtx& movie, ff::StreamType type,
                                       ff::FFDecoder& decoder);

// The stream's duration in seconds, else the movie's; {0, 0} when neither is known.
ff::Rational stream_duration(const ff::StreamCtx& stream);

// A stream of `duration` played at `speed`: the decoder reads stream time
// t * s with s truncated to hundredths, so the clip lasts duration / s.
ff::Rational clip_duration(const ff::Rational& duration, double speed);

// Failure(kExitOutput) unless `path`'s directory exists and `path` is not a directory.
void check_output_file(const std::string& path);

// Creates `dir` (and its parents) when missing; Failure(kExitOutput) when impossible.
void make_output_dir(const std::string& dir);

}  // namespace cli
