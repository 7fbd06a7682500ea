#!/usr/bin/env bash
# Builds the fuzz targets (clang, BEXKO_FUZZ=ON) and runs each for a bounded time, failing when
# any target finds a crash, a sanitizer report, a leak or a hang.
# Usage: scripts/fuzz.sh [seconds-per-target] [target...]   (default 20 s, every target)
# BEXKO_FUZZ_BUILD_DIR chooses the build folder (default build-fuzz); extra libFuzzer flags go in
# BEXKO_FUZZ_FLAGS (e.g. "-runs=10000000"). Inputs the fuzzer finds go to
# <build>/fuzz/corpus/<target> (kept between runs), findings to <build>/fuzz/findings/<target>/;
# the seed corpus in the source tree is only read. BEXKO_FUZZ_FRESH=1 empties those inputs first,
# so that a run with a fixed seed (BEXKO_FUZZ_FLAGS="-seed=1") repeats the same inputs: the test
# command runs every target that way for a few seconds.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BEXKO_FUZZ_BUILD_DIR:-$here/build-fuzz}
seconds=${1:-20}
shift || true
if ! [[ $seconds =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
  echo "fuzz: seconds-per-target must be a positive whole number, not '$seconds'" >&2
  exit 2
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=${CC:-clang-14} CXX=${CXX:-clang++-14} cmake -S "$here" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBEXKO_FUZZ=ON -DBEXKO_BUILD_TESTS=OFF \
    -DBEXKO_BUILD_BENCHMARKS=OFF
fi
cmake --build "$build" --target bexko_fuzz -j "${BEXKO_FUZZ_JOBS:-2}"

list=$build/bin/fuzz-targets.txt
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(cut -d' ' -f1 "$list")
fi

export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
failed=()
for target in "${targets[@]}"; do
  seeds=$(awk -v t="$target" '$1 == t { print $2 }' "$list")
  dict=$(awk -v t="$target" '$1 == t { print $3 }' "$list")
  if [ -z "$seeds" ]; then
    echo "fuzz: no target $target (see $list)" >&2
    exit 2
  fi
  corpus=$build/fuzz/corpus/$target
  findings=$build/fuzz/findings/$target
  if [ "${BEXKO_FUZZ_FRESH:-0}" = 1 ]; then rm -rf "$corpus"; fi
  mkdir -p "$corpus" "$findings"
  echo "fuzz: $target for ${seconds} s"
  # The targets point HOME and the XDG folders at a temporary tree themselves; one process at
  # a time, so that a run shares the machine politely.
  # shellcheck disable=SC2086
  if ! "$build/bin/$target" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
    -artifact_prefix="$findings/" ${dict:+-dict="$dict"} ${BEXKO_FUZZ_FLAGS:-} "$corpus" "$seeds" \
    >"$build/fuzz/$target.log" 2>&1; then
    failed+=("$target")
    echo "fuzz: $target FOUND A PROBLEM: see $build/fuzz/$target.log and $findings/" >&2
    grep -E "^(SUMMARY|==[0-9]+==ERROR)|^[a-zA-Z].*(failed|refused|changed|disagrees)" \
      "$build/fuzz/$target.log" | head -5 >&2 || true
  else
    grep -E "^stat::number_of_executed_units|^#[0-9]+ +DONE" "$build/fuzz/$target.log" || true
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, no findings"
