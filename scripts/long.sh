#!/usr/bin/env bash
# The long forms of tests that stride otherwise, in the release build: every single call is struck
# by every fault, and the arithmetic of SM2 sees 100,000 scalars. Says how long each test took;
# MINUTES minutes together on a processor of 2024.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target crash_tests sm2_tests
VAKRO_LONG_TESTS=1 ctest --preset release -j "$(nproc)" --timeout 7200 \
  -R '^(FaultsTest|PowerCutTest|NumbersTest|PointsTest|Arithmetic)'
