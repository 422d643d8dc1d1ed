# PyKCS11, with the mechanisms that the other programs have no name for: SM2 and SM3.
check "PyKCS11 does it all" /usr/bin/python3 "$root/tests/clients/pykcs11_client.py" "$module" "$token" "$pin"
check "openssl accepts its signature" openssl pkeyutl -verify -pubin -inkey sm2.pem -rawin -digest sm3 \
  -pkeyopt distid:1234567812345678 -in message -sigfile sm2.sig
refused "another message" openssl pkeyutl -verify -pubin -inkey sm2.pem -rawin -digest sm3 \
  -pkeyopt distid:1234567812345678 -in other -sigfile sm2.sig
check "openssl accepts its digest" cmp sm3 <(openssl dgst -sm3 -binary message)
