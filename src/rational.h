// Exact fractions of seconds and stream-timestamp conversion.
//
// A Rational is a plain {num, den} pair of signed 64-bit parts. It keeps no
// canonical form: sums over equal or divisible denominators stay unreduced,
// signs are not normalised (a denominator may be negative), and products wrap
// modulo 2^64. A zero denominator marks an undefined value; such a value, or a
// zero numerator, counts as nothing in a sum or difference, and makes a
// product or quotient {0, 0}. Comparisons look at the pair through these
// rules, so {0, 0} != {0, 1} while neither is less than the other.
//
// Pure value code: no allocation, no shared state, callable from any thread.
#pragma once

#include "clipdec_export.h"

namespace ff {

// FFmpeg's rounding modes, with the values of AVRounding; passed to FFmpeg unchanged.
enum Rounding {
    RND_ZERO = 0,             // toward zero
    RND_INF = 1,              // away from zero
    RND_DOWN = 2,             // toward minus infinity
    RND_UP = 3,               // toward plus infinity
    RND_NEAR_INF = 5,         // to nearest, halves away from zero
    RND_PASS_MINMAX = 8192,   // flag: INT64_MIN and INT64_MAX pass through unchanged
};

constexpr Rounding operator|(Rounding a, Rounding b) {
    return static_cast<Rounding>(static_cast<int>(a) | static_cast<int>(b));
}

struct CLIPDEC_API Rational {
    long long num;
    long long den;

    // The default value is zero seconds, {0, 1}; {0, 0} is the undefined value.
    constexpr Rational() : num(0), den(1) {}
    constexpr Rational(long long n, long long d) : num(n), den(d) {}

    Rational operator+(const Rational& b) const;
    Rational operator-(const Rational& b) const;
    Rational operator*(const Rational& b) const;
    Rational operator/(const Rational& b) const;
    Rational& operator+=(const Rational& b);
    Rational& operator-=(const Rational& b);
    Rational& operator*=(const Rational& b);
    Rational& operator/=(const Rational& b);

    bool operator==(const Rational& b) const;
    bool operator!=(const Rational& b) const;
    bool operator<(const Rational& b) const;
    bool operator<=(const Rational& b) const;
    bool operator>(const Rational& b) const;
    bool operator>=(const Rational& b) const;

    // Divides both parts by gcd(num, den) unless that is 1. The divisor may be
    // negative, so {-3, 2} becomes {3, -2}. {0, 0} stays {0, 0}.
    void reduce();

    // Seconds as a double; 0 for an undefined value.
    double to_double() const { return den == 0 ? 0.0 : static_cast<double>(num) / static_cast<double>(den); }
};

// Euclid's loop with truncating remainders; the sign is not normalised:
// gcd(-6, 4) == -2, gcd(6, -4) == 2, gcd(0, 0) == 0.
CLIPDEC_API long long gcd(long long a, long long b);

// av_rescale_q / av_rescale_q_rnd, each base narrowed to 32-bit parts first.
CLIPDEC_API long long rescale_q(long long ts, const Rational& from, const Rational& to);
CLIPDEC_API long long rescale_q_rnd(long long ts, const Rational& from, const Rational& to,
                                    Rounding rounding);

// Seconds `t` as a count of time-base units `tb`, rounded half up (2.5 -> 3,
// -2.5 -> -2). 0 when either `t` or `tb` is undefined; results beyond the
// 64-bit range saturate.
CLIPDEC_API long long time_to_timestamp(const Rational& t, const Rational& tb);

// Timestamp `ts` in units `tb` as seconds: {0, 1} for ts 0, otherwise
// {ts * tb.num, tb.den} reduced, or {0, 0} when a part is zero.
CLIPDEC_API Rational timestamp_to_time(long long ts, const Rational& tb);

}  // namespace ff
