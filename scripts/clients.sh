#!/usr/bin/env bash
# Runs the programs that people have on libvakro_pkcs11.so: types the commands of docs/pkcs11.md
# and plays the sessions of tests/data/clients.txt, each in a scratch folder and on loopback.
# Prints a line for each, and of one that fails the command that did, and what it said.
#
#   scripts/clients.sh [WORD]      only those with this word in their title, such as NSS
#
# scripts/setup.sh --clients installs the programs.
set -uo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null &&
  cmake --build --preset release --target vakro_pkcs11 vakro_device softdevice >/dev/null || exit 1

# What the sessions call by name; the head of tests/data/clients.txt says what it is.
MODULE=$(realpath build/release/lib/libvakro_pkcs11.so)
PIN=1234-secret
TOOL="pkcs11-tool --module $MODULE --token-label demo"
USE="$TOOL --login --pin $PIN"
RSA="pkcs11:token=demo;object=rsa;type=private?pin-value=$PIN"
EC="pkcs11:token=demo;object=ec;type=private?pin-value=$PIN"
ENGINE="env OPENSSL_CONF=engine.cnf openssl"
JAVA="-keystore NONE -storetype PKCS11 -addprovider SunPKCS11 -providerArg java.cfg -storepass $PIN"
SIGN="/usr/bin/python3 $PWD/examples/token.py $MODULE"
NOBODY=
[ "$(id -u)" != 0 ] || NOBODY="setpriv --reuid=65534 --regid=65534 --clear-groups"
PATH=$PWD/build/release/bin:$PATH
export MODULE PIN TOOL USE RSA EC ENGINE JAVA SIGN NOBODY PATH LC_ALL=C.UTF-8

passed=0 failed=0
# play TITLE COMMAND...: keeps quiet unless it fails.
play() {
  local title=$1 said
  shift
  case $title in *"$word"*) ;; *) return ;; esac
  if said=$(timeout --kill-after=10 600 "$@" 2>&1 </dev/null); then
    echo "ok   $title"
    passed=$((passed + 1))
  else
    printf 'FAIL %s\n%s\n' "$title" "$said"
    failed=$((failed + 1))
  fi
}

word=${1-}
play docs/pkcs11.md python3 tests/documents_test.py docs/pkcs11.md
export GNUTLS_PIN=$PIN JAVA_TOOL_OPTIONS="-XX:TieredStopAtLevel=1 -XX:+UseSerialGC"
while read -r title; do
  play "$title" python3 tests/sessions_test.py clients.txt "$title"
done < <(sed -n 's/^== //p' tests/data/clients.txt | tail -n +2)
echo "$passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" != 0 ]
