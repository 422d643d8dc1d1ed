#!/usr/bin/env bash
# Sets up, builds and runs all tests: release, and with the address and undefined-behaviour
# sanitizers.
# Other presets can be named: scripts/test.sh release
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
