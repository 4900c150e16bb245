#include "wav_file.h"

#include <algorithm>

namespace cli {

namespace {

constexpr uint64_t kMaxDataBytes = 0xFFFFFFFFull - 36;  // RIFF sizes are 32-bit
constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatFloat = 3;

void put16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
    put16(p, v & 0xFFFF);
    put16(p + 2, v >> 16);
}

}  // namespace

int sample_bytes(ff::SampleFormat format) {
    switch (format) {
        case ff::SF_U8: return 1;
        case ff::SF_S16: return 2;
        case ff::SF_S32:
        case ff::SF_FLT: return 4;
        default: return 0;
    }
}

WavFile::~WavFile() { close(); }

bool WavFile::open(const std::string& path, int sample_rate, int channels, ff::SampleFormat format) {
    close();
    const int bytes = sample_bytes(format);
    if (bytes == 0 || sample_rate <= 0 || channels <= 0) return false;
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) return false;
    sample_rate_ = sample_rate;
    channels_ = channels;
    bits_ = bytes * 8;
    block_align_ = bytes * channels;
    is_float_ = format == ff::SF_FLT;
    data_bytes_ = 0;
    return write_header();
}

bool WavFile::write_header() {
    uint8_t h[44];
    const uint32_t data = static_cast<uint32_t>(data_bytes_);
    std::copy_n("RIFF", 4, h);
    put32(h + 4, 36 + data);
    std::copy_n("WAVEfmt ", 8, h + 8);
    put32(h + 16, 16);
    put16(h + 20, is_float_ ? kFormatFloat : kFormatPcm);
    put16(h + 22, static_cast<uint32_t>(channels_));
    put32(h + 24, static_cast<uint32_t>(sample_rate_));
    put32(h + 28, static_cast<uint32_t>(sample_rate_ * block_align_));
    put16(h + 32, static_cast<uint32_t>(block_align_));
    put16(h + 34, static_cast<uint32_t>(bits_));
    std::copy_n("data", 4, h + 36);
    put32(h + 40, data);
    return std::fseek(file_, 0, SEEK_SET) == 0 && std::fwrite(h, 1, sizeof h, file_) == sizeof h;
}

bool WavFile::write(const uint8_t* data, size_t bytes) {
    if (!file_ || data_bytes_ + bytes > kMaxDataBytes) return false;
    if (bytes && std::fwrite(data, 1, bytes, file_) != bytes) return false;
    data_bytes_ += bytes;
    return true;
}

bool WavFile::close() {
    if (!file_) return true;
    bool ok = write_header();
    ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    return ok;
}

}  // namespace cli
