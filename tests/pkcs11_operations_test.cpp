// The operations of the PKCS #11 library, judged by OpenSSL, which has the same keys.
#include "tests/support/token.h"

#include "core/openssl_owners.h"
#include "pkcs11/mechanisms.h"

#include <openssl/asn1.h>

#include <set>

using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using MdContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;
using EcdsaSig = std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>>;

namespace {

const std::string MESSAGE(1000, 'm');

struct HashRow {
  const char* name;  // OpenSSL's
  CK_MECHANISM_TYPE hash;
  CK_RSA_PKCS_MGF_TYPE mask;
  CK_MECHANISM_TYPE pkcs, pss, ecdsa;
};
const HashRow HASHES[] = {
    {"SHA1", CKM_SHA_1, CKG_MGF1_SHA1, CKM_SHA1_RSA_PKCS, CKM_SHA1_RSA_PKCS_PSS, CKM_ECDSA_SHA1},
    {"SHA224", CKM_SHA224, CKG_MGF1_SHA224, CKM_SHA224_RSA_PKCS, CKM_SHA224_RSA_PKCS_PSS,
     CKM_ECDSA_SHA224},
    {"SHA256", CKM_SHA256, CKG_MGF1_SHA256, CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS,
     CKM_ECDSA_SHA256},
    {"SHA384", CKM_SHA384, CKG_MGF1_SHA384, CKM_SHA384_RSA_PKCS, CKM_SHA384_RSA_PKCS_PSS,
     CKM_ECDSA_SHA384},
    {"SHA512", CKM_SHA512, CKG_MGF1_SHA512, CKM_SHA512_RSA_PKCS, CKM_SHA512_RSA_PKCS_PSS,
     CKM_ECDSA_SHA512},
};

// A mechanism with its parameter, and what is the same to OpenSSL.
struct Use {
  std::string what;
  EVP_PKEY* key;
  CK_MECHANISM_TYPE type;
  std::string parameter = "";
  std::string input = MESSAGE;  // the library's
  std::string block = "";       // OpenSSL's: the digest, or the same input
  int padding = 0;
  const char* hash = nullptr;
  const char* mask = nullptr;
  int saltLen = 0;
  std::string label = "";  // of OAEP; the identifier of an SM2 user
};

template <class Parameters>
std::string AsBytes(const Parameters& parameters) {
  return {reinterpret_cast<const char*>(&parameters), sizeof(parameters)};
}

KeyContext Judge(const Use& row, int (*start)(EVP_PKEY_CTX*)) {
  KeyContext context(EVP_PKEY_CTX_new(row.key, nullptr));
  EVP_PKEY_CTX* const c = context.get();
  EXPECT_EQ(start(c), 1);
  if (row.padding == 0) return context;
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(c, row.padding), 1);
  const EVP_MD* const hash = row.hash == nullptr ? nullptr : EVP_get_digestbyname(row.hash);
  const EVP_MD* const mask = row.mask == nullptr ? nullptr : EVP_get_digestbyname(row.mask);
  if (row.padding == RSA_PKCS1_OAEP_PADDING) {
    void* const label = OPENSSL_memdup(row.label.data(), row.label.size());  // for the context
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_oaep_md(c, hash), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set0_rsa_oaep_label(c, label, Len(row.label)), 1);
  } else if (hash != nullptr) {
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(c, hash), 1);
  }
  if (mask != nullptr) {
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(c, mask), 1);
  }
  if (row.padding == RSA_PKCS1_PSS_PADDING) {
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(c, row.saltLen), 1);
  }
  return context;
}

std::string ToDer(const std::string& numbers) {
  const EcdsaSig signature(ECDSA_SIG_new());
  ECDSA_SIG_set0(signature.get(), BN_bin2bn(Raw(numbers), 32, nullptr),
                 BN_bin2bn(Raw(numbers) + 32, 32, nullptr));
  std::string der(static_cast<size_t>(i2d_ECDSA_SIG(signature.get(), nullptr)), 0);
  unsigned char* at = Bytes(der);
  i2d_ECDSA_SIG(signature.get(), &at);
  return der;
}

