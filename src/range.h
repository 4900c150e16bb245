// A half-open span of time [begin, end) in exact seconds.
//
// Every operation applies the Rational rules to each end separately, so the
// ends keep whatever unreduced form those rules give. Nothing validates a
// Range: begin may equal or follow end, and either end may be undefined.
#pragma once

#include "clipdec_export.h"
#include "rational.h"

namespace ff {

struct CLIPDEC_API Range {
    Rational begin;
    Rational end;

    // The default span is the empty span at zero seconds.
    constexpr Range() = default;
    constexpr Range(const Rational& b, const Rational& e) : begin(b), end(e) {}

    Range& operator+=(const Rational& t);
    Range& operator-=(const Rational& t);
    Range& operator*=(const Rational& t);
    Range& operator/=(const Rational& t);
    Range operator+(const Rational& t) const;
    Range operator-(const Rational& t) const;

    // True when begin < other.end and end > other.begin: spans that only touch
    // do not overlap, and an undefined end counts as 0 s.
    bool intersects(const Range& other) const;

    // end - begin, by the Rational subtraction rule.
    Rational length() const { return end - begin; }
};

}  // namespace ff
