// Signatures over whole messages: the hashing and padding that the module leaves to its caller.
#ifndef VAKRO_TOOLS_SIGNING_H
#define VAKRO_TOOLS_SIGNING_H

#include "tools/keys.h"

inline constexpr char SM2_DEFAULT_ID[] = "1234567812345678";  // GB/T 35276

// How a message is signed: RSA with PKCS#1 v1.5 (RFC 8017, 9.2) or PSS (9.1, MGF1 with the same
// hash, as many bytes of salt as the hash has), ECDSA over the hash, SM2 over SM3(Z || message), Z
// from the user id and the public key (GB/T 32918.2, 5.5).
struct Scheme {
  std::string hash = "sha256";  // sha256, sha384 or sha512; SM2 knows SM3 only
  bool pss = false;             // RSA only
  bool isDigest = false;        // the message is the digest already; for SM2, e
  std::string id = SM2_DEFAULT_ID;
};

// RequireFitting fails for a scheme that this key can't sign by.
void RequireFitting(const Scheme& scheme, Kind kind);
std::string SchemeName(const Scheme& scheme, Kind kind);  // to show

// A message hands its bytes to what it is given, block by block.
using Message = std::function<void(const std::function<void(ByteSpan)>&)>;

Message FileMessage(const std::string& path);
Message MemoryMessage(ByteSpan bytes);  // borrows the bytes

// SignMessage needs the PIN verified. An RSA signature has the modulus size, the others are DER.
// The signature is checked with the public key of the device file before it is given out.
Bytes SignMessage(Keypair* keypair, const PublicPart& key, const Scheme& scheme,
                  const Message& message);

bool IsSignatureValid(const PublicPart& key, const Scheme& scheme, const Message& message,
                      ByteSpan signature);

#endif
