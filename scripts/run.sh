#!/usr/bin/env bash
# Installs what is missing, builds what running needs (the daemon, the module library, the
# language package and the clients; no tests, no benchmarks), and starts the bexko daemon with
# the speech service on eSpeak NG, on its defaults (ws://127.0.0.1:9559). Extra arguments go to
# bexko, e.g. scripts/run.sh --audio-output auto to hear the speech.
# Usage: scripts/run.sh [bexko options...]; BEXKO_BUILD_DIR chooses the build folder.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BEXKO_BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
BEXKO_TARGETS=bexko "$here/scripts/build.sh" "$build"
exec "$build/bin/bexko" "$@"
