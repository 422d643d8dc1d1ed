#include "tests/support/device_file.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <stdio.h>
#include <stdlib.h>
#include <fstream>
#include <sstream>

// The builders run on good input only: a failure is a broken test program.
static void Must(bool good, const char* what) {
  if (good) return;
  fprintf(stderr, "test support: %s failed\n", what);
  abort();
}

static unsigned char* Mutable(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}

std::string Word(unsigned int value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string Hex(std::string_view bytes) {
  std::string digits;
  for (const char c : bytes) {
    digits += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
    digits += "0123456789abcdef"[c & 15];
  }
  return digits;
}

std::string Unhex(std::string_view digits) {
  std::string bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
  return bytes;
}

std::string Base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  text.resize(static_cast<size_t>(EVP_EncodeBlock(Mutable(text), Raw(bytes), Len(bytes))));
  return text;
}

std::string Digest(const char* name, std::string_view bytes) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  size_t length = 0;
  Must(EVP_Q_digest(nullptr, name, nullptr, bytes.data(), bytes.size(), Mutable(digest), &length),
       name);
  digest.resize(length);
  return digest;
}

static std::string Number(EVP_PKEY* key, const char* name, int length) {
  BIGNUM* number = nullptr;
  std::string bytes(static_cast<size_t>(length), '\0');
  Must(EVP_PKEY_get_bn_param(key, name, &number) == 1 &&
           BN_bn2binpad(number, Mutable(bytes), length) == length,
       name);
  BN_free(number);
  return bytes;
}

template <class Encoder>
static std::string Der(EVP_PKEY* key, Encoder encode) {
  unsigned char* der = nullptr;
  const int length = encode(key, &der);
  Must(length > 0, "DER");
  std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return bytes;
}

static std::string Part(std::string_view bytes) {
  return Word(static_cast<unsigned int>(bytes.size())) + std::string(bytes);
}

std::string EccPublic(int curve, std::string_view x, std::string_view y) {
  return "_PUBKEY_" + Word(4) + Word(static_cast<unsigned int>(curve)) + Part(x) + Part(y);
}

std::string EccPair(int curve, std::string_view x, std::string_view y, std::string_view d) {
  return "_KEYPAIR" + EccPublic(curve, x, y).substr(8) + Part(d);
}

static TestKey LoadKey(const char* name, int curve) {
  FILE* file = fopen(DataFile(name).c_str(), "rb");
  Must(file != nullptr, name);
  EVP_PKEY* pem = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
  Must(fclose(file) == 0 && pem != nullptr, name);
  TestKey key = {curve == 0 ? 1 : 4, EVP_PKEY_get_bits(pem), curve, pem, {}, {}, {}, {}};
  if (curve == 0) {
    key.pair = "_KEYPAIR" + Word(1) + Der(pem, i2d_PrivateKey);
    key.publicKey = "_PUBKEY_" + Word(1) + Der(pem, i2d_PublicKey);
    return key;
  }
  const std::string x = Number(pem, OSSL_PKEY_PARAM_EC_PUB_X, 32);
  const std::string y = Number(pem, OSSL_PKEY_PARAM_EC_PUB_Y, 32);
  key.scalar = Number(pem, OSSL_PKEY_PARAM_PRIV_KEY, 32);
  key.point = '\x04' + x + y;
  key.pair = EccPair(curve, x, y, key.scalar);
  key.publicKey = EccPublic(curve, x, y);
  return key;
}

const TestKey& TestRsa() {
  static const TestKey key = LoadKey("rsa2048.pem", 0);
  return key;
}
const TestKey& TestP256() {
  static const TestKey key = LoadKey("p256.pem", 3);
  return key;
}
const TestKey& TestSm2() {
  static const TestKey key = LoadKey("sm2.pem", 7);
  return key;
}

