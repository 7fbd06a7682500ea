#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Usage: scripts/test.sh [build-dir]; BEXKO_SANITIZE=address|thread selects a sanitizer build.
# After the suite, every fuzz target runs for BEXKO_FUZZ_SECONDS (default 10) from its seed
# corpus with a fixed seed, in <build-dir>-fuzz, so that a run repeats the inputs of the last
# one; BEXKO_FUZZ_SECONDS=0 skips it, as do sanitizer builds. Long runs: scripts/fuzz.sh.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$here/build${BEXKO_SANITIZE:+-$BEXKO_SANITIZE}}")
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" "$build"
cd "$build"
ctest --output-on-failure -j "$(nproc 2>/dev/null || echo 2)" --timeout 300

fuzz_seconds=${BEXKO_FUZZ_SECONDS:-10}
if [ -z "${BEXKO_SANITIZE:-}" ] && [ "$fuzz_seconds" != 0 ]; then
  BEXKO_FUZZ_BUILD_DIR="$build-fuzz" BEXKO_FUZZ_FRESH=1 \
    BEXKO_FUZZ_FLAGS="-seed=1 ${BEXKO_FUZZ_FLAGS:-}" "$here/scripts/fuzz.sh" "$fuzz_seconds"
fi
