#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer + UndefinedBehavior-
# Sanitizer) and runs each one for SECONDS:
#   scripts/fuzz.sh SECONDS [TARGET...]      (targets: movie_fuzzer pcm_fuzzer)
# Corpora grow in build-fuzz/corpus/TARGET, seeded from the test media and the
# hostile inputs; crashing inputs land in build-fuzz/artifacts/, full logs in
# build-fuzz/logs/. A crash found belongs in tests/fuzz/regressions/KIND/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
seconds=${1:?usage: fuzz.sh SECONDS [TARGET...]}
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(movie_fuzzer pcm_fuzzer)
scripts/setup.sh clang libclang-rt-14-dev

out=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$out" -DCLIPDEC_BUILD_FUZZ=ON "-DCLIPDEC_SANITIZE=address;undefined" \
  -DCLIPDEC_BUILD_TESTS=OFF -DCLIPDEC_BUILD_BENCH=OFF -DCLIPDEC_BUILD_TOOLS=OFF >/dev/null
# Only the targets: clang leaves the sanitizer runtime out of shared libraries.
cmake --build "$out" -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}" >/dev/null

# Seeds: every generated movie and hostile input under 300 kB for the movie
# target; the first kilobytes of PCM files for the mixing target.
[ -f "$out/media/.stamp" ] || { scripts/gen_media.sh "$out/media" && touch "$out/media/.stamp"; }
[ -d "$out/hostile" ] || scripts/gen_hostile.sh "$out/hostile" "$out/media"
mkdir -p "$out/seeds/movie_fuzzer" "$out/seeds/pcm_fuzzer" "$out/artifacts" "$out/logs"
find "$out/media" "$out/hostile" -maxdepth 1 -type f -size -300k ! -name '.*' -readable \
  -exec cp -f {} "$out/seeds/movie_fuzzer/" \; 2>/dev/null || true
for f in pcm_s16.wav flac_6ch.flac; do
  for k in 0 1 2 3; do
    { printf "\\x$(printf %02x $((k * 3)))\\x$(printf %02x $((40 + k * 50)))\\x0$k"
      dd if="$out/media/$f" bs=4000 iflag=skip_bytes,count_bytes skip=$((44 + k * 997)) count=4000 status=none; } > "$out/seeds/pcm_fuzzer/${f%.*}_$k"
  done
done

for t in "${targets[@]}"; do
  mkdir -p "$out/corpus/$t"
  echo "== $t for $seconds s"
  log="$out/logs/$t.log"
  # A fresh scratch directory per run: the movie target writes each input as a file.
  scratch=$(mktemp -d)
  TMPDIR=$scratch "$out/tests/fuzz/$t" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=4096 \
    -max_len=300000 -print_final_stats=1 -artifact_prefix="$out/artifacts/$t-" \
    "$out/corpus/$t" "$out/seeds/$t" >"$log" 2>&1 || echo "$t stopped with a finding: see $log"
  rm -rf "$scratch"
  grep -E '^#[0-9]+.*(INITED|DONE)' "$log" | tail -n 2 || true
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$log" || true
done
