// The authenticated cipher, AES-256-GCM (NIST SP 800-38D). Deciphering gathers the ciphertext and
// does all its work in the final step, so that no plaintext exists before the tag can be checked.
#include "platform/crypto/crypto.h"

#include <limits.h>
#include <string.h>

static constexpr int KEY_LEN = 32;
static constexpr int TAG_LEN = 16;
static constexpr int MAX_NONCE_LEN = 64;

struct VakroPKICryptoCipher {
  EVP_CIPHER_CTX* context;  // EVP_CIPHER_CTX_free; NULL after the final step
  int encrypt;
  // Deciphering: the ciphertext and tag so far.
  unsigned char* gathered;  // vakro_free
  int gatheredLen;
  int capacity;
};

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>>;

static bool AreParams(const AEADParams* params) {
  return params != nullptr && params->tagLen == TAG_LEN && params->nonce != nullptr &&
         params->nonceLen >= 1 && params->nonceLen <= MAX_NONCE_LEN && params->aadLen >= 0 &&
         params->aadLen <= INT_MAX && AreBytes(params->aad, static_cast<int>(params->aadLen));
}

static bool Start(EVP_CIPHER_CTX* context, int encrypt, const unsigned char* key,
                  const AEADParams* params) {
  int length = 0;
  return EVP_CipherInit_ex(context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr, encrypt) == 1 &&
         EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, params->nonceLen, nullptr) == 1 &&
         EVP_CipherInit_ex(context, nullptr, nullptr, key, params->nonce, encrypt) == 1 &&
         (params->aadLen == 0 || EVP_CipherUpdate(context, nullptr, &length, params->aad,
                                                  static_cast<int>(params->aadLen)) == 1);
}

VakroPKICryptoCipher* VakroPKICryptoNewCipher(VakroPKICryptoDevice* device, int encrypt,
                                              int algorithm, const unsigned char* key,
                                              int keyLength, const AEADParams* params) {
  if (device == nullptr || (encrypt != 0 && encrypt != 1)) return nullptr;
  if (algorithm != VAKRO_CIPHER_AES256_GCM || !AreParams(params)) return nullptr;
  if (key == nullptr || keyLength != KEY_LEN) return nullptr;
  CipherContext context(EVP_CIPHER_CTX_new());
  if (!context || !Start(context.get(), encrypt, key, params)) return nullptr;
  auto cipher = NewArray<VakroPKICryptoCipher>(1);
  if (!cipher) return nullptr;
  cipher[0] = {context.release(), encrypt, nullptr, 0, 0};
  return cipher.release();
}

// GCM pads nothing; the mode says so.
int VakroPKICryptoCipherSetPadding(VakroPKICryptoCipher* cipher, int padding) {
  return cipher != nullptr && cipher->context != nullptr && padding == VAKRO_PADDING_NONE ? 1 : 0;
}

// Makes room for `more` bytes behind what is gathered.
static bool Reserve(VakroPKICryptoCipher* cipher, int more) {
  const int used = cipher->gatheredLen;
  if (more <= cipher->capacity - used) return true;
  if (more > INT_MAX - used) return false;
  const int doubled = cipher->capacity <= INT_MAX / 2 ? 2 * cipher->capacity : INT_MAX;
  const int capacity = used + more > doubled ? used + more : doubled;
  Bytes grown = NewArray<unsigned char>(static_cast<size_t>(capacity));
  if (!grown) return false;
  if (used > 0) memcpy(grown.get(), cipher->gathered, static_cast<size_t>(used));
  vakro_free(std::exchange(cipher->gathered, grown.release()));
  cipher->capacity = capacity;
  return true;
}

static int Gather(VakroPKICryptoCipher* cipher, const unsigned char* input, int inputLength,
                  unsigned char** output, int* outputLength) {
  Bytes nothing = NewArray<unsigned char>(0);
  if (!nothing || !Reserve(cipher, inputLength)) return 0;
  if (inputLength > 0)
    memcpy(cipher->gathered + cipher->gatheredLen, input, static_cast<size_t>(inputLength));
  cipher->gatheredLen += inputLength;
  return HandOut(nothing, 0, output, outputLength);
}

int VakroPKICryptoCipherUpdate(VakroPKICryptoCipher* cipher, const unsigned char* input,
                               int inputLength, unsigned char** output, int* outputLength) {
  if (cipher == nullptr || cipher->context == nullptr || !AreBytes(input, inputLength)) return 0;
  if (output == nullptr || outputLength == nullptr) return 0;
  if (cipher->encrypt == 0) return Gather(cipher, input, inputLength, output, outputLength);
  Bytes result = NewArray<unsigned char>(static_cast<size_t>(inputLength));
  int length = 0;
  if (!result) return 0;
  if (inputLength > 0 &&
      EVP_EncryptUpdate(cipher->context, result.get(), &length, input, inputLength) != 1)
    return 0;
  return HandOut(result, static_cast<size_t>(length), output, outputLength);
}

static int FinishEncrypt(EVP_CIPHER_CTX* context, unsigned char** output, int* outputLength) {
  Bytes tag = NewArray<unsigned char>(TAG_LEN);
  int length = 0;
  if (!tag || EVP_EncryptFinal_ex(context, tag.get(), &length) != 1 ||
      EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, TAG_LEN, tag.get()) != 1)
    return 0;
  return HandOut(tag, TAG_LEN, output, outputLength);
}

static int FinishDecrypt(EVP_CIPHER_CTX* context, unsigned char* input, int inputLength,
                         unsigned char** output, int* outputLength) {
  if (inputLength < TAG_LEN) return 0;
  const int textLen = inputLength - TAG_LEN;
  SecretBytes text = NewSecret(static_cast<size_t>(textLen));
  int length = 0;
  if (!text) return 0;
  if (textLen > 0 && EVP_DecryptUpdate(context, text.get(), &length, input, textLen) != 1) return 0;
  if (EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, TAG_LEN, input + textLen) != 1 ||
      EVP_DecryptFinal_ex(context, text.get() + length, &length) != 1)
    return 0;
  return HandOut(text, static_cast<size_t>(textLen), output, outputLength);
}

int VakroPKICryptoCipherFinal(VakroPKICryptoCipher* cipher, unsigned char** output,
                              int* outputLength) {
  if (cipher == nullptr || cipher->context == nullptr) return 0;
  if (output == nullptr || outputLength == nullptr) return 0;
  const CipherContext context(std::exchange(cipher->context, nullptr));
  if (cipher->encrypt == 1) return FinishEncrypt(context.get(), output, outputLength);
  return FinishDecrypt(context.get(), cipher->gathered, cipher->gatheredLen, output, outputLength);
}

void VakroPKICryptoFreeCipher(VakroPKICryptoCipher* cipher) {
  if (cipher == nullptr) return;
  EVP_CIPHER_CTX_free(cipher->context);
  vakro_free(cipher->gathered);
  vakro_free(cipher);
}
