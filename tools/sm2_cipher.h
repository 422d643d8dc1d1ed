// The two forms of an SM2 ciphertext: C1 || C2 || C3, as the module has it, and the DER
// SEQUENCE { x INTEGER, y INTEGER, C3 OCTET STRING, C2 OCTET STRING } of GB/T 35276.
#ifndef VAKRO_TOOLS_SM2_CIPHER_H
#define VAKRO_TOOLS_SM2_CIPHER_H

#include "tools/files.h"

// An uncompressed C1 begins with 04, a SEQUENCE with 30: the first byte tells the forms apart.
bool IsSm2CipherDer(ByteSpan ciphertext);

Bytes Sm2CipherToDer(ByteSpan ciphertext);  // of at least 98 bytes
Bytes Sm2CipherFromDer(ByteSpan der);       // fails on anything else

#endif
