#!/usr/bin/env bash
# Builds the project, generates the benchmarks' media and runs the benchmarks:
#   scripts/bench.sh [extra Google Benchmark arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh build >/dev/null
scripts/gen_bench_media.sh build/bench-media
CLIPDEC_BENCH_MEDIA="$root/build/bench-media" build/bench/clipdec_bench \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true "$@"
