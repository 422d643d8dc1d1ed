// The random scalar k, GB/T 32918.2 A3 and GB/T 32918.4 A1.
#include "sm2/random.h"

#include "sm2/sm2.h"

BigNum RandomScalar() {
  BigNum k(BN_new());
  if (!k) return nullptr;
  do {
    if (BN_rand_range(k.get(), g_sm2->order) != 1) return nullptr;
  } while (BN_is_zero(k.get()));
  return k;
}
