// Pictures through an FFmpeg filter chain: the tool draws its grids, labels
// and contact sheets with FFmpeg's own filters (drawgrid, drawbox, drawtext,
// tile) instead of pixels of its own.
#pragma once

#include <string>
#include <vector>

#include <clipdec/ff_ptr.h>

namespace cli {

// The font the labels are drawn with (Debian's fonts-dejavu-core).
const char* label_font();

// Text for drawtext's text option inside a filter description: quoted, with
// the characters the option and graph parsers treat specially escaped.
std::string drawtext_text(const std::string& text);

// Runs packed RGBA `inputs` (all of one size; pts in milliseconds) through
// `chain` and returns its first output picture in RGBA; null with `error`
// set on failure.
ff::UniqueAVFrame run_filters(const std::string& chain, const std::vector<const AVFrame*>& inputs, std::string& error);

// A packed RGBA frame of `width` x `height`, every pixel `rgba`.
ff::UniqueAVFrame rgba_frame(int width, int height, uint32_t rgba);

}  // namespace cli
