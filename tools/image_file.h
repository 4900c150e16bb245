// Pictures written as PNG files with FFmpeg's PNG encoder.
#pragma once

#include <clipdec/clipdec.h>

#include <cstdint>
#include <string>

namespace cli {

// Writes a packed RGBA picture; false (with a message in `error`) when it
// cannot be encoded or written.
bool write_png(const std::string& path, const uint8_t* rgba, int linesize, int width, int height, std::string& error);

// A library picture of format RGBA.
bool write_png(const std::string& path, const ff::VFrameCtx& picture, std::string& error);

}  // namespace cli
