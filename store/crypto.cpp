// Hash, MAC and cipher in one call each, on the software device. Every call makes its own object.
#include "core/secret.h"
#include "store/store.h"

#include <limits.h>

static bool FitsInt(unsigned int length) { return length <= INT_MAX; }

int CalculateHash(unsigned int algorithm, const unsigned char* data, unsigned int length,
                  unsigned char** digest, unsigned int* digestLength) {
  if (!FitsInt(length)) return 0;
  const HashObject hash(VakroPKICryptoNewHash(g_hSoftDevice, static_cast<int>(algorithm)));
  if (!hash) return 0;
  if (VakroPKICryptoHashUpdate(hash.get(), data, static_cast<int>(length)) != 1) return 0;
  unsigned char* value = nullptr;
  int valueLength = 0;
  const int finished = VakroPKICryptoHashFinal(hash.get(), &value, &valueLength);
  if (finished != 1) return finished;
  *digest = value;
  *digestLength = static_cast<unsigned int>(valueLength);
  return 1;
}

int CalculateMac(unsigned int algorithm, const unsigned char* key, unsigned int keyLength,
                 const unsigned char* data, unsigned int dataLength, unsigned char* mac,
                 unsigned int* macLength) {
  if (!FitsInt(keyLength) || !FitsInt(dataLength)) return 0;
  const MacObject object(VakroPKICryptoNewMac(g_hSoftDevice, static_cast<int>(algorithm), key,
                                              static_cast<int>(keyLength), nullptr));
  if (!object) return 0;
  if (VakroPKICryptoMacUpdate(object.get(), data, static_cast<int>(dataLength)) != 1) return 0;
  unsigned char* raw = nullptr;
  int length = 0;
  if (VakroPKICryptoMacFinal(object.get(), &raw, &length) != 1) return 0;
  const LibBytes value(raw);
  if (length > 0) memcpy(mac, value.get(), static_cast<size_t>(length));
  *macLength = static_cast<unsigned int>(length);
  return 1;
}

int CalculateCipher(int encrypt, unsigned int algorithm, const unsigned char* key,
                    unsigned int keyLength, const unsigned char* input, unsigned int inputLength,
                    unsigned char* output, unsigned int* outputLength, const AEADParams* params) {
  if (!FitsInt(keyLength) || !FitsInt(inputLength)) return 0;
  const CipherObject cipher(VakroPKICryptoNewCipher(g_hSoftDevice, encrypt,
                                                    static_cast<int>(algorithm), key,
                                                    static_cast<int>(keyLength), params));
  if (!cipher) return 0;
  if (VakroPKICryptoCipherSetPadding(cipher.get(), VAKRO_PADDING_NONE) != 1) return 0;

  unsigned char* raw = nullptr;
  int rawLength = 0;
  if (VakroPKICryptoCipherUpdate(cipher.get(), input, static_cast<int>(inputLength), &raw,
                                 &rawLength) != 1)
    return 0;
  const SecretLibBytes updated(raw, static_cast<size_t>(rawLength));
  raw = nullptr;
  rawLength = 0;
  if (VakroPKICryptoCipherFinal(cipher.get(), &raw, &rawLength) != 1) return 0;
  const SecretLibBytes rest(raw, static_cast<size_t>(rawLength));

  if (updated.length + rest.length > size_t{inputLength} + CIPHER_SLACK) return 0;
  if (updated.length > 0) memcpy(output, updated.bytes, updated.length);
  if (rest.length > 0) memcpy(output + updated.length, rest.bytes, rest.length);
  *outputLength = static_cast<unsigned int>(updated.length + rest.length);
  return 1;
}
