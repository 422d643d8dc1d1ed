// The operations of the PKCS #11 library, judged by OpenSSL, which has the same keys.
#include "tests/support/token.h"

#include "core/openssl_owners.h"
#include "pkcs11/mechanisms.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <map>
#include <set>

using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using MdContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

namespace {

const std::string MESSAGE(1000, 'm');

struct HashRow {
  const char* name;  // OpenSSL's
  CK_MECHANISM_TYPE hash;
  CK_RSA_PKCS_MGF_TYPE mask;
  CK_MECHANISM_TYPE pkcs, pss, ecdsa;
};
#define HASH_ROW(name)                                                                    \
  {                                                                                       \
#name, CKM_##name, CKG_MGF1_##name, CKM_##name##_RSA_PKCS, CKM_##name##_RSA_PKCS_PSS, \
        CKM_ECDSA_##name                                                                  \
  }
#define CKM_SHA1 CKM_SHA_1
const HashRow HASHES[] = {HASH_ROW(SHA1), HASH_ROW(SHA224), HASH_ROW(SHA256), HASH_ROW(SHA384),
                          HASH_ROW(SHA512)};

// A mechanism with its parameter and an input, and how OpenSSL is told of it.
struct Use {
  std::string what;
  EVP_PKEY* key;
  CK_MECHANISM_TYPE type;
  std::string input = "text";
  std::string parameter = "";
  std::vector<std::pair<const char*, std::string>> options = {};  // EVP_PKEY_CTX_ctrl_str's
  const char* hash = nullptr;  // where the mechanism hashes what it signs
  bool IsRsa() const { return key == TestRsa().key; }
};

template <class Parameters>
std::string AsBytes(const Parameters& parameters) {
  return {reinterpret_cast<const char*>(&parameters), sizeof(parameters)};
}
std::string Pss(CK_MECHANISM_TYPE hash, CK_RSA_PKCS_MGF_TYPE mask, CK_ULONG salt) {
  return AsBytes(CK_RSA_PKCS_PSS_PARAMS{hash, mask, salt});
}
std::string Oaep(CK_MECHANISM_TYPE hash, CK_RSA_PKCS_MGF_TYPE mask, CK_ULONG source,
                 const char* label, CK_ULONG labelLen) {
  return AsBytes(CK_RSA_PKCS_OAEP_PARAMS{hash, mask, source,
                                         label == nullptr ? nullptr : Bytes(label), labelLen});
}

// --- OpenSSL's side ---

void SetOptions(EVP_PKEY_CTX* context, const Use& use) {
  for (const auto& [name, value] : use.options)
    EXPECT_GT(EVP_PKEY_CTX_ctrl_str(context, name, value.c_str()), 0) << name;
}

KeyContext Judge(const Use& use, int (*start)(EVP_PKEY_CTX*)) {
  KeyContext context(EVP_PKEY_CTX_new(use.key, nullptr));
  EXPECT_EQ(start(context.get()), 1);
  SetOptions(context.get(), use);
  return context;
}

// DER, of less than 128 bytes.
std::string Item(char tag, const std::string& value) {
  return std::string{tag, static_cast<char>(value.size())} + value;
}
std::string Number(std::string bytes) {
  bytes.erase(0, std::min(bytes.find_first_not_of('\0'), bytes.size() - 1));
  return Item(2, (bytes[0] & 0x80) != 0 ? '\0' + bytes : bytes);
}

bool OpensslVerifies(const Use& use, const std::string& numbers) {
  const std::string signature =
      use.IsRsa() ? numbers
                  : Item(0x30, Number(numbers.substr(0, 32)) + Number(numbers.substr(32)));
  if (use.hash == nullptr) {
    const size_t missing = use.type == CKM_RSA_X_509 ? 256 - use.input.size() : 0;
    const std::string block = std::string(missing, 0) + use.input;
    return EVP_PKEY_verify(Judge(use, EVP_PKEY_verify_init).get(), Raw(signature), signature.size(),
                           Raw(block), block.size()) == 1;
  }
  const MdContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* key = nullptr;
  EXPECT_EQ(
      EVP_DigestVerifyInit(context.get(), &key, EVP_get_digestbyname(use.hash), nullptr, use.key),
      1);
  SetOptions(key, use);
  return EVP_DigestVerify(context.get(), Raw(signature), signature.size(), Raw(use.input),
                          use.input.size()) == 1;
}

// Of SM2 OpenSSL takes SEQUENCE { x, y, C3, C2 }; GM/T 0009.
std::string OpensslDecrypts(const Use& use, std::string cipher) {
  if (use.type == VENDOR_SM2_ENCRYPT)
    std::rotate(cipher.begin() + 65, cipher.end() - 32, cipher.end());
  if (!use.IsRsa())
    cipher = Item(0x30, Number(cipher.substr(1, 32)) + Number(cipher.substr(33, 32)) +
                            Item(4, cipher.substr(65, 32)) + Item(4, cipher.substr(97)));
  std::string output(4096, 0);
  size_t length = output.size();
  EXPECT_EQ(EVP_PKEY_decrypt(Judge(use, EVP_PKEY_decrypt_init).get(), Bytes(output), &length,
                             Raw(cipher), cipher.size()),
            1);
  return output.substr(0, length);
}

// --- Every mechanism ---

std::vector<Use> Signatures() {
  EVP_PKEY *const rsa = TestRsa().key, *const p256 = TestP256().key, *const sm2 = TestSm2().key;
  const std::string raw(255, 'r'), alice = "alice@example.org", e(32, 'e');
  std::vector<Use> uses = {
      {"PKCS#1", rsa, CKM_RSA_PKCS, "free"},
      {"PKCS#1, full", rsa, CKM_RSA_PKCS, std::string(245, 'l')},
      {"raw", rsa, CKM_RSA_X_509, '\0' + raw, "", {{"rsa_padding_mode", "none"}}},
      {"raw, short", rsa, CKM_RSA_X_509, raw, "", {{"rsa_padding_mode", "none"}}},
      {"SM2", sm2, VENDOR_SM2, e},
      {"SM2 with SM3", sm2, VENDOR_SM2_SM3, MESSAGE, "", {{"distid", "1234567812345678"}}, "SM3"},
      {"SM2, user", sm2, VENDOR_SM2_SM3, MESSAGE, alice, {{"distid", alice}}, "SM3"},
  };
  for (const HashRow& hash : HASHES) {
    const std::string digest = Digest(hash.name, MESSAGE), name = hash.name;
    uses.push_back({"PKCS#1 with " + name, rsa, hash.pkcs, MESSAGE, "", {}, hash.name});
    uses.push_back({"ECDSA with " + name, p256, hash.ecdsa, MESSAGE, "", {}, hash.name});
    uses.push_back({"ECDSA of " + name, p256, CKM_ECDSA, digest});
    for (const size_t salt : {size_t{0}, digest.size(), 256 - 2 - digest.size()}) {
      const HashRow& mask = salt == 0 ? HASHES[4] : hash;
      const std::string pss = Pss(hash.hash, mask.mask, salt);
      Use use = {"PSS with " + name, rsa, hash.pss, MESSAGE, pss, {}, hash.name};
      use.options = {{"rsa_padding_mode", "pss"},
                     {"rsa_mgf1_md", mask.name},
                     {"rsa_pss_saltlen", std::to_string(salt)}};
      uses.push_back(use);
      use.options.insert(use.options.begin() + 1, {"digest", name});
      uses.push_back({"PSS of " + name, rsa, CKM_RSA_PKCS_PSS, digest, pss, use.options});
    }
  }
  return uses;
}

std::vector<Use> Encryptions() {
  EVP_PKEY *const rsa = TestRsa().key, *const sm2 = TestSm2().key;
  std::vector<Use> uses = {
      {"PKCS#1", rsa, CKM_RSA_PKCS},
      {"PKCS#1, nothing", rsa, CKM_RSA_PKCS, ""},
      {"PKCS#1, full", rsa, CKM_RSA_PKCS, std::string(245, 'l')},
      {"raw", rsa, CKM_RSA_X_509, '\0' + std::string(255, 'r'), "", {{"rsa_padding_mode", "none"}}},
      {"SM2", sm2, VENDOR_SM2_ENCRYPT, "sixteen letters."},
      {"SM2, one byte", sm2, VENDOR_SM2_ENCRYPT, "1"},
      {"SM2, the standard's order", sm2, VENDOR_SM2_ENCRYPT_C1C3C2, "sixteen letters."},
  };
  for (const HashRow& hash : HASHES) {
    const HashRow& mask = HASHES[4 - (&hash - HASHES)];
    const std::string text(256 - 2 - 2 * Digest(hash.name, "").size(), 'o'), name = hash.name;
    for (const char* label : {"", "a label"}) {
      uses.push_back({"OAEP with " + name, rsa, CKM_RSA_PKCS_OAEP, text,
                      Oaep(hash.hash, mask.mask, CKZ_DATA_SPECIFIED, label, strlen(label))});
      uses.back().options = {{"rsa_padding_mode", "oaep"},
                             {"rsa_oaep_md", name},
                             {"rsa_mgf1_md", mask.name},
                             {"rsa_oaep_label", Hex(label)}};
      if (*label == '\0') uses.back().options.pop_back();
    }
  }
  return uses;
}

}  // namespace

