#include "tests/support/device_file.h"

#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <algorithm>
#include <fstream>
#include <stdexcept>

// The builders run on good input only: a failure is a broken test program.
static void Must(bool good, const std::string& what) {
  if (!good) throw std::logic_error("test support: " + what + " failed");
}

static unsigned char* Mutable(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}

std::string Word(unsigned int value) {
  const unsigned int word = htonl(value);
  return {reinterpret_cast<const char*>(&word), sizeof(word)};
}

std::string Hex(std::string_view bytes) {
  std::string digits;
  for (const char c : bytes)
    for (const int digit : {c >> 4 & 15, c & 15}) digits += "0123456789abcdef"[digit];
  return digits;
}

std::string Unhex(std::string_view digits) {
  std::string bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
  return bytes;
}

static std::string Base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  text.resize(static_cast<size_t>(EVP_EncodeBlock(Mutable(text), Raw(bytes), Len(bytes))));
  return text;
}

std::string Digest(const char* name, std::string_view bytes) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  size_t length = 0;
  Must(EVP_Q_digest(nullptr, name, nullptr, bytes.data(), bytes.size(), Mutable(digest), &length),
       name);
  return digest.substr(0, length);
}

static TestKey LoadKey(const std::string& name) {
  FILE* file = fopen((TEST_DATA_DIR "/" + name + ".pem").c_str(), "rb");
  EVP_PKEY* pem = file == nullptr ? nullptr : PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
  Must(pem != nullptr && fclose(file) == 0, "PEM");
  return {pem, ReadVector("keys.txt", name + "_pair"), ReadVector("keys.txt", name + "_public")};
}

static const TestKey* Keys() {
  static const TestKey keys[] = {LoadKey("rsa2048"), LoadKey("p256"), LoadKey("sm2")};
  return keys;
}
const TestKey& TestRsa() { return Keys()[0]; }
const TestKey& TestP256() { return Keys()[1]; }
const TestKey& TestSm2() { return Keys()[2]; }

std::string SelfSigned(EVP_PKEY* key) {
  X509* const made = X509_new();
  X509_NAME* const name = X509_get_subject_name(made);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, Raw("own"), 3, -1, 0);
  X509_set_issuer_name(made, name);
  X509_gmtime_adj(X509_getm_notBefore(made), 0);
  X509_gmtime_adj(X509_getm_notAfter(made), 86400);
  X509_set_pubkey(made, key);
  Must(X509_sign(made, key, EVP_sha256()) > 0, "X509_sign");
  std::string der(static_cast<size_t>(i2d_X509(made, nullptr)), '\0');
  unsigned char* at = Mutable(der);
  i2d_X509(made, &at);
  X509_free(made);
  return der;
}

int Derive(const char* pin, int pinLength, const unsigned char* salt, int saltLength, int rounds,
           const EVP_MD* hash, int length, unsigned char* key) {
  thread_local std::map<std::pair<std::string, std::string>, std::string> keys;
  if (keys.size() > 100000) keys.clear();
  const auto parameters = Word(static_cast<unsigned int>(rounds)) +
                          Word(static_cast<unsigned int>(length)) + EVP_MD_get0_name(hash);
  std::string& known =
      keys[{{pin, pin + pinLength}, std::string(salt, salt + saltLength) + parameters}];
  if (known.empty() &&
      PKCS5_PBKDF2_HMAC(pin, pinLength, salt, saltLength, rounds, hash, length, key) == 1)
    known.assign(key, key + length);
  std::copy(known.begin(), known.end(), key);
  return known.empty() ? 0 : 1;
}

std::string Seal(std::string_view plain, std::string_view pin, std::string_view salt,
                 std::string_view iv) {
  std::string material(40, '\0');
  Must(Derive(pin.data(), Len(pin), Raw(salt), Len(salt), 2000, EVP_sha512(), 40,
              Mutable(material)) == 1,
       "PBKDF2");
  const std::string nonce = material.substr(32) + std::string(iv);
  const std::string aad = Word(TAG) + "password";
  std::string sealed(plain.size() + 16, '\0');
  unsigned char* mac = Mutable(sealed) + plain.size();
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int n = 0;
  Must(EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, Len(nonce), nullptr) == 1 &&
           EVP_EncryptInit_ex(context, nullptr, nullptr, Raw(material), Raw(nonce)) == 1 &&
           EVP_EncryptUpdate(context, nullptr, &n, Raw(aad), Len(aad)) == 1 &&
           EVP_EncryptUpdate(context, Mutable(sealed), &n, Raw(plain), Len(plain)) == 1 &&
           EVP_EncryptFinal_ex(context, mac, &n) == 1 &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, mac) == 1,
       "AES-GCM");
  EVP_CIPHER_CTX_free(context);
  return sealed;
}

static std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string Array(const std::vector<std::string>& items) {
  std::string text = "[";
  for (const std::string& item : items) text += (text.size() > 1 ? "," : "") + item;
  return text + "]";
}

std::string StoredKeypair::Json() const {
  std::vector<std::string> list;
  for (const std::string& cert : certs) list.push_back(Quoted(Base64(cert)));
  const std::string algorithm = EVP_PKEY_is_a(key->key, "RSA") == 1 ? "1" : "4";
  return Array({Quoted(label), std::to_string(type), algorithm,
                std::to_string(EVP_PKEY_get_bits(key->key)), Quoted(Hex(salt)), Quoted(Hex(iv)),
                Quoted(Hex(key->publicKey)), Quoted(Hex(Seal(key->pair, pin, salt, iv))),
                Array(list)});
}

std::string StoredDevice::Json() const {
  return Array({Quoted(serialNumber), Quoted(label), Array(keypairs)});
}

std::string StoredDevice::File(unsigned int tag) const { return Container(tag, Json()); }

std::string Container(unsigned int tag, std::string_view json) {
  const auto length = static_cast<unsigned int>(json.size());
  return Word(tag) + Word(length) + std::string(json) + Digest("SHA512", json);
}

std::string TextOf(std::string_view file) {
  return file.size() < 72 ? std::string() : std::string(file.substr(8, file.size() - 72));
}

std::string Replaced(std::string text, std::string_view from, std::string_view to) {
  const size_t at = text.find(from);
  Must(at != std::string::npos, "Replaced");
  return text.replace(at, from.size(), to);
}

std::string Flipped(std::string_view file, size_t at, unsigned char bits) {
  std::string changed(file);
  changed.at(at) = static_cast<char>(changed.at(at) ^ bits);
  return changed;
}

std::vector<Row> ReadRows(const std::string& name) {
  std::ifstream file(TEST_DATA_DIR "/" + name);
  Must(file.is_open(), name);
  std::vector<Row> rows;
  int number = 1;
  for (std::string line; std::getline(file, line); number++)
    if (!line.empty() && line[0] != '#')
      rows.push_back({line, name + ":" + std::to_string(number)});
  return rows;
}

std::string ReadVector(const std::string& file, const std::string& name) {
  for (const Row& row : ReadRows(file))
    if (row.text.starts_with(name + " = ")) return Unhex(row.text.substr(name.size() + 3));
  Must(false, file + ": finding " + name);
  return "";
}
