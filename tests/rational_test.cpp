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

struct Pair { long long num, den; };

void expect_pair(const Rational& got, Pair want, const std::string& what) {
    EXPECT_TRUE(got.num == want.num && got.den == want.den)
        << what << ": " << got.num << "/" << got.den << ", expected " << want.num << "/" << want.den;
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
    struct Case { char op; Pair a, b, want; };
    const std::vector<Case> cases = {
        // sums: equal and divisible denominators stay unreduced, the general case reduces
        {'+', {1, 4}, {1, 4}, {2, 4}},   {'+', {1, 2}, {1, 4}, {3, 4}},   {'+', {1, 4}, {1, 2}, {3, 4}},
        {'+', {2, 4}, {1, 3}, {5, 6}},   {'+', {1, 6}, {1, 4}, {5, 12}},  {'+', {1, 2}, {-1, 2}, {0, 2}},
        {'+', {0, 1}, {3, 7}, {3, 7}},   {'+', {5, 0}, {3, 7}, {3, 7}},   {'+', {3, 7}, {0, 5}, {3, 7}},
        {'+', {1, -2}, {1, 4}, {-1, 4}}, {'+', {0, 0}, {0, 0}, {0, 0}},
        // the general sum whose denominator product wraps to 0 gives {1, 0}
        {'+', {1, 3LL << 32}, {1, 5LL << 32}, {1, 0}},
        {'-', {1, 6}, {1, 4}, {1, -12}}, {'-', {3, 7}, {3, 7}, {0, 7}},   {'-', {0, 1}, {3, 7}, {-3, 7}},
        {'-', {5, 0}, {3, 7}, {-3, 7}},  {'-', {3, 7}, {5, 0}, {3, 7}},
        // products and quotients: reduced, {0, 0} when a part is zero
        {'*', {2, 4}, {3, 9}, {1, 6}},   {'*', {6, 1}, {2, 3}, {4, 1}},   {'*', {-1, 2}, {1, 3}, {1, -6}},
        {'*', {0, 1}, {5, 7}, {0, 0}},   {'*', {5, 7}, {0, 9}, {0, 0}},   {'/', {2, 4}, {3, 9}, {3, 2}},
        {'/', {-1, 2}, {1, 3}, {3, -2}}, {'/', {1, 2}, {0, 1}, {0, 0}},   {'/', {5, 7}, {0, 3}, {0, 0}},
        // wrap-around: products are taken modulo 2^64 without faulting; the quotient reduces by gcd -1
        {'*', {LLONG_MIN, 1}, {-1, 1}, {LLONG_MIN, 1}}, {'/', {1, 1}, {LLONG_MIN, -1}, {1, LLONG_MIN}},
    };
    for (const auto& c : cases)
        for (bool compound : {false, true})
            expect_pair(apply(c.op, Rational(c.a.num, c.a.den), Rational(c.b.num, c.b.den), compound), c.want,
                        std::to_string(c.a.num) + "/" + std::to_string(c.a.den) + " " + c.op + (compound ? "= " : " ") +
                            std::to_string(c.b.num) + "/" + std::to_string(c.b.den));
}

TEST(RationalArithmetic, GcdAndReduceKeepTheirSigns) {
    const long long gcds[][3] = {{12, 18, 6}, {-6, 4, -2}, {6, -4, 2}, {7, 0, 7}, {0, 5, 5}, {0, 0, 0}, {LLONG_MIN, -1, -1}};
    for (const auto& g : gcds) EXPECT_EQ(ff::gcd(g[0], g[1]), g[2]) << g[0] << ", " << g[1];
    const std::vector<std::pair<Pair, Pair>> reductions = {
        {{-3, 2}, {3, -2}}, {{6, -4}, {3, -2}}, {{-6, 4}, {3, -2}}, {{0, 5}, {0, 1}}, {{7, 0}, {1, 0}},
        {{4, 2}, {2, 1}},   {{0, 0}, {0, 0}},   {{3, 5}, {3, 5}},   {{LLONG_MIN, -1}, {LLONG_MIN, 1}},
    };
    for (const auto& [in, want] : reductions) {
        Rational r(in.num, in.den);
        r.reduce();
        expect_pair(r, want, "reduce {" + std::to_string(in.num) + "," + std::to_string(in.den) + "}");
    }
}

TEST(RationalCompare, FollowsThePairRules) {
    // a, b, then ==, !=, <, >, <=, >=. {0, 0} and {0, 1} differ but neither
    // orders before the other; an undefined value compares as zero.
    struct Case { Pair a, b; bool eq, ne, lt, gt, le, ge; };
    const Case cases[] = {
        {{0, 0}, {0, 0}, 1, 0, 0, 0, 1, 1},  {{3, 0}, {3, 0}, 1, 0, 0, 0, 1, 1},   {{0, 0}, {0, 1}, 0, 1, 0, 0, 1, 1},
        {{0, 1}, {0, 5}, 1, 0, 0, 0, 1, 1},  {{1, 2}, {2, 4}, 1, 0, 0, 0, 1, 1},   {{1, -2}, {-1, 2}, 1, 0, 0, 0, 1, 1},
        {{1, -2}, {1, 4}, 0, 1, 1, 0, 1, 0}, {{3, 0}, {1, 2}, 0, 1, 1, 0, 1, 0},   {{3, 0}, {5, 0}, 0, 1, 0, 0, 1, 1},
        {{1, 3}, {1, 4}, 0, 1, 0, 1, 0, 1},  {{1, 4}, {1, 4}, 1, 0, 0, 0, 1, 1},   {{1, 4}, {2, 8}, 1, 0, 0, 0, 1, 1},
        {{-1, 3}, {-1, 4}, 0, 1, 1, 0, 1, 0},
    };
    for (const Case& c : cases) {
        const Rational a(c.a.num, c.a.den), b(c.b.num, c.b.den);
        EXPECT_EQ(std::vector<bool>({a == b, a != b, a < b, a > b, a <= b, a >= b}),
                  std::vector<bool>({c.eq, c.ne, c.lt, c.gt, c.le, c.ge}))
            << c.a.num << "/" << c.a.den << " vs " << c.b.num << "/" << c.b.den;
    }
}

