// clipdec probe: movie and stream descriptions, as text or as JSON.
#include <clipdec/clipdec.h>

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include <cstdio>

#include "cli_args.h"
#include "commands.h"
#include "json_writer.h"

namespace cli {

namespace {

const char* kProbeHelp =
    "usage: clipdec probe [--json] FILE...\n"
    "\n"
    "Describes each movie and its streams as the library sees them: duration,\n"
    "picture size, pixel format, frame rate, rotation and colour description\n"
    "(FFmpeg's names) of video, rate,\n"
    "channels and sample format of audio, and the text of SubRip subtitles.\n"
    "\n"
    "  --json   one JSON object per file and line, fields named as in the\n"
    "           library's records (times in the stream's time base, rationals\n"
    "           as {\"num\", \"den\"}, unknown values null)\n"
    "\n"
    "exit codes: 0 all files described, 1 a file could not be probed, 2 bad arguments\n";

const char* kind_name(ff::StreamType type) {
    switch (type) {
        case ff::STREAM_VIDEO: return "video";
        case ff::STREAM_AUDIO: return "audio";
        default: return "subtitle";
    }
}

const char* pix_fmt_name(int f) {
    const char* name = f >= 0 ? av_get_pix_fmt_name(static_cast<AVPixelFormat>(f)) : nullptr;
    return name ? name : "none";
}

const char* sample_fmt_name(int f) {
    const char* name = f >= 0 ? av_get_sample_fmt_name(static_cast<AVSampleFormat>(f)) : nullptr;
    return name ? name : "none";
}

// FFmpeg's names for the colour description; "unknown" where it has none.
const char* or_unknown(const char* name) { return name ? name : "unknown"; }
const char* color_space_name(const ff::StreamCtx& s) {
    return or_unknown(av_color_space_name(static_cast<AVColorSpace>(s.color_space)));
}
const char* color_range_name(const ff::StreamCtx& s) {
    return or_unknown(av_color_range_name(static_cast<AVColorRange>(s.color_range)));
}
const char* color_primaries_name(const ff::StreamCtx& s) {
    return or_unknown(av_color_primaries_name(static_cast<AVColorPrimaries>(s.color_primaries)));
}
const char* color_trc_name(const ff::StreamCtx& s) {
    return or_unknown(av_color_transfer_name(static_cast<AVColorTransferCharacteristic>(s.color_trc)));
}
const char* chroma_location_name(const ff::StreamCtx& s) {
    return or_unknown(av_chroma_location_name(static_cast<AVChromaLocation>(s.chroma_location)));
}
// As ffprobe names field orders.
const char* field_order_name(const ff::StreamCtx& s) {
    switch (s.field_order) {
        case AV_FIELD_PROGRESSIVE: return "progressive";
        case AV_FIELD_TT: return "tt";
        case AV_FIELD_BB: return "bb";
        case AV_FIELD_TB: return "tb";
        case AV_FIELD_BT: return "bt";
        default: return "unknown";
    }
}
const char* orientation_name(ff::Orientation o) {
    static const char* const names[] = {"normal", "rotate90", "rotate180", "rotate270",
                                        "hflip",  "vflip",    "transpose", "transverse"};
    return o >= ff::OR_NORMAL && o <= ff::OR_TRANSVERSE ? names[o] : "unknown";
}

std::string seconds_text(int64_t value, const ff::Rational& base) {
    if (value == ff::kNoPts || base.den == 0) return "unknown";
    return time_text(ff::timestamp_to_time(value, base));
}

// ---- text

void print_stream_text(const ff::StreamCtx& s) {
    std::printf("  stream %d: %s, start %s, duration %s, time base %lld/%lld\n", s.index, kind_name(s.type),
                seconds_text(s.start_time, s.time_base).c_str(), seconds_text(s.duration, s.time_base).c_str(),
                s.time_base.num, s.time_base.den);
    if (s.type == ff::STREAM_VIDEO) {
        std::printf("    %dx%d %s, %.3f fps (%lld/%lld), aspect %lld:%lld, rotation %g%s\n", s.width, s.height,
                    pix_fmt_name(s.pix_fmt), s.frame_rate.to_double(), s.frame_rate.num, s.frame_rate.den,
                    s.sample_aspect_ratio.num, s.sample_aspect_ratio.den, s.rotation,
                    s.still_image ? ", still picture" : "");
        std::printf("    colour %s/%s, primaries %s, transfer %s, chroma %s, %s, upright by %s\n",
                    color_space_name(s), color_range_name(s), color_primaries_name(s), color_trc_name(s),
                    chroma_location_name(s), field_order_name(s), orientation_name(s.orientation));
    } else if (s.type == ff::STREAM_AUDIO) {
        std::printf("    %d Hz, %d channels (layout 0x%llx), %s\n", s.sample_rate, s.channels,
                    static_cast<unsigned long long>(s.channel_layout), sample_fmt_name(s.sample_fmt));
    } else {
        for (const ff::Subtitle& sub : s.subtitles)
            std::printf("    %.3f --> %.3f  %s\n", sub.start / 1e6, sub.end / 1e6, sub.text.c_str());
    }
}

void print_movie_text(const char* path, const ff::MovieCtx& mv) {
    const ff::Rational us(1, 1000000);
    std::printf("%s: duration %s, start %s, %lld bit/s, %d video, %d audio, %d subtitle\n", path,
                seconds_text(mv.duration, us).c_str(), seconds_text(mv.start_time, us).c_str(),
                static_cast<long long>(mv.bit_rate), mv.nb_video, mv.nb_audio, mv.nb_subtitle);
    for (int i = 0; i < mv.nb_streams; ++i)
        if (mv.streams[i]) print_stream_text(*mv.streams[i]);
}

// ---- JSON

void json_time(JsonWriter& j, const char* key, int64_t value) {
    if (value == ff::kNoPts) j.null(key);
    else j.value(key, static_cast<long long>(value));
}

void json_rational(JsonWriter& j, const char* key, const ff::Rational& r) {
    j.begin_object(key).value("num", r.num).value("den", r.den).end_object();
}

void json_indexes(JsonWriter& j, const char* key, const int8_t* list, int count) {
    j.begin_array(key);
    for (int i = 0; i < count && i < ff::kMaxStreamsPerType; ++i) j.value(nullptr, static_cast<long long>(list[i]));
    j.end_array();
}

void json_stream(JsonWriter& j, const ff::StreamCtx& s) {
    j.begin_object().value("index", static_cast<long long>(s.index)).value("type", kind_name(s.type));
    json_rational(j, "time_base", s.time_base);
    json_time(j, "duration", s.duration);
    json_time(j, "start_time", s.start_time);
    if (s.type == ff::STREAM_VIDEO) {
        j.value("width", static_cast<long long>(s.width)).value("height", static_cast<long long>(s.height));
        j.value("codec_pix_fmt", pix_fmt_name(s.codec_pix_fmt));
        j.value("frame_pix_fmt", s.frame_pix_fmt >= 0 ? pix_fmt_name(s.frame_pix_fmt) : nullptr);
        j.value("pix_fmt", pix_fmt_name(s.pix_fmt)).value("rotation", s.rotation);
        j.value("still_image", s.still_image);
        json_rational(j, "sample_aspect_ratio", s.sample_aspect_ratio);
        json_rational(j, "frame_rate", s.frame_rate);
        j.value("orientation", orientation_name(s.orientation));
        j.value("color_space", color_space_name(s)).value("color_range", color_range_name(s));
        j.value("color_primaries", color_primaries_name(s)).value("color_trc", color_trc_name(s));
        j.value("chroma_location", chroma_location_name(s)).value("field_order", field_order_name(s));
    } else if (s.type == ff::STREAM_AUDIO) {
        j.value("channel_layout", static_cast<long long>(s.channel_layout));
        j.value("channels", static_cast<long long>(s.channels));
        j.value("sample_rate", static_cast<long long>(s.sample_rate));
        j.value("sample_fmt", sample_fmt_name(s.sample_fmt));
    } else {
        j.begin_array("subtitles");
        for (const ff::Subtitle& sub : s.subtitles)
            j.begin_object()
                .value("start", static_cast<long long>(sub.start))
                .value("end", static_cast<long long>(sub.end))
                .value("text", sub.text)
                .end_object();
        j.end_array();
    }
    j.end_object();
}

void print_movie_json(const char* path, const ff::MovieCtx& mv) {
    JsonWriter j;
    j.begin_object().value("path", path);
    json_time(j, "duration", mv.duration);
    json_time(j, "start_time", mv.start_time);
    j.value("bit_rate", static_cast<long long>(mv.bit_rate));
    j.value("nb_video", static_cast<long long>(mv.nb_video));
    j.value("nb_audio", static_cast<long long>(mv.nb_audio));
    j.value("nb_subtitle", static_cast<long long>(mv.nb_subtitle));
    json_indexes(j, "video_indexes", mv.video_indexes, mv.nb_video);
    json_indexes(j, "audio_indexes", mv.audio_indexes, mv.nb_audio);
    json_indexes(j, "subtitle_indexes", mv.subtitle_indexes, mv.nb_subtitle);
    j.begin_array("streams");
    for (int i = 0; i < mv.nb_streams; ++i)
        if (mv.streams[i]) json_stream(j, *mv.streams[i]);
    j.end_array().end_object();
    std::printf("%s\n", j.text().c_str());
}

}  // namespace

int cmd_probe(const Args& args) {
    const Options opts("probe", args, {{"--json", false}});
    if (opts.help()) {
        std::fputs(kProbeHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().empty()) fail(kExitUsage, "expected at least one FILE (try clipdec probe --help)");
    const bool json = opts.has("--json");
    int status = kExitOk;
    for (const std::string& path : opts.positional()) {
        const ff::MovieCtx* mv = ff::getMovieInfo(path.c_str(), nullptr);
        if (!mv) {
            // Still one line per file for machines, so outputs match inputs.
            if (json) std::printf("%s\n", JsonWriter().begin_object().value("path", path).value("error", "cannot open").end_object().text().c_str());
            std::fprintf(diagnostics(), "clipdec probe: cannot open %s\n", path.c_str());
            status = kExitInput;
            continue;
        }
        if (json) print_movie_json(path.c_str(), *mv);
        else print_movie_text(path.c_str(), *mv);
    }
    return status;
}

}  // namespace cli
