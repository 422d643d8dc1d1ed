// Public-key encodings: what is imported exports as the same bytes and can be used. What the crypto
// library decodes, it encodes as the same bytes.
#include "fuzz/fuzz.h"

static void CheckEcc(const unsigned char* data, int length) {
  int curve = 0;
  unsigned char *x = nullptr, *y = nullptr, *again = nullptr;
  int xLen = 0, yLen = 0, againLen = 0;
  if (VakroPKICryptoDecodeECCPubKey(data, length, &curve, &x, &xLen, &y, &yLen) != 1) return;
  const LibBytes ownedX(x), ownedY(y);
  DEMAND(VakroPKICryptoEncodeECCPubKey(curve, x, xLen, y, yLen, &again, &againLen) == 1);
  const LibBytes owned(again);
  DEMAND(View(again, static_cast<size_t>(againLen)) == View(data, static_cast<size_t>(length)));
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  CheckEcc(data, static_cast<int>(size));
  const World world;
  PublicKey* key = nullptr;
  const int result = DeviceImportPublicKey(nullptr, data, static_cast<int>(size), &key);
  const PublicHandle owned(key);
  DEMAND(result == (key != nullptr ? VAKRO_OK : VAKRO_FAILED));
  if (key == nullptr) return 0;
  std::string exported(size, '\0');
  int length = 0;
  DEMAND(DeviceExportPublicKey(key, reinterpret_cast<unsigned char*>(exported.data()),
                               Len(exported), &length) == 1);
  DEMAND(exported == View(data, size) && length == Len(exported));
  DEMAND(DeviceGetPublicKeyBits(key) > 0);
  UsePublicKey(key);
  return 0;
}
