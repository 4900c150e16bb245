// clipdec mix: a timeline of audio sources mixed with AudioMixer into a WAV
// file, with a peak meter per second and an optional level picture.
#include <clipdec/clipdec.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "audio_args.h"
#include "cli_args.h"
#include "commands.h"
#include "level_meter.h"
#include "media_input.h"
#include "progress.h"
#include "wav_file.h"

namespace cli {

namespace {

const char* kMixHelp =
    "usage: clipdec mix -o OUT.wav [--rate R] [--channels C] [--format F]\n"
    "                   [--peaks OUT.png] SOURCE...\n"
    "\n"
    "Mixes the audio of every SOURCE into one WAV file, 20 ms at a time, and\n"
    "prints the peak level of each second (0 to 100) as a line of blocks.\n"
    "\n"
    "  SOURCE            FILE[@VOLUME][+OFFSET]: VOLUME 0 to 4 (1 is unity),\n"
    "                    OFFSET the time the source starts on the timeline\n"
    "                    (12.5, 1001/30000 or HH:MM:SS.mmm), default 0\n"
    "  -o, --output      the WAV file\n"
    "  --rate R          8000 to 384000; default 48000\n"
    "  --channels C      1 to 8; default 2\n"
    "  --format F        u8, s16 (default), s32 or flt\n"
    "  --peaks OUT.png   draw the level curve (800x160 plot, time axis, dBFS scale)\n"
    "\n"
    "exit codes: 0 written, 1 a source cannot be read, 2 bad arguments,\n"
    "3 output not writable\n";

constexpr long long kCyclesPerSecond = 50;
constexpr int kUnityVolume = 128;
constexpr int kPeakScale = 100;
constexpr int kPictureWidth = 800, kPictureHeight = 160;

struct Source {
    std::string path;
    int volume = kUnityVolume;
    ff::Rational offset{0, 1};
    ff::Rational length{0, 1};
    std::unique_ptr<ff::FFDecoder> decoder = std::make_unique<ff::FFDecoder>();
};

// FILE[@VOLUME][+OFFSET], read from the right; a text naming an existing file
// is that file, whatever '@' or '+' it holds.
Source parse_source(const std::string& text) {
    Source source;
    source.path = text;
    if (access(text.c_str(), F_OK) == 0) return source;
    const size_t plus = source.path.rfind('+');
    if (plus != std::string::npos && parse_time(source.path.substr(plus + 1), source.offset))
        source.path.erase(plus);
    const size_t at = source.path.rfind('@');
    double volume = 0;
    if (at != std::string::npos && parse_number(source.path.substr(at + 1), volume)) {
        if (volume < 0 || volume > 4) fail(kExitUsage, "source %s: volume %g is outside 0 to 4", text.c_str(), volume);
        source.volume = static_cast<int>(std::lround(volume * kUnityVolume));
        source.path.erase(at);
    }
    return source;
}

void open_source(Source& source) {
    const ff::MovieCtx& movie = probe_or_fail(source.path);
    const ff::StreamCtx& stream = open_first_stream(source.path, movie, ff::STREAM_AUDIO, *source.decoder);
    source.length = stream_duration(stream);
    if (source.length.den == 0) fail(kExitInput, "the duration of %s is unknown", source.path.c_str());
}

// Mixes one cycle: each source playing in it is asked for the same span of
// its own time (before its start, the decoder fills silence).
void mix_cycle(ff::AudioMixer& mixer, std::vector<Source>& sources, ff::RequireAudioFrame req, const ff::Range& cycle) {
    mixer.begin(cycle);
    for (Source& source : sources) {
        const ff::Range own = cycle - source.offset;
        if (own.end <= ff::Rational(0, 1) || source.length <= own.begin) continue;
        req.range = own;
        const std::shared_ptr<ff::AFrameCtx> frame = source.decoder->getAudioFrame(req);
        if (frame) mixer.getBuffer(&source)->write(frame, source.volume);
    }
}

}  // namespace

int cmd_mix(const Args& args) {
    const Options opts("mix", args,
                       {{"-o", true, "--output"}, {"--rate", true}, {"--channels", true}, {"--format", true},
                        {"--peaks", true}});
    if (opts.help()) {
        std::fputs(kMixHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().empty()) fail(kExitUsage, "expected at least one SOURCE (try clipdec mix --help)");
    const std::string out = opts.text("-o");
    check_output_file(out);
    if (opts.has("--peaks")) check_output_file(opts.text("--peaks"));
    ff::RequireAudioFrame req;
    req.format = sample_format_option(opts, ff::SF_S16);
    req.sample_rate = static_cast<int>(opts.integer("--rate", 48000, 8000, 384000));
    req.channels = static_cast<int>(opts.integer("--channels", 2, 1, 8));

    std::vector<Source> sources;
    ff::Rational timeline{0, 1};
    for (const std::string& text : opts.positional()) {
        sources.push_back(parse_source(text));
        open_source(sources.back());
        if (timeline < sources.back().offset + sources.back().length)
            timeline = sources.back().offset + sources.back().length;
    }

    ff::AudioMixer mixer(req.sample_rate, req.channels, req.format);
    WavFile wav;
    if (!wav.open(out, req.sample_rate, req.channels, req.format)) fail(kExitOutput, "cannot create %s", out.c_str());
    const SpanCutter cycles(ff::Range(ff::Rational(0, 1), timeline), kCyclesPerSecond, req.sample_rate);
    LevelMeter meter(static_cast<int>(kCyclesPerSecond));
    Progress progress("mix", cycles.length_seconds(), "s");
    const ff::SDL_AudioFormat layout = ff::get_sdl_audio_fmt(req.format);
    for (long long k = 0; k < cycles.count(); ++k) {
        mix_cycle(mixer, sources, req, cycles.span(k));
        const std::shared_ptr<ff::PcmBuffer> pcm = mixer.end();
        if (!pcm || !wav.write(pcm->data, static_cast<size_t>(pcm->size))) fail(kExitOutput, "cannot write %s", out.c_str());
        meter.add(Audio_Volume_Peak(layout, pcm->data, static_cast<unsigned>(pcm->size), kPeakScale));
        progress.update(cycles.seconds_done(k + 1));
    }
    progress.finish();
    if (!wav.close()) fail(kExitOutput, "cannot write %s", out.c_str());

    std::printf("levels, one per second (loudest %d of 100):\n%s\n", meter.loudest(), meter.text_line().c_str());
    std::printf("%zu sources, %s, %llu samples of %d Hz, %d channels, %s written to %s\n", sources.size(),
                time_text(timeline).c_str(), static_cast<unsigned long long>(wav.frames_written()), req.sample_rate,
                req.channels, sample_format_name(req.format), out.c_str());
    if (opts.has("--peaks")) {
        std::string error;
        if (!meter.write_picture(opts.text("--peaks"), kPictureWidth, kPictureHeight, error))
            fail(kExitOutput, "%s", error.c_str());
        std::printf("level curve written to %s\n", opts.text("--peaks").c_str());
    }
    return kExitOk;
}

}  // namespace cli
