// clipdec filmstrip: pictures spread over a video stream as one contact sheet,
// each with its time under it, drawn with FFmpeg's pad, drawtext and tile.
#include <clipdec/clipdec.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cli_args.h"
#include "commands.h"
#include "filter_run.h"
#include "image_file.h"
#include "json_writer.h"
#include "media_input.h"

namespace cli {

namespace {

const char* kFilmstripHelp =
    "usage: clipdec filmstrip FILE [-o OUT.png] [--json] [-n N] [--fast] [--size WxH]\n"
    "\n"
    "N pictures evenly spread over the first video stream, at (i + 0.5) x duration / N,\n"
    "as one contact sheet with each picture's own time under it.\n"
    "\n"
    "  -o, --output OUT.png  the contact sheet\n"
    "  --json                print each picture's asked and shown time as JSON\n"
    "  -n N                  how many pictures (1 to 100); default 8\n"
    "  --fast                the key frame at or before each time, decoding key frames\n"
    "                        only; by default the picture on screen at each time\n"
    "  --size WxH            each picture's size, as clipdec thumb sizes it; default 240x0\n"
    "\n"
    "exit codes: 0 done, 1 no pictures (unreadable file, no video), 2 bad arguments,\n"
    "3 the output cannot be written\n";

constexpr int kColumns = 8;
constexpr int kLabelBand = 26;

// A picture of the strip as a frame the filters take, its pts the time shown
// in milliseconds (drawtext writes it under the picture).
ff::UniqueAVFrame frame_of(const ff::FilmstripPicture& p) {
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!frame) return frame;
    frame->format = AV_PIX_FMT_RGBA;
    frame->width = p.picture->width;
    frame->height = p.picture->height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return ff::UniqueAVFrame();
    for (int y = 0; y < frame->height; ++y)
        std::memcpy(frame->data[0] + y * frame->linesize[0], p.picture->data[0] + y * p.picture->linesize[0],
                    static_cast<size_t>(frame->width) * 4);
    frame->pts = p.shown.den > 0 ? p.shown.num * 1000 / p.shown.den : 0;
    return frame;
}

std::string sheet_chain(int count) {
    const int columns = std::min(count, kColumns);
    const int rows = (count + columns - 1) / columns;
    char chain[512];
    std::snprintf(chain, sizeof chain,
                  "pad=w=iw:h=ih+%d:x=0:y=0:color=0x101418,"
                  "drawtext=fontfile=%s:text='%%{pts\\:hms}':fontsize=14:fontcolor=0xd0d4d8:x=(w-tw)/2:y=h-%d,"
                  "tile=%dx%d:padding=6:margin=6:color=0x101418",
                  kLabelBand, label_font(), kLabelBand - 6, columns, rows);
    return chain;
}

std::string as_json(const std::vector<ff::FilmstripPicture>& strip) {
    JsonWriter json;
    json.begin_array();
    for (const ff::FilmstripPicture& p : strip) {
        json.begin_object()
            .value("asked", static_cast<double>(p.asked.num) / static_cast<double>(p.asked.den))
            .value("shown", static_cast<double>(p.shown.num) / static_cast<double>(p.shown.den))
            .value("width", static_cast<long long>(p.picture->width))
            .value("height", static_cast<long long>(p.picture->height))
            .end_object();
    }
    return json.end_array().text();
}

}  // namespace

int cmd_filmstrip(const Args& args) {
    const Options opts("filmstrip", args,
                       {{"-o", true, "--output"}, {"--json", false}, {"-n", true}, {"--fast", false}, {"--size", true}});
    if (opts.help()) {
        std::fputs(kFilmstripHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE (try clipdec filmstrip --help)");
    if (!opts.has("-o") && !opts.has("--json")) fail(kExitUsage, "give -o OUT.png, --json or both");
    const std::string path = opts.positional()[0];
    ff::RequireFilmstrip req;
    req.count = static_cast<int>(opts.integer("-n", 8, 1, 100));
    req.fast = opts.has("--fast");
    req.width = 240;
    opts.size("--size", req.width, req.height);
    if (opts.has("-o")) check_output_file(opts.text("-o"));

    const std::vector<ff::FilmstripPicture> strip = ff::getFilmstrip(path.c_str(), req);
    if (strip.empty()) fail(kExitInput, "no pictures in %s (unreadable file or no decodable video)", path.c_str());
    if (opts.has("--json")) std::printf("%s\n", as_json(strip).c_str());
    if (!opts.has("-o")) return kExitOk;

    std::vector<ff::UniqueAVFrame> frames;
    std::vector<const AVFrame*> inputs;
    for (const ff::FilmstripPicture& p : strip) {
        frames.push_back(frame_of(p));
        if (!frames.back()) fail(kExitOutput, "out of memory");
        inputs.push_back(frames.back().get());
    }
    std::string error;
    const ff::UniqueAVFrame sheet = run_filters(sheet_chain(static_cast<int>(strip.size())), inputs, error);
    if (!sheet || !write_png(opts.text("-o"), sheet->data[0], sheet->linesize[0], sheet->width, sheet->height, error))
        fail(kExitOutput, "%s", error.c_str());
    if (!opts.has("--json"))
        std::printf("%s: %zu pictures (%s), %dx%d contact sheet written to %s\n", path.c_str(), strip.size(),
                    req.fast ? "key frames" : "exact", sheet->width, sheet->height, opts.text("-o").c_str());
    return kExitOk;
}

}  // namespace cli
