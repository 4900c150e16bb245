// What the fuzz targets do with one input, shared with the regression test
// that replays the inputs fuzzing once crashed on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzzdrive {

// The bytes become a file (its extension picked by the last byte, so that
// demuxers that go by the name are reached too) and one host pass walks it.
void movie_bytes(const uint8_t* data, size_t size);

// The first bytes choose a layout, a volume and a channel count; the rest is
// PCM: mixed into itself, metered, and written through an AudioMixer in
// uneven pieces.
void pcm_bytes(const uint8_t* data, size_t size);

}  // namespace fuzzdrive
