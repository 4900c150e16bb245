#!/usr/bin/env bash
# Installs the Debian packages the project needs, only when some are missing.
# Idempotent and quiet; run as root (or with sudo available) on Debian 12.
# Extra packages a script needs besides these may be given as arguments.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtest-dev libbenchmark-dev
  libavformat-dev libavcodec-dev libavfilter-dev libavutil-dev
  libswscale-dev libswresample-dev
  ffmpeg
  fonts-dejavu-core
  python3-dev python3-pybind11 python3-numpy python3-pytest
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# apt is chatty even with -qq; keep its output for the failure case only.
if ! { "${as_root[@]}" apt-get update -qq && \
       "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "setup: package installation failed" >&2
  exit 1
fi
