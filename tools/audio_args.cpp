#include "audio_args.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace cli {

namespace {

struct FormatName {
    ff::SampleFormat format;
    const char* name;
};
constexpr FormatName kFormats[] = {{ff::SF_U8, "u8"}, {ff::SF_S16, "s16"}, {ff::SF_S32, "s32"}, {ff::SF_FLT, "flt"}};

bool split_range(const std::string& text, ff::Rational& from, ff::Rational& to) {
    const size_t dots = text.find("..");
    if (dots != std::string::npos)
        return parse_time(text.substr(0, dots), from) && parse_time(text.substr(dots + 2), to);
    // With clock times on both sides a colon could split in several places:
    // only a text that splits one way is accepted.
    int ways = 0;
    for (size_t colon = text.find(':'); colon != std::string::npos; colon = text.find(':', colon + 1)) {
        ff::Rational a, b;
        if (parse_time(text.substr(0, colon), a) && parse_time(text.substr(colon + 1), b) && a < b) {
            from = a;
            to = b;
            ++ways;
        }
    }
    return ways == 1;
}

}  // namespace

ff::SampleFormat sample_format_option(const Options& opts, ff::SampleFormat fallback) {
    if (!opts.has("--format")) return fallback;
    for (const FormatName& f : kFormats)
        if (opts.text("--format") == f.name) return f.format;
    fail(kExitUsage, "--format: '%s' is not one of u8, s16, s32, flt", opts.text("--format").c_str());
}

const char* sample_format_name(ff::SampleFormat format) {
    for (const FormatName& f : kFormats)
        if (f.format == format) return f.name;
    return "none";
}

ff::Range range_option(const Options& opts, const ff::Rational& clip_length) {
    if (!opts.has("--range")) {
        if (clip_length.den == 0 || clip_length.num <= 0) fail(kExitUsage, "the clip's duration is unknown: give --range");
        return ff::Range(ff::Rational(0, 1), clip_length);
    }
    ff::Rational from, to;
    if (!split_range(opts.text("--range"), from, to) || !(from < to))
        fail(kExitUsage, "--range: '%s' is not A:B with A before B (write A..B for HH:MM:SS times)",
             opts.text("--range").c_str());
    return ff::Range(from, to);
}

SpanCutter::SpanCutter(const ff::Range& range, long long per_second, int sample_rate)
    : range_(range), per_second_(per_second), sample_rate_(sample_rate) {
    const double spans = ((range_.end - range_.begin) * ff::Rational(per_second_, 1)).to_double();
    count_ = static_cast<long long>(std::ceil(spans - 1e-9));
}

ff::Rational SpanCutter::boundary(long long k) const {
    if (k >= count_) return range_.end;
    return range_.begin + ff::Rational(k, per_second_);
}

ff::Range SpanCutter::span(long long k) const { return ff::Range(boundary(k), boundary(k + 1)); }

long long SpanCutter::samples_until(const ff::Rational& t) const {
    const ff::Rational elapsed = t - range_.begin;
    // floor(elapsed * rate + 1/2) in 128-bit integers: exact for any pair.
    const __int128 num = static_cast<__int128>(elapsed.num) * sample_rate_ * 2 + elapsed.den;
    const __int128 den = static_cast<__int128>(elapsed.den) * 2;
    return den > 0 ? static_cast<long long>(num / den) : 0;
}

long long SpanCutter::samples(long long k) const { return samples_until(boundary(k + 1)) - samples_until(boundary(k)); }

double SpanCutter::length_seconds() const { return (range_.end - range_.begin).to_double(); }

double SpanCutter::seconds_done(long long spans) const {
    return std::min(static_cast<double>(spans) / static_cast<double>(per_second_), length_seconds());
}

}  // namespace cli
