// The declarations of Cryptoki (PKCS #11, version 3.0), with every C_ function exported. Nothing
// else in this library is.
#ifndef VAKRO_PKCS11_CRYPTOKI_H
#define VAKRO_PKCS11_CRYPTOKI_H

#pragma GCC visibility push(default)
#include <pkcs11.h>
#pragma GCC visibility pop

#endif
