// The mix's peak levels: one per mixing cycle, shown as a compact text line
// (one character per second) and drawn as a level curve picture.
#pragma once

#include <string>
#include <vector>

namespace cli {

class LevelMeter {
public:
    explicit LevelMeter(int cycles_per_second) : per_second_(cycles_per_second) {}

    // A cycle's peak on the scale 0..100.
    void add(int peak) { peaks_.push_back(peak); }

    // One block character per second (the second's loudest cycle), broken into
    // lines of a minute, each led by its start time.
    std::string text_line() const;
    int loudest() const;
    // The curve as a PNG of width x height; false with `error` set on failure.
    bool write_picture(const std::string& path, int width, int height, std::string& error) const;

private:
    std::vector<int> per_second() const;

    int per_second_;
    std::vector<int> peaks_;
};

}  // namespace cli
