// Signatures over whole messages: the hashing that the module leaves to its caller.
#ifndef VAKRO_TOOLS_SIGNING_H
#define VAKRO_TOOLS_SIGNING_H

#include "tools/keys.h"

inline constexpr char SM2_DEFAULT_ID[] = "1234567812345678";  // GB/T 35276

// A message hands its bytes to what it is given, block by block.
using Message = std::function<void(const std::function<void(ByteSpan)>&)>;

Message FileMessage(const std::string& path);
Message MemoryMessage(ByteSpan bytes);  // borrows the bytes

// The algorithms: RSA signs PKCS#1 v1.5 over a SHA-256 DigestInfo (RFC 8017, 9.2); ECDSA over
// SHA-256; SM2 over SM3(Z || message), Z from the user id and the public key (GB/T 32918.2, 5.5).
// `id` is read for SM2 only.

// SignMessage needs the PIN verified. An RSA signature has the modulus size, the others are DER.
Bytes SignMessage(Keypair* keypair, const PublicPart& key, const std::string& id,
                  const Message& message);

bool IsSignatureValid(const PublicPart& key, const std::string& id, const Message& message,
                      ByteSpan signature);

const char* SchemeName(Kind kind);  // to show

#endif
