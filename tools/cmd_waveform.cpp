// clipdec waveform: the waveform overview of an audio stream, drawn as PNG
// (one lane per channel, a time axis and a dBFS scale) and given as JSON.
#include <clipdec/clipdec.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "chart.h"
#include "cli_args.h"
#include "commands.h"
#include "image_file.h"
#include "json_writer.h"
#include "media_input.h"

namespace cli {

namespace {

const char* kWaveformHelp =
    "usage: clipdec waveform FILE [-o OUT.png] [--json] [--stream N] [--bucket DUR]\n"
    "                        [--size WxH]\n"
    "\n"
    "The minimum, maximum and RMS of every channel over consecutive buckets of the\n"
    "whole audio stream, decoded once at the stream's own rate.\n"
    "\n"
    "  -o, --output OUT.png  draw it: a lane per channel, a time axis and a dBFS scale\n"
    "  --json                print the numbers as JSON on standard output\n"
    "  --stream N            the stream's container index; default the best audio stream\n"
    "  --bucket DUR          the bucket duration: 10ms, 0.01 or 1/100; default 10ms\n"
    "  --size WxH            the plotting area; default 1000x240\n"
    "\n"
    "exit codes: 0 done, 1 no audio to measure (unreadable file, no audio stream),\n"
    "2 bad arguments, 3 the output cannot be written\n";

constexpr uint32_t kPeak = 0x3a7bd5ff;
constexpr uint32_t kRms = 0x8ec5ffff;

ff::Rational bucket_of(const Options& opts) {
    std::string text = opts.text("--bucket", "10ms");
    const bool ms = text.size() > 2 && text.compare(text.size() - 2, 2, "ms") == 0;
    if (ms) text.resize(text.size() - 2);
    ff::Rational t;
    if (!parse_time(text, t) || t.num <= 0) fail(kExitUsage, "--bucket: '%s' is not a duration such as 10ms", opts.text("--bucket").c_str());
    return ms ? t * ff::Rational(1, 1000) : t;
}

// One lane per channel: each column the extremes and the RMS of the
// buckets it covers.
void paint(const ff::AudioOverview& o, Chart& chart) {
    const int lane = chart.height() / o.channels;
    for (int c = 0; c < o.channels; ++c) {
        chart.add_level_band(c * lane, lane, true, "channel " + std::to_string(c + 1));
        const int mid = c * lane + lane / 2, half = lane / 2 - 1;
        auto y_of = [&](float a) { return mid - static_cast<int>(std::lround(std::clamp(a, -1.0f, 1.0f) * half)); };
        for (int x = 0; x < chart.width(); ++x) {
            const long long first = static_cast<long long>(x) * o.buckets / chart.width();
            const long long last = std::max(first + 1, static_cast<long long>(x + 1) * o.buckets / chart.width());
            float lo = 1, hi = -1, rms = 0;
            for (long long k = first; k < std::min<long long>(last, o.buckets); ++k) {
                const size_t at = static_cast<size_t>(k * o.channels + c);
                lo = std::min(lo, o.min[at]), hi = std::max(hi, o.max[at]), rms = std::max(rms, o.rms[at]);
            }
            if (hi < lo) continue;
            chart.fill_column(x, y_of(hi), y_of(lo), kPeak);
            chart.fill_column(x, y_of(rms), y_of(-rms), kRms);
        }
    }
}

std::string as_json(const ff::AudioOverview& o) {
    JsonWriter json;
    json.begin_object()
        .value("sample_rate", static_cast<long long>(o.sampleRate))
        .value("channels", static_cast<long long>(o.channels))
        .begin_object("bucket")
        .value("num", o.bucket.num)
        .value("den", o.bucket.den)
        .end_object()
        .value("samples", o.samples)
        .value("buckets", static_cast<long long>(o.buckets))
        .begin_array("lanes");
    for (int c = 0; c < o.channels; ++c) {
        json.begin_object();
        for (const auto& [key, values] : {std::make_pair("min", &o.min), std::make_pair("max", &o.max),
                                          std::make_pair("rms", &o.rms)}) {
            json.begin_array(key);
            for (int k = 0; k < o.buckets; ++k)
                json.value(nullptr, static_cast<double>((*values)[static_cast<size_t>(k * o.channels + c)]));
            json.end_array();
        }
        json.end_object();
    }
    return json.end_array().end_object().text();
}

}  // namespace

int cmd_waveform(const Args& args) {
    const Options opts("waveform", args,
                       {{"-o", true, "--output"}, {"--json", false}, {"--stream", true}, {"--bucket", true},
                        {"--size", true}});
    if (opts.help()) {
        std::fputs(kWaveformHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE (try clipdec waveform --help)");
    if (!opts.has("-o") && !opts.has("--json")) fail(kExitUsage, "give -o OUT.png, --json or both");
    const std::string path = opts.positional()[0];
    const int stream = static_cast<int>(opts.integer("--stream", -1, 0, 1000));
    const ff::Rational bucket = bucket_of(opts);
    int width = 1000, height = 240;
    opts.size("--size", width, height);
    if (width < 100 || height < 60) fail(kExitUsage, "--size: the plot needs at least 100x60 pixels");
    if (opts.has("-o")) check_output_file(opts.text("-o"));

    const std::shared_ptr<const ff::AudioOverview> o = ff::getAudioOverview(path.c_str(), stream, bucket);
    if (!o) fail(kExitInput, "no audio to measure in %s (unreadable file or no such audio stream)", path.c_str());
    if (opts.has("--json")) std::printf("%s\n", as_json(*o).c_str());
    if (!opts.has("-o")) return kExitOk;

    const double seconds = static_cast<double>(o->samples) / o->sampleRate;
    Chart chart(width, std::max(height / o->channels, 20) * o->channels, seconds);
    paint(*o, chart);
    std::string error;
    const ff::UniqueAVFrame picture = chart.render(error);
    if (!picture || !write_png(opts.text("-o"), picture->data[0], picture->linesize[0], picture->width,
                               picture->height, error))
        fail(kExitOutput, "%s", error.c_str());
    if (!opts.has("--json"))
        std::printf("%s: %d channels, %d buckets of %s, waveform written to %s\n", path.c_str(), o->channels,
                    o->buckets, time_text(o->bucket).c_str(), opts.text("-o").c_str());
    return kExitOk;
}

}  // namespace cli
