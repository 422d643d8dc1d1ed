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

// The bytes that are left; zeros after their end.
struct Script {
  std::string_view left;
  bool Ended() const { return left.empty(); }
  unsigned char Byte() {
    if (left.empty()) return 0;
    const auto byte = static_cast<unsigned char>(left[0]);
    left.remove_prefix(1);
    return byte;
  }
  template <class List>
  auto& Of(List& list) {
    return list[Byte() % std::size(list)];
  }
};

// The five kinds of operations, in the order of Operations.
enum Kind { DIGEST, SIGN, VERIFY, ENCRYPT, DECRYPT, KINDS };

constexpr CK_MECHANISM_TYPE TYPES[] = {CKM_SHA256,
                                       VENDOR_SM3,
                                       CKM_RSA_PKCS,
                                       CKM_RSA_X_509,
                                       CKM_SHA256_RSA_PKCS,
                                       CKM_RSA_PKCS_PSS,
                                       CKM_RSA_PKCS_OAEP,
                                       CKM_ECDSA,
                                       CKM_ECDSA_SHA1,
                                       VENDOR_SM2,
                                       VENDOR_SM2_SM3,
                                       VENDOR_SM2_ENCRYPT,
                                       VENDOR_SM2_ENCRYPT_C1C3C2,
                                       CKM_AES_CBC};

constexpr CK_ATTRIBUTE_TYPE ATTRIBUTES[] = {
    CKA_CLASS,     CKA_KEY_TYPE,         CKA_TOKEN,     CKA_PRIVATE,     CKA_LABEL,
    CKA_ID,        CKA_SUBJECT,          CKA_VALUE,     CKA_MODULUS,     CKA_EC_POINT,
    CKA_EC_PARAMS, CKA_PRIVATE_EXPONENT, CKA_SENSITIVE, CKA_APPLICATION, CKA_CERTIFICATE_TYPE,
    CKA_SIGN,      CKA_MODIFIABLE,       0x7fffffff};

// Memory of `size` bytes, behind which the address sanitizer sees.
using Memory = std::unique_ptr<CK_BYTE[]>;

class Player {
 public:
  Player(const CK_FUNCTION_LIST& p11, std::string_view script) : p11_(p11), script_{script} {}

  // Says whether an operation gave a result.
  bool Play() {
    for (int calls = 0; !script_.Ended() && calls < 200; calls++) Step();
    return results_ > 0;
  }

 private:
  struct SessionModel {
    std::array<bool, KINDS> active{}, parts{};
    bool searching = false;
  };

  void Step() {
    switch (script_.Byte() % 14) {
      case 0:
        return Open();
      case 1:
        return Close();
      case 2:
        return Login();
      case 3:
        return Logout();
      case 4:
        return Find();
      case 5:
        return Begin();
      case 6:
        return Update();
      case 7:
        return Run(false);
      case 8:
        return Run(true);
      case 9:
        return Read();
      case 10:
        return Change();
      case 11:
        return Create();
      case 12:
        return Destroy();
      default:
        return Ask();
    }
  }

  // --- Arguments ---

  CK_SESSION_HANDLE Session() {
    const size_t index = script_.Byte() % (models_.size() + 1);
    return index == models_.size() ? 0
                                   : std::next(models_.begin(), static_cast<long>(index))->first;
  }
  CK_OBJECT_HANDLE Object() {
    const size_t index = script_.Byte() % (objects_.size() + 1);
    return index == objects_.size() ? 0x4444 : objects_[index];
  }
  std::string Text() { return std::string(script_.Byte(), 't'); }
  Memory Room(CK_ULONG size) { return std::make_unique<CK_BYTE[]>(size); }

  // No session: one answer. Returns whether the session exists.
  bool Exists(CK_SESSION_HANDLE session, CK_RV result) const {
    const bool known = models_.count(session) == 1;
    EXPECT_EQ(result == CKR_SESSION_HANDLE_INVALID, !known);
    return known;
  }

  // --- Sessions ---

