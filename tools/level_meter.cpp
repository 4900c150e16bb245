#include "level_meter.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "chart.h"
#include "image_file.h"

namespace cli {

namespace {

const char* const kBlocks[] = {" ", "\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};
constexpr int kSecondsPerLine = 60;

// Green up to 70, yellow up to 90, red above: the usual meter colours, by
// the height of the pixel, so loud bars end in red.
uint32_t level_colour(int level) {
    if (level > 90) return 0xe63c32ff;
    if (level > 70) return 0xe6c83cff;
    return 0x46c85aff;
}

}  // namespace

std::vector<int> LevelMeter::per_second() const {
    std::vector<int> seconds;
    for (size_t i = 0; i < peaks_.size(); i += static_cast<size_t>(per_second_)) {
        const auto last = peaks_.begin() + static_cast<long>(std::min(peaks_.size(), i + per_second_));
        seconds.push_back(*std::max_element(peaks_.begin() + static_cast<long>(i), last));
    }
    return seconds;
}

int LevelMeter::loudest() const { return peaks_.empty() ? 0 : *std::max_element(peaks_.begin(), peaks_.end()); }

std::string LevelMeter::text_line() const {
    const std::vector<int> seconds = per_second();
    std::string out;
    for (size_t s = 0; s < seconds.size(); ++s) {
        if (s % kSecondsPerLine == 0) {
            char lead[32];
            std::snprintf(lead, sizeof lead, "%s%3zu:%02zu |", s ? "|\n" : "", s / 60, s % 60);
            out += lead;
        }
        const int level = std::clamp(seconds[s], 0, 100);
        // Any sound at all shows at least the lowest block.
        out += kBlocks[level == 0 ? 0 : std::max(1, (level * 8 + 50) / 100)];
    }
    if (!seconds.empty()) out += "|";
    return out;
}

bool LevelMeter::write_picture(const std::string& path, int width, int height, std::string& error) const {
    if (peaks_.empty()) {
        error = "no levels to draw";
        return false;
    }
    Chart chart(width, height, static_cast<double>(peaks_.size()) / per_second_);
    chart.add_level_band(0, height, false, "peak");
    for (int x = 0; x < width; ++x) {
        // Each column shows the loudest of the cycles it covers.
        const size_t first = peaks_.size() * static_cast<size_t>(x) / static_cast<size_t>(width);
        const size_t last = std::max(first + 1, peaks_.size() * static_cast<size_t>(x + 1) / static_cast<size_t>(width));
        const int level = std::clamp(*std::max_element(peaks_.begin() + static_cast<long>(first),
                                                       peaks_.begin() + static_cast<long>(std::min(last, peaks_.size()))),
                                     0, 100);
        const int bar = level * height / 100;
        for (int y = height - bar; y < height; ++y) chart.fill_column(x, y, y, level_colour((height - y) * 100 / height));
    }
    const ff::UniqueAVFrame picture = chart.render(error);
    return picture && write_png(path, picture->data[0], picture->linesize[0], picture->width, picture->height, error);
}

}  // namespace cli
