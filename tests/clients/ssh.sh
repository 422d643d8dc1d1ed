# OpenSSH: keys for login (ssh-keygen -D), the agent, and signatures of files; a login itself
# needs a server with accounts, which this does not touch: `ssh-add -T` signs and verifies as one
# would.
check "an RSA keypair" generate rsa:2048 01 rsa
check "a P-256 keypair" generate EC:prime256v1 02 ec
lists() { ssh-keygen -D "$module" >keys.pub && [ "$(wc -l <keys.pub)" = 2 ]; }
check "ssh-keygen -D lists both" lists
grep ^ssh-rsa keys.pub >rsa.pub
grep ^ecdsa keys.pub >ec.pub
for key in rsa ec; do
  check "the $key key is the token's" cmp <(ssh-keygen -e -m PKCS8 -f $key.pub) $key.pem
done

cat >askpass <<'END'
#!/bin/sh
cat "$HOME/answer"
END
chmod +x askpass
export SSH_ASKPASS=$scratch/askpass SSH_ASKPASS_REQUIRE=force
# With -D the agent stays a child; it may load this library.
ssh-agent -D -a "$scratch/agent" -P "$module,$(realpath "$module")" >agent.log 2>&1 &
export SSH_AUTH_SOCK=$scratch/agent
for i in $(seq 50); do [ -S agent ] || sleep 0.1; done
printf 'wrong-pin\n' >answer
refused "a wrong PIN" ssh-add -s "$module"
printf '%s\n' "$pin" >answer
check "ssh-add -s loads the keys" ssh-add -s "$module"
check "the agent has both" sh -c '[ "$(ssh-add -L | wc -l)" = 2 ]'
for key in rsa ec; do
  check "the agent signs with the $key key" ssh-add -T $key.pub
  check "signs a file" ssh-keygen -Y sign -f $key.pub -n file message
  printf 'somebody@example.org %s\n' "$(cat $key.pub)" >allowed
  verify() { ssh-keygen -Y verify -f allowed -I somebody@example.org -n "$2" -s message.sig <"$1"; }
  check "the signature is good" bash -c "$(declare -f verify); verify message file"
  refused "another message" bash -c "$(declare -f verify); verify other file"
  refused "another namespace" bash -c "$(declare -f verify); verify message mail"
  rm -f message.sig
done
check "ssh-add -e unloads" ssh-add -e "$module"
refused "a key that is unloaded" ssh-add -T rsa.pub

# Certificates of an authority whose key is the token's.
ssh-keygen -q -t ed25519 -N '' -f user
printf '%s\n' "$pin" >answer
check "certifies a user's key" ssh-keygen -s rsa.pub -D "$module" -I somebody -n somebody user.pub
says "the certificate names the key" "$(ssh-keygen -lf rsa.pub | cut -d' ' -f2)" ssh-keygen -Lf user-cert.pub
