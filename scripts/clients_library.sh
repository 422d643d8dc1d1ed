# What the scripts of tests/clients/ share; scripts/clients.sh reads it. Each runs in a scratch
# folder of its own, with these:
#   $module    the PKCS #11 library
#   $token     the label of its token, which has a user PIN and no objects
#   $pin, $so_pin
failures=0
token=clients pin=1234-secret so_pin=so-5678-secret

# Prints a failure with what the command said, and goes on.
report_failure() {
  printf 'FAIL %s: %s\n' "$client" "$1"
  sed 's/^/     /' output | tail -n 20
  failures=$((failures + 1))
}

# check WHAT COMMAND...: it has to succeed. Its output is in the file `output`.
check() {
  local what=$1
  shift
  if "$@" >output 2>&1 </dev/null; then printf 'ok   %s: %s\n' "$client" "$what"; else report_failure "$what"; fi
}

# refused WHAT COMMAND...: it has to fail, and not by a signal or for want of time.
refused() {
  local what=$1 status=0
  shift
  "$@" >output 2>&1 </dev/null || status=$?
  if [ "$status" != 0 ] && { [ "$status" -lt 124 ] || [ "$status" = 255 ]; }; then
    printf 'ok   %s: refused: %s\n' "$client" "$what"
  else
    report_failure "refused: $what (result $status)"
  fi
}

# says WHAT TEXT COMMAND...: it has to print the text, whatever its result.
says() {
  local what=$1 text=$2
  shift 2
  "$@" >output 2>&1 </dev/null
  if grep -qF -e "$text" output; then printf 'ok   %s: %s\n' "$client" "$what"; else report_failure "$what"; fi
}

tool() { pkcs11-tool --module "$module" --token-label "$token" "$@"; }
user() { tool --login --pin "$pin" "$@"; }

# generate TYPE ID LABEL: a keypair of the token, and its public key in the file LABEL.pem. Read twice
# if need be: pkcs11-tool 0.23 takes EC keys from memory that it has given back, with any module, and
# fails now and then.
generate() {
  local read=(tool --read-object --type pubkey --id "$2" --output-file "$3.der")
  user --keypairgen --key-type "$1" --id "$2" --label "$3" && { "${read[@]}" || "${read[@]}"; } &&
    openssl pkey -pubin -inform DER -in "$3.der" -out "$3.pem"
}

# uri TYPE LABEL: of an object, with the PIN where it is a private key.
uri() {
  local text="pkcs11:token=$token;object=$2;type=$1"
  [ "$1" != private ] || text="$text?pin-value=$pin"
  printf '%s' "$text"
}

# wait_for_port PORT: until somebody listens there, 10 seconds at most.
wait_for_port() {
  local i
  for i in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

# A port that nobody listens on now.
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

stop_client() {
  local children
  children=$(jobs -p)
  # shellcheck disable=SC2086
  [ -z "$children" ] || kill $children 2>/dev/null
  cd / && rm -rf "$scratch"
}

start_client() {
  module=$1 client=$2
  root=$PWD
  scratch=$(mktemp -d)
  trap stop_client EXIT
  trap 'exit 1' HUP INT TERM
  cd "$scratch" || exit 1
  export HOME=$scratch VAKRO_FOLDER=$scratch/keys LC_ALL=C
  mkdir keys
  touch output
  printf 'a message\n' >message
  printf 'another message\n' >other
  # What SoftHSM needs, to try the scripts themselves on it.
  export SOFTHSM2_CONF=$scratch/softhsm2.conf
  echo "directories.tokendir = $scratch/keys" >"$SOFTHSM2_CONF"
  check "a token is made" pkcs11-tool --module "$module" --init-token --slot-index 0 --label "$token" \
    --so-pin "$so_pin"
  check "the user gets a PIN" tool --login --login-type so --so-pin "$so_pin" --init-pin --new-pin "$pin"
}
