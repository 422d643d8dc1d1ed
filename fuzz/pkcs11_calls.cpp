// Fuzz target of the PKCS #11 library: the bytes are calls, one after the other, with sane, odd and
// senseless arguments. Beside them runs a model of sessions, login and operations that says what
// each call may answer.
#include "fuzz/fuzz.h"
#include "pkcs11/mechanisms.h"
#include "tests/support/token.h"

#include <dlfcn.h>

#include <array>
#include <map>

namespace {

constexpr CK_MECHANISM_TYPE TYPES[] = {
    CKM_SHA256,        VENDOR_SM3,     CKM_RSA_PKCS,       CKM_RSA_X_509,
    CKM_ECDSA,         CKM_ECDSA_SHA1, CKM_RSA_PKCS_PSS,   CKM_SHA256_RSA_PKCS,
    VENDOR_SM2,        VENDOR_SM2_SM3, VENDOR_SM2_ENCRYPT, VENDOR_SM2_ENCRYPT_C1C3C2,
    CKM_RSA_PKCS_OAEP, CKM_AES_CBC};

constexpr CK_ATTRIBUTE_TYPE ATTRIBUTES[] = {
    CKA_CLASS,     CKA_KEY_TYPE,         CKA_TOKEN,     CKA_PRIVATE,     CKA_LABEL,
    CKA_ID,        CKA_SUBJECT,          CKA_VALUE,     CKA_MODULUS,     CKA_EC_POINT,
    CKA_EC_PARAMS, CKA_PRIVATE_EXPONENT, CKA_SENSITIVE, CKA_APPLICATION, CKA_CERTIFICATE_TYPE,
    CKA_SIGN,      CKA_MODIFIABLE,       0x7fffffff};

struct SessionModel {
  CK_SLOT_ID slot;
  std::array<bool, KINDS> active{}, parts{};
};

struct Player {
  const Library& p11;
  std::string_view script;
  std::map<CK_SESSION_HANDLE, SessionModel> models = {};
  std::vector<CK_OBJECT_HANDLE> objects = {1, 2, 3};
  std::vector<std::unique_ptr<CK_BYTE[]>> memory = {};
  int results = 0;

  // --- Arguments, from the bytes that are left; zeros after their end ---

  unsigned char Byte() {
    if (script.empty()) return 0;
    const auto byte = static_cast<unsigned char>(script[0]);
    script.remove_prefix(1);
    return byte;
  }
  template <class List>
  auto& Of(List& list) {
    return list[Byte() % std::size(list)];
  }
  // Behind it the address sanitizer sees.
  CK_BYTE* Room(CK_ULONG size) {
    return memory.emplace_back(std::make_unique<CK_BYTE[]>(size)).get();
  }
  std::string Text() { return std::string(Byte(), 't'); }
  CK_SESSION_HANDLE Session() {
    const size_t index = Byte() % (models.size() + 1);
    return index == models.size() ? 0 : std::next(models.begin(), static_cast<long>(index))->first;
  }
  CK_OBJECT_HANDLE Object() {
    const size_t index = Byte() % (objects.size() + 1);
    return index == objects.size() ? 0x4444 : objects[index];
  }
  std::vector<CK_ATTRIBUTE> Template() {
    std::vector<CK_ATTRIBUTE> attributes;
    for (int left = Byte() % 6; left > 0; left--) {
      const CK_ULONG size = Byte() % 64;
      CK_BYTE* const value = Room(size);
      for (CK_ULONG i = 0; i < size; i++) value[i] = i < 8 ? Byte() : CK_BYTE{'v'};
      attributes.push_back({Of(ATTRIBUTES), value, size});
    }
    return attributes;
  }
  std::string Parameter() {
    const auto as = [](const auto& value) {
      return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    const CK_RSA_PKCS_PSS_PARAMS pss = {CKM_SHA256, CKG_MGF1_SHA1, Byte()};
    const CK_RSA_PKCS_OAEP_PARAMS oaep = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED,
                                          Bytes("label"), pss.sLen % 6};
    const std::string parameters[] = {as(pss), as(oaep), Text(), "", ""};
    return Of(parameters);
  }

