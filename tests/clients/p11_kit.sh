# p11-kit: the library used in another process over a socket, as in a sandbox.
client_library=/usr/lib/$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)/pkcs11/p11-kit-client.so
check "an RSA keypair" generate rsa:2048 01 rsa
p11-kit server --foreground --name "$scratch/socket" --provider "$module" "pkcs11:token=$token" >server.log 2>&1 &
server=$!
for i in $(seq 50); do [ -S socket ] || sleep 0.1; done
export P11_KIT_SERVER_ADDRESS=unix:path=$scratch/socket
remote() { pkcs11-tool --module "$client_library" "$@"; }
says "lists the token" "$token" remote --list-token-slots
check "signs" remote --login --pin "$pin" --sign --id 01 --mechanism SHA256-RSA-PKCS --input-file message \
  --output-file signature
check "openssl accepts it" openssl dgst -sha256 -verify rsa.pem -signature signature message
refused "another message" openssl dgst -sha256 -verify rsa.pem -signature signature other
check "generates" remote --login --pin "$pin" --keypairgen --key-type EC:prime256v1 --id 05 --label far
check "the key is on the token" user --sign --id 05 --mechanism ECDSA-SHA1 --input-file message --output-file out
refused "a wrong PIN" remote --login --pin wrong-pin --sign --id 01 --mechanism SHA256-RSA-PKCS \
  --input-file message --output-file signature2
kill "$server"
unset P11_KIT_SERVER_ADDRESS

# The proxy, which programs load when they ask for all modules that are configured. A configuration
# of one's own is not read for root.
mkdir -p .config/pkcs11/modules lib
cp "$(dirname "$module")"/lib*.so* lib
printf 'module: %s\n' "$scratch/lib/$(basename "$module")" >.config/pkcs11/modules/vakro.module
printf 'user-config: only\n' >.config/pkcs11/pkcs11.conf
export XDG_CONFIG_HOME=$scratch/.config
if [ "$(id -u)" != 0 ]; then
  as_user() { "$@"; }
else
  chmod -R a+rwX "$scratch"
  as_user() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
fi
says "p11-kit lists the configured module" "token: $token" as_user p11-kit list-modules
check "p11tool finds the key through it" as_user env GNUTLS_PIN="$pin" p11tool --batch --login --test-sign \
  "$(uri private rsa)"
refused "a token that is not there" as_user p11tool --batch --export-pubkey \
  "pkcs11:token=nobody;object=rsa;type=public"
