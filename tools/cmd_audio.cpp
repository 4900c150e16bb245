// clipdec audio: a span of a clip's audio exported through contiguous 20 ms
// requests, as a WAV file.
#include <clipdec/clipdec.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "audio_args.h"
#include "cli_args.h"
#include "commands.h"
#include "media_input.h"
#include "progress.h"
#include "wav_file.h"

namespace cli {

namespace {

const char* kAudioHelp =
    "usage: clipdec audio FILE -o OUT.wav [--range A:B] [--rate R] [--channels C]\n"
    "                     [--format u8|s16|s32|flt] [--speed S] [--filter TEXT]\n"
    "\n"
    "Exports the clip's audio from A to B through contiguous 20 ms requests.\n"
    "\n"
    "  -o, --output OUT.wav  the WAV file\n"
    "  --range A:B           clip times (also A..B, needed when the times are\n"
    "                        written HH:MM:SS); default the whole clip\n"
    "  --rate R              sample rate (8000 to 384000); default the stream's\n"
    "  --channels C          1 to 8; default the stream's\n"
    "  --format F            u8, s16 (default), s32 or flt\n"
    "  --speed S             0.5 to 3.0, pitch kept\n"
    "  --filter TEXT         an FFmpeg audio filter chain, such as \"volume=0.5\"\n"
    "\n"
    "Spans the decoder cannot fill are written as silence, so the file always\n"
    "holds the whole range.\n"
    "\n"
    "exit codes: 0 written, 1 nothing decodable, 2 bad arguments, 3 output not writable\n";

constexpr long long kSpansPerSecond = 50;  // 20 ms requests, as a player asks

}  // namespace

int cmd_audio(const Args& args) {
    const Options opts("audio", args,
                       {{"-o", true, "--output"}, {"--range", true}, {"--rate", true}, {"--channels", true},
                        {"--format", true}, {"--speed", true}, {"--filter", true}});
    if (opts.help()) {
        std::fputs(kAudioHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE (try clipdec audio --help)");
    const std::string path = opts.positional()[0];
    const std::string out = opts.text("-o");
    check_output_file(out);
    const ff::SampleFormat format = sample_format_option(opts, ff::SF_S16);
    const double speed = opts.number("--speed", 1.0, 0.5, 3.0);

    const ff::MovieCtx& movie = probe_or_fail(path);
    ff::FFDecoder2 decoder;
    const ff::StreamCtx& stream = open_first_stream(path, movie, ff::STREAM_AUDIO, decoder);
    if (speed != 1.0 && !decoder.setSpeed(speed)) fail(kExitInput, "cannot play %s at speed %g", path.c_str(), speed);
    if (opts.has("--filter") && !decoder.setFilters(opts.text("--filter").c_str()))
        fail(kExitUsage, "--filter: cannot build the filter '%s'", opts.text("--filter").c_str());

    ff::RequireAudioFrame req;
    req.format = format;
    req.sample_rate = static_cast<int>(opts.integer("--rate", stream.sample_rate > 0 ? stream.sample_rate : 48000, 8000, 384000));
    req.channels = static_cast<int>(opts.integer("--channels", stream.channels >= 1 && stream.channels <= 8 ? stream.channels : 2, 1, 8));
    const ff::Range range = range_option(opts, clip_duration(stream_duration(stream), speed));

    WavFile wav;
    if (!wav.open(out, req.sample_rate, req.channels, format)) fail(kExitOutput, "cannot create %s", out.c_str());
    SpanCutter spans(range, kSpansPerSecond, req.sample_rate);
    Progress progress("audio", spans.length_seconds(), "s");
    const size_t frame_bytes = static_cast<size_t>(sample_bytes(format) * req.channels);
    std::vector<uint8_t> silence;
    long long decoded = 0, silent = 0;
    for (long long k = 0; k < spans.count(); ++k) {
        req.range = spans.span(k);
        const std::shared_ptr<ff::AFrameCtx> frame = decoder.getAudioFrame(req);
        bool ok;
        if (frame && frame->nb_samples > 0 && frame->channels == req.channels) {
            ok = wav.write(frame->data[0], static_cast<size_t>(frame->nb_samples) * frame_bytes);
            ++decoded;
        } else {
            silence.assign(static_cast<size_t>(spans.samples(k)) * frame_bytes, format == ff::SF_U8 ? 0x80 : 0);
            ok = wav.write(silence.data(), silence.size());
            ++silent;
        }
        if (!ok) fail(kExitOutput, "cannot write %s", out.c_str());
        progress.update(spans.seconds_done(k + 1));
    }
    progress.finish();
    decoder.close();
    if (!wav.close()) fail(kExitOutput, "cannot write %s", out.c_str());
    if (decoded == 0) fail(kExitInput, "no audio of %s could be decoded in that span", path.c_str());
    std::printf("%s: %llu samples of %d Hz, %d channels, %s written to %s", path.c_str(),
                static_cast<unsigned long long>(wav.frames_written()), req.sample_rate, req.channels,
                sample_format_name(format), out.c_str());
    if (silent) std::printf(" (%lld of %lld spans silent)", silent, spans.count());
    std::printf("\n");
    return kExitOk;
}

}  // namespace cli
