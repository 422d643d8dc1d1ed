# NSS, as browsers and mail programs use it: modutil, certutil and cmsutil; judged by openssl.
mkdir db
printf '%s\n' "$pin" >pin_file
printf 'wrong-pin\n' >wrong_file
head -c 100 /dev/urandom >noise
check "makes a database" certutil -N -d sql:db --empty-password
check "modutil adds the library" modutil -force -dbdir sql:db -add vakro -libfile "$module"
says "and lists the token" "token: $token" modutil -dbdir sql:db -list
certutil_() { certutil "$@" -d sql:db -h "$token"; }
for key in rsa ec; do
  kind=(-k rsa -g 2048)
  [ $key = rsa ] || kind=(-k ec -q nistp256)
  check "certutil generates a $key keypair with a certificate" certutil_ -S "${kind[@]}" -f pin_file -z noise \
    -n $key -s "CN=$key" -t C,C,C -x -v 2 -m 1$RANDOM --keyUsage digitalSignature,certSigning,keyEncipherment
  check "gives the certificate out" certutil_ -L -n "$token:$key" -f pin_file -a -o $key.crt
  check "openssl accepts it" openssl verify -CAfile $key.crt -partial_chain $key.crt
  check "makes a request" certutil_ -R "${kind[@]}" -f pin_file -z noise -s CN=leaf -a -o leaf.req
  check "openssl accepts it" openssl req -in leaf.req -verify -noout
  check "signs a message" cmsutil -S -d sql:db -f pin_file -N "$token:$key" -i message -o signed.cms -G
  check "openssl accepts it" openssl cms -verify -inform DER -in signed.cms -CAfile $key.crt -purpose any \
    -partial_chain -out out
  check "it is the message" cmp <(tr -d '\r' <out) message
done
says "lists the keys" "rsa" certutil_ -K -f pin_file
refused "a wrong PIN" certutil_ -K -f wrong_file
openssl cms -encrypt -aes256 -in message -outform DER -out encrypted.cms rsa.crt
check "decrypts a message" cmsutil -D -d sql:db -f pin_file -i encrypted.cms -o out
check "it is the message" cmp <(tr -d '\r' <out) message
printf 'x' | dd of=encrypted.cms conv=notrunc seek=250 bs=1 status=none
refused "a damaged message" cmsutil -D -d sql:db -f pin_file -i encrypted.cms -o out

openssl req -x509 -newkey rsa:2048 -nodes -keyout imported.key -out imported.crt -subj /CN=imported -days 2 \
  2>/dev/null
openssl pkcs12 -export -inkey imported.key -in imported.crt -name imported -passout pass:file -out imported.p12
check "imports a certificate of another key" certutil_ -A -n other -t ,, -f pin_file -a -i imported.crt
check "gives it out" certutil_ -L -n "$token:other" -f pin_file -a -o out.crt
check "as it was" cmp <(openssl x509 -in out.crt) <(openssl x509 -in imported.crt)
check "deletes a keypair and its certificate" certutil_ -F -n "$token:ec" -f pin_file
refused "a message signed with it" cmsutil -S -d sql:db -f pin_file -N "$token:ec" -i message -o signed.cms
