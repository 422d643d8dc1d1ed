#!/usr/bin/env bash
# Runs the module's tests in a build that counts, prints the share of lines that ran of core/, device/,
# store/, keypair/ and sm2/, file by file, and fails below 97 %. Needs gcovr.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v gcovr > /dev/null || {
  echo "scripts/coverage.sh needs gcovr (Debian: apt-get install gcovr)" >&2
  exit 1
}

tests=(module_tests crash_tests sm2_tests threads_test)
cmake --preset coverage
find build/coverage -name '*.gcda' -delete
cmake --build --preset coverage -j "$(nproc)" --target "${tests[@]}"
for test in "${tests[@]}"; do
  echo "== $test"
  "build/coverage/bin/$test" --gtest_brief=1
done

# Left out: the generator of SM2's table, which runs while the module is built.
folders=(core device store keypair sm2)
gcovr --root . "${folders[@]/#/--filter=}" --exclude sm2/make_generator_table.cpp \
  --fail-under-line 97 "$@" "${folders[@]/#/build/coverage/}"
