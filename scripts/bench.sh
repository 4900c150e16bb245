#!/usr/bin/env bash
# Builds the project, generates the benchmarks' media and runs the benchmarks:
#   scripts/bench.sh [extra Google Benchmark arguments...]
#   scripts/bench.sh tool [clipdec bench options...]   the tool's side-by-side run
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh python3-av  # the peer some benchmarks run beside the library
scripts/build.sh build >/dev/null
scripts/gen_bench_media.sh build/bench-media
if [ "${1:-}" = tool ]; then
  shift
  exec build/tools/clipdec bench build/bench-media/bench_1080p.mp4 "$@"
fi
CLIPDEC_BENCH_MEDIA="$root/build/bench-media" build/bench/clipdec_bench \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true "$@"
