#include "tests/support/token.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <array>
#include <filesystem>
#include <fstream>

static std::string MakeFolder() {
  std::string folder = "/tmp/token-XXXXXX";
  EXPECT_NE(mkdtemp(folder.data()), nullptr);
  return folder + "/";
}

Library::Library(const std::string& folder, const std::string& options)
    : handle_(dlopen(PKCS11_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
  const auto list =
      handle_ == nullptr
          ? nullptr
          : reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
  if (list == nullptr || list(&functions_) != CKR_OK) {
    ADD_FAILURE() << dlerror();
    abort();
  }
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
  const CK_FUNCTION_LIST& f = *functions_;
  if (kind == DIGEST) return f.C_DigestInit(session, mechanism);
  const std::array functions = {f.C_SignInit, f.C_VerifyInit, f.C_EncryptInit, f.C_DecryptInit};
  return functions[kind - SIGN](session, mechanism, key);
}

CK_RV Library::Update(CK_SESSION_HANDLE session, Kind kind, std::string_view part, CK_BYTE* out,
                      CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST& f = *functions_;
  const std::array taking = {f.C_DigestUpdate, f.C_SignUpdate, f.C_VerifyUpdate};
  const std::array giving = {f.C_EncryptUpdate, f.C_DecryptUpdate};
  return kind < ENCRYPT ? taking[kind](session, Bytes(part), part.size())
                        : giving[kind - ENCRYPT](session, Bytes(part), part.size(), out, outLen);
}

CK_RV Library::Run(CK_SESSION_HANDLE session, Kind kind, std::string_view input, CK_BYTE* out,
                   CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST& f = *functions_;
  if (kind == VERIFY) return f.C_Verify(session, Bytes(input), input.size(), out, *outLen);
  const std::array functions = {f.C_Digest, f.C_Sign, f.C_Sign, f.C_Encrypt, f.C_Decrypt};
  return functions[kind](session, Bytes(input), input.size(), out, outLen);
}

CK_RV Library::Finish(CK_SESSION_HANDLE session, Kind kind, CK_BYTE* out, CK_ULONG* outLen) const {
  const CK_FUNCTION_LIST& f = *functions_;
  if (kind == VERIFY) return f.C_VerifyFinal(session, out, *outLen);
  const std::array functions = {f.C_DigestFinal, f.C_SignFinal, f.C_SignFinal, f.C_EncryptFinal,
                                f.C_DecryptFinal};
  return functions[kind](session, out, outLen);
}

static std::string WithDevice(const std::string& folder) {
  const StoredDevice device{.keypairs = {StoredKeypair{.key = &TestRsa()}.Json(),
                                         StoredKeypair{.type = 2, .key = &TestP256()}.Json(),
                                         StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}};
  std::ofstream(folder + "dev", std::ios::binary) << device.File();
  return folder;
}

TokenTest::TokenTest() : folder_(WithDevice(MakeFolder())), p11_(folder_) {
  const std::vector<CK_SLOT_ID> slots = p11_.Slots();
  if (slots.size() != 1) {
    ADD_FAILURE() << slots.size() << " tokens";
    return;
  }
  slot_ = slots[0];
  EXPECT_EQ(
      p11_->C_OpenSession(slot_, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_),
      CKR_OK);
  EXPECT_EQ(p11_->C_Login(session_, CKU_USER, Bytes(PIN), sizeof(PIN) - 1), CKR_OK);
}

TokenTest::~TokenTest() { std::filesystem::remove_all(folder_); }

CK_OBJECT_HANDLE TokenTest::Find(CK_OBJECT_CLASS cls, CK_KEY_TYPE type) const {
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &cls, sizeof(cls)}, {CKA_KEY_TYPE, &type, sizeof(type)}};
  CK_OBJECT_HANDLE found[2] = {};
  CK_ULONG count = 0;
  EXPECT_EQ(p11_->C_FindObjectsInit(session_, wanted, 2), CKR_OK);
  EXPECT_EQ(p11_->C_FindObjects(session_, found, 2, &count), CKR_OK);
  EXPECT_EQ(p11_->C_FindObjectsFinal(session_), CKR_OK);
  EXPECT_EQ(count, 1u);
  return count == 1 ? found[0] : 0;
}
