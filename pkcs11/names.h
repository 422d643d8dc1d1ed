// The names of results, for the log.
#ifndef VAKRO_PKCS11_NAMES_H
#define VAKRO_PKCS11_NAMES_H

#include "pkcs11/cryptoki.h"

const char* NameOfResult(CK_RV result);  // NULL for one that this library does not give

#endif
