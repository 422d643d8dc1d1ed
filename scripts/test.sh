#!/usr/bin/env bash
# Sets up, builds and runs all tests: release, with the address and undefined-behaviour sanitizers,
# and with the thread sanitizer.
# Other presets can be named: scripts/test.sh release
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan tsan)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
