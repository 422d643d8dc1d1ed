# Java: keytool and jarsigner with SunPKCS11, judged by openssl.
printf 'name = vakro\nlibrary = %s\nslotListIndex = 0\n' "$module" >java.cfg
export _JAVA_OPTIONS="-Duser.home=$scratch -Xmx256m"
store=(-keystore NONE -storetype PKCS11 -providerClass sun.security.pkcs11.SunPKCS11 -providerArg java.cfg)
key_tool() { keytool "$@" "${store[@]}" -storepass "$pin"; }
for key in rsa ec; do
  kind=(-keyalg RSA -keysize 2048 -sigalg SHA256withRSA)
  [ $key = rsa ] || kind=(-keyalg EC -groupname secp256r1 -sigalg SHA256withECDSA)
  check "keytool generates a $key keypair with a certificate" key_tool -genkeypair -alias $key "${kind[@]}" \
    -dname "CN=$key" -validity 2
  check "gives the certificate out" key_tool -exportcert -alias $key -rfc -file $key.crt
  check "openssl accepts it" openssl verify -CAfile $key.crt $key.crt
  check "makes a request" key_tool -certreq -alias $key -file $key.req
  check "openssl accepts it" openssl req -in $key.req -verify -noout
  printf 'class\n' >A.txt
  rm -f a.jar
  jar cf a.jar A.txt 2>/dev/null
  check "jarsigner signs" jarsigner "${store[@]}" -storepass "$pin" a.jar $key
  keytool -importcert -noprompt -alias $key -file $key.crt -keystore trust.p12 -storepass trusted >/dev/null 2>&1
  says "the signature is good" "jar verified." jarsigner -verify -keystore trust.p12 -storepass trusted a.jar
  printf 'changed\n' >A.txt
  jar uf a.jar A.txt 2>/dev/null
  says "a changed file is seen" "digest error" jarsigner -verify a.jar
done
check "jarsigner signs with PSS" jarsigner "${store[@]}" -storepass "$pin" -sigalg RSASSA-PSS a.jar rsa
says "lists both" "2 entries" key_tool -list
refused "a wrong PIN" keytool -list "${store[@]}" -storepass wrong-pin
check "deletes a keypair" key_tool -delete -alias ec
refused "a keypair that is deleted" jarsigner "${store[@]}" -storepass "$pin" a.jar ec
refused "an alias twice" key_tool -genkeypair -alias rsa -keyalg RSA -keysize 2048 -dname CN=again
