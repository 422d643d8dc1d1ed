// The random scalar that signature and encryption start from. Inside sm2/ only.
#ifndef VAKRO_SM2_RANDOM_H
#define VAKRO_SM2_RANDOM_H

#include "device/owners.h"

// RandomScalar returns k, uniform in [1, n - 1], or NULL.
BigNum RandomScalar();

#endif