TEST(RationalTimestamps, ConvertBetweenSecondsAndTimeBases) {
    struct ToTs { Pair t, tb; long long want; };
    const std::vector<ToTs> to_ts = {
        {{5, 2}, {1, 1000}, 2500}, {{1, 3}, {1, 90000}, 30000}, {{-1, 3}, {1, 90000}, -30000}, {{7, 0}, {1, 1000}, 0},
        {{5, 2}, {0, 1}, 0},       {{5, 2}, {1, 1}, 3},         {{-5, 2}, {1, 1}, -2},         {{-3, 2}, {1, 1}, -1},
        {{-1, 2}, {1, 1}, 0},      {{1001, 30000}, {1, 30000}, 1001},
        {{LLONG_MAX, 1}, {1, 1000000}, LLONG_MAX},  // saturates instead of overflowing
    };
    for (const auto& c : to_ts)
        EXPECT_EQ(ff::time_to_timestamp({c.t.num, c.t.den}, {c.tb.num, c.tb.den}), c.want)
            << c.t.num << "/" << c.t.den << " in " << c.tb.num << "/" << c.tb.den;

    struct ToTime { long long ts; Pair tb, want; };
    const std::vector<ToTime> to_time = {
        {1500, {1, 1000}, {3, 2}}, {90000, {1, 90000}, {1, 1}}, {-3, {1, 6}, {1, -2}}, {3, {0, 1}, {0, 0}},
        {3, {1, 0}, {0, 0}},       {0, {0, 0}, {0, 1}},         {0, {1, 1000}, {0, 1}},
    };
    for (const auto& c : to_time)
        expect_pair(ff::timestamp_to_time(c.ts, {c.tb.num, c.tb.den}), c.want, "timestamp " + std::to_string(c.ts));
}

TEST(RationalTimestamps, RescaleNarrowsBasesToTheirLow32Bits) {
    EXPECT_EQ(ff::rescale_q(90000, {1, 90000}, {1, 1000}), 1000);
    EXPECT_EQ(ff::rescale_q_rnd(1, {1, 3}, {1, 2}, ff::RND_DOWN), 0);
    EXPECT_EQ(ff::rescale_q_rnd(1, {1, 3}, {1, 2}, ff::RND_UP), 1);
    EXPECT_EQ(ff::rescale_q_rnd(INT64_MIN, {1, 3}, {1, 2}, ff::RND_NEAR_INF | ff::RND_PASS_MINMAX), INT64_MIN);
    // 2^32 + 1000 keeps only its low 32 bits: a base of 1/1000.
    EXPECT_EQ(ff::rescale_q(5000, Rational(1, (1LL << 32) + 1000), {1, 1}), 5);
    const AVRational narrowed = ff::rational_convert(Rational((1LL << 32) | 7, -1));
    EXPECT_TRUE(narrowed.num == 7 && narrowed.den == -1);
    expect_pair(ff::rational_convert(AVRational{-1001, 30000}), {-1001, 30000}, "from AVRational");
}

TEST(RangeOps, ApplyTheRationalRulesToEachEnd) {
    const auto expect_range = [](const Range& r, Pair begin, Pair end, const char* what) {
        expect_pair(r.begin, begin, what);
        expect_pair(r.end, end, what);
    };
    Range r({1, 4}, {3, 4});
    r += Rational(1, 4);
    expect_range(r, {2, 4}, {4, 4}, "+=");
    Range scaled({1, 1}, {2, 1}), divided({1, 1}, {2, 1}), reversed({1, 1}, {2, 1});
    scaled *= Rational(0, 1);
    expect_range(scaled, {0, 0}, {0, 0}, "*= zero");
    divided /= Rational(0, 1);
    expect_pair(divided.end, {0, 0}, "/= zero");
    reversed *= Rational(-1, 1);
    EXPECT_TRUE(reversed.begin > reversed.end);

    const Range base({1, 1}, {2, 1});
    expect_range(base + Rational(5, 0), {1, 1}, {2, 1}, "+ undefined");
    expect_pair((base - Rational(1, 2)).begin, {1, 2}, "- begin");
    expect_pair(base.begin, {1, 1}, "operand unchanged");
    expect_range(Range({0, 1}, {1, 1}) - Rational(1, 2), {-1, 2}, {1, 2}, "zero begin counts as nothing");
}

TEST(RangeOps, IntersectsOnlyWhenSpansShareTime) {
    // begin, end of each; an undefined begin (den 0) behaves as 0 s.
    const long long cases[][5] = {{0, 5, 5, 10, 0}, {5, 10, 0, 5, 0}, {0, 5, 4, 10, 1}, {7, 7, 5, 10, 1},
                                  {5, 5, 5, 10, 0}, {5, 5, 5, 5, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(Range({c[0], 1}, {c[1], 1}).intersects(Range({c[2], 1}, {c[3], 1})), c[4] != 0) << c[0] << " " << c[2];
    EXPECT_TRUE(Range({3, 0}, {1, 1}).intersects(Range({0, 1}, {1, 1})));
    EXPECT_FALSE(Range({3, 0}, {1, 1}).intersects(Range({1, 1}, {2, 1})));
}
