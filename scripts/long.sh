#!/usr/bin/env bash
# The long forms of tests that stride otherwise, in the release build: every single call is struck
# by every fault, and the arithmetic of SM2 sees hundreds of thousands of numbers. About 5 minutes
# on two processors, with the build; ctest says how long each took.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target crash_tests sm2_tests
VAKRO_LONG_TESTS=1 ctest --preset release -j "$(nproc)" --timeout 7200 \
  -R '^(FaultsTest|Sm2Numbers|Sm2Points)\.'