// A token with one RSA, one P-256 and one SM2 keypair.
class Pkcs11Operations : public FolderTest {
 protected:
  const std::string& WithDevice() const {
    const StoredDevice device{.keypairs = {StoredKeypair{.key = &TestRsa()}.Json(),
                                           StoredKeypair{.type = 2, .key = &TestP256()}.Json(),
                                           StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}};
    Write("dev", device.File());
    return folder_;
  }
  CK_OBJECT_HANDLE Find(CK_OBJECT_CLASS cls, CK_KEY_TYPE type) const {
    return client_.Find(Wanted().Number(CKA_CLASS, cls).Number(CKA_KEY_TYPE, type)).at(0);
  }
  CK_RV Begin(Kind kind, const Use& use) const {
    CK_MECHANISM mechanism = {use.type, use.parameter.empty() ? nullptr : Bytes(use.parameter),
                              use.parameter.size()};
    const CK_KEY_TYPE type = use.IsRsa()                 ? CKK_RSA
                             : use.key == TestP256().key ? CKK_EC
                                                         : VENDOR_KEY_SM2;
    const bool isPrivate = kind == SIGN || kind == DECRYPT;
    return p11_.Begin(session_, kind, &mechanism,
                      Find(isPrivate ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY, type));
  }
  // Parts of 1, 2, 3 ... bytes.
  void Update(Kind kind, const std::string& input) const {
    for (size_t at = 0, size = 1; at < input.size(); at += size++) {
      CK_BYTE none;
      CK_ULONG length = 1;
      EXPECT_EQ(p11_.Update(session_, kind, input.substr(at, size), &none, &length), CKR_OK);
      EXPECT_EQ(length, kind < ENCRYPT ? 1u : 0u);
    }
  }
  // The end of an operation that has begun.
  CK_RV End(Kind kind, const std::string& input, bool inParts, CK_BYTE* out,
            CK_ULONG* length) const {
    return inParts ? p11_.Finish(session_, kind, out, length)
                   : p11_.Run(session_, kind, input, out, length);
  }
  // What comes of it, with as much room as it asks for.
  std::string Made(Kind kind, const Use& use, const std::string& input, bool inParts) const {
    EXPECT_EQ(Begin(kind, use), CKR_OK);
    if (inParts) Update(kind, input);
    CK_ULONG length = 0;
    EXPECT_EQ(End(kind, input, inParts, nullptr, &length), CKR_OK);
    std::string bytes(length + 1, 0);
    EXPECT_EQ(End(kind, input, inParts, Bytes(bytes), &length), CKR_OK);
    return bytes.substr(0, length);
  }
  CK_RV Outcome(Kind kind, const Use& use, const std::string& input,
                const std::string& out = std::string(512, 0), bool inParts = false) const {
    EXPECT_EQ(Begin(kind, use), CKR_OK);
    if (inParts) Update(kind, input);
    CK_ULONG length = out.size();
    return End(kind, input, inParts, Bytes(out), &length);
  }