// OpenSSL computes the hash of an SM2 user only where it hashes the message too.
MdContext Sm2Judge(const Use& row,
                   int (*start)(EVP_MD_CTX*, EVP_PKEY_CTX**, const EVP_MD*, ENGINE*, EVP_PKEY*),
                   KeyContext& key) {
  key.reset(EVP_PKEY_CTX_new(row.key, nullptr));
  EXPECT_EQ(EVP_PKEY_CTX_set1_id(key.get(), row.label.data(), Len(row.label)), 1);
  MdContext context(EVP_MD_CTX_new());
  EVP_MD_CTX_set_pkey_ctx(context.get(), key.get());
  EXPECT_EQ(start(context.get(), nullptr, EVP_sm3(), nullptr, row.key), 1);
  return context;
}

bool OnCurve(const Use& row) { return row.padding == 0; }
bool HashesUser(const Use& row) { return row.type == VENDOR_SM2_SM3; }

bool OpensslVerifies(const Use& row, const std::string& signature) {
  const std::string made = OnCurve(row) ? ToDer(signature) : signature;
  KeyContext key;
  if (HashesUser(row))
    return EVP_DigestVerify(Sm2Judge(row, EVP_DigestVerifyInit, key).get(), Raw(made), made.size(),
                            Raw(row.input), row.input.size()) == 1;
  return EVP_PKEY_verify(Judge(row, EVP_PKEY_verify_init).get(), Raw(made), made.size(),
                         Raw(row.block), row.block.size()) == 1;
}

// Every mechanism that signs.
std::vector<Use> Signatures() {
  EVP_PKEY* const rsa = TestRsa().key;
  EVP_PKEY* const p256 = TestP256().key;
  EVP_PKEY* const sm2 = TestSm2().key;
  const std::string raw = std::string(1, 0) + std::string(255, 'r'), longest(245, 'l');
  const std::string alice = "alice@example.org", e(32, 'e');
  std::vector<Use> rows = {
      {"PKCS#1", rsa, CKM_RSA_PKCS, "", "free", "free", RSA_PKCS1_PADDING},
      {"PKCS#1, full", rsa, CKM_RSA_PKCS, "", longest, longest, RSA_PKCS1_PADDING},
      {"raw", rsa, CKM_RSA_X_509, "", raw, raw, RSA_NO_PADDING},
      {"raw, short", rsa, CKM_RSA_X_509, "", raw.substr(1), raw, RSA_NO_PADDING},
      {"SM2", sm2, VENDOR_SM2, "", e, e},
      {.what = "SM2 with SM3", .key = sm2, .type = VENDOR_SM2_SM3, .label = "1234567812345678"},
      {.what = "SM2, user", .key = sm2, .type = VENDOR_SM2_SM3, .parameter = alice, .label = alice},
  };
  for (const HashRow& hash : HASHES) {
    const std::string digest = Digest(hash.name, MESSAGE), name = hash.name;
    const int size = Len(digest);
    rows.push_back(
        {"PKCS#1 with " + name, rsa, hash.pkcs, "", MESSAGE, digest, RSA_PKCS1_PADDING, hash.name});
    rows.push_back({"ECDSA with " + name, p256, hash.ecdsa, "", MESSAGE, digest});
    rows.push_back({"ECDSA of " + name, p256, CKM_ECDSA, "", digest, digest});
    for (const int salt : {0, size, 256 - 2 - size}) {
      const HashRow& mask = salt == 0 ? HASHES[4] : hash;
      const std::string pss =
          AsBytes(CK_RSA_PKCS_PSS_PARAMS{hash.hash, mask.mask, static_cast<CK_ULONG>(salt)});
      rows.push_back({"PSS with " + name, rsa, hash.pss, pss, MESSAGE, digest,
                      RSA_PKCS1_PSS_PADDING, hash.name, mask.name, salt});
      rows.push_back({"PSS of " + name, rsa, CKM_RSA_PKCS_PSS, pss, digest, digest,
                      RSA_PKCS1_PSS_PADDING, hash.name, mask.name, salt});
    }
  }
  return rows;
}

// --- Encryption ---

