// Import of a keypair from the crypto library's keypair encoding.
#include "core/error_mark.h"
#include "core/openssl_owners.h"
#include "keypair/new_keypair.h"
#include "sm2/sm2.h"

#include <string.h>

static constexpr int MIN_ENCODING_SIZE = 16;

static bool FillRSA(Keypair* keypair) {
  const RsaKey rsa(EVP_PKEY_get1_RSA(keypair->privateKey));
  if (!rsa) return false;
  keypair->bits = static_cast<unsigned int>(BN_num_bits(RSA_get0_n(rsa.get())));
  return ToRSAPublicKeyEncode(rsa.get(), &keypair->publicKey, &keypair->publicKeyLen) == 1;
}

static bool FillECC(Keypair* keypair) {
  const EcKey ec(EVP_PKEY_get1_EC_KEY(keypair->privateKey));
  if (!ec) return false;
  keypair->bits = static_cast<unsigned int>(GetECCBits(keypair->curve));
  return ToECCPublicKeyEncode(keypair->curve, ec.get(), &keypair->publicKey,
                              &keypair->publicKeyLen) == 1;
}

Keypair* DecodeKeypair(const unsigned char* encoding, int encodingLen, unsigned int type) {
  const unsigned int algorithm = be2int(encoding + MAGIC_SIZE);
  int curve = 0;
  EvpKey key(DecodePair(algorithm, encoding, encodingLen, &curve));
  OwnedKeypair keypair(key ? NewKeypair() : nullptr);
  if (!keypair) return nullptr;
  keypair->algorithm = algorithm;
  keypair->type = type;
  keypair->curve = curve;
  keypair->privateKey = key.release();
  const bool filled = algorithm == ALGORITHM_RSA ? FillRSA(keypair.get()) : FillECC(keypair.get());
  return filled ? keypair.release() : nullptr;
}

int DeviceImportKeypair(Device* device, const unsigned char* encoding, int encodingLen,
                        unsigned int type, const char* label, Keypair** out) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  if (out == nullptr || label == nullptr) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  const int room = CheckNameAndRoom(device, type, label);
  if (room != VAKRO_OK) return room;
  if (encoding == nullptr || encodingLen < MIN_ENCODING_SIZE ||
      memcmp(encoding, KEYPAIR_MAGIC, MAGIC_SIZE) != 0)
    return VAKRO_FAILED;
  const int owner = CheckPinAndLabel(device, label);
  if (owner != VAKRO_OK) return owner;
  const unsigned int algorithm = be2int(encoding + MAGIC_SIZE);
  if (algorithm != ALGORITHM_RSA && algorithm != ALGORITHM_ECC) return VAKRO_NOT_SUPPORTED;
  OwnedKeypair keypair(DecodeKeypair(encoding, encodingLen, type));
  if (!keypair) return VAKRO_FAILED;
  return StoreKeypair(device, std::move(keypair), label, out);
}
