// The algorithm support query.
#include "device/device.h"
#include "sm2/sm2.h"

namespace {
// A key operation and the class that it is asked for under.
struct Operation {
  int algorithm;
  int cls;
  bool sm2;  // only with the SM2 group
};
}  // namespace

static constexpr Operation OPERATIONS[] = {
    {ALGORITHM_RSA_PKCS1_ENCRYPT, ALGORITHM_CLASS_ENCRYPT, false},
    {ALGORITHM_RSA_RAW_ENCRYPT, ALGORITHM_CLASS_ENCRYPT, false},
    {ALGORITHM_SM2_ENCRYPT, ALGORITHM_CLASS_ENCRYPT, true},
    {ALGORITHM_RSA_PKCS1_SIGN, ALGORITHM_CLASS_SIGN, false},
    {ALGORITHM_RSA_RAW_SIGN, ALGORITHM_CLASS_SIGN, false},
    {ALGORITHM_ECDSA_SIGN, ALGORITHM_CLASS_SIGN, false},
    {ALGORITHM_SM2_SIGN, ALGORITHM_CLASS_SIGN, true},
};

static bool CurveSupported(const int* curve) {
  if (curve == nullptr) return false;
  return GetECCCurveNid(*curve) > 0 || (*curve == CURVE_SM2 && g_sm2 != nullptr);
}

static bool OperationSupported(int algorithm, int cls) {
  for (const Operation& operation : OPERATIONS) {
    if (operation.algorithm == algorithm)
      return operation.cls == cls && (!operation.sm2 || g_sm2 != nullptr);
  }
  return false;
}

int DeviceIsSupportedAlgorithm2(Device* /*device*/, int algorithm, int bits, int cls,
                                const int* parameter) {
  switch (algorithm) {
    case ALGORITHM_RSA:
      return (bits == 1024 || bits == 2048 || bits == 4096) && cls == ALGORITHM_CLASS_KEYPAIR;
    case ALGORITHM_ECC:
      return CurveSupported(parameter);
    case ALGORITHM_SM2_ENCRYPT:
      if (parameter != nullptr && *parameter != SM3_HASH_ID) return 0;
      break;
    default:
      break;
  }
  return OperationSupported(algorithm, cls);
}
