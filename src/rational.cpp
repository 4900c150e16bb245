#include "rational.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include "rational_convert.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace ff {
namespace {

// Two's-complement wrap-around without signed-overflow UB.
long long wrap_mul(long long a, long long b) {
    return static_cast<long long>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}
long long wrap_add(long long a, long long b) {
    return static_cast<long long>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
long long wrap_neg(long long a) { return static_cast<long long>(0 - static_cast<uint64_t>(a)); }

// Truncating division and remainder that never trap: x86 faults on
// INT64_MIN / -1, which wrapped pairs can reach. b must not be 0.
long long safe_div(long long a, long long b) { return b == -1 ? wrap_neg(a) : a / b; }
long long safe_mod(long long a, long long b) { return b == -1 ? 0 : a % b; }

// Divides both parts by g unless g is 1; a divisor of 0 (only from {0, 0})
// leaves the pair alone.
Rational divide_parts(long long n, long long d, long long g) {
    if (g == 1 || g == 0) return {n, d};
    return {safe_div(n, g), safe_div(d, g)};
}

// Products and quotients: {0, 0} when a part is zero, otherwise reduced.
Rational zero_guarded_reduce(long long n, long long d) {
    if (n == 0 || d == 0) return {0, 0};
    return divide_parts(n, d, gcd(n, d));
}

// A zero numerator or denominator makes an operand count as nothing, and
// equal or divisible denominators avoid Euclid's loop.
Rational add_pairs(const Rational& x, long long c, long long d) {
    const long long a = x.num;
    const long long b = x.den;
    if (d == 0 || c == 0) return x;
    if (b == 0 || a == 0) return {c, d};
    if (b == d) return {wrap_add(a, c), d};
    if (d > b && safe_mod(d, b) == 0) return {wrap_add(wrap_mul(a, safe_div(d, b)), c), d};
    if (d < b && safe_mod(b, d) == 0) return {wrap_add(a, wrap_mul(c, safe_div(b, d))), b};
    const long long n = wrap_add(wrap_mul(a, d), wrap_mul(c, b));
    const long long m = wrap_mul(d, b);
    return divide_parts(n, m, gcd(n, m));
}

enum class Sign { Negative, Zero, Positive };

// Classifies A - B: zero when either part is 0, otherwise by the parts' signs.
Sign sign_of_difference(const Rational& a, const Rational& b) {
    const Rational d = a - b;
    if (d.num == 0 || d.den == 0) return Sign::Zero;
    return ((d.num < 0) == (d.den < 0)) ? Sign::Positive : Sign::Negative;
}

}  // namespace

long long gcd(long long a, long long b) {
    while (b != 0) {
        const long long r = safe_mod(a, b);
        a = b;
        b = r;
    }
    return a;
}

void Rational::reduce() { *this = divide_parts(num, den, gcd(num, den)); }

Rational Rational::operator+(const Rational& b) const { return add_pairs(*this, b.num, b.den); }
Rational Rational::operator-(const Rational& b) const { return add_pairs(*this, wrap_neg(b.num), b.den); }

Rational Rational::operator*(const Rational& b) const {
    return zero_guarded_reduce(wrap_mul(num, b.num), wrap_mul(den, b.den));
}

Rational Rational::operator/(const Rational& b) const {
    return zero_guarded_reduce(wrap_mul(num, b.den), wrap_mul(den, b.num));
}

Rational& Rational::operator+=(const Rational& b) { return *this = *this + b; }
Rational& Rational::operator-=(const Rational& b) { return *this = *this - b; }
Rational& Rational::operator*=(const Rational& b) { return *this = *this * b; }
Rational& Rational::operator/=(const Rational& b) { return *this = *this / b; }

bool Rational::operator==(const Rational& b) const {
    if (den == b.den) return num == b.num;
    if (den == 0 || b.den == 0) return false;
    return wrap_mul(num, b.den) == wrap_mul(b.num, den);
}

bool Rational::operator!=(const Rational& b) const { return !(*this == b); }
bool Rational::operator<(const Rational& b) const { return sign_of_difference(*this, b) == Sign::Negative; }
bool Rational::operator<=(const Rational& b) const { return sign_of_difference(*this, b) != Sign::Positive; }
bool Rational::operator>(const Rational& b) const { return sign_of_difference(*this, b) == Sign::Positive; }
bool Rational::operator>=(const Rational& b) const { return sign_of_difference(*this, b) != Sign::Negative; }

AVRational rational_convert(const Rational& r) {
    return AVRational{static_cast<int>(static_cast<uint32_t>(r.num)),
                      static_cast<int>(static_cast<uint32_t>(r.den))};
}

Rational rational_convert(const AVRational& r) { return {r.num, r.den}; }

long long rescale_q(long long ts, const Rational& from, const Rational& to) {
    return av_rescale_q(ts, rational_convert(from), rational_convert(to));
}

long long rescale_q_rnd(long long ts, const Rational& from, const Rational& to, Rounding rounding) {
    return av_rescale_q_rnd(ts, rational_convert(from), rational_convert(to),
                            static_cast<AVRounding>(rounding));
}

long long time_to_timestamp(const Rational& t, const Rational& tb) {
    if (t.den == 0 || tb.num == 0) return 0;
    const double seconds = static_cast<double>(t.num) / static_cast<double>(t.den);
    const double units_per_second = static_cast<double>(tb.den) / static_cast<double>(tb.num);
    const double x = std::floor(seconds * units_per_second + 0.5);
    // Converting an out-of-range double is undefined; saturate instead.
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (x >= kLimit) return std::numeric_limits<long long>::max();
    if (x < -kLimit) return std::numeric_limits<long long>::min();
    return static_cast<long long>(x);
}

Rational timestamp_to_time(long long ts, const Rational& tb) {
    if (ts == 0) return {0, 1};
    return zero_guarded_reduce(wrap_mul(ts, tb.num), tb.den);
}

}  // namespace ff
