#!/usr/bin/env bash
# Sets up, builds and runs all tests: in a release build, with the address and undefined-behaviour
# sanitizers, with the thread sanitizer, and then 20 seconds of each fuzz target.
# Presets can be named instead: scripts/test.sh release
# VAKRO_LONG_TESTS=1 in the environment: every fault in turn, and 100,000 scalars for the arithmetic.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan tsan fuzz)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
  [ "$preset" != fuzz ] || scripts/fuzz.sh 20
done
