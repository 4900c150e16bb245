#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh BUILD_DIR [extra cmake args...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$dir" -DCLIPDEC_WERROR=ON "$@" >/dev/null
cmake --build "$dir" -j "$jobs"
