// Key generation, onto the device or as temporary keypairs.
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/openssl_owners.h"
#include "keypair/new_keypair.h"
#include "sm2/sm2.h"

using Callback = std::unique_ptr<BN_GENCB, Release<BN_GENCB_free>>;

static BigNum PublicExponent(const RSAKeypairParams* params) {
  if (params == nullptr || params->exponent == nullptr) {
    BigNum e(BN_new());
    if (e && BN_set_word(e.get(), RSA_F4) != 1) e.reset();
    return e;
  }
  if (params->exponentLen < 1) return nullptr;
  return BigNum(BN_bin2bn(params->exponent, params->exponentLen, nullptr));
}

static int BetweenSteps(int /*step*/, int /*count*/, BN_GENCB* /*callback*/) {
  LetForksPass();
  return 1;
}

RSA* GenerateRSAKeypair(unsigned int bits, const RSAKeypairParams* params) {
  // OpenSSL makes larger keys, for hours, and then refuses to use them.
  if (bits > OPENSSL_RSA_MAX_MODULUS_BITS) return nullptr;
  const BigNum e = PublicExponent(params);
  RsaKey rsa(RSA_new());
  const Callback callback(BN_GENCB_new());
  if (!e || !rsa || !callback) return nullptr;
  BN_GENCB_set(callback.get(), BetweenSteps, nullptr);
  const Computing computing;
  if (RSA_generate_key_ex(rsa.get(), static_cast<int>(bits), e.get(), callback.get()) != 1)
    return nullptr;
  return rsa.release();
}

int IsGenerateTempRSAKeypair(const RSAKeypairParams* params) {
  return params == nullptr ? 0 : params->temporary;
}

int GenerateTempRSAKeypair(unsigned int bits, const RSAKeypairParams* params, unsigned int type,
                           Keypair** out) {
  const RsaKey rsa(GenerateRSAKeypair(bits, params));
  if (!rsa) return 0;
  const Computing computing;
  OwnedKeypair keypair(NewKeypair());
  if (!keypair) return 0;
  keypair->algorithm = ALGORITHM_RSA;
  keypair->bits = bits;
  keypair->isTemp = 1;
  keypair->type = type;
  if (ToRSAPublicKeyEncode(rsa.get(), &keypair->publicKey, &keypair->publicKeyLen) != 1) return 0;
  keypair->privateKey = WrapRSA(rsa.get());
  if (keypair->privateKey == nullptr) return 0;
  *out = keypair.release();
  return 1;
}

namespace {
// Gives a reference back at the end of a scope that holds the lock, or has tried to.
struct BorrowedDevice {
  Device* const device;
  const bool locked;
  ~BorrowedDevice() { locked ? ReleaseReferences(device, 1) : LowerReferences(device); }
};

struct NewKey {
  unsigned int algorithm;
  int bits;
  const void* params;  // the record that belongs to the algorithm
  unsigned int type;
};
}  // namespace

static int MakeTemporary(const NewKey& request, Keypair** out) {
  if (request.algorithm == ALGORITHM_RSA) {
    // A negative size turns into one that is refused as too large.
    return GenerateTempRSAKeypair(static_cast<unsigned int>(request.bits),
                                  static_cast<const RSAKeypairParams*>(request.params),
                                  request.type, out);
  }
  const Computing computing;
  const auto* params = static_cast<const ECCKeypairParams*>(request.params);
  return GenerateTempECCKeypair(params->curve, request.bits, static_cast<int>(request.type), out);
}

static int CheckStorable(const Device* device, unsigned int type, const char* label) {
  const int room = CheckNameAndRoom(device, type, label);
  return room == VAKRO_OK ? CheckPinAndLabel(device, label) : room;
}

// Nobody waits for prime numbers: the key is made while no lock is held. What allowed it may be
// gone when it is there (the PIN, the room, the label), so that is looked at again. The caller's
// handle may be gone, too; a reference of our own keeps the device meanwhile.
static int MakeStored(Device* device, const NewKey& request, const char* label, Keypair** out) {
  {
    const ModuleLock lock;
    if (!lock.held) return VAKRO_FAILED;
    const int allowed = CheckStorable(device, request.type, label);
    if (allowed != VAKRO_OK) return allowed;
    AddReferences(device, 1);
  }
  Keypair* made = nullptr;
  const int result = MakeTemporary(request, &made);
  OwnedKeypair keypair(made);
  const ModuleLock lock;
  const BorrowedDevice borrowed = {device, lock.held};
  if (result != VAKRO_OK) return result;
  if (!lock.held) return VAKRO_FAILED;
  const int allowed = CheckStorable(device, request.type, label);
  if (allowed != VAKRO_OK) return allowed;
  return StoreKeypair(device, std::move(keypair), label, out);
}

int DeviceGenerateKeypair(Device* device, unsigned int algorithm, int bits, const void* parameters,
                          unsigned int type, const char* label, Keypair** out) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_FAILED;
  bool temporary = false;
  switch (algorithm) {
    case ALGORITHM_RSA:
      temporary = IsGenerateTempRSAKeypair(static_cast<const RSAKeypairParams*>(parameters)) != 0;
      break;
    case ALGORITHM_ECC: {
      const auto* params = static_cast<const ECCKeypairParams*>(parameters);
      if (params == nullptr || checkCurveBits(params->curve, bits) != 1) return VAKRO_FAILED;
      temporary = params->temporary != 0;
      break;
    }
    default:
      return VAKRO_NOT_SUPPORTED;
  }
  if (out == nullptr) return VAKRO_FAILED;
  const NewKey request = {algorithm, bits, parameters, type};
  if (temporary) return MakeTemporary(request, out);
  return label == nullptr ? VAKRO_FAILED : MakeStored(device, request, label, out);
}
