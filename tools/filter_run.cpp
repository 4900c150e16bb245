#include "filter_run.h"

#include <cstring>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
}

namespace cli {
namespace {

// buffer -> chain -> buffersink, configured for `first`'s size.
bool build_graph(AVFilterGraph* graph, const std::string& chain, const AVFrame* first, AVFilterContext** src,
                 AVFilterContext** sink, std::string& error) {
    const std::string args = "video_size=" + std::to_string(first->width) + "x" + std::to_string(first->height) +
                             ":pix_fmt=" + std::to_string(AV_PIX_FMT_RGBA) + ":time_base=1/1000:pixel_aspect=1/1";
    if (avfilter_graph_create_filter(src, avfilter_get_by_name("buffer"), "in", args.c_str(), nullptr, graph) < 0 ||
        avfilter_graph_create_filter(sink, avfilter_get_by_name("buffersink"), "out", nullptr, nullptr, graph) < 0) {
        error = "cannot set up a filter graph";
        return false;
    }
    const enum AVPixelFormat rgba[] = {AV_PIX_FMT_RGBA, AV_PIX_FMT_NONE};
    av_opt_set_int_list(*sink, "pix_fmts", rgba, AV_PIX_FMT_NONE, AV_OPT_SEARCH_CHILDREN);
    ff::UniqueAVFilterInOut outputs(avfilter_inout_alloc()), inputs(avfilter_inout_alloc());
    if (!outputs || !inputs) {
        error = "out of memory";
        return false;
    }
    outputs->name = av_strdup("in");
    outputs->filter_ctx = *src;
    inputs->name = av_strdup("out");
    inputs->filter_ctx = *sink;
    const int parsed = ff::parse_filter_graph(graph, chain.c_str(), inputs, outputs);
    if (parsed < 0 || avfilter_graph_config(graph, nullptr) < 0) {
        error = "cannot build the drawing filters (is fonts-dejavu-core installed?)";
        return false;
    }
    return true;
}

}  // namespace

const char* label_font() { return "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"; }

std::string drawtext_text(const std::string& text) {
    // Inside the quotes the graph parser takes everything as it is; drawtext
    // itself reads a backslash as taking the next character literally (':'
    // would otherwise end the option, '%' start an expansion). Quotes cannot
    // be written inside quotes and are left out: labels never need them.
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') continue;
        if (c == ':' || c == '\\' || c == '%') out += '\\';
        out += c;
    }
    return out + "'";
}

ff::UniqueAVFrame rgba_frame(int width, int height, uint32_t rgba) {
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!frame) return frame;
    frame->format = AV_PIX_FMT_RGBA;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return ff::UniqueAVFrame();
    uint8_t px[4] = {static_cast<uint8_t>(rgba >> 24), static_cast<uint8_t>(rgba >> 16),
                     static_cast<uint8_t>(rgba >> 8), static_cast<uint8_t>(rgba)};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) std::memcpy(frame->data[0] + y * frame->linesize[0] + 4 * x, px, 4);
    return frame;
}

ff::UniqueAVFrame run_filters(const std::string& chain, const std::vector<const AVFrame*>& inputs, std::string& error) {
    if (inputs.empty()) {
        error = "nothing to draw";
        return ff::UniqueAVFrame();
    }
    ff::UniqueAVFilterGraph graph(avfilter_graph_alloc());
    AVFilterContext* src = nullptr;
    AVFilterContext* sink = nullptr;
    if (!graph || !build_graph(graph.get(), chain, inputs.front(), &src, &sink, error)) return ff::UniqueAVFrame();
    for (const AVFrame* in : inputs) {
        ff::UniqueAVFrame copy(av_frame_clone(in));
        if (!copy || av_buffersrc_add_frame(src, copy.get()) < 0) {
            error = "cannot feed the drawing filters";
            return ff::UniqueAVFrame();
        }
    }
    // The end: a tile of fewer pictures than it has places is given out now.
    if (av_buffersrc_add_frame(src, nullptr) < 0) {
        error = "cannot finish the drawing filters";
        return ff::UniqueAVFrame();
    }
    ff::UniqueAVFrame out(av_frame_alloc());
    if (!out || av_buffersink_get_frame(sink, out.get()) < 0) {
        error = "the drawing filters gave no picture";
        return ff::UniqueAVFrame();
    }
    return out;
}

}  // namespace cli
