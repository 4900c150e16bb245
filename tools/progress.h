// Progress of long work on standard error: a bar redrawn in place on a
// terminal (percentage, rate, time left), or a plain line per tenth of the
// work when standard error is a file or a pipe.
#pragma once

#include <string>

namespace cli {

class Progress {
public:
    // `total` units of `unit` ("frames", "s") are to be done.
    Progress(std::string label, double total, std::string unit);
    ~Progress();  // finishes the line when finish() was not called
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // `done` units are done; cheap enough to call per frame.
    void update(double done);
    // Prints the final state once.
    void finish();

private:
    void draw(bool final_line);

    std::string label_;
    std::string unit_;
    double total_;
    double done_ = 0;
    long long start_ms_;
    long long last_draw_ms_ = -1;
    int last_tenth_ = -1;
    bool terminal_;
    bool finished_ = false;
};

}  // namespace cli
