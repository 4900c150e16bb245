#include "fuzz_drivers.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "audio_mixer.h"
#include "ff_tools.h"
#include "host_walk.h"

namespace fuzzdrive {

namespace {

constexpr int kFuzzAsyncWaitMs = 20;   // a failed asynchronous request answers nothing

std::string scratch_path(uint8_t last_byte) {
    static const char* const kExtensions[] = {".mp4", ".mkv", ".ts", ".wav", ".mp3", ".png", ".aac", ".bin"};
    static std::atomic<unsigned> serial{0};
    const char* dir = std::getenv("TMPDIR");
    // A new path every time: movie descriptions are cached by path.
    return std::string(dir && *dir ? dir : "/tmp") + "/clipdec_fuzz_" + std::to_string(getpid()) + "_" +
           std::to_string(serial++) + kExtensions[last_byte % 8];
}

}  // namespace

void movie_bytes(const uint8_t* data, size_t size) {
    const std::string path = scratch_path(size ? data[size - 1] : 0);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    file.close();
    if (file) hostwalk::walk(path, kFuzzAsyncWaitMs);  // only when every byte reached the file
    unlink(path.c_str());
}

void pcm_bytes(const uint8_t* data, size_t size) {
    if (size < 3) return;
    const auto layout = static_cast<ff::SDL_AudioFormat>(data[0] % 12);  // 10 and 11 are unknown codes
    const int volume = data[1];
    const int channels = 1 + data[2] % 8;
    const std::vector<uint8_t> pcm(data + 3, data + size);

    std::vector<uint8_t> mixed = pcm;
    SDL_MixAudioFormat(mixed.data(), pcm.data(), layout, static_cast<unsigned>(pcm.size()), volume);
    Audio_Volume_Peak(layout, mixed.data(), static_cast<unsigned>(mixed.size()), 100);

    // The mixer takes packed records of its own format; bytes become whole samples.
    static const ff::SampleFormat kFormats[] = {ff::SF_U8, ff::SF_S16, ff::SF_S32, ff::SF_FLT};
    const ff::SampleFormat format = kFormats[data[0] % 4];
    const int bytes_per_sample = format == ff::SF_U8 ? 1 : format == ff::SF_S16 ? 2 : 4;
    ff::AudioMixer mixer(8000, channels, format);
    const int frame_bytes = bytes_per_sample * channels;
    size_t at = 0;
    for (int cycle = 0; cycle < 8 && at < pcm.size(); ++cycle) {
        mixer.begin(ff::Range(ff::Rational(cycle, 50), ff::Rational(cycle + 1, 50)));  // 160 samples
        const int samples = static_cast<int>(std::min<size_t>((pcm.size() - at) / frame_bytes, 37u * (cycle + 1)));
        auto record = std::make_shared<ff::AFrameCtx>();
        record->channels = channels;
        record->sample_rate = 8000;
        record->format = ff::samplefmt_to_avsamplefmt(format);
        record->nb_samples = samples;
        record->size = std::max(samples * frame_bytes, 1);
        record->buffer = ff::mem_malloc(record->size, 16);
        if (!record->buffer) return;
        record->data[0] = static_cast<uint8_t*>(record->buffer);
        record->linesize[0] = samples * frame_bytes;
        if (samples > 0) std::memcpy(record->data[0], pcm.data() + at, static_cast<size_t>(samples) * frame_bytes);
        at += static_cast<size_t>(samples) * frame_bytes;
        mixer.getBuffer(&mixer)->write(record, volume);
        ff::getAudioPeak(record, 1000);
        const std::shared_ptr<ff::PcmBuffer> out = mixer.end();
        if (out) Audio_Volume_Peak(ff::get_sdl_audio_fmt(format), out->data, static_cast<unsigned>(out->size), 100);
    }
}

}  // namespace fuzzdrive
