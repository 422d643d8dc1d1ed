// Keypair encodings: a refused one changes neither device nor file; an imported one can be used,
// and the device file still loads and opens with the PIN. What the crypto library decodes, it
// encodes as the same bytes.
#include "fuzz/fuzz.h"

static void CheckEcc(const unsigned char* data, int length) {
  int curve = 0;
  unsigned char *x = nullptr, *y = nullptr, *d = nullptr, *again = nullptr;
  int xLen = 0, yLen = 0, dLen = 0, againLen = 0;
  if (VakroPKICryptoDecodeECCKeyPair(data, length, &curve, &x, &xLen, &y, &yLen, &d, &dLen) != 1)
    return;
  const LibBytes ownedX(x), ownedY(y), ownedD(d);
  DEMAND(VakroPKICryptoEncodeECCKeyPair(curve, x, xLen, y, yLen, d, dLen, &again, &againLen) == 1);
  const LibBytes owned(again);
  DEMAND(View(again, static_cast<size_t>(againLen)) == View(data, static_cast<size_t>(length)));
}

static void CheckRsa(const unsigned char* data, int length) {
  unsigned char *der = nullptr, *again = nullptr;
  int derLen = 0, againLen = 0;
  if (VakroPKICryptoRSAPrivKeyToDER(data, length, &der, &derLen) != 1) return;
  const LibBytes ownedDer(der);
  DEMAND(VakroPKICryptoRSAPrivKeyFromDER(der, derLen, &again, &againLen) == 1);
  const LibBytes owned(again);
  DEMAND(View(again, static_cast<size_t>(againLen)) == View(data, static_cast<size_t>(length)));
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  CheckEcc(data, static_cast<int>(size));
  CheckRsa(data, static_cast<int>(size));
  static const std::string file = StoredDevice{.keypairs = {}}.File();
  const World world(file);
  const DeviceHandle device = world.Load();
  DEMAND(device && DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr) == 1);
  Keypair* keypair = nullptr;
  const int result =
      DeviceImportKeypair(device.get(), data, static_cast<int>(size), 1, "fuzz", &keypair);
  const KeypairHandle owned(keypair);
  if (result != VAKRO_OK) {
    DEMAND(result == VAKRO_FAILED || result == VAKRO_NOT_SUPPORTED);
    DEMAND(keypair == nullptr && device->keypairCount == 0 && world.Read() == file);
    return 0;
  }
  DEMAND(keypair != nullptr && device->keypairCount == 1 && device->keypairs[0] == keypair);
  UsePrivateKey(keypair);
  const DeviceHandle again = world.Load();
  DEMAND(again && Summary(*again) == Summary(*device));
  DEMAND(DeviceVerifyPwd(again.get(), PIN_TYPE_USER, PIN, nullptr) == 1);
  return 0;
}
