#include "progress.h"

#include <clipdec/clipdec.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "cli_args.h"

namespace cli {

namespace {

constexpr int kBarWidth = 30;
constexpr long long kRedrawMs = 100;  // a terminal bar redraws at most ten times a second
constexpr long long kLogQuietMs = 1000;

std::string clock_text(double seconds) {
    const long long s = static_cast<long long>(seconds + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld", s / 60, s % 60);
    return text;
}

}  // namespace

Progress::Progress(std::string label, double total, std::string unit)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      total_(std::max(total, 0.0)),
      start_ms_(bg::time::cpu_msec_pts()),
      terminal_(isatty(fileno(diagnostics())) == 1) {}

Progress::~Progress() { finish(); }

void Progress::update(double done) {
    done_ = std::min(std::max(done, 0.0), total_);
    const long long now = bg::time::cpu_msec_pts();
    if (terminal_) {
        if (last_draw_ms_ >= 0 && now - last_draw_ms_ < kRedrawMs) return;
        last_draw_ms_ = now;
        draw(false);
        return;
    }
    // A log gets a line per tenth, at most one a second, and only once the
    // work has lasted a second: short work shows just its final line.
    const int tenth = total_ > 0 ? static_cast<int>(done_ * 10 / total_) : 10;
    if (tenth == last_tenth_ || tenth >= 10 || now - start_ms_ < kLogQuietMs) return;
    if (last_draw_ms_ >= 0 && now - last_draw_ms_ < kLogQuietMs) return;
    last_tenth_ = tenth;
    last_draw_ms_ = now;
    draw(false);
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    draw(true);
}

void Progress::draw(bool final_line) {
    const double elapsed = std::max(bg::time::cpu_msec_pts() - start_ms_, 1LL) / 1000.0;
    const double fraction = total_ > 0 ? done_ / total_ : 1.0;
    const double rate = done_ / elapsed;
    const double left = rate > 0 ? (total_ - done_) / rate : 0;
    char figures[160];
    std::snprintf(figures, sizeof figures, "%3d%%  %.1f %s/s  %s %s", static_cast<int>(fraction * 100), rate,
                  unit_.c_str(), final_line ? "took" : "left", clock_text(final_line ? elapsed : left).c_str());
    if (!terminal_) {
        std::fprintf(diagnostics(), "%s: %s\n", label_.c_str(), figures);
        return;
    }
    const int filled = static_cast<int>(fraction * kBarWidth);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kBarWidth - filled), '-');
    std::fprintf(diagnostics(), "\r%s [%s] %s\033[K%s", label_.c_str(), bar.c_str(), figures, final_line ? "\n" : "");
    std::fflush(diagnostics());
}

}  // namespace cli
