// A plot with a time axis (HH:MM:SS under it) and a dBFS scale beside it. The
// caller paints its curve into the plotting area's pixels; grid lines and
// labels are then drawn with FFmpeg's filters (drawbox, drawtext) and the
// margins added with pad.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <clipdec/ff_ptr.h>

namespace cli {

class Chart {
public:
    // Colours as 0xRRGGBBAA.
    static constexpr uint32_t kBackground = 0x101418ff;
    static constexpr uint32_t kLabel = 0xd0d4d8ff;

    // A plotting area of `width` x `height` pixels spanning `seconds` of time.
    Chart(int width, int height, double seconds);

    bool ok() const { return plot_ != nullptr; }
    int width() const { return width_; }
    int height() const { return height_; }
    // Paints rows [y0, y1] of column x (clipped to the area).
    void fill_column(int x, int y0, int y1, uint32_t rgba);

    // A band of the area that shows levels in dBFS: `centred` for a waveform
    // (+-full scale around its middle), otherwise a level from 0 at the
    // bottom to full scale at the top.
    void add_level_band(int top, int height, bool centred, const std::string& title);

    // The finished picture with its margins, grid and labels.
    ff::UniqueAVFrame render(std::string& error) const;

private:
    struct Band {
        int top;
        int height;
        bool centred;
        std::string title;
    };
    std::string grid_and_labels() const;

    int width_;
    int height_;
    double seconds_;
    ff::UniqueAVFrame plot_;
    std::vector<Band> bands_;
};

// "HH:MM:SS", with tenths or hundredths when `step` (the distance between
// labels, seconds) needs them.
std::string clock_text(double seconds, double step);

}  // namespace cli