  void Open() {
    CK_SLOT_ID slots[2] = {0x5555, 0x5555};
    CK_ULONG count = 2;
    EXPECT_EQ(p11_.C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    if (models_.size() > 5) return;
    CK_SESSION_HANDLE session = 0;
    const CK_SLOT_ID slot = slots[script_.Byte() % 3 == 2];
    const CK_FLAGS flags = script_.Byte() % 8;
    const CK_RV result = p11_.C_OpenSession(slot, flags, nullptr, nullptr, &session);
    if (result != CKR_OK) return;
    EXPECT_TRUE(models_.try_emplace(session).second);
    slots_[session] = slot;
  }
  void Close() {
    const CK_SESSION_HANDLE session = Session();
    if (Exists(session, p11_.C_CloseSession(session))) {
      models_.erase(session);
      slots_.erase(session);
    }
  }
  void Login() {
    const CK_SESSION_HANDLE session = Session();
    const std::string pin = script_.Byte() % 4 == 0 ? "wrong" : PIN;
    Exists(session, p11_.C_Login(session, script_.Byte() % 3, Bytes(pin), pin.size()));
  }
  void Logout() {
    const CK_SESSION_HANDLE session = Session();
    const CK_RV result = p11_.C_Logout(session);
    if (!Exists(session, result) || result != CKR_OK) return;
    for (auto& [handle, model] : models_)
      if (slots_[handle] == slots_[session]) model.active[SIGN] = model.active[DECRYPT] = false;
  }

  // --- Operations ---

  // What a call says about an operation has to be what the model says.
  void Follow(SessionModel& model, Kind kind, CK_RV result, bool goesOn) {
    EXPECT_EQ(result == CKR_OPERATION_NOT_INITIALIZED, !model.active[kind]);
    if (!goesOn) model.active[kind] = model.parts[kind] = false;
  }

  void Begin() {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(script_.Byte() % KINDS);
    std::string parameter = Parameter();
    CK_MECHANISM mechanism = {script_.Of(TYPES), parameter.empty() ? nullptr : Bytes(parameter),
                              parameter.size()};
    const CK_OBJECT_HANDLE key = Object();
    CK_MECHANISM* const given = script_.Byte() % 32 == 31 ? nullptr : &mechanism;
    const CK_RV result = kind == DIGEST    ? p11_.C_DigestInit(session, given)
                         : kind == SIGN    ? p11_.C_SignInit(session, given, key)
                         : kind == VERIFY  ? p11_.C_VerifyInit(session, given, key)
                         : kind == ENCRYPT ? p11_.C_EncryptInit(session, given, key)
                                           : p11_.C_DecryptInit(session, given, key);
    if (!Exists(session, result)) return;
    SessionModel& model = models_[session];
    EXPECT_EQ(result == CKR_OPERATION_ACTIVE, given != nullptr && model.active[kind]);
    if (result == CKR_OPERATION_ACTIVE) return;
    model.active[kind] = result == CKR_OK && given != nullptr;
    model.parts[kind] = false;
  }
  std::string Parameter() {
    const auto as = [](const auto& value) {
      return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    switch (script_.Byte() % 5) {
      case 0:
        return as(CK_RSA_PKCS_PSS_PARAMS{CKM_SHA256, CKG_MGF1_SHA1, script_.Byte()});
      case 1:
        return as(CK_RSA_PKCS_OAEP_PARAMS{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED,
                                          Bytes(std::string_view("label")), script_.Byte() % 6u});
      case 2:
        return Text();
      default:
        return "";
    }
  }

  void Update() {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(script_.Byte() % KINDS);
    const std::string part = Text();
    CK_ULONG length = script_.Byte();
    const Memory out = Room(length);
    const bool query = script_.Byte() % 8 == 7;
    CK_BYTE* const to = query ? nullptr : out.get();
    const CK_RV result = kind == DIGEST   ? p11_.C_DigestUpdate(session, Bytes(part), part.size())
                         : kind == SIGN   ? p11_.C_SignUpdate(session, Bytes(part), part.size())
                         : kind == VERIFY ? p11_.C_VerifyUpdate(session, Bytes(part), part.size())
                         : kind == ENCRYPT
                             ? p11_.C_EncryptUpdate(session, Bytes(part), part.size(), to, &length)
                             : p11_.C_DecryptUpdate(session, Bytes(part), part.size(), to, &length);
    if (!Exists(session, result)) return;
    SessionModel& model = models_[session];
    Follow(model, kind, result, result == CKR_OK);
    if (result == CKR_OK && (kind < ENCRYPT || !query)) model.parts[kind] = true;
  }

  void Run(bool final) {
    const CK_SESSION_HANDLE session = Session();
    const auto kind = static_cast<Kind>(script_.Byte() % KINDS);
    const std::string input = Text();
    const CK_ULONG room = script_.Byte() * 2u;
    CK_ULONG length = room;
    const Memory out = Room(room);
    CK_BYTE* const to = script_.Byte() % 4 == 3 ? nullptr : out.get();
    CK_BYTE* const from = Bytes(input);
    CK_RV result = CKR_OK;
    if (kind == VERIFY)
      result = final ? p11_.C_VerifyFinal(session, to, room)
                     : p11_.C_Verify(session, from, input.size(), to, room);
    else if (final)
      result = (kind == DIGEST    ? p11_.C_DigestFinal
                : kind == SIGN    ? p11_.C_SignFinal
                : kind == ENCRYPT ? p11_.C_EncryptFinal
                                  : p11_.C_DecryptFinal)(session, to, &length);
    else
      result = (kind == DIGEST    ? p11_.C_Digest
                : kind == SIGN    ? p11_.C_Sign
                : kind == ENCRYPT ? p11_.C_Encrypt
                                  : p11_.C_Decrypt)(session, from, input.size(), to, &length);
    if (!Exists(session, result)) return;
    SessionModel& model = models_[session];
    const bool asked = kind != VERIFY && to == nullptr && result == CKR_OK;
    EXPECT_EQ(result == CKR_OPERATION_ACTIVE,
              !final && model.active[kind] && model.parts[kind] && result != CKR_ARGUMENTS_BAD);
    Follow(model, kind, result, asked || result == CKR_BUFFER_TOO_SMALL);
    EXPECT_TRUE(result != CKR_BUFFER_TOO_SMALL || length > room);
    if (result != CKR_OK || asked) return;
    EXPECT_LE(length, room);
    results_++;
  }

  // --- Objects ---

  void Find() {
    const CK_SESSION_HANDLE session = Session();
    CK_OBJECT_CLASS cls = script_.Byte() % 6;
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &cls, sizeof(cls)}};
    const CK_RV begun = p11_.C_FindObjectsInit(session, wanted, script_.Byte() % 2);
    if (!Exists(session, begun)) return;
    EXPECT_EQ(begun, CKR_OK);
    CK_OBJECT_HANDLE found[20] = {};
    CK_ULONG count = 0;
    EXPECT_EQ(p11_.C_FindObjects(session, found, script_.Byte() % 20, &count), CKR_OK);
    EXPECT_EQ(p11_.C_FindObjectsFinal(session), CKR_OK);
    objects_.assign(found, found + count);
  }

