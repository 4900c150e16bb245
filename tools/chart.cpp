#include "chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "filter_run.h"

namespace cli {
namespace {

constexpr int kLeft = 64;  // room for the dB labels
constexpr int kTop = 12;
constexpr int kRight = 44;  // room for half the last time label
constexpr int kBottom = 28;  // room for the time labels
constexpr int kMinTickSpacing = 90;  // pixels between time labels at least
constexpr double kLevelsDb[] = {0, -6, -12, -20};

// The first step of time labels that leaves kMinTickSpacing pixels between them.
double tick_step(double seconds, int width) {
    static const double steps[] = {0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1,   2,    5,    10,   15,   30,
                                   60,   120,  300,  600, 900, 1800, 3600, 7200, 18000, 36000, 86400};
    for (double step : steps)
        if (step / seconds * width >= kMinTickSpacing) return step;
    return steps[sizeof steps / sizeof steps[0] - 1];
}

std::string colour(uint32_t rgba) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", rgba);
    return text;
}

std::string line(int x, int y, int w, int h, const char* colour_text) {
    return ",drawbox=x=" + std::to_string(x) + ":y=" + std::to_string(y) + ":w=" + std::to_string(w) +
           ":h=" + std::to_string(h) + ":color=" + colour_text + ":t=fill";
}

std::string label(const std::string& text, const std::string& x, const std::string& y, int size) {
    return ",drawtext=fontfile=" + std::string(label_font()) + ":text=" + drawtext_text(text) +
           ":fontsize=" + std::to_string(size) + ":fontcolor=" + colour(Chart::kLabel) + ":x=" + x + ":y=" + y;
}

}  // namespace

std::string clock_text(double seconds, double step) {
    const int decimals = step >= 1 ? 0 : step >= 0.1 ? 1 : 2;
    const double scale = std::pow(10.0, decimals);
    const long long units = std::llround(seconds * scale);
    const long long whole = units / static_cast<long long>(scale);
    char text[48];
    int n = std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    if (decimals > 0)
        std::snprintf(text + n, sizeof text - static_cast<size_t>(n), ".%0*lld", decimals,
                      units % static_cast<long long>(scale));
    return text;
}

Chart::Chart(int width, int height, double seconds)
    : width_(width), height_(height), seconds_(seconds > 0 ? seconds : 1), plot_(rgba_frame(width, height, kBackground)) {}

void Chart::fill_column(int x, int y0, int y1, uint32_t rgba) {
    if (!plot_ || x < 0 || x >= width_) return;
    if (y0 > y1) std::swap(y0, y1);
    const uint8_t px[4] = {static_cast<uint8_t>(rgba >> 24), static_cast<uint8_t>(rgba >> 16),
                           static_cast<uint8_t>(rgba >> 8), static_cast<uint8_t>(rgba)};
    for (int y = std::max(y0, 0); y <= std::min(y1, height_ - 1); ++y)
        std::memcpy(plot_->data[0] + y * plot_->linesize[0] + 4 * x, px, 4);
}

void Chart::add_level_band(int top, int height, bool centred, const std::string& title) {
    bands_.push_back({top, height, centred, title});
}

std::string Chart::grid_and_labels() const {
    std::string chain = "format=rgba";
    const std::string grid = colour(0xffffff38);
    // The time grid on the plot, then the margins, then every label.
    const double step = tick_step(seconds_, width_);
    std::vector<std::pair<int, double>> ticks;
    for (double t = 0; t <= seconds_ + 1e-9; t += step) ticks.emplace_back(static_cast<int>(t / seconds_ * width_), t);
    for (const auto& [x, t] : ticks) chain += line(std::min(x, width_ - 1), 0, 1, height_, grid.c_str());
    std::vector<std::pair<int, std::string>> levels;  // y of a labelled dB line, its label
    for (const Band& b : bands_) {
        int last_label = -1000;
        for (double db : kLevelsDb) {
            const double a = std::pow(10.0, db / 20);
            // A waveform's lines lie on both sides of its middle; the labels
            // go on the upper ones, and none so close to the last that they
            // would overlap.
            const int half = b.height / 2;
            const int y = b.centred ? b.top + half - static_cast<int>(std::lround(a * (half - 1)))
                                    : b.top + static_cast<int>(std::lround((1 - a) * (b.height - 1)));
            chain += line(0, y, width_, 1, grid.c_str());
            if (b.centred) chain += line(0, 2 * (b.top + half) - y, width_, 1, grid.c_str());
            if (y - last_label < 13) continue;
            levels.emplace_back(y, db == 0 ? "0 dB" : std::to_string(static_cast<int>(db)));
            last_label = y;
        }
        if (b.centred) chain += line(0, b.top + b.height / 2, width_, 1, colour(0xffffff60).c_str());
    }
    chain += ",pad=w=iw+" + std::to_string(kLeft + kRight) + ":h=ih+" + std::to_string(kTop + kBottom) +
             ":x=" + std::to_string(kLeft) + ":y=" + std::to_string(kTop) + ":color=" + colour(kBackground);
    for (const auto& [x, t] : ticks)
        chain += label(clock_text(t, step), std::to_string(kLeft + x) + "-tw/2",
                       std::to_string(kTop + height_ + 8), 12);
    for (const auto& [y, text] : levels)
        chain += label(text, std::to_string(kLeft - 6) + "-tw", std::to_string(kTop + y) + "-th/2", 11);
    for (const Band& b : bands_)
        if (!b.title.empty())
            chain += label(b.title, std::to_string(kLeft + width_ - 6) + "-tw", std::to_string(kTop + b.top + 4), 12);
    return chain;
}

ff::UniqueAVFrame Chart::render(std::string& error) const {
    if (!plot_) {
        error = "out of memory";
        return ff::UniqueAVFrame();
    }
    return run_filters(grid_and_labels(), {plot_.get()}, error);
}

}  // namespace cli