// One run of AES-256-GCM: `input` is the plaintext, or ciphertext and tag.
static std::string Cipher(bool seal, std::string_view input, std::string_view pin,
                          std::string_view salt, std::string_view iv, unsigned int tag) {
  std::string material(40, '\0');
  Must(PKCS5_PBKDF2_HMAC(pin.data(), Len(pin), Raw(salt), Len(salt), 2000, EVP_sha512(), 40,
                         Mutable(material)) == 1,
       "PBKDF2");
  const std::string nonce = material.substr(32) + std::string(iv);
  const std::string aad = Word(tag) + "password";
  const size_t length = seal ? input.size() : input.size() - 16;
  std::string output(length, '\0');
  std::string mac(seal ? std::string(16, '\0') : std::string(input.substr(length)));
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int n = 0;
  Must(
      EVP_CipherInit_ex(context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr, seal) == 1 &&
          EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, Len(nonce), nullptr) == 1 &&
          EVP_CipherInit_ex(context, nullptr, nullptr, Raw(material), Raw(nonce), seal) == 1 &&
          EVP_CipherUpdate(context, nullptr, &n, Raw(aad), Len(aad)) == 1 &&
          EVP_CipherUpdate(context, Mutable(output), &n, Raw(input), static_cast<int>(length)) == 1,
      "AES-GCM");
  if (!seal) EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, 16, mac.data());
  const bool final = EVP_CipherFinal_ex(context, Mutable(output), &n) == 1;
  if (seal) EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, mac.data());
  EVP_CIPHER_CTX_free(context);
  if (seal) return output + mac;
  return final ? output : std::string();
}

std::string Seal(std::string_view plain, std::string_view pin, std::string_view salt,
                 std::string_view iv, unsigned int tag) {
  return Cipher(true, plain, pin, salt, iv, tag);
}

std::string Open(std::string_view blob, std::string_view pin, std::string_view salt,
                 std::string_view iv, unsigned int tag) {
  return blob.size() < 16 ? std::string() : Cipher(false, blob, pin, salt, iv, tag);
}

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string Array(const std::vector<std::string>& items) {
  std::string text = "[";
  for (const std::string& item : items) text += (text.size() > 1 ? "," : "") + item;
  return text + "]";
}

std::string StoredKeypair::Json() const {
  std::vector<std::string> list;
  for (const std::string& cert : certs) list.push_back(Quoted(Base64(cert)));
  return Array({Quoted(label), std::to_string(type), std::to_string(key->algorithm),
                std::to_string(key->bits), Quoted(Hex(salt)), Quoted(Hex(iv)),
                Quoted(Hex(key->publicKey)), Quoted(Hex(Seal(key->pair, pin, salt, iv, tag))),
                Array(list)});
}

std::string StoredData(int id, std::string_view value) {
  return Array({std::to_string(id), std::to_string(value.size()), "0", "0", Quoted(Hex(value))});
}

std::string StoredDevice::Json() const {
  std::vector<std::string> root = {Quoted(serialNumber), Quoted(label), Array(keypairs)};
  root.insert(root.end(), more.begin(), more.end());
  return Array(root);
}

std::string StoredDevice::File(unsigned int tag) const { return Container(tag, Json()); }

std::string Container(unsigned int tag, std::string_view json) {
  return Word(tag) + Part(json) + Digest("SHA512", json);
}

std::string TextOf(std::string_view file) {
  return file.size() < 72 ? std::string() : std::string(file.substr(8, file.size() - 72));
}

std::string Swapped(std::string_view file, std::string_view from, std::string_view to) {
  std::string text = TextOf(file);
  const size_t at = text.find(from);
  Must(at != std::string::npos, "Swapped");
  return std::string(file.substr(0, 4)) + Container(0, text.replace(at, from.size(), to)).substr(4);
}

std::string Flipped(std::string_view file, size_t at, unsigned char bits) {
  std::string changed(file);
  changed.at(at) = static_cast<char>(changed.at(at) ^ bits);
  return changed;
}

std::string DataFile(const char* name) { return std::string(TEST_DATA_DIR "/") + name; }

std::map<std::string, std::string> ReadVectors(const char* name) {
  std::ifstream file(DataFile(name));
  Must(file.is_open(), name);
  std::map<std::string, std::string> vectors;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string key, equals, hex;
    if (words >> key >> equals >> hex) vectors[key] = Unhex(hex);
  }
  return vectors;
}
