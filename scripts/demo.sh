#!/usr/bin/env bash
# Sets up, builds and runs the example host program on a few real inputs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh build >/dev/null
tool=build/tools/clipdec

echo "\$ clipdec info"
"$tool" info
echo
echo "\$ clipdec time 1001/30000 1/90000"
"$tool" time 1001/30000 1/90000
echo
echo "\$ clipdec md5 README.md"
"$tool" md5 README.md
echo
echo "\$ clipdec pool 1920x1080"
"$tool" pool 1920x1080
