# openssl with the engine pkcs11 (libengine-pkcs11-openssl), judged by openssl without it.
check "an RSA keypair" generate rsa:2048 01 rsa
check "a P-256 keypair" generate EC:prime256v1 02 ec
cat >engine.cnf <<END
openssl_conf = main
[main]
engines = engines
[engines]
pkcs11 = pkcs11
[pkcs11]
engine_id = pkcs11
MODULE_PATH = $module
init = 0
[req]
distinguished_name = name
[name]
END
with_engine() { OPENSSL_CONF=$scratch/engine.cnf openssl "$@"; }
engine=(-engine pkcs11 -keyform engine)

for key in rsa ec; do
  private=$(uri private $key)
  check "signs with the $key key" with_engine dgst -sha256 "${engine[@]}" -sign "$private" -out signature message
  check "the signature is good" openssl dgst -sha256 -verify $key.pem -signature signature message
  refused "another message" openssl dgst -sha256 -verify $key.pem -signature signature other
  check "makes a certificate with it" with_engine req -new -x509 "${engine[@]}" -key "$private" -subj "/CN=$key" \
    -addext basicConstraints=critical,CA:TRUE -days 2 -out $key.crt
  check "the certificate is good" openssl verify -CAfile $key.crt $key.crt
  check "makes a request" with_engine req -new "${engine[@]}" -key "$private" -subj /CN=leaf -out leaf.req
  check "the request is good" openssl req -in leaf.req -verify -noout
  check "issues a certificate" with_engine x509 -req -in leaf.req -CA $key.crt -CAkey "$private" -CAkeyform engine \
    -engine pkcs11 -days 2 -set_serial 5 -out leaf.crt
  check "the certificate is good" openssl verify -CAfile $key.crt leaf.crt
  check "signs a CMS message" with_engine cms -sign -nodetach -in message -signer $key.crt -inkey "$private" -keyform engine \
    -engine pkcs11 -outform DER -out signed.cms
  check "the message is good" openssl cms -verify -inform DER -in signed.cms -CAfile $key.crt -out out
done
for padding in sha1 sha256 sha512; do
  check "signs with PSS and $padding" with_engine dgst "-$padding" "${engine[@]}" -sign "$(uri private rsa)" \
    -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -out signature message
  check "the signature is good" openssl dgst "-$padding" -verify rsa.pem -sigopt rsa_padding_mode:pss \
    -sigopt rsa_pss_saltlen:digest -signature signature message
done
refused "a wrong PIN" with_engine dgst -sha256 "${engine[@]}" -out signature \
  -sign "pkcs11:token=$token;object=rsa;type=private?pin-value=wrong" message
refused "a key that is not there" with_engine dgst -sha256 "${engine[@]}" -sign "$(uri private none)" message

openssl cms -encrypt -aes256 -in message -outform DER -out encrypted.cms rsa.crt
check "decrypts a CMS message" with_engine cms -decrypt -inform DER -in encrypted.cms -recip rsa.crt \
  -inkey "$(uri private rsa)" -keyform engine -engine pkcs11 -out out
check "it is the message" cmp <(tr -d '\r' <out) message
refused "the wrong key for it" with_engine cms -decrypt -inform DER -in encrypted.cms -recip ec.crt \
  -inkey "$(uri private ec)" -keyform engine -engine pkcs11 -out out
openssl pkeyutl -encrypt -pubin -inkey rsa.pem -in message -out cipher -pkeyopt rsa_padding_mode:oaep
check "decrypts OAEP" with_engine pkeyutl -decrypt "${engine[@]}" -inkey "$(uri private rsa)" -in cipher \
  -pkeyopt rsa_padding_mode:oaep -out out
check "it is the message" cmp out message

for key in rsa ec; do
  port=$(free_port)
  OPENSSL_CONF=$scratch/engine.cnf openssl s_server -accept "127.0.0.1:$port" -engine pkcs11 -keyform engine \
    -key "$(uri private $key)" -cert $key.crt -www >server.log 2>&1 &
  server=$!
  wait_for_port "$port"
  for version in tls1_3 tls1_2; do
    check "s_server serves $version with the $key key" sh -c "echo | openssl s_client -connect 127.0.0.1:$port \
      -$version -CAfile $key.crt -verify_return_error -brief"
  done
  other=$([ $key = rsa ] && echo ec || echo rsa)
  refused "a server with another certificate" sh -c "echo | openssl s_client -connect 127.0.0.1:$port \
    -CAfile $other.crt -verify_return_error -brief"
  kill "$server"
done
port=$(free_port)
openssl req -x509 -newkey rsa:2048 -nodes -keyout plain.key -out plain.crt -subj /CN=plain -days 2 2>/dev/null
openssl s_server -accept "127.0.0.1:$port" -key plain.key -cert plain.crt -Verify 1 -verify_return_error \
  -CAfile ec.crt -www >server.log 2>&1 &
server=$!
wait_for_port "$port"
login() { # KEY
  printf 'GET / HTTP/1.0\r\n\r\n' | timeout 20 env OPENSSL_CONF="$scratch/engine.cnf" openssl s_client \
    -connect "127.0.0.1:$port" -CAfile plain.crt -engine pkcs11 -keyform engine -key "$(uri private "$1")" \
    -cert "$1.crt" -quiet -ign_eof
}
says "s_client logs in with the P-256 key" "HTTP/1.0 200" login ec
refused "a client whose certificate the server does not know" sh -c 'grep -q "HTTP/1.0 200" output' < <(login rsa >output 2>&1)
kill "$server"
