// Exact pair arithmetic: every example is checked as a (num, den) pair, not
// only as a value, because comparisons and the zero rules look at the pair.
#include <climits>

#include "range.h"
#include "rational.h"
#include "rational_convert.h"
#include "support.h"

using ff::Range;
using ff::Rational;

namespace {

// "num/den", for the failure messages.
std::string str(const Rational& r) { return std::to_string(r.num) + "/" + std::to_string(r.den); }

// The examples' expected pairs are Rationals too, compared part by part: never
// with ==, which is under test and equates different pairs.
void expect_pair(const Rational& got, const Rational& want, const std::string& what) {
    EXPECT_TRUE(got.num == want.num && got.den == want.den) << what << ": " << str(got) << ", expected " << str(want);
}

// The compound form must store exactly what the two-operand form returns.
Rational apply(char op, Rational a, const Rational& b, bool compound) {
    switch (op) {
        case '+': return compound ? a += b : a + b;
        case '-': return compound ? a -= b : a - b;
        case '*': return compound ? a *= b : a * b;
        default: return compound ? a /= b : a / b;
    }
}

}  // namespace

TEST(RationalArithmetic, ProducesExactPairs) {
    struct Case { char op; Rational a, b, want; };
    const std::vector<Case> cases = {
        // sums: equal and divisible denominators stay unreduced, the general case reduces
        {'+', {1, 4}, {1, 4}, {2, 4}},   {'+', {1, 2}, {1, 4}, {3, 4}},   {'+', {1, 4}, {1, 2}, {3, 4}},
        {'+', {2, 4}, {1, 3}, {5, 6}},   {'+', {1, 6}, {1, 4}, {5, 12}},  {'+', {1, 2}, {-1, 2}, {0, 2}},
        {'+', {0, 1}, {3, 7}, {3, 7}},   {'+', {5, 0}, {3, 7}, {3, 7}},   {'+', {3, 7}, {0, 5}, {3, 7}},
        {'+', {1, -2}, {1, 4}, {-1, 4}}, {'+', {0, 0}, {0, 0}, {0, 0}},
        // the general sum whose denominator product wraps to 0 gives {1, 0}
        {'+', {1, 3LL << 32}, {1, 5LL << 32}, {1, 0}},
        {'-', {1, 6}, {1, 4}, {1, -12}}, {'-', {0, 1}, {3, 7}, {-3, 7}},  {'-', {3, 7}, {5, 0}, {3, 7}},
        // products and quotients: reduced, {0, 0} when a part is zero (a zero
        // second factor: RangeOps' "*= zero")
        {'*', {2, 4}, {3, 9}, {1, 6}},   {'*', {-1, 2}, {1, 3}, {1, -6}}, {'*', {0, 1}, {5, 7}, {0, 0}},
        {'/', {2, 4}, {3, 9}, {3, 2}},   {'/', {-1, 2}, {1, 3}, {3, -2}}, {'/', {1, 2}, {0, 1}, {0, 0}},
        // wrap-around: products are taken modulo 2^64 without faulting; the quotient reduces by gcd -1
        {'*', {LLONG_MIN, 1}, {-1, 1}, {LLONG_MIN, 1}}, {'/', {1, 1}, {LLONG_MIN, -1}, {1, LLONG_MIN}},
    };
    for (const auto& c : cases)
        for (bool compound : {false, true})
            expect_pair(apply(c.op, c.a, c.b, compound), c.want,
                        str(c.a) + " " + c.op + (compound ? "= " : " ") + str(c.b));
}

TEST(RationalArithmetic, GcdAndReduceKeepTheirSigns) {
    const long long gcds[][3] = {{12, 18, 6}, {-6, 4, -2}, {6, -4, 2}, {7, 0, 7}, {0, 5, 5}, {0, 0, 0}, {LLONG_MIN, -1, -1}};
    for (const auto& g : gcds) EXPECT_EQ(ff::gcd(g[0], g[1]), g[2]) << g[0] << ", " << g[1];
    const std::vector<std::pair<Rational, Rational>> reductions = {
        {{-3, 2}, {3, -2}}, {{6, -4}, {3, -2}}, {{-6, 4}, {3, -2}}, {{0, 5}, {0, 1}}, {{7, 0}, {1, 0}},
        {{4, 2}, {2, 1}},   {{0, 0}, {0, 0}},   {{3, 5}, {3, 5}},   {{LLONG_MIN, -1}, {LLONG_MIN, 1}},
    };
    for (const auto& [in, want] : reductions) {
        Rational r = in;
        r.reduce();
        expect_pair(r, want, "reduce " + str(in));
    }
}

TEST(RationalCompare, FollowsThePairRules) {
    // a, b, then ==, !=, <, >, <=, >=. {0, 0} and {0, 1} differ but neither
    // orders before the other; an undefined value compares as zero.
    struct Case { Rational a, b; bool eq, ne, lt, gt, le, ge; };
    const Case cases[] = {
        {{0, 0}, {0, 0}, 1, 0, 0, 0, 1, 1},  {{3, 0}, {3, 0}, 1, 0, 0, 0, 1, 1},   {{0, 0}, {0, 1}, 0, 1, 0, 0, 1, 1},
        {{0, 1}, {0, 5}, 1, 0, 0, 0, 1, 1},  {{1, 2}, {2, 4}, 1, 0, 0, 0, 1, 1},   {{1, -2}, {-1, 2}, 1, 0, 0, 0, 1, 1},
        {{1, -2}, {1, 4}, 0, 1, 1, 0, 1, 0}, {{3, 0}, {1, 2}, 0, 1, 1, 0, 1, 0},   {{3, 0}, {5, 0}, 0, 1, 0, 0, 1, 1},
        {{1, 3}, {1, 4}, 0, 1, 0, 1, 0, 1},  {{1, 4}, {1, 4}, 1, 0, 0, 0, 1, 1},   {{-1, 3}, {-1, 4}, 0, 1, 1, 0, 1, 0},
    };
    for (const auto& [a, b, eq, ne, lt, gt, le, ge] : cases)
        EXPECT_EQ(std::vector<bool>({a == b, a != b, a < b, a > b, a <= b, a >= b}),
                  std::vector<bool>({eq, ne, lt, gt, le, ge})) << str(a) << " vs " << str(b);
}