// C1 || C3 || C2 without the first byte, as DER: SEQUENCE { x, y, C3, C2 }; GM/T 0009.
std::string CipherToDer(const std::string& cipher) {
  const auto item = [](int tag, const std::string& value) {
    std::string der(static_cast<size_t>(ASN1_object_size(0, Len(value), tag)), 0);
    unsigned char* at = Bytes(der);
    ASN1_put_object(&at, 0, Len(value), tag, V_ASN1_UNIVERSAL);
    std::copy(value.begin(), value.end(), der.end() - Len(value));
    return der;
  };
  const auto number = [&](size_t at) {
    size_t from = at;
    while (from < at + 31 && cipher[from] == 0) from++;
    const bool high = (cipher[from] & 0x80) != 0;
    return item(V_ASN1_INTEGER, std::string(high ? 1 : 0, 0) + cipher.substr(from, at + 32 - from));
  };
  const std::string body = number(1) + number(33) +
                           item(V_ASN1_OCTET_STRING, cipher.substr(65, 32)) +
                           item(V_ASN1_OCTET_STRING, cipher.substr(97));
  std::string der(static_cast<size_t>(ASN1_object_size(1, Len(body), V_ASN1_SEQUENCE)), 0);
  unsigned char* at = Bytes(der);
  ASN1_put_object(&at, 1, Len(body), V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
  std::copy(body.begin(), body.end(), der.end() - Len(body));
  return der;
}

// From the order of the library's mechanism to C1 || C3 || C2.
std::string Reordered(const Use& row, std::string cipher) {
  if (row.type == VENDOR_SM2_ENCRYPT)
    std::rotate(cipher.begin() + 65, cipher.end() - 32, cipher.end());
  return cipher;
}

std::string OpensslDecrypts(const Use& row, const std::string& cipher) {
  const std::string input = OnCurve(row) ? CipherToDer(Reordered(row, cipher)) : cipher;
  std::string output(4096, 0);
  size_t length = output.size();
  EXPECT_EQ(EVP_PKEY_decrypt(Judge(row, EVP_PKEY_decrypt_init).get(), Bytes(output), &length,
                             Raw(input), input.size()),
            1);
  output.resize(length);
  return output;
}

std::vector<Use> Encryptions() {
  EVP_PKEY* const rsa = TestRsa().key;
  EVP_PKEY* const sm2 = TestSm2().key;
  const std::string raw = std::string(1, 0) + std::string(255, 'r'), longest(245, 'l');
  static const std::string LABEL = "a label";  // the parameters point to it
  std::vector<Use> rows = {
      {"PKCS#1", rsa, CKM_RSA_PKCS, "", "text", "text", RSA_PKCS1_PADDING},
      {"PKCS#1, nothing", rsa, CKM_RSA_PKCS, "", "", "", RSA_PKCS1_PADDING},
      {"PKCS#1, full", rsa, CKM_RSA_PKCS, "", longest, longest, RSA_PKCS1_PADDING},
      {"raw", rsa, CKM_RSA_X_509, "", raw, raw, RSA_NO_PADDING},
      {"SM2", sm2, VENDOR_SM2_ENCRYPT, "", MESSAGE, MESSAGE},
      {"SM2, one byte", sm2, VENDOR_SM2_ENCRYPT, "", "1", "1"},
      {"SM2, the standard's order", sm2, VENDOR_SM2_ENCRYPT_C1C3C2, "", MESSAGE, MESSAGE},
  };
  for (const HashRow& hash : HASHES) {
    const HashRow& mask = HASHES[4 - (&hash - HASHES)];
    const std::string text(256 - 2 - 2 * Digest(hash.name, "").size(), 'o'), name = hash.name;
    for (const std::string& label : {std::string(), LABEL}) {
      const std::string oaep =
          AsBytes(CK_RSA_PKCS_OAEP_PARAMS{hash.hash, mask.mask, CKZ_DATA_SPECIFIED,
                                          label.empty() ? nullptr : Bytes(LABEL), label.size()});
      rows.push_back({"OAEP with " + name, rsa, CKM_RSA_PKCS_OAEP, oaep, text, text,
                      RSA_PKCS1_OAEP_PADDING, hash.name, mask.name, 0, label});
    }
  }
  return rows;
}

}  // namespace

// --- The library's side ---

