#!/usr/bin/env bash
# The module at its main job, on real input: makes a device in a scratch folder, gives it keypairs,
# signs this project's README with each, has openssl check the signatures, and shows what happens
# to a wrong PIN and to a damaged device file. Works as any user; removes what it made.
#   scripts/demo.sh           sets up and builds first
#   scripts/demo.sh PROGRAM   runs a softdevice that is built already
set -euo pipefail
cd "$(dirname "$0")/.."

bold=''; dim=''; plain=''
if [ -t 1 ]; then bold=$'\e[1m'; dim=$'\e[2m'; plain=$'\e[0m'; fi
step() { printf '\n%s%s%s\n' "$bold" "$1" "$plain"; }
say() { printf '  %s\n' "$1"; }
fail() { printf '\nThe demo failed: %s\n' "$1" >&2; exit 1; }
# Shows a command, runs it and indents what it prints.
run() {
  printf '  %s$ %s%s\n' "$dim" "$*" "$plain"
  "$@" 2>&1 | sed 's/^/    /'
}
refused() {
  printf '  %s$ %s%s\n' "$dim" "$*" "$plain"
  if "$@" >refusal 2>&1; then fail "this should have been refused: $*"; fi
  sed 's/^/    /' refusal
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

if [ $# -eq 0 ]; then
  step "Setting up and building"
  scripts/setup.sh
  build=$PWD/build/release
  if ! mkdir -p "$build" 2>/dev/null || [ ! -w "$build" ]; then
    build=$scratch/build
    say "This folder is another user's: building in $build."
  fi
  cmake --preset release -B "$build" >/dev/null
  cmake --build "$build" --target softdevice | tail -n 1 | sed 's/^/  /'
  set -- "$build/bin/softdevice"
fi
PATH=$(dirname "$1"):$PATH
cp README.md "$scratch"
cd "$scratch"
document=README.md
keys=keys
export DEMO_PIN=correct-horse

step "A device is made: one file in a key folder, with a PIN"
run softdevice create --folder "$keys" --label demo --serial DEMO-1 --pin-env DEMO_PIN
[ "$(stat -c '%a' "$keys/DEMO-1")" = 600 ] || fail "the device file is open to others"

step "It is given three keypairs"
for algorithm in rsa-2048 p-256 sm2; do
  run softdevice keygen "$algorithm" --folder "$keys" --pin-env DEMO_PIN
done
run softdevice list --folder "$keys"

step "Each signs $document, and openssl checks the signature with the exported public key"
sm2_options=(-rawin -digest sm3 -pkeyopt distid:1234567812345678)
for keypair in rsa-2048 p-256 sm2; do
  run softdevice sign "$document" --folder "$keys" --keypair "$keypair" --pin-env DEMO_PIN \
    --output "$keypair.sig"
  softdevice public-key --folder "$keys" --keypair "$keypair" --output "$keypair.pem"
  if [ "$keypair" = sm2 ]; then
    run openssl pkeyutl -verify -pubin -inkey "sm2.pem" -in "$document" \
      -sigfile "sm2.sig" "${sm2_options[@]}"
  else
    run openssl dgst -sha256 -verify "$keypair.pem" -signature "$keypair.sig" \
      "$document"
  fi
  { cat "$document"; echo; } >changed
  if softdevice verify changed "$keypair.sig" --folder "$keys" \
    --keypair "$keypair" >/dev/null 2>&1; then fail "a changed document was accepted"; fi
  say "The same signature over a changed document is refused."
done

step "A new process loads the device; a wrong PIN is refused, the right one is not"
refused env DEMO_PIN=wrong softdevice sign "$document" --folder "$keys" --keypair sm2 \
  --pin-env DEMO_PIN --output "again.sig"
[ ! -e "again.sig" ] || fail "a refused signing left a file"
run softdevice sign "$document" --folder "$keys" --keypair sm2 --pin-env DEMO_PIN \
  --output "again.sig"
run softdevice verify "$document" "again.sig" --folder "$keys" --keypair sm2

step "A damaged copy of the device file is refused; its backup brings it back"
copy=copy
mkdir -m 700 "$copy"
cp -p "$keys/DEMO-1" "$copy/DEMO-1"
printf 'X' | dd of="$copy/DEMO-1" bs=1 seek=100 conv=notrunc status=none
say "One byte of the copy has been changed."
refused softdevice list --folder "$copy"
refused softdevice check --folder "$copy"
cmp -s "$keys/DEMO-1" "$copy/DEMO-1" && fail "the damage is gone by itself"
cp -p "$keys/DEMO-1" "$copy/DEMO-1.bak"
say "Now a backup lies beside it, as after an interrupted change; it is put back, and that is said."
run softdevice list --folder "$copy"
cmp -s "$keys/DEMO-1" "$copy/DEMO-1" || fail "the backup did not bring the device back"
[ ! -e "$copy/DEMO-1.bak" ] || fail "the backup was left behind"

step "Everything held."