  const Library p11_{WithDevice()};
  const Client client_{p11_};
  const CK_SESSION_HANDLE session_ = client_.session;
};

TEST_F(Pkcs11Operations, SignaturesAreWhatOpensslSays) {
  for (const Use& use : Signatures()) {
    SCOPED_TRACE(use.what);
    std::string made;
    for (const bool inParts : {false, true}) {
      made = Made(SIGN, use, use.input, inParts);
      EXPECT_TRUE(OpensslVerifies(use, made));
      EXPECT_EQ(Outcome(VERIFY, use, use.input, made, inParts), CKR_OK);
    }
    EXPECT_EQ(Outcome(VERIFY, use, use.input, Flipped(made, made.size() - 1)),
              CKR_SIGNATURE_INVALID);
    EXPECT_EQ(Outcome(VERIFY, use, Flipped(use.input, 0), made), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(Outcome(VERIFY, use, use.input, made.substr(1)), CKR_SIGNATURE_LEN_RANGE);
    EXPECT_EQ(Outcome(VERIFY, use, use.input, made + "00"), CKR_SIGNATURE_LEN_RANGE);
  }
}

TEST_F(Pkcs11Operations, CiphertextsAreWhatOpensslSays) {
  for (const Use& use : Encryptions()) {
    SCOPED_TRACE(use.what);
    std::string cipher;
    for (const bool inParts : {false, true}) {
      cipher = Made(ENCRYPT, use, use.input, inParts);
      EXPECT_EQ(OpensslDecrypts(use, cipher), use.input);
      EXPECT_EQ(Made(DECRYPT, use, cipher, inParts), use.input);
    }
    EXPECT_EQ(Outcome(DECRYPT, use, cipher.substr(0, 97)), CKR_ENCRYPTED_DATA_LEN_RANGE);
    if (use.type == CKM_RSA_X_509) continue;  // it has nothing to tell good from bad
    EXPECT_EQ(Outcome(DECRYPT, use, Flipped(cipher, cipher.size() - 1)),
              CKR_ENCRYPTED_DATA_INVALID);
  }
}

TEST_F(Pkcs11Operations, DigestsAreWhatOpensslSays) {
  std::map<CK_MECHANISM_TYPE, const char*> rows = {{VENDOR_SM3, "SM3"}};
  for (const HashRow& hash : HASHES) rows[hash.hash] = hash.name;
  for (const auto& [type, name] : rows)
    for (const std::string& input : {MESSAGE, std::string()})
      for (const bool inParts : {false, true})
        EXPECT_EQ(Made(DIGEST, {name, TestRsa().key, type}, input, inParts), Digest(name, input));
}

// Queries and buffers that are too small change nothing, as often as they come; what follows ends
// the operation, well or not.
TEST_F(Pkcs11Operations, OnlyAResultOrAFailureEndsAnOperation) {
  const Use sha = {"", TestRsa().key, CKM_SHA256}, pkcs = {"", TestRsa().key, CKM_RSA_PKCS};
  const Use sm2 = {"", TestSm2().key, VENDOR_SM2_ENCRYPT};
  const struct {
    Kind kind;
    const Use& use;
    std::string input;
    CK_ULONG asked, size;
  } cases[] = {
      {DIGEST, sha, MESSAGE, 32, 32},
      {SIGN, pkcs, "text", 256, 256},
      {ENCRYPT, pkcs, "text", 256, 256},
      {ENCRYPT, sm2, "text", 101, 101},
      // The padding hides the length of the plaintext: a query answers the most that it can be.
      {DECRYPT, pkcs, Made(ENCRYPT, pkcs, "text", false), 245, 4},
      {DECRYPT, sm2, Made(ENCRYPT, sm2, "text", false), 4, 4},
  };
  for (const auto& c : cases) {
    for (const bool inParts : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.kind << c.use.type << inParts);
      CK_BYTE out[512];
      const auto expect = [&](CK_RV want, CK_BYTE* to, CK_ULONG room, CK_ULONG length) {
        EXPECT_EQ(End(c.kind, c.input, inParts, to, &room), want);
        EXPECT_EQ(room, length);
      };
      EXPECT_EQ(Begin(c.kind, c.use), CKR_OK);
      if (inParts) Update(c.kind, c.input);
      for (int i = 0; i < 2; i++) {
        expect(CKR_OK, nullptr, 7, c.asked);
        expect(CKR_BUFFER_TOO_SMALL, out, c.size - 1, c.size);
      }
      expect(CKR_OK, out, c.size, c.size);
      expect(CKR_OPERATION_NOT_INITIALIZED, out, 512, 512);
    }
  }
}

