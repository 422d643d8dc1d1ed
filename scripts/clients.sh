#!/usr/bin/env bash
# Runs the programs that people have on libvakro_pkcs11.so: each works with a token that is made
# for it, in a scratch folder and on loopback; what it made is judged by another program; and each
# is refused something. Prints a line a check and fails if one fails.
#
#   scripts/clients.sh [--module FILE] [CLIENT...]     a client is a file of tests/clients/
#
# scripts/setup.sh --clients installs the programs.
set -uo pipefail
cd "$(dirname "$0")/.."

module=
if [ "${1-}" = --module ]; then
  module=$(realpath "$2")
  shift 2
else
  cmake --preset release >/dev/null && cmake --build --preset release --target vakro_pkcs11 >/dev/null ||
    exit 1
  module=$PWD/build/release/lib/libvakro_pkcs11.so
fi
clients=("$@")
[ $# -gt 0 ] || for file in tests/clients/*.sh; do clients+=("$(basename "$file" .sh)"); done

failed=0
for client in "${clients[@]}"; do
  # A session of its own, so that nothing it starts outlives it.
  setsid --wait timeout --kill-after=10 300 bash -c '
    . scripts/clients_library.sh
    start_client "$1" "$2"
    . "$root/tests/clients/$2.sh"
    [ "$failures" = 0 ]' clients "$module" "$client" || failed=$((failed + 1))
done
[ "$failed" = 0 ] || echo "$failed of ${#clients[@]} clients failed" >&2
exit "$((failed > 0))"
