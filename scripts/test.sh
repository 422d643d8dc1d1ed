#!/usr/bin/env bash
# Sets up, builds and runs the release tests: an answer in about 4 minutes on two processors.
#   scripts/test.sh --all      also with the address and undefined-behaviour sanitizers, with the
#                              thread sanitizer, 20 seconds of each fuzz target, and the programs
#                              of scripts/clients.sh: 16 minutes
#   scripts/test.sh PRESET...  with these presets instead, such as asan
# Ends with the number of tests that have passed and failed. The long forms are scripts/long.sh's.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

presets=("$@") clients=
[ ${#presets[@]} -gt 0 ] || presets=(release)
[ "${presets[*]}" != --all ] || { presets=(release asan tsan fuzz) && clients=yes; }
jobs=$(nproc)
passed=0 failed=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT

for preset in "${presets[@]}"; do
  echo "== $preset, after $SECONDS s"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  if [ "$preset" = fuzz ] && ! scripts/fuzz.sh 20; then failed=$((failed + 1)); fi
  ctest --preset "$preset" -j "$jobs" | tee "$log" || true
  read -r wrong all < <(sed -n 's/.*% tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1 \2/p' "$log") ||
    { wrong=1 all=1; echo "ctest has ended without a summary"; }
  failed=$((failed + wrong)) passed=$((passed + all - wrong))
done
if [ -n "$clients" ]; then
  echo "== clients, after $SECONDS s"
  scripts/setup.sh --clients
  if scripts/clients.sh; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