TEST_F(Pkcs11Operations, KindsOfOperationsDoNotMeet) {
  const Use sign = {"", TestRsa().key, CKM_SHA256_RSA_PKCS};
  CK_BYTE out[256];
  CK_ULONG length = sizeof(out);
  EXPECT_EQ(Begin(SIGN, sign), CKR_OK);
  EXPECT_EQ(p11_->C_SignUpdate(session_, out, 1), CKR_OK);
  EXPECT_EQ(Begin(SIGN, sign), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(Made(DIGEST, {"", TestRsa().key, CKM_SHA256}, "", true), Digest("SHA256", ""));
  // One part after parts is no operation; it ends the one there is.
  EXPECT_EQ(p11_->C_Sign(session_, out, 1, out, &length), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(p11_->C_SignFinal(session_, out, &length), CKR_OPERATION_NOT_INITIALIZED);
  // Version 3.0: without a mechanism Init cancels.
  EXPECT_EQ(Begin(SIGN, sign), CKR_OK);
  EXPECT_EQ(p11_->C_SignInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(p11_->C_SignInit(session_, nullptr, 0), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(p11_->C_SignUpdate(session_, out, 1), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(Pkcs11Operations, WhatCannotBeginIsRefused) {
  EVP_PKEY *const rsa = TestRsa().key, *const p256 = TestP256().key, *const sm2 = TestSm2().key;
  const std::map<CK_RV, std::vector<std::pair<Kind, Use>>> cases = {
      {CKR_MECHANISM_INVALID,
       {{SIGN, {"unknown", rsa, 0x12345678}},
        {SIGN, {"a digest", rsa, CKM_SHA256}},
        {SIGN, {"OAEP", rsa, CKM_RSA_PKCS_OAEP}},
        {DECRYPT, {"ECDSA", p256, CKM_ECDSA}}}},
      {CKR_KEY_TYPE_INCONSISTENT,
       {{SIGN, {"EC", p256, CKM_RSA_PKCS}},
        {VERIFY, {"RSA", rsa, CKM_ECDSA}},
        {SIGN, {"SM2", sm2, CKM_ECDSA}}}},
      {CKR_MECHANISM_PARAM_INVALID,
       {{SIGN, {"one where none is", rsa, CKM_RSA_PKCS, "", "12345678"}},
        {SIGN, {"PSS, none", rsa, CKM_RSA_PKCS_PSS}},
        {SIGN, {"hash", rsa, CKM_RSA_PKCS_PSS, "", Pss(CKM_MD5, CKG_MGF1_SHA1, 20)}},
        {SIGN, {"another hash", rsa, CKM_SHA256_RSA_PKCS_PSS, "", Pss(CKM_SHA_1, 1, 20)}},
        {SIGN, {"mask", rsa, CKM_RSA_PKCS_PSS, "", Pss(CKM_SHA256, 99, 20)}},
        {VERIFY, {"salt", rsa, CKM_RSA_PKCS_PSS, "", Pss(CKM_SHA256, CKG_MGF1_SHA256, 223)}},
        {SIGN, {"wild salt", rsa, CKM_RSA_PKCS_PSS, "", Pss(CKM_SHA256, CKG_MGF1_SHA256, ~0ul)}},
        {ENCRYPT, {"OAEP, source", rsa, CKM_RSA_PKCS_OAEP, "", Oaep(CKM_SHA_1, 1, 2, nullptr, 0)}},
        {DECRYPT, {"no label", rsa, CKM_RSA_PKCS_OAEP, "", Oaep(CKM_SHA_1, 1, 1, nullptr, 5)}},
        {SIGN, {"a user too long", sm2, VENDOR_SM2_SM3, "", std::string(8192, 'u')}}}},
  };
  CK_BYTE out[1];
  for (const auto& [want, uses] : cases)
    for (const auto& [kind, use] : uses) {
      EXPECT_EQ(Begin(kind, use), want) << use.what;
      EXPECT_EQ(p11_->C_SignUpdate(session_, out, 1), CKR_OPERATION_NOT_INITIALIZED);
    }
  CK_MECHANISM pkcs = {CKM_RSA_PKCS, nullptr, 0};
  const CK_OBJECT_HANDLE publicKey = Find(CKO_PUBLIC_KEY, CKK_RSA);
  EXPECT_EQ(p11_->C_SignInit(session_, &pkcs, publicKey), CKR_KEY_FUNCTION_NOT_PERMITTED);
  EXPECT_EQ(p11_->C_SignInit(session_, &pkcs, 0), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(p11_->C_SignInit(0, &pkcs, publicKey), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(Pkcs11Operations, InputThatDoesNotFitIsRefused) {
  EVP_PKEY *const rsa = TestRsa().key, *const sm2 = TestSm2().key;
  const std::string pss = Pss(CKM_SHA256, CKG_MGF1_SHA256, 32);
  const struct {
    CK_RV want;
    Kind kind;
    Use use;
  } cases[] = {
      {CKR_DATA_LEN_RANGE, SIGN, {"PKCS#1", rsa, CKM_RSA_PKCS, std::string(246, 'l')}},
      {CKR_DATA_LEN_RANGE, SIGN, {"raw", rsa, CKM_RSA_X_509, std::string(257, 0)}},
      {CKR_DATA_INVALID, SIGN, {"the modulus", rsa, CKM_RSA_X_509, std::string(256, '\xff')}},
      {CKR_DATA_LEN_RANGE, SIGN, {"PSS, short", rsa, CKM_RSA_PKCS_PSS, std::string(31, 'd'), pss}},
      {CKR_DATA_LEN_RANGE, SIGN, {"PSS, long", rsa, CKM_RSA_PKCS_PSS, std::string(33, 'd'), pss}},
      {CKR_DATA_LEN_RANGE, SIGN, {"SM2, short", sm2, VENDOR_SM2, std::string(31, 'd')}},
      {CKR_DATA_LEN_RANGE, SIGN, {"ECDSA, none", TestP256().key, CKM_ECDSA, ""}},
      {CKR_DATA_LEN_RANGE, ENCRYPT, {"SM2, none", sm2, VENDOR_SM2_ENCRYPT, ""}},
      {CKR_ENCRYPTED_DATA_INVALID, DECRYPT, {"", rsa, CKM_RSA_PKCS, std::string(256, '\xff')}},
      {CKR_ENCRYPTED_DATA_INVALID,
       DECRYPT,
       {"OAEP", rsa, CKM_RSA_PKCS_OAEP, std::string(256, '\1'), Oaep(CKM_SHA_1, 1, 1, "", 0)}},
  };
  ERR_clear_error();
  for (const auto& c : cases) {
    EXPECT_EQ(Outcome(c.kind, c.use, c.use.input), c.want) << c.use.what;
    CK_ULONG length = 0;
    EXPECT_EQ(p11_.Finish(session_, c.kind, nullptr, &length), CKR_OPERATION_NOT_INITIALIZED);
  }
  EXPECT_EQ(ERR_peek_error(), 0u) << "the program's queue is its own";
}

TEST_F(Pkcs11Operations, MechanismsAnswerFromTheTable) {
  CK_ULONG count = 0;
  EXPECT_EQ(p11_->C_GetMechanismList(client_.slot, nullptr, &count), CKR_OK);
  std::vector<CK_MECHANISM_TYPE> list(count);
  CK_ULONG less = count - 1;
  EXPECT_EQ(p11_->C_GetMechanismList(client_.slot, list.data(), &less), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(less, count);
  EXPECT_EQ(p11_->C_GetMechanismList(client_.slot, list.data(), &count), CKR_OK);
  EXPECT_EQ(std::set(list.begin(), list.end()).size(), count);
  CK_MECHANISM_INFO info;
  for (const CK_MECHANISM_TYPE type : list)
    EXPECT_EQ(p11_->C_GetMechanismInfo(client_.slot, type, &info), CKR_OK);
  EXPECT_EQ(p11_->C_GetMechanismInfo(client_.slot, CKM_DES3_CBC, &info), CKR_MECHANISM_INVALID);
}

TEST_F(Pkcs11Operations, RandomBytesDiffer) {
  std::string first(40, 0), second(40, 0);
  EXPECT_EQ(p11_->C_GenerateRandom(session_, Bytes(first), 40), CKR_OK);
  EXPECT_EQ(p11_->C_GenerateRandom(session_, Bytes(second), 40), CKR_OK);
  EXPECT_NE(first, second);
}
