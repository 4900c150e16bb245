// Rational addition (each of its paths) and comparison.
#include <benchmark/benchmark.h>

#include "rational.h"

namespace {

void add_benchmark(benchmark::State& state, ff::Rational a, ff::Rational b) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        ff::Rational sum = a + b;
        benchmark::DoNotOptimize(sum);
    }
}

void BM_RationalAddEqualDen(benchmark::State& state) { add_benchmark(state, {1001, 30000}, {2002, 30000}); }
void BM_RationalAddDivisibleDen(benchmark::State& state) { add_benchmark(state, {1, 1000}, {1001, 30000}); }
void BM_RationalAddGeneral(benchmark::State& state) { add_benchmark(state, {1001, 30000}, {1, 48000}); }

void BM_RationalLess(benchmark::State& state) {
    ff::Rational a(1001, 30000), b(1, 48000);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        bool less = a < b;
        benchmark::DoNotOptimize(less);
    }
}

void BM_RationalEqual(benchmark::State& state) {
    ff::Rational a(1001, 30000), b(2002, 60000);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        bool equal = a == b;
        benchmark::DoNotOptimize(equal);
    }
}

BENCHMARK(BM_RationalAddEqualDen);
BENCHMARK(BM_RationalAddDivisibleDen);
BENCHMARK(BM_RationalAddGeneral);
BENCHMARK(BM_RationalLess);
BENCHMARK(BM_RationalEqual);

}  // namespace
