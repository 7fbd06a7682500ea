#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
# Usage: scripts/test.sh [build-dir]; BEXKO_SANITIZE=address|thread selects a sanitizer build.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build${BEXKO_SANITIZE:+-$BEXKO_SANITIZE}}
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" "$build"
cd "$build"
ctest --output-on-failure -j "$(nproc 2>/dev/null || echo 2)" --timeout 300
