# GnuTLS: p11tool and certtool, and a TLS server whose key never leaves the token.
provider=(--provider "$module")
export GNUTLS_PIN=$pin GNUTLS_SO_PIN=$so_pin
list() { p11tool "${provider[@]}" --batch --login --list-all "pkcs11:token=$token"; }

check "generates an RSA keypair" p11tool "${provider[@]}" --batch --login --generate-privkey rsa --bits 2048 \
  --label rsa "pkcs11:token=$token"
check "generates a P-256 keypair" p11tool "${provider[@]}" --batch --login --generate-privkey ecdsa \
  --curve secp256r1 --label ec "pkcs11:token=$token"
says "lists them" "object=rsa;type=private" list
refused "a wrong PIN" env GNUTLS_PIN=wrong-pin p11tool "${provider[@]}" --batch --login --list-privkeys \
  "pkcs11:token=$token"
for key in rsa ec; do
  check "tests signing with the $key key" p11tool "${provider[@]}" --batch --login --test-sign "$(uri private $key)"
  check "gives out its public key" sh -c 'p11tool "$@" >key.pem && openssl pkey -pubin -in key.pem -noout' sh \
    "${provider[@]}" --batch --export-pubkey "$(uri public $key)"
done

cat >ca.cfg <<END
cn = authority
ca
cert_signing_key
expiration_days = 2
END
cat >server.cfg <<END
cn = localhost
dns_name = localhost
tls_www_server
signing_key
encryption_key
expiration_days = 2
END
certtool_() { certtool "${provider[@]}" "$@"; }
check "certtool makes an authority of the P-256 key" certtool_ --generate-self-signed --template ca.cfg \
  --load-privkey "$(uri private ec)" --outfile ca.crt
check "openssl accepts it" openssl verify -CAfile ca.crt ca.crt
check "certtool asks for a certificate for the RSA key" certtool_ --generate-request --template server.cfg \
  --load-privkey "$(uri private rsa)" --outfile server.req
check "openssl accepts the request" openssl req -in server.req -verify -noout
check "the authority issues it" certtool_ --generate-certificate --template server.cfg \
  --load-request server.req --load-ca-privkey "$(uri private ec)" --load-ca-certificate ca.crt \
  --outfile server.crt
check "openssl accepts the certificate" openssl verify -CAfile ca.crt server.crt
for certificate in server:rsa ca:ec; do
  check "stores ${certificate%%:*}.crt" p11tool "${provider[@]}" --batch --login --write \
    --load-certificate "${certificate%%:*}.crt" --label "${certificate##*:}" "pkcs11:token=$token"
done
check "gives the certificate back" sh -c 'p11tool "$@" >back.pem' sh "${provider[@]}" --batch \
  --export "pkcs11:token=$token;object=rsa;type=cert"
check "as it was" cmp <(openssl x509 -in back.pem) <(openssl x509 -in server.crt)

openssl req -x509 -newkey rsa:2048 -nodes -keyout stranger.key -out stranger.crt -subj /CN=stranger -days 2 \
  2>/dev/null
connect() { # AUTHORITY PRIORITY
  echo hello | timeout 20 gnutls-cli --x509cafile "$1" --priority "NORMAL:-VERS-ALL:+$2" --port "$port" localhost
}
port=$(free_port)
gnutls-serv "${provider[@]}" --echo --port "$port" --x509keyfile "$(uri private rsa)" --x509certfile server.crt \
  --disable-client-cert >server.log 2>&1 &
server=$!
wait_for_port "$port"
check "serves TLS 1.3 with the key" connect ca.crt VERS-TLS1.3
check "serves TLS 1.2 with the key" connect ca.crt VERS-TLS1.2
check "openssl connects, too" sh -c "echo | openssl s_client -connect localhost:$port -CAfile ca.crt \
  -verify_return_error -brief"
refused "a server that the authority does not know" connect stranger.crt VERS-TLS1.3
kill "$server"

check "deletes a key" p11tool "${provider[@]}" --batch --login --delete "$(uri private rsa)"
refused "signing with it" p11tool "${provider[@]}" --batch --login --test-sign "$(uri private rsa)"
