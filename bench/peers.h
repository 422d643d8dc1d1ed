// Other libraries' SM2, as far as they were there when this was configured.
#ifndef VAKRO_BENCH_PEERS_H
#define VAKRO_BENCH_PEERS_H

#include "harness.h"

enum class Sm2Operation { SIGN, VERIFY, ENCRYPT, DECRYPT };

// Sm2Peers returns a contender of each library: signing and verifying a digest, encrypting and
// decrypting `size` bytes. Key objects and contexts are made beforehand and reused.
std::vector<Contender> Sm2Peers(Sm2Operation operation, size_t size = 32);

#endif
