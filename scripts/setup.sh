#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, and only those that are missing.
# Needs root or sudo only when something is missing; where it can't install, it says what to.
#   --clients   also the programs that scripts/clients.sh runs on the PKCS #11 library
#   --bench     also what scripts/bench.sh measures beside, and what draws its chart
set -euo pipefail

packages=(
  g++ cmake ninja-build git                      # build
  libssl-dev rapidjson-dev libcli11-dev          # libraries
  libnss3-dev                                    # declarations of PKCS #11
  libgtest-dev libbenchmark-dev                  # tests and benches
  clang-14 libclang-rt-14-dev                    # fuzz targets
  valgrind openssl python3                       # what tests and the demo run
  clang-format clang-tidy                        # what scripts/check.sh runs
  dpkg-dev pkg-config man-db bash                # packages, and what tries them
)

clients=(
  opensc gnutls-bin openssh-client p11-kit p11-kit-modules
  libengine-pkcs11-openssl libnss3-tools         # OpenSSL's engine; NSS
  openjdk-17-jdk-headless python3-pykcs11 openvpn
  gpgsm gpg-agent gnupg-pkcs11-scd
)
bench=(
  libbotan-2-dev libgcrypt20-dev                 # other SM2
  softhsm2                                       # another token
  python3-matplotlib
)
for option in "$@"; do
  case $option in
    --clients) packages+=("${clients[@]}") ;;
    --bench) packages+=("${bench[@]}") ;;
    *) echo "setup.sh [--clients] [--bench]" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  as_root=(sudo -n)
else
  echo "These Debian packages are missing, and installing them takes root:" >&2
  echo "  apt-get install ${missing[*]}" >&2
  exit 1
fi
echo "Installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q
"${as_root[@]}" apt-get install -q -y --no-install-recommends "${missing[@]}"