  std::vector<CK_ATTRIBUTE> Template(std::vector<Memory>& values) {
    std::vector<CK_ATTRIBUTE> attributes;
    for (int left = script_.Byte() % 6; left > 0; left--) {
      const CK_ULONG size = script_.Byte() % 64;
      values.push_back(Room(size));
      for (CK_ULONG i = 0; i < size; i++) values.back()[i] = i < 8 ? script_.Byte() : CK_BYTE{'v'};
      attributes.push_back({script_.Of(ATTRIBUTES), values.back().get(), size});
    }
    return attributes;
  }
  void Read() {
    std::vector<Memory> values;
    std::vector<CK_ATTRIBUTE> attributes = Template(values);
    const CK_SESSION_HANDLE session = Session();
    const CK_OBJECT_HANDLE object = Object();
    for (CK_ATTRIBUTE& attribute : attributes)
      if (script_.Byte() % 4 == 0) attribute.pValue = nullptr;
    const std::vector<CK_ATTRIBUTE> before = attributes;
    const CK_RV result =
        p11_.C_GetAttributeValue(session, object, attributes.data(), attributes.size());
    if (!Exists(session, result) || result != CKR_OK) return;
    for (size_t i = 0; i < attributes.size(); i++) {
      EXPECT_TRUE(attributes[i].pValue == nullptr ||
                  attributes[i].ulValueLen <= before[i].ulValueLen);
    }
  }
  void Change() {
    std::vector<Memory> values;
    std::vector<CK_ATTRIBUTE> attributes = Template(values);
    const CK_SESSION_HANDLE session = Session();
    Exists(session,
           p11_.C_SetAttributeValue(session, Object(), attributes.data(), attributes.size()));
  }
  void Create() {
    std::vector<Memory> values;
    std::vector<CK_ATTRIBUTE> attributes = Template(values);
    CK_OBJECT_CLASS cls = script_.Byte() % 4;
    CK_BBOOL token = CK_FALSE;  // the token's file is not for noise
    attributes.push_back({CKA_CLASS, &cls, sizeof(cls)});
    attributes.push_back({CKA_TOKEN, &token, 1});
    const CK_SESSION_HANDLE session = Session();
    CK_OBJECT_HANDLE object = 0;
    const CK_RV result =
        script_.Byte() % 2 == 0
            ? p11_.C_CreateObject(session, attributes.data(), attributes.size(), &object)
            : p11_.C_CopyObject(session, Object(), attributes.data(), attributes.size(), &object);
    if (Exists(session, result) && result == CKR_OK) objects_.push_back(object);
  }
  void Destroy() {
    const CK_SESSION_HANDLE session = Session();
    Exists(session, p11_.C_DestroyObject(session, Object()));
  }
  void Ask() {
    const CK_SESSION_HANDLE session = Session();
    CK_SESSION_INFO info;
    Exists(session, p11_.C_GetSessionInfo(session, &info));
    const CK_ULONG size = script_.Byte();
    const Memory out = Room(size);
    Exists(session, p11_.C_GenerateRandom(session, out.get(), size));
  }

  const CK_FUNCTION_LIST& p11_;
  Script script_;
  std::map<CK_SESSION_HANDLE, SessionModel> models_;
  std::map<CK_SESSION_HANDLE, CK_SLOT_ID> slots_;
  std::vector<CK_OBJECT_HANDLE> objects_ = {1, 2, 3};
  int results_ = 0;
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
    accepted = Player(*library.operator->(), input).Play();
  }
  EXPECT_EQ(LiveAllocations(), live);
  return accepted;
}