  // --- Calls ---

  // Says whether an operation gave a result.
  bool Play() {
    static constexpr void (Player::*CALLS[])() = {&Player::Open,   &Player::Close, &Player::Logout,
                                                  &Player::Find,   &Player::Begin, &Player::Update,
                                                  &Player::Run,    &Player::Run,   &Player::Read,
                                                  &Player::Create, &Player::Other};
    for (int calls = 0; !script.empty() && calls < 200; calls++) (this->*Of(CALLS))();
    return results > 0;
  }

  // No session: one answer. Returns whether the session exists.
  bool Exists(CK_SESSION_HANDLE session, CK_RV result) const {
    const bool known = models.count(session) == 1;
    EXPECT_EQ(result == CKR_SESSION_HANDLE_INVALID, !known);
    return known;
  }

  void Open() {
    CK_SLOT_ID slots[2] = {0x5555, 0x5555};
    CK_ULONG count = 2;
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    if (models.size() > 5) return;
    CK_SESSION_HANDLE session = 0;
    const CK_SLOT_ID slot = slots[Byte() % 3 == 2];
    const CK_RV result = p11->C_OpenSession(slot, Byte() % 8, nullptr, nullptr, &session);
    if (result != CKR_OK) return;
    EXPECT_TRUE(models.try_emplace(session, SessionModel{slot}).second);
  }
  void Close() {
    const CK_SESSION_HANDLE session = Session();
    if (Exists(session, p11->C_CloseSession(session))) models.erase(session);
  }
  void Logout() {
    const CK_SESSION_HANDLE session = Session();
    const CK_RV result = p11->C_Logout(session);
    if (!Exists(session, result) || result != CKR_OK) return;
    for (auto& [handle, model] : models)
      if (model.slot == models.at(session).slot) model.active[SIGN] = model.active[DECRYPT] = false;
  }
  void Find() {
    const CK_SESSION_HANDLE session = Session();
    CK_OBJECT_CLASS cls = Byte() % 6;
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &cls, sizeof(cls)}};
    const CK_RV begun = p11->C_FindObjectsInit(session, wanted, Byte() % 2);
    if (!Exists(session, begun)) return;
    EXPECT_EQ(begun, CKR_OK);
    objects.resize(20);
    CK_ULONG count = 0;
    EXPECT_EQ(p11->C_FindObjects(session, objects.data(), Byte() % 20, &count), CKR_OK);
    EXPECT_EQ(p11->C_FindObjectsFinal(session), CKR_OK);
    objects.resize(count);
  }

  // What a call says about an operation has to be what the model says.
  static void Follow(SessionModel& model, Kind kind, CK_RV result, bool goesOn) {
    EXPECT_EQ(result == CKR_OPERATION_NOT_INITIALIZED, !model.active[kind]);
    if (!goesOn) model.active[kind] = model.parts[kind] = false;
  }
  void Begin() {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(Byte() % KINDS);
    std::string parameter = Parameter();
    CK_MECHANISM mechanism = {Of(TYPES), parameter.empty() ? nullptr : Bytes(parameter),
                              parameter.size()};
    CK_MECHANISM* const given = Byte() % 32 == 31 ? nullptr : &mechanism;
    const CK_RV result = p11.Begin(session, kind, given, Object());
    if (!Exists(session, result)) return;
    SessionModel& model = models.at(session);
    EXPECT_EQ(result == CKR_OPERATION_ACTIVE, given != nullptr && model.active[kind]);
    if (result == CKR_OPERATION_ACTIVE) return;
    model.active[kind] = result == CKR_OK && given != nullptr;
    model.parts[kind] = false;
  }
  void Update() {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(Byte() % KINDS);
    const std::string part = Text();
    CK_ULONG length = Byte();
    const bool query = Byte() % 8 == 7;
    const CK_RV result = p11.Update(session, kind, part, query ? nullptr : Room(length), &length);
    if (!Exists(session, result)) return;
    SessionModel& model = models.at(session);
    Follow(model, kind, result, result == CKR_OK);
    if (result == CKR_OK && (kind < ENCRYPT || !query)) model.parts[kind] = true;
  }
  void Run() {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(Byte() % KINDS);
    const bool isLast = Byte() % 2 == 1;
    const std::string input = Text();
    const CK_ULONG room = Byte() * 2u;
    CK_ULONG length = room;
    CK_BYTE* const to = Byte() % 4 == 3 ? nullptr : Room(room);
    const CK_RV result = isLast ? p11.Finish(session, kind, to, &length)
                                : p11.Run(session, kind, input, to, &length);
    if (!Exists(session, result)) return;
    SessionModel& model = models.at(session);
    const bool asked = kind != VERIFY && to == nullptr && result == CKR_OK;
    EXPECT_EQ(result == CKR_OPERATION_ACTIVE,
              !isLast && model.active[kind] && model.parts[kind] && result != CKR_ARGUMENTS_BAD);
    Follow(model, kind, result, asked || result == CKR_BUFFER_TOO_SMALL);
    EXPECT_TRUE(result != CKR_BUFFER_TOO_SMALL || length > room);
    if (result != CKR_OK || asked) return;
    EXPECT_LE(length, room);
    results++;
  }

  void Read() {
    std::vector<CK_ATTRIBUTE> asked = Template();
    const CK_SESSION_HANDLE session = Session();
    for (CK_ATTRIBUTE& attribute : asked)
      if (Byte() % 4 == 0) attribute.pValue = nullptr;
    const std::vector<CK_ATTRIBUTE> before = asked;
    const CK_RV result = p11->C_GetAttributeValue(session, Object(), asked.data(), asked.size());
    if (!Exists(session, result) || result != CKR_OK) return;
    for (size_t i = 0; i < asked.size(); i++)
      EXPECT_TRUE(asked[i].pValue == nullptr || asked[i].ulValueLen <= before[i].ulValueLen);
  }
  void Create() {
    std::vector<CK_ATTRIBUTE> wanted = Template();
    CK_OBJECT_CLASS cls = Byte() % 4;
    CK_BBOOL token = CK_FALSE;  // the token's file is not for noise
    wanted.push_back({CKA_CLASS, &cls, sizeof(cls)});
    wanted.push_back({CKA_TOKEN, &token, 1});
    const CK_SESSION_HANDLE session = Session();
    CK_OBJECT_HANDLE object = 0;
    const CK_RV result =
        Byte() % 2 == 0
            ? p11->C_CreateObject(session, wanted.data(), wanted.size(), &object)
            : p11->C_CopyObject(session, Object(), wanted.data(), wanted.size(), &object);
    if (Exists(session, result) && result == CKR_OK) objects.push_back(object);
  }
  // Of these the model knows only whether the session exists.
  void Other() {
    const CK_SESSION_HANDLE session = Session();
    const std::string pin = Byte() % 4 == 0 ? "wrong" : PIN;
    const CK_OBJECT_HANDLE object = Object();
    std::vector<CK_ATTRIBUTE> wanted = Template();
    CK_SESSION_INFO info;
    const CK_ULONG size = wanted.size() * 9;
    Exists(session, p11->C_Login(session, Byte() % 3, Bytes(pin), pin.size()));
    Exists(session, p11->C_SetAttributeValue(session, object, wanted.data(), wanted.size()));
    Exists(session, p11->C_GetSessionInfo(session, &info));
    Exists(session, p11->C_GenerateRandom(session, Room(size), size));
    if (Byte() % 4 == 0) Exists(session, p11->C_DestroyObject(session, object));
  }
};

}  // namespace

// On the device of OperationsTest. What the library took it has to give back with C_Finalize.
FUZZ(pkcs11_calls) {
  static const std::string file = Read("dev");
  // libFuzzer counts inside the library, so it must not be unloaded between two inputs.
  static void* const kept = dlopen(PKCS11_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(kept, nullptr);
  Write("dev", file);
  const long live = LiveAllocations();
  bool accepted = false;
  {
    const Library library(folder_);
    accepted = Player{library, input}.Play();
  }
  EXPECT_EQ(LiveAllocations(), live);
  return accepted;
}
