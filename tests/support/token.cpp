#include "tests/support/token.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <array>
#include <filesystem>

Library::Library(const std::string& folder, const std::string& options)
    : handle_(dlopen(PKCS11_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
  const auto get = reinterpret_cast<CK_C_GetInterface>(
      handle_ == nullptr ? nullptr : dlsym(handle_, "C_GetInterface"));
  CK_INTERFACE* interface = nullptr;
  if (get == nullptr || get(nullptr, nullptr, &interface, 0) != CKR_OK) {
    ADD_FAILURE() << dlerror();
    abort();
  }
  functions_ = static_cast<const CK_FUNCTION_LIST_3_0*>(interface->pFunctionList);
  std::string reserved = "folder=" + folder + " " + options;
  CK_C_INITIALIZE_ARGS args = {};
  args.flags = CKF_OS_LOCKING_OK;
  args.LibraryParameters = reinterpret_cast<CK_CHAR_PTR*>(reserved.data());
  EXPECT_EQ(functions_->C_Initialize(&args), CKR_OK);
}

Library::~Library() {
  functions_->C_Finalize(nullptr);
  dlclose(handle_);
}

std::vector<CK_SLOT_ID> Library::Slots() const {
  CK_SLOT_ID slots[80];
  CK_ULONG count = 80;
  EXPECT_EQ(functions_->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
  std::vector<CK_SLOT_ID> found;
  for (CK_ULONG i = 0; i < count; i++) {
    CK_TOKEN_INFO info;
    EXPECT_EQ(functions_->C_GetTokenInfo(slots[i], &info), CKR_OK);
    if ((info.flags & CKF_TOKEN_INITIALIZED) != 0) found.push_back(slots[i]);
  }
  return found;
}

CK_RV Library::Begin(CK_SESSION_HANDLE session, Kind kind, CK_MECHANISM* mechanism,
                     CK_OBJECT_HANDLE key) const {
  const CK_FUNCTION_LIST_3_0& f = *functions_;
  if (kind == DIGEST) return f.C_DigestInit(session, mechanism);
  const std::array functions = {f.C_SignInit, f.C_VerifyInit, f.C_EncryptInit, f.C_DecryptInit};
  return functions[kind - SIGN](session, mechanism, key);
}

CK_RV Library::Update(CK_SESSION_HANDLE session, Kind kind, std::string_view part, CK_BYTE* out,
                      CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST_3_0& f = *functions_;
  const std::array taking = {f.C_DigestUpdate, f.C_SignUpdate, f.C_VerifyUpdate};
  const std::array giving = {f.C_EncryptUpdate, f.C_DecryptUpdate};
  return kind < ENCRYPT ? taking[kind](session, Bytes(part), part.size())
                        : giving[kind - ENCRYPT](session, Bytes(part), part.size(), out, outLen);
}

CK_RV Library::Run(CK_SESSION_HANDLE session, Kind kind, std::string_view input, CK_BYTE* out,
                   CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST_3_0& f = *functions_;
  if (kind == VERIFY) return f.C_Verify(session, Bytes(input), input.size(), out, *outLen);
  const std::array functions = {f.C_Digest, f.C_Sign, f.C_Sign, f.C_Encrypt, f.C_Decrypt};
  return functions[kind](session, Bytes(input), input.size(), out, outLen);
}

CK_RV Library::Finish(CK_SESSION_HANDLE session, Kind kind, CK_BYTE* out, CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST_3_0& f = *functions_;
  if (kind == VERIFY) return f.C_VerifyFinal(session, out, *outLen);
  const std::array functions = {f.C_DigestFinal, f.C_SignFinal, f.C_SignFinal, f.C_EncryptFinal,
                                f.C_DecryptFinal};
  return functions[kind](session, out, outLen);
}

Client::Client(const Library& library, std::string_view pin, CK_USER_TYPE user) : p11(library) {
  const std::vector<CK_SLOT_ID> slots = p11.Slots();
  EXPECT_EQ(slots.size(), 1u);
  if (slots.empty()) return;
  slot = slots[0];
  EXPECT_EQ(
      p11->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
      CKR_OK);
  if (pin.empty()) return;
  EXPECT_EQ(Login(pin, user), CKR_OK);
}

CK_RV Client::Login(std::string_view pin, CK_USER_TYPE user) const {
  return p11->C_Login(session, user, Bytes(pin), pin.size());
}

CK_RV Client::Generate(const std::string& id, CK_OBJECT_HANDLE* priv, CK_OBJECT_HANDLE* pub) const {
  Wanted publicKey, privateKey;
  publicKey.Flag(CKA_TOKEN, true).Text(CKA_EC_PARAMS, P256).Text(CKA_ID, id);
  privateKey.Flag(CKA_TOKEN, true).Text(CKA_ID, id).Text(CKA_LABEL, "same for all");
  CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  return p11->C_GenerateKeyPair(session, &mechanism, publicKey.list.data(), publicKey.count(),
                                privateKey.list.data(), privateKey.count(), pub, priv);
}

std::vector<CK_OBJECT_HANDLE> Client::Find(const Wanted& wanted) const {
  std::vector<CK_OBJECT_HANDLE> found(300);
  CK_ULONG count = 0;
  EXPECT_EQ(p11->C_FindObjectsInit(session, const_cast<CK_ATTRIBUTE*>(wanted.list.data()),
                                   wanted.count()),
            CKR_OK);
  EXPECT_EQ(p11->C_FindObjects(session, found.data(), 300, &count), CKR_OK);
  EXPECT_EQ(p11->C_FindObjectsFinal(session), CKR_OK);
  found.resize(count);
  return found;
}

std::string Client::Get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
  char value[4096];
  CK_ATTRIBUTE asked = {type, value, sizeof value};
  EXPECT_EQ(p11->C_GetAttributeValue(session, object, &asked, 1), CKR_OK) << type;
  return asked.ulValueLen > sizeof value ? "none" : std::string(value, asked.ulValueLen);
}

CK_RV Client::Set(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, std::string_view value) const {
  Wanted wanted;
  wanted.Text(type, value);
  return p11->C_SetAttributeValue(session, object, wanted.list.data(), 1);
}

CK_OBJECT_HANDLE Client::Create(Wanted& wanted, CK_RV want) const {
  CK_OBJECT_HANDLE made = 0;
  EXPECT_EQ(p11->C_CreateObject(session, wanted.list.data(), wanted.count(), &made), want);
  return made;
}

CK_RV Client::Sign(CK_OBJECT_HANDLE key) const {
  CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
  CK_BYTE digest[32] = {}, signature[64];
  CK_ULONG length = sizeof signature;
  const CK_RV begun = p11->C_SignInit(session, &mechanism, key);
  return begun == CKR_OK ? p11->C_Sign(session, digest, 32, signature, &length) : begun;
}
