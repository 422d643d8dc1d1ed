// Device files and key encodings made byte by byte, through OpenSSL alone: nothing here calls the
// code under test. Bytes travel as std::string.
#ifndef VAKRO_TESTS_DEVICE_FILE_H
#define VAKRO_TESTS_DEVICE_FILE_H

#include <openssl/evp.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

inline constexpr char PIN[] = "a good PIN";
inline constexpr unsigned int TAG = 0x01020304;

inline const unsigned char* Raw(std::string_view bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}
inline int Len(std::string_view bytes) { return static_cast<int>(bytes.size()); }
std::string Word(unsigned int value);  // big-endian
std::string Hex(std::string_view bytes);
std::string Unhex(std::string_view digits);
std::string Digest(const char* name, std::string_view bytes);  // OpenSSL's name of the hash

// --- Keys: fixed ones, and their encodings ---

struct TestKey {
  EVP_PKEY* key;          // OpenSSL's own kind, SM2 included
  std::string pair;       // the keypair encoding
  std::string publicKey;  // the public-key encoding
};
const TestKey& TestRsa();  // 2048 bits
const TestKey& TestP256();
const TestKey& TestSm2();

std::string SelfSigned(EVP_PKEY* key);  // an X.509 certificate, DER

// PKCS5_PBKDF2_HMAC, which is slow on purpose: the key of a PIN and a salt is derived once.
int Derive(const char* pin, int pinLength, const unsigned char* salt, int saltLength, int rounds,
           const EVP_MD* hash, int length, unsigned char* key);

// Seal is the protection of private keys under TAG: PBKDF2 and AES-256-GCM. It has no chance in it,
// so a blob is right when sealing what it must hold gives the same.
std::string Seal(std::string_view plain, std::string_view pin, std::string_view salt,
                 std::string_view iv);

// --- The text: JSON as plain strings ---

std::string Array(const std::vector<std::string>& items);

struct StoredKeypair {
  std::string label = "sign";
  long type = 1;
  const TestKey* key = &TestP256();
  std::vector<std::string> certs = {};  // their bytes
  std::string pin = PIN;
  std::string salt = std::string(32, 's');
  std::string iv = std::string(16, 'i');
  std::string Json() const;
};

struct StoredDevice {
  std::string serialNumber = "0123456789";
  std::string label = "abc";
  std::vector<std::string> keypairs = {StoredKeypair().Json()};
  std::string Json() const;
  std::string File(unsigned int tag = TAG) const;
};

// --- The container ---

std::string Container(unsigned int tag, std::string_view json);
std::string TextOf(std::string_view file);  // the JSON of a container

// Replaced puts `to` in the place of the first `from`, which must be there. Flipped changes bits of
// one byte.
std::string Replaced(std::string text, std::string_view from, std::string_view to);
std::string Flipped(std::string_view file, size_t at, unsigned char bits = 1);

// --- Files in tests/data/ ---

// A line that is no comment, and where it stands: "sm2.txt:12".
struct Row {
  std::string text, at;
};
std::vector<Row> ReadRows(const std::string& name);
// The value of a "name = hex" line, which must be there.
std::string ReadVector(const std::string& file, const std::string& name);

#endif
