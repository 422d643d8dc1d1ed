# OpenSC's pkcs11-tool: everything it can do, judged by openssl.
check "an RSA keypair is generated" generate rsa:2048 01 rsa
check "a P-256 keypair is generated" generate EC:prime256v1 02 ec
refused "a wrong PIN" tool --login --pin wrong-pin --list-objects
refused "a curve that is not there" user --keypairgen --key-type EC:secp521r1 --id 09
says "without a PIN there are no private keys" "Public Key Object" tool --list-objects
refused "a private key without a PIN" grep -q "Private Key Object" output
says "with the PIN there are" "Private Key Object" user --list-objects

# --- Signatures ---
sign() { user --sign --id "$1" --mechanism "$2" --input-file "$3" --output-file signature "${@:4}"; }
signed() { # HASH KEY [openssl dgst option...]
  openssl dgst "-$1" -verify "$2.pem" -signature signature "${@:3}" message
}
for hash in sha1 sha224 sha256 sha384 sha512; do
  upper=${hash^^}
  openssl dgst "-$hash" -binary message >digest
  check "signs with $upper-RSA-PKCS" sign 01 "$upper-RSA-PKCS" message
  check "openssl accepts it" signed "$hash" rsa
  refused "another message" openssl dgst "-$hash" -verify rsa.pem -signature signature other
  check "signs with $upper-RSA-PKCS-PSS" sign 01 "$upper-RSA-PKCS-PSS" message
  check "openssl accepts it" signed "$hash" rsa -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest
  check "signs with ECDSA-$upper" sign 02 "ECDSA-$upper" message --signature-format openssl
  check "openssl accepts it" signed "$hash" ec
  check "signs a digest with RSA-PKCS-PSS" sign 01 RSA-PKCS-PSS digest --hash-algorithm "${upper/SHA1/SHA-1}" \
    --salt-len 10 --mgf "MGF1-$upper"
  check "openssl accepts it" signed "$hash" rsa -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:10
done
openssl dgst -sha256 -binary message >digest
check "signs a digest with ECDSA" sign 02 ECDSA digest --signature-format openssl
check "openssl accepts it" signed sha256 ec
check "signs with RSA-PKCS" sign 01 RSA-PKCS message
check "openssl accepts it" openssl pkeyutl -verify -pubin -inkey rsa.pem -in message -sigfile signature
head -c 256 /dev/zero | tr '\0' 'x' >block && printf '\0' | dd of=block conv=notrunc status=none
check "signs with RSA-X-509" sign 01 RSA-X-509 block
check "openssl accepts it" sh -c 'openssl pkeyutl -verifyrecover -pubin -inkey rsa.pem -in signature \
  -pkeyopt rsa_padding_mode:none | cmp - block'
head -c 300 /dev/zero >long
refused "a block longer than the modulus" sign 01 RSA-X-509 long

verify() { tool --verify --id 01 --mechanism SHA256-RSA-PKCS --input-file "$1" --signature-file signature; }
check "signs with SHA256-RSA-PKCS" sign 01 SHA256-RSA-PKCS message
says "verifies" "Signature is valid" verify message
says "says of another message that it does not fit" "Invalid signature" verify other

# --- Encryption ---
decrypts() { # MECHANISM [option...]
  user --decrypt --id 01 --mechanism "$1" --input-file cipher --output-file plain "${@:2}" && cmp plain message
}
encrypt() { openssl pkeyutl -encrypt -pubin -inkey rsa.pem -in message -out cipher "$@"; }
encrypt
check "decrypts RSA-PKCS" decrypts RSA-PKCS
for hash in SHA-1 SHA256 SHA384 SHA512; do
  plain=${hash/-/}
  encrypt -pkeyopt rsa_padding_mode:oaep -pkeyopt "rsa_oaep_md:$plain" -pkeyopt "rsa_mgf1_md:$plain"
  check "decrypts RSA-PKCS-OAEP with $hash" decrypts RSA-PKCS-OAEP --hash-algorithm "$hash" --mgf "MGF1-$plain"
