// Whose item a stored one is. Nothing is decoded to memory: its want would look like a difference.
#include "store/inside.h"

static bool IsDigitOf(char digit, unsigned int value) {
  return digit == "0123456789abcdef"[value] || digit == "0123456789ABCDEF"[value];
}

static bool HexEquals(const VakroJson* value, const unsigned char* bytes, int length) {
  std::string_view text;
  if (!JsonString(value, &text) || length < 0) return false;
  const auto count = static_cast<size_t>(length);
  if (text.size() != 2 * count) return false;
  for (size_t i = 0; i < count; i++)
    if (!IsDigitOf(text[2 * i], bytes[i] >> 4) || !IsDigitOf(text[2 * i + 1], bytes[i] & 15))
      return false;
  return true;
}

bool IsItemNamed(VakroJson* item, unsigned int type, const char* label) {
  char storedLabel[NAME_SIZE];
  unsigned int storedType = 0;
  return IsArray(item) && ReadName(vakro_json_getarrayitem(item, KEYPAIR_LABEL), storedLabel) &&
         strcmp(storedLabel, label) == 0 &&
         ReadNumber(vakro_json_getarrayitem(item, KEYPAIR_TYPE), &storedType) && storedType == type;
}

bool IsItemOf(VakroJson* item, const Keypair* keypair) {
  return IsItemNamed(item, keypair->type, keypair->label) &&
         HexEquals(vakro_json_getarrayitem(item, KEYPAIR_PUBLIC_KEY), keypair->publicKey,
                   keypair->publicKeyLen);
}

bool HasBlobOf(VakroJson* item, const Keypair* keypair) {
  return HexEquals(vakro_json_getarrayitem(item, KEYPAIR_ENCRYPTED_PRIVATE_KEY),
                   keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen);
}

bool HasTwin(const Keypair* keypair) {
  const Device* device = keypair->device;
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* other = device->keypairs[i];
    if (other != keypair && other->type == keypair->type &&
        strcmp(other->label, keypair->label) == 0 && other->publicKeyLen == keypair->publicKeyLen &&
        memcmp(other->publicKey, keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)) ==
            0)
      return true;
  }
  return false;
}