class Pkcs11Operations : public TokenTest {
 protected:
  CK_OBJECT_HANDLE KeyOf(const Use& row, CK_OBJECT_CLASS cls) const {
    const CK_KEY_TYPE type = row.key == TestRsa().key    ? CKK_RSA
                             : row.key == TestP256().key ? CKK_EC
                                                         : VENDOR_KEY_SM2;
    return Find(cls, type);
  }
  CK_RV Init(CK_FLAGS use, const Use& row) const {
    CK_MECHANISM mechanism = {row.type, row.parameter.empty() ? nullptr : Bytes(row.parameter),
                              row.parameter.size()};
    const bool isPrivate = use == CKF_SIGN || use == CKF_DECRYPT;
    const CK_OBJECT_HANDLE key = KeyOf(row, isPrivate ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY);
    return (use == CKF_SIGN      ? p11_->C_SignInit
            : use == CKF_VERIFY  ? p11_->C_VerifyInit
            : use == CKF_ENCRYPT ? p11_->C_EncryptInit
                                 : p11_->C_DecryptInit)(session_, &mechanism, key);
  }

  // In one part, or with the input in parts of 1, 2, 3 ... bytes.
  template <class OnePart, class Update, class Final>
  std::string Run(const std::string& input, bool inParts, OnePart onePart, Update update,
                  Final final) const {
    if (!inParts)
      return Written([&](CK_BYTE* out, CK_ULONG* length) {
        return onePart(session_, Bytes(input), input.size(), out, length);
      });
    for (size_t at = 0, size = 1; at < input.size(); at += size++)
      EXPECT_EQ(update(Bytes(input) + at, std::min(size, input.size() - at)), CKR_OK);
    return Written([&](CK_BYTE* out, CK_ULONG* length) { return final(session_, out, length); });
  }

  std::string Sign(const Use& row, bool inParts) const {
    EXPECT_EQ(Init(CKF_SIGN, row), CKR_OK);
    const auto update = [&](CK_BYTE* part, CK_ULONG length) {
      return p11_->C_SignUpdate(session_, part, length);
    };
    return Run(row.input, inParts, p11_->C_Sign, update, p11_->C_SignFinal);
  }

  CK_RV Verify(const Use& row, const std::string& input, const std::string& signature,
               bool inParts) const {
    EXPECT_EQ(Init(CKF_VERIFY, row), CKR_OK);
    if (!inParts)
      return p11_->C_Verify(session_, Bytes(input), input.size(), Bytes(signature),
                            signature.size());
    for (const char& byte : input)
      EXPECT_EQ(p11_->C_VerifyUpdate(session_, Bytes({&byte, 1}), 1), CKR_OK);
    return p11_->C_VerifyFinal(session_, Bytes(signature), signature.size());
  }

  template <class Update>
  auto Cipher(Update update) const {
    return [this, update](CK_BYTE* part, CK_ULONG partLen) {
      CK_BYTE none;
      CK_ULONG length = 1;
      const CK_RV result = update(session_, part, partLen, &none, &length);
      EXPECT_EQ(length, 0u);
      return result;
    };
  }
  std::string Encrypt(const Use& row, bool inParts) const {
    EXPECT_EQ(Init(CKF_ENCRYPT, row), CKR_OK);
    return Run(row.input, inParts, p11_->C_Encrypt, Cipher(p11_->C_EncryptUpdate),
               p11_->C_EncryptFinal);
  }
  std::string Decrypt(const Use& row, const std::string& cipher, bool inParts) const {
    EXPECT_EQ(Init(CKF_DECRYPT, row), CKR_OK);
    return Run(cipher, inParts, p11_->C_Decrypt, Cipher(p11_->C_DecryptUpdate),
               p11_->C_DecryptFinal);
  }
  CK_RV DecryptResult(const Use& row, const std::string& cipher) const {
    EXPECT_EQ(Init(CKF_DECRYPT, row), CKR_OK);
    CK_BYTE out[1024];
    CK_ULONG length = sizeof(out);
    return p11_->C_Decrypt(session_, Bytes(cipher), cipher.size(), out, &length);
  }
};

