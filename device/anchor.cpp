// The anchor of a device, told from other keypairs and made.
#include "device/anchor.h"

#include "core/lock.h"
#include "core/owners.h"
#include "device/device.h"
#include "keypair/keypair.h"
#include "sm2/sm2.h"

static constexpr int ANCHOR_BITS = 256;

int IsAnchor(const Keypair* keypair) {
  const bool is = keypair->type == ANCHOR_TYPE && keypair->algorithm == ALGORITHM_ECC &&
                  strcmp(keypair->label, ANCHOR_LABEL) == 0;
  return is ? 1 : 0;
}

Keypair* FindAnchor(const Device* device) {
  for (int i = 0; i < device->keypairCount; i++)
    if (IsAnchor(device->keypairs[i])) return device->keypairs[i];
  return nullptr;
}

int AddAnchor(Device* device, const char* pin) {
  if (g_sm2 == nullptr) return VAKRO_NOT_SUPPORTED;
  if (FindAnchor(device) != nullptr) return VAKRO_ALREADY_EXISTS;
  if (device->keypairCount >= MAX_KEYPAIRS) return VAKRO_OUT_OF_RANGE;
  if (VerifyPin(device, pin) != VAKRO_OK) return VAKRO_FAILED;
  Keypair* made = nullptr;
  if (GenerateTempECCKeypair(CURVE_SM2, ANCHOR_BITS, static_cast<int>(ANCHOR_TYPE), &made) != 1)
    return VAKRO_FAILED;
  memcpy(made->label, ANCHOR_LABEL, sizeof(ANCHOR_LABEL));
  return AppendKeypair(device, made);
}

int MakeAnchor(Device* device, const char* pin) {
  if (g_sm2 == nullptr) return VAKRO_NOT_SUPPORTED;
  const int verified = DeviceVerifyPwd(device, PIN_TYPE_USER, pin, nullptr);
  if (verified != VAKRO_OK) return verified;
  static constexpr ECCKeypairParams PARAMS = {CURVE_SM2, 0};
  Keypair* made = nullptr;
  const int stored = DeviceGenerateKeypair(device, ALGORITHM_ECC, ANCHOR_BITS, &PARAMS, ANCHOR_TYPE,
                                           ANCHOR_LABEL, &made);
  if (stored == VAKRO_ALREADY_EXISTS) return VAKRO_OK;
  if (stored != VAKRO_OK) return VAKRO_FAILED;
  DeviceFreeKeypair(made);
  return VAKRO_OK;
}
