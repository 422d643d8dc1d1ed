// SM2 ciphertexts: what does not decrypt leaves an output of zeros. An input that is too short for
// a ciphertext is a plaintext instead: what the module encrypts, it decrypts.
#include "fuzz/fuzz.h"
#include "sm2/sm2.h"

static DeviceHandle OpenDevice() {
  const World world(StoredDevice{.keypairs = {StoredKeypair{.key = &TestSm2()}.Json()}}.File());
  DeviceHandle device = world.Load();
  DEMAND(device && DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr) == 1);
  return device;
}

// Decrypts into a buffer that is full of marks, of exactly the needed size.
static int Decrypt(Keypair* keypair, const unsigned char* data, int length, std::string& out) {
  int needed = 0;
  const int asked = DevicePrivateKeyDecrypt(keypair, ALGORITHM_SM2_ENCRYPT, nullptr, data, length,
                                            nullptr, 0, &needed);
  DEMAND(asked == (length > SM2_CIPHER_OVERHEAD ? VAKRO_OK : VAKRO_FAILED));
  out.assign(static_cast<size_t>(needed), '\xa5');
  int written = 0;
  return DevicePrivateKeyDecrypt(keypair, ALGORITHM_SM2_ENCRYPT, nullptr, data, length,
                                 reinterpret_cast<unsigned char*>(out.data()), needed, &written);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const DeviceHandle device = OpenDevice();
  static const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
  static const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
  const int length = static_cast<int>(size);
  std::string out;
  const int result = Decrypt(keypair.get(), data, length, out);
  DEMAND(result == VAKRO_OK || result == VAKRO_FAILED);
  if (result != VAKRO_OK) DEMAND(out == std::string(out.size(), '\0'));

  if (size == 0 || length > SM2_CIPHER_OVERHEAD) return 0;
  std::string ciphertext(size + SM2_CIPHER_OVERHEAD, '\0');
  int written = 0;
  DEMAND(DevicePublicKeyEncrypt(key.get(), ALGORITHM_SM2_ENCRYPT, nullptr, data, length,
                                reinterpret_cast<unsigned char*>(ciphertext.data()),
                                Len(ciphertext), &written) == 1);
  DEMAND(written == Len(ciphertext));
  DEMAND(Decrypt(keypair.get(), Raw(ciphertext), Len(ciphertext), out) == 1);
  DEMAND(out == View(data, size));
  return 0;
}