TEST_F(Pkcs11Operations, SignaturesAreWhatOpensslSays) {
  for (const Use& row : Signatures()) {
    SCOPED_TRACE(row.what);
    std::string made;
    for (const bool inParts : {false, true}) {
      made = Sign(row, inParts);
      EXPECT_TRUE(OpensslVerifies(row, made));
      EXPECT_EQ(Verify(row, row.input, made, inParts), CKR_OK);
    }
    EXPECT_EQ(Verify(row, row.input, Flipped(made, made.size() - 1), false), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(Verify(row, Flipped(row.input, 0), made, false), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(Verify(row, row.input, made.substr(1), false), CKR_SIGNATURE_LEN_RANGE);
    EXPECT_EQ(Verify(row, row.input, made + "00", false), CKR_SIGNATURE_LEN_RANGE);
  }
}

TEST_F(Pkcs11Operations, CiphertextsAreWhatOpensslSays) {
  for (const Use& row : Encryptions()) {
    SCOPED_TRACE(row.what);
    std::string cipher;
    for (const bool inParts : {false, true}) {
      cipher = Encrypt(row, inParts);
      EXPECT_EQ(OpensslDecrypts(row, cipher), row.input);
      EXPECT_EQ(Decrypt(row, cipher, inParts), row.input);
    }
    EXPECT_EQ(DecryptResult(row, cipher.substr(0, 97)), CKR_ENCRYPTED_DATA_LEN_RANGE);
    if (row.type != CKM_RSA_X_509) {
      EXPECT_EQ(DecryptResult(row, Flipped(cipher, cipher.size() - 1)), CKR_ENCRYPTED_DATA_INVALID);
    }
    if (!OnCurve(row)) {
      EXPECT_EQ(DecryptResult(row, std::string(256, '\xff')), CKR_ENCRYPTED_DATA_INVALID);
    }
  }
}

TEST_F(Pkcs11Operations, DigestsAreWhatOpensslSays) {
  std::vector<std::pair<CK_MECHANISM_TYPE, const char*>> rows = {{VENDOR_SM3, "SM3"}};
  for (const HashRow& hash : HASHES) rows.emplace_back(hash.hash, hash.name);
  for (const auto& [type, name] : rows) {
    SCOPED_TRACE(name);
    for (const std::string& input : {MESSAGE, std::string()}) {
      for (const bool inParts : {false, true}) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(p11_->C_DigestInit(session_, &mechanism), CKR_OK);
        const auto update = [&](CK_BYTE* part, CK_ULONG length) {
          return p11_->C_DigestUpdate(session_, part, length);
        };
        EXPECT_EQ(Run(input, inParts, p11_->C_Digest, update, p11_->C_DigestFinal),
                  Digest(name, input));
      }
    }
  }
}

// Queries and buffers that are too small change nothing, as often as they come; what follows ends
// the operation, well or not.
TEST_F(Pkcs11Operations, OnlyAResultOrAFailureEndsAnOperation) {
  EVP_PKEY* const rsa = TestRsa().key;
  const Use pkcs = {"", rsa, CKM_RSA_PKCS, "", "text"};
  const Use sm2 = {"", TestSm2().key, VENDOR_SM2_ENCRYPT, "", "text"};
  const std::string pkcsCipher = Encrypt(pkcs, false), sm2Cipher = Encrypt(sm2, false);
  CK_BYTE out[512];
  const auto expect = [&](const char* what, CK_RV begun, CK_ULONG asked, CK_ULONG size, auto call) {
    SCOPED_TRACE(what);
    EXPECT_EQ(begun, CKR_OK);
    for (int i = 0; i < 2; i++) {
      CK_ULONG length = 7;
      EXPECT_EQ(call(nullptr, &length), CKR_OK);
      EXPECT_EQ(length, asked);
      length = size - 1;
      EXPECT_EQ(call(out, &length), CKR_BUFFER_TOO_SMALL);
      EXPECT_EQ(length, size);
    }
    CK_ULONG length = size;
    EXPECT_EQ(call(out, &length), CKR_OK);
    EXPECT_EQ(length, size);
    EXPECT_EQ(call(out, &length), CKR_OPERATION_NOT_INITIALIZED);
  };
  const auto with = [&](auto function, const std::string& input) {
    return [&, function](CK_BYTE* to, CK_ULONG* length) {
      return function(session_, Bytes(input), input.size(), to, length);
    };
  };
  const auto final = [&](auto function) {
    return [&, function](CK_BYTE* to, CK_ULONG* length) { return function(session_, to, length); };
  };
  CK_MECHANISM sha = {CKM_SHA256, nullptr, 0};
  expect("digest", p11_->C_DigestInit(session_, &sha), 32, 32, with(p11_->C_Digest, MESSAGE));
  expect("digest, final", p11_->C_DigestInit(session_, &sha), 32, 32, final(p11_->C_DigestFinal));
  expect("sign", Init(CKF_SIGN, pkcs), 256, 256, with(p11_->C_Sign, pkcs.input));
  expect("sign, final", Init(CKF_SIGN, pkcs), 256, 256, final(p11_->C_SignFinal));
  expect("encrypt", Init(CKF_ENCRYPT, pkcs), 256, 256, with(p11_->C_Encrypt, pkcs.input));
  expect("encrypt on SM2", Init(CKF_ENCRYPT, sm2), 101, 101, with(p11_->C_Encrypt, sm2.input));
  // The padding hides the length of the plaintext: a query answers the most that it can be.
  expect("decrypt", Init(CKF_DECRYPT, pkcs), 245, 4, with(p11_->C_Decrypt, pkcsCipher));
  expect("decrypt on SM2", Init(CKF_DECRYPT, sm2), 4, 4, with(p11_->C_Decrypt, sm2Cipher));
  const auto inParts = [&](const Use& row, const std::string& cipher) {
    const CK_RV result = Init(CKF_DECRYPT, row);
    CK_ULONG length = 0;
    EXPECT_EQ(p11_->C_DecryptUpdate(session_, Bytes(cipher), cipher.size(), out, &length), CKR_OK);
    return result;
  };
  expect("decrypt, final", inParts(pkcs, pkcsCipher), 245, 4, final(p11_->C_DecryptFinal));
  expect("decrypt on SM2, final", inParts(sm2, sm2Cipher), 4, 4, final(p11_->C_DecryptFinal));
}

TEST_F(Pkcs11Operations, KindsOfOperationsDoNotMeet) {
  const Use row = {"", TestRsa().key, CKM_SHA256_RSA_PKCS};
  CK_MECHANISM sha = {CKM_SHA256, nullptr, 0};
  CK_BYTE out[256];
  CK_ULONG length = sizeof(out);
  EXPECT_EQ(Init(CKF_SIGN, row), CKR_OK);
  EXPECT_EQ(p11_->C_DigestInit(session_, &sha), CKR_OK);
  EXPECT_EQ(p11_->C_SignUpdate(session_, Bytes("m"), 1), CKR_OK);
  EXPECT_EQ(Init(CKF_SIGN, row), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(p11_->C_DigestFinal(session_, out, &length), CKR_OK);
  // One part after parts is no operation; it ends the one there is.
  EXPECT_EQ(p11_->C_Sign(session_, out, 1, out, &length), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(p11_->C_SignFinal(session_, out, &length), CKR_OPERATION_NOT_INITIALIZED);
  // Version 3.0: without a mechanism Init cancels.
  EXPECT_EQ(Init(CKF_SIGN, row), CKR_OK);
  EXPECT_EQ(p11_->C_SignInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(p11_->C_SignInit(session_, nullptr, 0), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(p11_->C_SignUpdate(session_, out, 1), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11Operations, WhatCannotBeginIsRefused) {
  EVP_PKEY* const rsa = TestRsa().key;
  EVP_PKEY* const p256 = TestP256().key;
  EVP_PKEY* const sm2 = TestSm2().key;
  const auto pss = [](CK_MECHANISM_TYPE hash, CK_ULONG mask, CK_ULONG salt) {
    return AsBytes(CK_RSA_PKCS_PSS_PARAMS{hash, mask, salt});
  };
  const auto oaep = [](CK_MECHANISM_TYPE hash, CK_ULONG mask, CK_ULONG source, CK_ULONG length) {
    return AsBytes(CK_RSA_PKCS_OAEP_PARAMS{hash, mask, source, nullptr, length});
  };
  const struct {
    CK_RV want;
    Use row;
    CK_FLAGS use;
  } cases[] = {
      {CKR_MECHANISM_INVALID, {"unknown", rsa, 0x12345678}, CKF_SIGN},
      {CKR_MECHANISM_INVALID, {"a digest", rsa, CKM_SHA256}, CKF_SIGN},
      {CKR_MECHANISM_INVALID, {"OAEP", rsa, CKM_RSA_PKCS_OAEP}, CKF_SIGN},
      {CKR_MECHANISM_INVALID, {"ECDSA", p256, CKM_ECDSA}, CKF_DECRYPT},
      {CKR_KEY_TYPE_INCONSISTENT, {"EC", p256, CKM_RSA_PKCS}, CKF_SIGN},
      {CKR_KEY_TYPE_INCONSISTENT, {"RSA", rsa, CKM_ECDSA}, CKF_VERIFY},
      {CKR_KEY_TYPE_INCONSISTENT, {"SM2", sm2, CKM_ECDSA}, CKF_SIGN},
      {CKR_KEY_TYPE_INCONSISTENT, {"P-256", p256, VENDOR_SM2}, CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID, {"one where none is", rsa, CKM_RSA_PKCS, "12345678"}, CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID, {"PSS, none", rsa, CKM_RSA_PKCS_PSS}, CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID,
       {"PSS, hash", rsa, CKM_RSA_PKCS_PSS, pss(CKM_MD5, CKG_MGF1_SHA1, 20)},
       CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID,
       {"PSS, another hash", rsa, CKM_SHA256_RSA_PKCS_PSS, pss(CKM_SHA_1, CKG_MGF1_SHA1, 20)},
       CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID,
       {"PSS, mask", rsa, CKM_RSA_PKCS_PSS, pss(CKM_SHA256, 99, 20)},
       CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID,
       {"PSS, salt", rsa, CKM_RSA_PKCS_PSS, pss(CKM_SHA256, CKG_MGF1_SHA256, 223)},
       CKF_VERIFY},
      {CKR_MECHANISM_PARAM_INVALID,
       {"PSS, wild salt", rsa, CKM_RSA_PKCS_PSS, pss(CKM_SHA256, CKG_MGF1_SHA256, ~0ul)},
       CKF_SIGN},
      {CKR_MECHANISM_PARAM_INVALID,
       {"OAEP, source", rsa, CKM_RSA_PKCS_OAEP, oaep(CKM_SHA_1, CKG_MGF1_SHA1, 2, 0)},
       CKF_ENCRYPT},
      {CKR_MECHANISM_PARAM_INVALID,
       {"OAEP, label without bytes", rsa, CKM_RSA_PKCS_OAEP,
        oaep(CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, 5)},
       CKF_DECRYPT},
      {CKR_MECHANISM_PARAM_INVALID,
       {"SM2, a user too long", sm2, VENDOR_SM2_SM3, std::string(8192, 'u')},
       CKF_SIGN},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.row.what);
    EXPECT_EQ(Init(c.use, c.row), c.want);
    CK_BYTE out[1];
    EXPECT_EQ(p11_->C_SignUpdate(session_, out, 1), CKR_OPERATION_NOT_INITIALIZED);
  }
  CK_MECHANISM pkcs = {CKM_RSA_PKCS, nullptr, 0};
  const CK_OBJECT_HANDLE publicKey = Find(CKO_PUBLIC_KEY, CKK_RSA);
  EXPECT_EQ(p11_->C_SignInit(session_, &pkcs, publicKey), CKR_KEY_FUNCTION_NOT_PERMITTED);
  EXPECT_EQ(p11_->C_SignInit(session_, &pkcs, 0), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(p11_->C_SignInit(0, &pkcs, publicKey), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(Pkcs11Operations, InputThatDoesNotFitIsRefused) {
  EVP_PKEY* const rsa = TestRsa().key;
  EVP_PKEY* const sm2 = TestSm2().key;
  const std::string pss = AsBytes(CK_RSA_PKCS_PSS_PARAMS{CKM_SHA256, CKG_MGF1_SHA256, 32});
  const struct {
    CK_RV want;
    Use row;
  } cases[] = {
      {CKR_DATA_LEN_RANGE, {"PKCS#1", rsa, CKM_RSA_PKCS, "", std::string(246, 'l')}},
      {CKR_DATA_LEN_RANGE, {"raw", rsa, CKM_RSA_X_509, "", std::string(257, 0)}},
      {CKR_DATA_INVALID,
       {"raw, not below the modulus", rsa, CKM_RSA_X_509, "", std::string(256, '\xff')}},
      {CKR_DATA_LEN_RANGE, {"PSS, short", rsa, CKM_RSA_PKCS_PSS, pss, std::string(31, 'd')}},
      {CKR_DATA_LEN_RANGE, {"PSS, long", rsa, CKM_RSA_PKCS_PSS, pss, std::string(33, 'd')}},
      {CKR_DATA_LEN_RANGE, {"SM2, short", sm2, VENDOR_SM2, "", std::string(31, 'd')}},
      {CKR_DATA_LEN_RANGE, {"ECDSA, none", TestP256().key, CKM_ECDSA, "", ""}},
  };
  CK_BYTE out[512];
  for (const auto& c : cases) {
    SCOPED_TRACE(c.row.what);
    CK_ULONG length = sizeof(out);
    EXPECT_EQ(Init(CKF_SIGN, c.row), CKR_OK);
    EXPECT_EQ(p11_->C_Sign(session_, Bytes(c.row.input), c.row.input.size(), out, &length), c.want);
    EXPECT_EQ(p11_->C_SignFinal(session_, out, &length), CKR_OPERATION_NOT_INITIALIZED);
  }
  const Use encrypt = {"", sm2, VENDOR_SM2_ENCRYPT};
  CK_ULONG length = sizeof(out);
  EXPECT_EQ(Init(CKF_ENCRYPT, encrypt), CKR_OK);
  EXPECT_EQ(p11_->C_Encrypt(session_, out, 0, out, &length), CKR_DATA_LEN_RANGE);
}

TEST_F(Pkcs11Operations, MechanismsAnswerFromTheTable) {
  CK_ULONG count = 0;
  EXPECT_EQ(p11_->C_GetMechanismList(slot_, nullptr, &count), CKR_OK);
  std::vector<CK_MECHANISM_TYPE> list(count);
  CK_ULONG less = count - 1;
  EXPECT_EQ(p11_->C_GetMechanismList(slot_, list.data(), &less), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(less, count);
  EXPECT_EQ(p11_->C_GetMechanismList(slot_, list.data(), &count), CKR_OK);
  const std::set<CK_MECHANISM_TYPE> once(list.begin(), list.end());
  EXPECT_EQ(once.size(), count);
  std::vector<Use> rows = Signatures();
  for (const Use& row : Encryptions()) rows.push_back(row);
  for (const Use& row : rows) EXPECT_EQ(once.count(row.type), 1u) << row.what;
  for (const CK_MECHANISM_TYPE type : list) {
    CK_MECHANISM_INFO info = {};
    EXPECT_EQ(p11_->C_GetMechanismInfo(slot_, type, &info), CKR_OK);
    EXPECT_NE(info.flags, 0u);
    EXPECT_LE(info.ulMinKeySize, info.ulMaxKeySize);
  }
  CK_MECHANISM_INFO info;
  EXPECT_EQ(p11_->C_GetMechanismInfo(slot_, CKM_DES3_CBC, &info), CKR_MECHANISM_INVALID);
}

TEST_F(Pkcs11Operations, RandomBytesDiffer) {
  std::string first(40, 0), second(40, 0);
  EXPECT_EQ(p11_->C_GenerateRandom(session_, Bytes(first), 40), CKR_OK);
  EXPECT_EQ(p11_->C_SeedRandom(session_, Bytes(first), 40), CKR_OK);
  EXPECT_EQ(p11_->C_GenerateRandom(session_, Bytes(second), 40), CKR_OK);
  EXPECT_NE(first, second);
  EXPECT_EQ(p11_->C_GenerateRandom(session_, nullptr, 1), CKR_ARGUMENTS_BAD);
}
