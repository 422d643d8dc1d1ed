// Changes of a token, each by a program that starts, logs in, makes the change and ends.
#include "tests/support/calls.h"
#include "tests/support/token.h"

#include <fstream>

namespace {
CK_SESSION_HANDLE g_session;

// On the one device of the folder.
CK_RV Start(CK_SLOT_ID* slot) {
  std::string reserved = std::string("folder=") + g_keyFolder;
  CK_C_INITIALIZE_ARGS args = {};
  args.LibraryParameters = reinterpret_cast<CK_CHAR_PTR*>(reserved.data());
  const CK_RV started = C_Initialize(&args);
  if (started != CKR_OK) return started;
  CK_SLOT_ID slots[2] = {};
  CK_ULONG count = 2;
  const CK_RV listed = C_GetSlotList(CK_TRUE, slots, &count);
  *slot = slots[0];
  // The slot of the token that is not there yet is all that is shown of a folder that can't be
  // read.
  return listed == CKR_OK && count != 2 ? CKR_TOKEN_NOT_PRESENT : listed;
}

CK_RV LogIn(CK_USER_TYPE user) {
  CK_SLOT_ID slot = 0;
  CK_RV result = Start(&slot);
  if (result == CKR_OK)
    result = C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &g_session);
  return result == CKR_OK ? C_Login(g_session, user, Bytes(PIN), sizeof PIN - 1) : result;
}

CK_OBJECT_HANDLE First(CK_OBJECT_CLASS cls) {
  CK_ATTRIBUTE wanted = {CKA_CLASS, &cls, sizeof cls};
  CK_OBJECT_HANDLE found = 0;
  CK_ULONG count = 0;
  if (C_FindObjectsInit(g_session, &wanted, 1) == CKR_OK)
    C_FindObjects(g_session, &found, 1, &count), C_FindObjectsFinal(g_session);
  return found;
}

CK_RV Create(Wanted& wanted) {
  CK_OBJECT_HANDLE made = 0;
  return C_CreateObject(g_session, wanted.list.data(), wanted.count(), &made);
}
CK_RV Set(CK_OBJECT_CLASS cls, CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE wanted = {type, Bytes("another"), 7};
  return C_SetAttributeValue(g_session, First(cls), &wanted, 1);
}
CK_RV Destroy(CK_OBJECT_CLASS cls) { return C_DestroyObject(g_session, First(cls)); }

CK_RV GenerateP256() {
  Wanted publicKey, privateKey;
  publicKey.Flag(CKA_TOKEN, true).Text(CKA_EC_PARAMS, P256);
  privateKey.Flag(CKA_TOKEN, true).Text(CKA_ID, "id");
  CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE priv = 0, pub = 0;
  return C_GenerateKeyPair(g_session, &mechanism, publicKey.list.data(), publicKey.count(),
                           privateKey.list.data(), privateKey.count(), &pub, &priv);
}
CK_RV InitToken(CK_SLOT_ID slot) {
  const std::string label(32, ' ');
  return C_InitToken(slot, Bytes(PIN), sizeof PIN - 1, Bytes(label));
}
}  // namespace

std::vector<Call> AllCalls() {
  static Wanted key, certificate, data, secret;
  if (key.list.empty()) {
    key.Number(CKA_CLASS, CKO_PRIVATE_KEY).Number(CKA_KEY_TYPE, CKK_EC).Flag(CKA_TOKEN, true);
    key.Text(CKA_EC_PARAMS, P256).Text(CKA_VALUE, std::string(32, 'd'));
    data.Number(CKA_CLASS, CKO_DATA).Flag(CKA_TOKEN, true).Text(CKA_VALUE, "value");
    secret.Number(CKA_CLASS, CKO_DATA).Flag(CKA_TOKEN, true).Flag(CKA_PRIVATE, true);
    secret.Text(CKA_VALUE, "secret").Text(CKA_LABEL, "label");
    certificate.Number(CKA_CLASS, CKO_CERTIFICATE).Number(CKA_CERTIFICATE_TYPE, CKC_X_509);
    certificate.Flag(CKA_TOKEN, true).Text(CKA_VALUE, SelfSigned(TestP256().key));
  }
  static CK_SLOT_ID slot;
  const auto call = [](const char* what, const std::function<void()>& before,
                       const std::function<CK_RV()>& change) {
    const auto run = [change](Device* /*device*/) { return change() == CKR_OK ? 1 : 0; };
    return Call{
        .what = what, .run = run, .changes = true, .before = before, .beside = true, .stride = 6};
  };
  const auto start = [] { EXPECT_EQ(Start(&slot), CKR_OK); };
  const auto user = [] { EXPECT_EQ(LogIn(CKU_USER), CKR_OK); };
  const auto officer = [] { EXPECT_EQ(LogIn(CKU_SO), CKR_OK); };
  const auto initToken = [] { return InitToken(slot); };
  const Call create = call("data created", user, [] { return Create(data); });
  const Call createSecret = call("private data created", user, [] { return Create(secret); });
  const Call init = call("token made anew", start, initToken);

  // What a call leaves, others start from.
  const auto after = [](const Files& files, const Call& made) {
    const std::string path = std::string(g_keyFolder) + "dev";
    std::ofstream(path, std::ios::binary) << files.at("dev");
    EXPECT_EQ(CallsTest::Run(made, nullptr), 1);
    const std::string left = ReadText(path);
    unlink(path.c_str());
    return Files{{"dev", left}};
  };
  const Files bare = {{"dev", StoredDevice().File()}};
  const Files keyless = {{"dev", StoredDevice{.keypairs = {}}.File()}};
  const Files full = after(after(bare, create), createSecret);
  std::vector<Call> all = {
      call("keypair generated", user, GenerateP256),
      call("private key created", user, [] { return Create(key); }),
      call("certificate created", user, [] { return Create(certificate); }),
      create,
      createSecret,
      call("label set", user, [] { return Set(CKO_PRIVATE_KEY, CKA_LABEL); }),
      call("data changed", user, [] { return Set(CKO_DATA, CKA_VALUE); }),
      call("private key destroyed", user, [] { return Destroy(CKO_PRIVATE_KEY); }),
      call("data destroyed", user, [] { return Destroy(CKO_DATA); }),
      call("PIN set", user,
           [] {
             return C_SetPIN(g_session, Bytes(PIN), sizeof PIN - 1, Bytes(NEW_PIN),
                             sizeof NEW_PIN - 1);
           }),
  };
  for (Call& each : all) each.start = full;
  all.push_back(call("first change", nullptr, [] {
    const CK_RV started = LogIn(CKU_USER);
    return started == CKR_OK ? Create(data) : started;
  }));
  all.back().start = bare;
  all.back().stride = 24;
  all.push_back(init);
  all.back().start = keyless;
  all.push_back(call("user's PIN given", officer,
                     [] { return C_InitPIN(g_session, Bytes(NEW_PIN), sizeof NEW_PIN - 1); }));
  all.back().start = after(keyless, init);
  return all;
}

void ReleaseResults() { C_Finalize(nullptr); }
