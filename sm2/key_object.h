// OpenSSL's objects for elliptic-curve keys. Inside sm2/ only.
#ifndef VAKRO_SM2_KEY_OBJECT_H
#define VAKRO_SM2_KEY_OBJECT_H

#include "core/openssl_owners.h"

// NewKeyOn makes a key object without a key, for SM2 on the module's own group; NULL for a curve
// without a group.
EcKey NewKeyOn(int curve);

// WrapEC makes a new key that holds a reference on `ec`.
EvpKey WrapEC(EC_KEY* ec);

#endif
