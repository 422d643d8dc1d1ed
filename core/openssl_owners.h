// Owners of OpenSSL's objects.
#ifndef VAKRO_CORE_OPENSSL_OWNERS_H
#define VAKRO_CORE_OPENSSL_OWNERS_H

#include "core/owners.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

inline void FreeOpensslMemory(void* memory) { OPENSSL_free(memory); }
using OpensslBytes = std::unique_ptr<unsigned char[], Release<FreeOpensslMemory>>;

using EvpKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using RsaKey = std::unique_ptr<RSA, Release<RSA_free>>;
using EcKey = std::unique_ptr<EC_KEY, Release<EC_KEY_free>>;
using EcGroup = std::unique_ptr<EC_GROUP, Release<EC_GROUP_free>>;
using EcPoint = std::unique_ptr<EC_POINT, Release<EC_POINT_clear_free>>;
using BigNum = std::unique_ptr<BIGNUM, Release<BN_clear_free>>;
using BnCtx = std::unique_ptr<BN_CTX, Release<BN_CTX_free>>;

#endif
