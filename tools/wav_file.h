// A WAV file written piece by piece; the header's sizes are filled in at close.
#pragma once

#include <clipdec/clipdec.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace cli {

class WavFile {
public:
    WavFile() = default;
    ~WavFile();  // closes, so an interrupted export still leaves a readable file
    WavFile(const WavFile&) = delete;
    WavFile& operator=(const WavFile&) = delete;

    // Interleaved samples of `format` (u8, s16, s32 as integer PCM, flt as
    // IEEE float). False when the file cannot be created.
    bool open(const std::string& path, int sample_rate, int channels, ff::SampleFormat format);
    // False when the disk refuses the bytes or the file would pass the
    // format's 4 GiB limit.
    bool write(const uint8_t* data, size_t bytes);
    // Writes the final sizes; false when that fails.
    bool close();

    uint64_t frames_written() const { return block_align_ ? data_bytes_ / block_align_ : 0; }

private:
    bool write_header();

    FILE* file_ = nullptr;
    int sample_rate_ = 0;
    int channels_ = 0;
    int bits_ = 0;
    int block_align_ = 0;
    bool is_float_ = false;
    uint64_t data_bytes_ = 0;
};

// Bytes of one sample of a packed format; 0 for SF_NONE.
int sample_bytes(ff::SampleFormat format);

}  // namespace cli
