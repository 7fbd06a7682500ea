#!/usr/bin/env bash
# Installs what is missing, builds, and starts the bexko daemon with the speech service on
# eSpeak NG, on its defaults (ws://127.0.0.1:9559). Extra arguments go to bexko.
# Usage: scripts/run.sh [bexko options...]; BEXKO_BUILD_DIR chooses the build folder.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BEXKO_BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh" "$build"
exec "$build/bin/bexko" "$@"
