// clipdec frames: a sequence of pictures of a clip as numbered PNG files.
#include <clipdec/clipdec.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "cli_args.h"
#include "commands.h"
#include "image_file.h"
#include "media_input.h"
#include "progress.h"

namespace cli {

namespace {

const char* kFramesHelp =
    "usage: clipdec frames FILE -o DIR [--from A] [--to B] [--fps N] [--size WxH]\n"
    "                      [--speed S] [--reverse] [--async] [--no-autorotate]\n"
    "\n"
    "Writes the pictures of the clip from A to B (clip times, after speed and\n"
    "direction) as DIR/frame_000000.png, frame_000001.png, ...\n"
    "\n"
    "  -o, --output DIR  created when missing\n"
    "  --from A, --to B  clip times (12.5, 1001/30000 or HH:MM:SS.mmm); default the\n"
    "                    whole clip\n"
    "  --fps N           pictures per second (25, 29.97 or 30000/1001); default the\n"
    "                    stream's frame rate\n"
    "  --size WxH        shrink as clipdec thumb does; default full size\n"
    "  --speed S         play at speed S (0.5 to 3.0)\n"
    "  --reverse         play backwards from the end\n"
    "  --async           ask through the decoder's worker thread\n"
    "  --no-autorotate   keep the stored orientation; by default pictures are\n"
    "                    turned upright as the movie's display matrix says\n"
    "\n"
    "exit codes: 0 written, 1 nothing decodable, 2 bad arguments, 3 output not writable\n";

constexpr int kAsyncWaitSeconds = 10;  // a request the worker drops answers nothing

// Asks one picture through the asynchronous interface and waits for it. A
// request that fails calls nothing, so the wait is bounded.
std::shared_ptr<ff::VFrameCtx> picture_async(ff::FFDecoder2& decoder, const ff::RequireVideoFrame& req) {
    struct Slot {
        std::mutex mutex;
        std::condition_variable ready;
        std::shared_ptr<ff::VFrameCtx> picture;
        bool answered = false;
    };
    auto slot = std::make_shared<Slot>();  // outlives a late answer
    decoder.getVideoFrameAsync(req, [slot](std::shared_ptr<ff::VFrameCtx> picture) {
        std::lock_guard<std::mutex> lock(slot->mutex);
        slot->picture = std::move(picture);
        slot->answered = true;
        slot->ready.notify_one();
    });
    std::unique_lock<std::mutex> lock(slot->mutex);
    slot->ready.wait_for(lock, std::chrono::seconds(kAsyncWaitSeconds), [&] { return slot->answered; });
    return slot->picture;
}

struct FramesPlan {
    ff::Rational from, to, step;
    int divider = 1;
    long long count = 0;
};

FramesPlan plan_frames(const Options& opts, const ff::StreamCtx& stream, double speed) {
    FramesPlan plan;
    const ff::Rational duration = stream_duration(stream);
    const ff::Rational clip_length = clip_duration(duration, speed);
    plan.from = opts.time("--from", ff::Rational(0, 1));
    plan.to = opts.time("--to", clip_length);
    if (plan.to.den == 0) fail(kExitUsage, "the clip's duration is unknown: give --to");
    if (!(plan.from < plan.to)) fail(kExitUsage, "--from must come before --to");
    ff::Rational fps = stream.frame_rate.den != 0 && stream.frame_rate.num > 0 ? stream.frame_rate : ff::Rational(25, 1);
    if (opts.has("--fps") && (!parse_time(opts.text("--fps"), fps) || fps.num <= 0 || fps.to_double() > 1000))
        fail(kExitUsage, "--fps: '%s' is not a rate from 0 to 1000", opts.text("--fps").c_str());
    plan.step = ff::Rational(fps.den, fps.num);
    // Pictures at from + k / fps for every such time before `to`.
    const double count = ((plan.to - plan.from) / plan.step).to_double();
    plan.count = static_cast<long long>(count);
    if (static_cast<double>(plan.count) < count) ++plan.count;
    if (plan.count > 1000000) fail(kExitUsage, "that would be %lld pictures; narrow --from/--to or --fps", plan.count);
    int width = 0, height = 0;
    opts.size("--size", width, height);
    plan.divider = ff::movie_image_divider(stream.width, stream.height, width, height);
    return plan;
}

}  // namespace

int cmd_frames(const Args& args) {
    const Options opts("frames", args,
                       {{"-o", true, "--output"}, {"--from", true}, {"--to", true}, {"--fps", true},
                        {"--size", true}, {"--speed", true}, {"--reverse", false}, {"--async", false},
                        {"--no-autorotate", false}});
    if (opts.help()) {
        std::fputs(kFramesHelp, stdout);
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE (try clipdec frames --help)");
    const std::string path = opts.positional()[0];
    const std::string dir = opts.text("-o");
    if (dir.empty()) fail(kExitUsage, "an output directory is required (-o DIR)");
    const double speed = opts.number("--speed", 1.0, 0.5, 3.0);

    const ff::MovieCtx& movie = probe_or_fail(path);
    ff::FFDecoder2 decoder;
    const ff::StreamCtx& stream = open_first_stream(path, movie, ff::STREAM_VIDEO, decoder);
    if (speed != 1.0 && !decoder.setSpeed(speed)) fail(kExitInput, "cannot play %s at speed %g", path.c_str(), speed);
    if (opts.has("--reverse")) decoder.setRevert(true);
    const FramesPlan plan = plan_frames(opts, stream, speed);
    make_output_dir(dir);

    const ff::Orientation turn = opts.has("--no-autorotate") ? ff::OR_NORMAL : stream.orientation;
    Progress progress("frames", static_cast<double>(plan.count), "pictures");
    long long written = 0, missing = 0;
    int width = 0, height = 0;
    for (long long k = 0; k < plan.count; ++k) {
        ff::RequireVideoFrame req;
        req.time = plan.from + plan.step * ff::Rational(k, 1);
        req.format = ff::PF_RGBA;
        req.divider = plan.divider;
        const std::shared_ptr<ff::VFrameCtx> picture = ff::getUprightImage(
            opts.has("--async") ? picture_async(decoder, req) : decoder.getVideoFrame(req), turn);
        progress.update(static_cast<double>(k + 1));
        if (!picture) {
            ++missing;
            continue;
        }
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%06lld.png", k);
        std::string error;
        if (!write_png(dir + name, *picture, error)) fail(kExitOutput, "%s", error.c_str());
        width = picture->width;
        height = picture->height;
        ++written;
    }
    progress.finish();
    decoder.close();
    if (written == 0) fail(kExitInput, "no picture of %s could be decoded in that span", path.c_str());
    std::printf("%s: %lld pictures of %dx%d written to %s", path.c_str(), written, width, height, dir.c_str());
    if (missing) std::printf(" (%lld times had no picture)", missing);
    std::printf("\n");
    return kExitOk;
}

}  // namespace cli
