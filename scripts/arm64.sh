#!/usr/bin/env bash
# Builds the module for arm64 with Debian's cross compiler, and runs the tests of module and
# arithmetic under qemu: 17 minutes on two processors that others used, too. What the build needs of
# Debian's arm64 packages is unpacked under build/arm64; nothing is installed but the compiler and
# qemu.
#   scripts/arm64.sh [GTEST_FILTER]
set -euo pipefail
cd "$(dirname "$0")/.."

for tool in aarch64-linux-gnu-g++ qemu-aarch64; do
  command -v "$tool" >/dev/null || { echo "apt-get install g++-aarch64-linux-gnu qemu-user" >&2; exit 1; }
done

build=$PWD/build/arm64
root=$build/sysroot
packages=(libssl3 libssl-dev libgtest-dev libgmock-dev libbenchmark-dev libbenchmark1debian
          libnss3-dev libnspr4-dev rapidjson-dev libcli11-dev)
if [ "$(cat "$root/complete" 2>/dev/null)" != "${packages[*]}" ]; then
  apt=$build/apt
  mkdir -p "$root" "$apt"/{state/lists/partial,cache/archives/partial}
  touch "$apt/status"
  as_arm64=(-o APT::Architecture=arm64 -o APT::Architectures=arm64 -o Dir::State="$apt/state"
            -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User=)
  apt-get "${as_arm64[@]}" update -q
  (cd "$apt" && apt-get "${as_arm64[@]}" download -q "${packages[@]}")
  for package in "$apt"/*.deb; do dpkg -x "$package" "$root"; done
  echo "${packages[*]}" >"$root/complete"
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVAKRO_SYSROOT="$root" \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm64.cmake" \
  -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST
cmake --build "$build" -j "$(nproc)" --target vakro_device module_tests sm2_tests
# The shield is left out by default: qemu takes the request to keep memory out of core dumps, and does
# not pass it on.
for tests in sm2_tests module_tests; do
  qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH="$root/usr/lib/aarch64-linux-gnu" \
    "$build/bin/$tests" --gtest_brief=1 --gtest_filter="${1:-*-ShieldTest.*}"
done