done
refused "another hash" decrypts RSA-PKCS-OAEP --hash-algorithm SHA-1 --mgf MGF1-SHA1
printf 'x' | dd of=cipher conv=notrunc seek=100 bs=1 status=none
refused "a damaged ciphertext" decrypts RSA-PKCS-OAEP --hash-algorithm SHA512 --mgf MGF1-SHA512

# --- Objects in and out ---
check "gives out a public key" tool --read-object --type pubkey --id 01 --output-file rsa.der
check "as it is" cmp rsa.der <(openssl pkey -pubin -in rsa.pem -outform DER)
openssl req -x509 -newkey rsa:2048 -nodes -keyout imported.key -out imported.crt -subj /CN=imported \
  -days 2 2>/dev/null
openssl x509 -in imported.crt -outform DER -out imported.crt.der
openssl rsa -in imported.key -outform DER -out imported.key.der 2>/dev/null
openssl pkey -in imported.key -pubout -out imported.pem
openssl ecparam -name prime256v1 -genkey -noout -outform DER -out ec_imported.key.der
openssl ec -inform DER -in ec_imported.key.der -pubout -out ec_imported.pem 2>/dev/null
check "takes an RSA private key" user --write-object imported.key.der --type privkey --id 03 --label imported
check "takes its certificate" user --write-object imported.crt.der --type cert --id 03 --label imported
check "gives the certificate back" tool --read-object --type cert --id 03 --output-file out.der
check "as it was" cmp out.der imported.crt.der
check "signs with the key" sign 03 SHA256-RSA-PKCS message
check "openssl accepts it" signed sha256 imported
check "takes an EC private key" user --write-object ec_imported.key.der --type privkey --id 04 --label ec4
check "signs with it" sign 04 ECDSA-SHA256 message --signature-format openssl
check "openssl accepts it" signed sha256 ec_imported
check "takes data" user --write-object message --type data --label note --application-label mail
check "gives the data back" tool --read-object --type data --label note --output-file out
check "as it was" cmp out message
check "takes private data" user --write-object other --type data --label secret --private
check "gives it back" user --read-object --type data --label secret --output-file out
check "as it was" cmp out other
refused "private data without a PIN" tool --read-object --type data --label secret --output-file out2
refused "private data in the clear in the folder" grep -rq "another message" keys
says "gives no private key out" "not (yet) supported" user --read-object --type privkey --id 01 --output-file out3
check "gives a key another id" user --set-id 07 --type privkey --id 03
check "signs by that" sign 07 SHA256-RSA-PKCS message
for object in data:note data:secret cert:imported privkey:imported; do
  check "deletes $object" user --delete-object --type "${object%%:*}" --label "${object##*:}"
done
refused "what is deleted" sign 07 SHA256-RSA-PKCS message

# --- PIN ---
check "changes the PIN" user --change-pin --new-pin changed-pin
refused "the old PIN" user --list-objects
check "takes the new one" tool --login --pin changed-pin --list-objects
check "changes it back" tool --login --pin changed-pin --change-pin --new-pin "$pin"
refused "a token with keys made anew" pkcs11-tool --module "$module" --init-token --token-label "$token" \
  --label gone --so-pin "$so_pin"
check "its keys still sign" sign 01 SHA256-RSA-PKCS message

# --- The rest ---
check "random bytes" user --generate-random 1000 --output-file random
check "hashes" user --hash --mechanism SHA256 --input-file message --output-file hash
check "as openssl does" cmp hash digest
says "its own tests find nothing wrong" "No errors" user --test --allow-sw
check "its tests of EC find nothing wrong" user --session-rw --test-ec --id 0e --allow-sw --key-type EC:prime256v1
check "its threads" user --test-threads ILGISL --test-threads ILGISL --test-threads ILSLGI
check "its forks" user --test-fork
