#!/usr/bin/env bash
# Installs the Debian packages that bexko needs to build, run and test.
# Idempotent: packages already installed are skipped, and the package lists are
# refreshed only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang-format
  clang-14 libclang-rt-14-dev
  libboost1.74-dev libboost-thread1.74-dev libboost-filesystem1.74-dev
  qtbase5-dev
  libsndfile1-dev sndfile-programs
  libpulse-dev pulseaudio pulseaudio-utils
  libespeak-ng-dev espeak-ng-data
  libsqlite3-dev libpugixml-dev nlohmann-json3-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-websocket
  python3-venv python3-pip python3-setuptools python3-wheel
  dpkg-dev systemd
  chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
