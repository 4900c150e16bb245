// What the audio commands share: the sample format option, the range option,
// and the cutting of a range into contiguous request spans.
#pragma once

#include <clipdec/clipdec.h>

#include "cli_args.h"

namespace cli {

// --format u8|s16|s32|flt; `fallback` when absent.
ff::SampleFormat sample_format_option(const Options& opts, ff::SampleFormat fallback);
const char* sample_format_name(ff::SampleFormat format);

// --range A:B (or A..B); [0, clip_length) when absent. Failure(kExitUsage)
// when it does not parse, is empty, or the clip length is unknown.
ff::Range range_option(const Options& opts, const ff::Rational& clip_length);

// A range cut into spans of 1 / per_second seconds (the last one shorter),
// each an exact time pair, so consecutive spans meet without a gap.
class SpanCutter {
public:
    SpanCutter(const ff::Range& range, long long per_second, int sample_rate);

    long long count() const { return count_; }
    ff::Range span(long long k) const;
    // Samples span k holds at the sample rate, counted from the range's start
    // and rounded, so that the spans add up to the range's length exactly.
    long long samples(long long k) const;
    double length_seconds() const;
    double seconds_done(long long spans) const;

private:
    ff::Rational boundary(long long k) const;
    long long samples_until(const ff::Rational& t) const;

    ff::Range range_;
    long long per_second_;
    int sample_rate_;
    long long count_ = 0;
};

}  // namespace cli
