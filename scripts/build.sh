#!/usr/bin/env bash
# Configures and builds bexko. Usage: scripts/build.sh [build-dir] [extra cmake args...]
# BEXKO_SANITIZE=address|thread in the environment builds with that sanitizer; BEXKO_TARGETS
# (space-separated) builds only those targets and what they need.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  ${BEXKO_SANITIZE:+-DBEXKO_SANITIZE=$BEXKO_SANITIZE} "$@"
targets=()
for target in ${BEXKO_TARGETS:-}; do targets+=(--target "$target"); done
cmake --build "$build" -j "$jobs" "${targets[@]}"