TEST(RationalTimestamps, ConvertBetweenSecondsAndTimeBases) {
    struct ToTs { Rational t, tb; long long want; };
    const std::vector<ToTs> to_ts = {
        {{5, 2}, {1, 1000}, 2500}, {{1, 3}, {1, 90000}, 30000}, {{-1, 3}, {1, 90000}, -30000}, {{7, 0}, {1, 1000}, 0},
        {{5, 2}, {0, 1}, 0},       {{5, 2}, {1, 1}, 3},         {{-5, 2}, {1, 1}, -2},         {{-3, 2}, {1, 1}, -1},
        {{-1, 2}, {1, 1}, 0},      {{1001, 30000}, {1, 30000}, 1001},
        {{LLONG_MAX, 1}, {1, 1000000}, LLONG_MAX},  // saturates instead of overflowing
    };
    for (const auto& c : to_ts)
        EXPECT_EQ(ff::time_to_timestamp(c.t, c.tb), c.want) << str(c.t) << " in " << str(c.tb);

    struct ToTime { long long ts; Rational tb, want; };
    const std::vector<ToTime> to_time = {
        {1500, {1, 1000}, {3, 2}}, {90000, {1, 90000}, {1, 1}}, {-3, {1, 6}, {1, -2}}, {3, {0, 1}, {0, 0}},
        {3, {1, 0}, {0, 0}},       {0, {0, 0}, {0, 1}},         {0, {1, 1000}, {0, 1}},
    };
    for (const auto& c : to_time)
        expect_pair(ff::timestamp_to_time(c.ts, c.tb), c.want, "timestamp " + std::to_string(c.ts));
}

TEST(RationalTimestamps, RescaleNarrowsBasesToTheirLow32Bits) {
    EXPECT_EQ(ff::rescale_q_rnd(1, {1, 3}, {1, 2}, ff::RND_DOWN), 0);
    EXPECT_EQ(ff::rescale_q_rnd(1, {1, 3}, {1, 2}, ff::RND_UP), 1);
    EXPECT_EQ(ff::rescale_q_rnd(INT64_MIN, {1, 3}, {1, 2}, ff::RND_NEAR_INF | ff::RND_PASS_MINMAX), INT64_MIN);
    // 2^32 + 1000 keeps only its low 32 bits: a base of 1/1000.
    EXPECT_EQ(ff::rescale_q(5000, Rational(1, (1LL << 32) + 1000), {1, 1}), 5);
    // To AVRational and back: the low 32 bits, sign-extended again.
    expect_pair(ff::rational_convert(ff::rational_convert(Rational((1LL << 32) | 7, -1))), {7, -1}, "narrowed");
}

// Each end gets exactly what the Rational operation gives it: sums keep equal
// denominators, a zero factor or divisor gives {0, 0}, an undefined operand
// counts as nothing, and nothing puts reversed ends back in order. The compound
// forms return the span they changed.
TEST(RangeOps, ApplyTheRationalRulesToEachEnd) {
    const auto expect_range = [](const Range& r, const Rational& begin, const Rational& end, const char* what) {
        expect_pair(r.begin, begin, what);
        expect_pair(r.end, end, what);
    };
    expect_range(Range({1, 4}, {3, 4}) += Rational(1, 4), {2, 4}, {4, 4}, "+=");
    expect_range(Range({3, 4}, {5, 4}) -= Rational(1, 4), {2, 4}, {4, 4}, "-=");
    expect_range(Range({1, 1}, {2, 1}) *= Rational(0, 1), {0, 0}, {0, 0}, "*= zero");
    expect_range(Range({1, 1}, {2, 1}) /= Rational(0, 1), {0, 0}, {0, 0}, "/= zero");
    expect_range(Range({1, 1}, {2, 1}) *= Rational(-1, 1), {-1, 1}, {-2, 1}, "*= -1: reversed");
    expect_range(Range({1, 1}, {2, 1}) + Rational(5, 0), {1, 1}, {2, 1}, "+ undefined");
    expect_range(Range({1, 1}, {2, 1}) - Rational(1, 2), {1, 2}, {3, 2}, "-");
}

TEST(RangeOps, IntersectsOnlyWhenSpansShareTime) {
    // begin, end of each; an undefined begin (den 0) compares as 0 s.
    const long long cases[][5] = {{0, 5, 5, 10, 0}, {5, 10, 0, 5, 0}, {0, 5, 4, 10, 1}, {7, 7, 5, 10, 1},
                                  {5, 5, 5, 10, 0}, {5, 5, 5, 5, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(Range({c[0], 1}, {c[1], 1}).intersects(Range({c[2], 1}, {c[3], 1})), c[4] != 0) << c[0] << " " << c[2];
    EXPECT_TRUE(Range({3, 0}, {1, 1}).intersects(Range({0, 1}, {1, 1})));
}
