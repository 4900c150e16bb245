// clipdec thumb: one picture of a movie through getMovieImage, as PNG.
#include <clipdec/clipdec.h>

#include <cstdio>

#include "cli_args.h"
#include "commands.h"
#include "image_file.h"
#include "media_input.h"

namespace cli {

namespace {

const char* kThumbHelp =
    "usage: clipdec thumb FILE -o OUT.png [--at TIME | --ratio R] [--size WxH]\n"
    "                     [--no-autorotate]\n"
    "\n"
    "Writes one picture of the movie as PNG.\n"
    "\n"
    "  -o, --output OUT.png  the picture file\n"
    "  --at TIME             the picture on screen at TIME (12.5, 1001/30000 or\n"
    "                        HH:MM:SS.mmm)\n"
    "  --ratio R             the picture at R (0 to 1) of the duration; default 0.5\n"
    "  --size WxH            shrink by the largest whole divider that keeps the\n"
    "                        picture about WxH and not under half of it (0 on one\n"
    "                        side: no limit there); default full size\n"
    "  --no-autorotate       keep the stored orientation; by default the picture is\n"
    "                        turned upright as the movie's display matrix says\n"
    "\n"
    "exit codes: 0 written, 1 no picture (unreadable file, no video), 2 bad\n"
    "arguments, 3 the output cannot be written\n";

}  // namespace

int cmd_thumb(const Args& args) {
    const Options opts("thumb", args,
                       {{"-o", true, "--output"}, {"--at", true}, {"--ratio", true}, {"--size", true},
                        {"--no-autorotate", false}});
    if (opts.help()) {
        std::fputs(kThumbHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE (try clipdec thumb --help)");
    if (opts.has("--at") && opts.has("--ratio")) fail(kExitUsage, "give --at or --ratio, not both");
    const std::string path = opts.positional()[0];
    const std::string out = opts.text("-o");
    check_output_file(out);

    ff::RequireMvImage req;
    req.format = ff::PF_RGBA;
    req.time = opts.time("--at", ff::Rational(0, 0));
    req.ratio = opts.number("--ratio", 0.5, 0.0, 1.0);
    opts.size("--size", req.width, req.height);
    req.upright = !opts.has("--no-autorotate");

    ff::Rational duration(0, 0);
    const std::shared_ptr<ff::VFrameCtx> picture = ff::getMovieImage(path.c_str(), req, &duration);
    if (!picture) {
        if (duration.den == 0) fail(kExitInput, "cannot open %s (missing, unreadable or not a movie)", path.c_str());
        fail(kExitInput, "no picture in %s (no decodable video stream at that time)", path.c_str());
    }
    std::string error;
    if (!write_png(out, *picture, error)) fail(kExitOutput, "%s", error.c_str());
    const bool known = duration.num != ff::kNoPts && duration.num >= 0;
    std::printf("%s: %dx%d picture at %s of %s written to %s\n", path.c_str(), picture->width, picture->height,
                time_text(ff::Rational(picture->pts, 1000000)).c_str(),
                known ? time_text(duration).c_str() : "a movie of unknown duration", out.c_str());
    return kExitOk;
}

}  // namespace cli
