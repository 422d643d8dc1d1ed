// Devices as PKCS #11 tokens: how a token comes to its PIN, what clients set and find again, how
// objects go one by one, and what processes, threads, forks and the end of a program do to it.
#include "core/openssl_owners.h"
#include "tests/support/token.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

namespace {
constexpr char SO_PIN[] = "87654321";

class Pkcs11Test : public FolderTest {
 protected:
  static CK_RV InitToken(const Library& p11, CK_SLOT_ID slot, std::string_view pin) {
    CK_UTF8CHAR label[32];
    memset(label, ' ', sizeof label);
    memcpy(label, "office", 6);
    return p11->C_InitToken(slot, Bytes(pin), pin.size(), label);
  }
  static void MakeToken(const Library& p11) {
    EXPECT_EQ(InitToken(p11, 0, SO_PIN), CKR_OK);
    const Client officer(p11, SO_PIN, CKU_SO);
    EXPECT_EQ(p11->C_InitPIN(officer.session, Bytes(PIN), strlen(PIN)), CKR_OK);
  }
};

// A folder with one token, made here, whose user is logged in.
class Pkcs11TokenTest : public Pkcs11Test {
 protected:
  static const Library& WithToken(const Library& p11) {
    MakeToken(p11);
    return p11;
  }
  // The private key; its public key in *pub.
  CK_OBJECT_HANDLE Generate(const std::string& id, CK_OBJECT_HANDLE* pub) const {
    CK_OBJECT_HANDLE priv = 0;
    EXPECT_EQ(client.Generate(id, &priv, pub), CKR_OK);
    return priv;
  }
  CK_RV Destroy(CK_OBJECT_HANDLE object) const {
    return p11->C_DestroyObject(client.session, object);
  }

  const Library p11{folder_};
  const Client client{WithToken(p11)};
};

}  // namespace

TEST_F(Pkcs11Test, ATokenComesToItsPin) {
  CK_SLOT_ID slot = 0;
  {
    const Library p11(folder_);
    EXPECT_EQ(p11.Slots().size(), 0u);
    EXPECT_EQ(InitToken(p11, 0, "123"), CKR_PIN_LEN_RANGE);
    ASSERT_EQ(InitToken(p11, 0, SO_PIN), CKR_OK);
    slot = p11.Slots().at(0);
    EXPECT_EQ(InitToken(p11, slot, "a wrong one"), CKR_PIN_INCORRECT);
    EXPECT_EQ(InitToken(p11, slot, SO_PIN), CKR_OK) << "it holds no keys";
    const Client client(p11, "");
    EXPECT_EQ(client.Login(SO_PIN), CKR_USER_PIN_NOT_INITIALIZED);
    EXPECT_EQ(client.Login("12345678", CKU_SO), CKR_PIN_INCORRECT);
    EXPECT_EQ(client.Login(SO_PIN, CKU_SO), CKR_OK);
    EXPECT_EQ(p11->C_InitPIN(client.session, Bytes(PIN), strlen(PIN)), CKR_OK);
    EXPECT_EQ(p11->C_Logout(client.session), CKR_OK);
    EXPECT_EQ(client.Login(SO_PIN), CKR_PIN_INCORRECT);
    EXPECT_EQ(client.Login(SO_PIN, CKU_SO), CKR_USER_TYPE_INVALID) << "has none any more";
  }
  const Library p11(folder_);
  EXPECT_EQ(p11.Slots().at(0), slot) << "the same after every start";
  const Client client(p11);
  EXPECT_EQ(client.Login(PIN), CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_EQ(p11->C_SetPIN(client.session, Bytes("wrong1"), 6, Bytes("new one"), 7),
            CKR_PIN_INCORRECT);
  EXPECT_EQ(p11->C_SetPIN(client.session, Bytes(PIN), strlen(PIN), Bytes("new one"), 7), CKR_OK);
  CK_OBJECT_HANDLE priv = 0, pub = 0;
  EXPECT_EQ(client.Generate("1", &priv, &pub), CKR_OK);
  EXPECT_EQ(p11->C_CloseAllSessions(slot), CKR_OK);
  const Folder before = List();
  EXPECT_EQ(InitToken(p11, slot, "new one"), CKR_FUNCTION_FAILED) << "it holds a key";
  EXPECT_TRUE(List() == before);
  EXPECT_EQ(Client(p11, "").Login("new one"), CKR_OK);
}

TEST_F(Pkcs11Test, WhatWasSetReadsBack) {
  std::map<CK_OBJECT_CLASS, std::map<CK_ATTRIBUTE_TYPE, std::string>> want;
  {
    const Library p11(folder_);
    MakeToken(p11);
    const Client client(p11);
    CK_OBJECT_HANDLE priv = 0, pub = 0, other = 0;
    ASSERT_EQ(client.Generate("\1\2", &priv, &pub), CKR_OK);
    ASSERT_EQ(client.Generate("", &other, &other), CKR_OK) << "of the same label";
    EXPECT_EQ(client.Set(priv, CKA_SUBJECT, "not DER"), CKR_OK);
    EXPECT_EQ(client.Set(pub, CKA_LABEL, "public"), CKR_OK);
    EXPECT_EQ(client.Set(pub, CKA_EC_POINT, "x"), CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(client.Set(pub, CKA_PRIME_1, "x"), CKR_ATTRIBUTE_TYPE_INVALID);
    Wanted data, secret;
    data.Number(CKA_CLASS, CKO_DATA).Flag(CKA_TOKEN, true).Text(CKA_LABEL, "note");
    data.Text(CKA_VALUE, "open").Text(CKA_APPLICATION, "app").Text(CKA_OBJECT_ID, "\6\1\5");
    const CK_OBJECT_HANDLE made = client.Create(data);
    EXPECT_EQ(client.Set(made, CKA_VALUE, "another, longer one"), CKR_OK);
    secret.Number(CKA_CLASS, CKO_DATA).Flag(CKA_TOKEN, true).Flag(CKA_PRIVATE, true);
    client.Create(secret.Text(CKA_VALUE, "unmistakable").Text(CKA_LABEL, "secret"));
    for (const auto& [name, content] : List())
      EXPECT_EQ(content.find("756e6d697374616b61626c65"), std::string::npos) << "in the clear";
    want[CKO_PRIVATE_KEY] = {{CKA_ID, "\1\2"},         {CKA_LABEL, "same for all"},
                             {CKA_SUBJECT, "not DER"}, {CKA_LOCAL, "\1"},
                             {CKA_SENSITIVE, "\1"},    {CKA_EXTRACTABLE, std::string(1, '\0')}};
    want[CKO_PUBLIC_KEY] = {{CKA_ID, "\1\2"}, {CKA_LABEL, "public"}, {CKA_SUBJECT, ""}};
    want[CKO_DATA] = {{CKA_LABEL, "note"},
                      {CKA_APPLICATION, "app"},
                      {CKA_OBJECT_ID, "\6\1\5"},
                      {CKA_VALUE, "another, longer one"}};
  }
  const std::string copy = folder_ + "copy/";
  std::filesystem::create_directory(copy);
  for (const auto& file : std::filesystem::directory_iterator(folder_))
    if (file.is_regular_file()) std::filesystem::copy(file.path(), copy);
  std::set<std::string> names;
  for (const std::string& folder : {folder_, copy}) {
    const Library p11(folder);
    const Client client(p11);
    constexpr CK_ATTRIBUTE_TYPE UNIQUE_ID = 4;
    for (const auto object : client.Find({})) names.insert(client.Get(object, UNIQUE_ID));
    EXPECT_EQ(names.size(), 6u) << "the same in both";
    for (const auto& [cls, attributes] : want) {
      Wanted wanted;
      wanted.Number(CKA_CLASS, cls);
      for (const auto& [type, value] : attributes) wanted.Text(type, value);
      EXPECT_EQ(client.Find(wanted).size(), 1u) << cls;
    }
    const auto secrets = client.Find(Wanted().Text(CKA_LABEL, "secret"));
    ASSERT_EQ(secrets.size(), 1u);
    EXPECT_EQ(client.Get(secrets[0], CKA_VALUE), "unmistakable");
    EXPECT_EQ(p11->C_Logout(client.session), CKR_OK);
    EXPECT_EQ(client.Find(Wanted().Text(CKA_LABEL, "secret")).size(), 0u);
    EXPECT_EQ(client.Count(CKO_PRIVATE_KEY), 0u);
    EXPECT_EQ(client.Count(CKO_PUBLIC_KEY), 2u);
  }
}

TEST_F(Pkcs11Test, TemplatesAreJudged) {
  const Library p11(folder_, "CKK_SM2=0x80001234 CKM_SM3=0x80005678");
  MakeToken(p11);
  const Client client(p11);
  const auto expect = [&](CK_RV want, Wanted& wanted) { client.Create(wanted, want); };
  expect(CKR_TEMPLATE_INCOMPLETE, Wanted().Text(CKA_VALUE, "no class"));
  expect(CKR_ATTRIBUTE_VALUE_INVALID, Wanted().Text(CKA_CLASS, "a short one"));
  expect(CKR_ATTRIBUTE_TYPE_INVALID, Wanted().Number(CKA_CLASS, CKO_DATA).Text(CKA_MODULUS, "x"));
  expect(CKR_ATTRIBUTE_VALUE_INVALID, Wanted().Number(CKA_CLASS, CKO_DATA).Text(CKA_TOKEN, "xx"));
  expect(CKR_TEMPLATE_INCONSISTENT,
         Wanted().Number(CKA_CLASS, CKO_DATA).Text(CKA_LABEL, "one").Text(CKA_LABEL, "other"));
  // Without the header of an OCTET STRING this point begins as one with it would.
  std::string point;
  while (point.size() != 65 || point[1] != 0x3f) {
    const EvpKey key(EVP_EC_gen("P-256"));
    point.resize(65);
    size_t size = 0;
    EXPECT_EQ(EVP_PKEY_get_octet_string_param(key.get(), "pub", Bytes(point), 65, &size), 1);
  }
  Wanted key;
  key.Number(CKA_CLASS, CKO_PUBLIC_KEY).Number(CKA_KEY_TYPE, CKK_EC).Text(CKA_EC_PARAMS, P256);
  EXPECT_EQ(client.Get(client.Create(key.Text(CKA_EC_POINT, point)), CKA_EC_POINT),
            "\4\x41" + point);
  Wanted tooLong;
  tooLong.Number(CKA_CLASS, CKO_PRIVATE_KEY).Number(CKA_KEY_TYPE, CKK_EC);
  expect(CKR_ATTRIBUTE_VALUE_INVALID,
         tooLong.Text(CKA_EC_PARAMS, P256).Text(CKA_VALUE, std::string(1025, 'd')));
  // The numbers that were asked for are those of SM2 and SM3.
  CK_MECHANISM_INFO info;
  EXPECT_EQ(p11->C_GetMechanismInfo(p11.Slots().at(0), 0x80005678, &info), CKR_OK);
  CK_MECHANISM generate = {CKM_VENDOR_DEFINED | 0x534D20, nullptr, 0};
  CK_OBJECT_HANDLE priv = 0, pub = 0;
  EXPECT_EQ(p11->C_GenerateKeyPair(client.session, &generate, nullptr, 0, nullptr, 0, &pub, &priv),
            CKR_OK);
  EXPECT_EQ(client.Find(Wanted().Number(CKA_KEY_TYPE, 0x80001234)).size(), 2u);
}

TEST_F(Pkcs11TokenTest, ObjectsGoOneByOne) {
  CK_OBJECT_HANDLE pub = 0, pub2 = 0;
  const CK_OBJECT_HANDLE priv = Generate("1", &pub), priv2 = Generate("2", &pub2);
  Wanted data;
  data.Number(CKA_CLASS, CKO_DATA).Flag(CKA_TOKEN, true).Text(CKA_VALUE, "x");
  const CK_OBJECT_HANDLE note = client.Create(data);
  EXPECT_EQ(Destroy(pub2), CKR_OK) << "hidden";
  EXPECT_EQ(client.Sign(priv2), CKR_OK);
  const std::string point = client.Get(pub, CKA_EC_POINT);
  EXPECT_EQ(Destroy(priv), CKR_OK);
  EXPECT_EQ(client.Sign(priv), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(client.Get(pub, CKA_EC_POINT), point) << "the handle is still good";
  EXPECT_EQ(client.Get(pub, CKA_ID), "1");
  EXPECT_EQ(client.Get(pub, CKA_LABEL), "same for all") << "which was the keypair's";
  EXPECT_EQ(client.Get(note, CKA_VALUE), "x");
  EXPECT_EQ(client.Count(CKO_PRIVATE_KEY), 1u);
  EXPECT_EQ(client.Count(CKO_PUBLIC_KEY), 1u);
  for (const CK_OBJECT_HANDLE object : {pub, priv2, note}) EXPECT_EQ(Destroy(object), CKR_OK);
  EXPECT_EQ(client.Find({}).size(), 0u);
  EXPECT_EQ(Destroy(note), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(client.Login(PIN), CKR_USER_ALREADY_LOGGED_IN) << "the anchor holds the PIN";
}

TEST_F(Pkcs11TokenTest, SessionObjectsGoWithTheirSession) {
  Wanted data;
  data.Number(CKA_CLASS, CKO_DATA).Flag(CKA_PRIVATE, true).Text(CKA_VALUE, "x");
  const CK_OBJECT_HANDLE kept = client.Create(data);
  {
    const Client other(p11, "");
    other.Create(data);
    EXPECT_EQ(client.Count(CKO_DATA), 2u) << "each session sees both";
  }
  EXPECT_EQ(client.Find({}), std::vector{kept});
}

// A key and a certificate for it, and the same key once more.
TEST_F(Pkcs11TokenTest, WhatWasMadeElsewhereComesIn) {
  BIGNUM* raw = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(TestP256().key, "priv", &raw), 1);
  const BigNum scalar(raw);
  std::string bytes(32, 0);
  BN_bn2binpad(raw, Bytes(bytes), 32);
  const std::string own = SelfSigned(TestP256().key);
  std::vector<CK_OBJECT_HANDLE> keys;
  for (const char* id : {"first", "second"}) {
    Wanted key;
    key.Number(CKA_CLASS, CKO_PRIVATE_KEY).Number(CKA_KEY_TYPE, CKK_EC).Flag(CKA_TOKEN, true);
    key.Text(CKA_EC_PARAMS, P256).Text(CKA_VALUE, bytes).Text(CKA_ID, id);
    keys.push_back(client.Create(key));
    EXPECT_EQ(client.Sign(keys.back()), CKR_OK);
    EXPECT_EQ(client.Get(keys.back(), CKA_LOCAL), std::string(1, '\0')) << "made elsewhere";
  }
  Wanted certificate, nonsense;
  certificate.Number(CKA_CLASS, CKO_CERTIFICATE).Flag(CKA_TOKEN, true);
  certificate.Number(CKA_CERTIFICATE_TYPE, CKC_X_509).Text(CKA_VALUE, own);
  const CK_OBJECT_HANDLE cert = client.Create(certificate);
  EXPECT_EQ(client.Get(cert, CKA_SUBJECT), client.Get(cert, CKA_ISSUER));
  EXPECT_EQ(client.Get(cert, CKA_PUBLIC_KEY_INFO), client.Get(keys[0], CKA_PUBLIC_KEY_INFO));
  CK_ULONG category = 0;
  memcpy(&category, client.Get(cert, CKA_CERTIFICATE_CATEGORY).data(), sizeof category);
  EXPECT_EQ(category, CK_ULONG{CK_CERTIFICATE_CATEGORY_TOKEN_USER}) << "it is in the key's list";
  nonsense.Number(CKA_CLASS, CKO_CERTIFICATE).Flag(CKA_TOKEN, true);
  nonsense.Number(CKA_CERTIFICATE_TYPE, CKC_X_509).Text(CKA_VALUE, own + "x");
  client.Create(nonsense, CKR_ATTRIBUTE_VALUE_INVALID);

  EXPECT_EQ(Destroy(keys[0]), CKR_OK);
  EXPECT_EQ(client.Get(cert, CKA_VALUE), own) << "stays";
  const auto left = client.Find(Wanted().Number(CKA_CLASS, CKO_PRIVATE_KEY));
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(client.Get(left[0], CKA_ID), "second");
  EXPECT_EQ(client.Sign(left[0]), CKR_OK);
}

// Everyone makes keys, takes every second one away again, and signs with what is left.
TEST_F(Pkcs11Test, ProcessesLoseNothing) {
  MakeToken(Library(folder_));
  constexpr int PROCESSES = 3, KEYS = 4;
  std::vector<pid_t> children;
  for (int i = 0; i < PROCESSES; i++)
    children.push_back(Fork([&] {
      const Library p11(folder_);
      const Client client(p11);
      for (int k = 0; k < KEYS; k++) {
        CK_OBJECT_HANDLE priv = 0, pub = 0;
        EXPECT_EQ(client.Generate(std::to_string(i) + std::to_string(k), &priv, &pub), CKR_OK);
        EXPECT_EQ(client.Sign(priv), CKR_OK);
        if (k % 2 == 0) continue;
        EXPECT_EQ(p11->C_DestroyObject(client.session, priv), CKR_OK);
        EXPECT_EQ(p11->C_DestroyObject(client.session, pub), CKR_OK);
      }
    }));
  for (const pid_t child : children) EXPECT_EQ(WaitFor(child), 0);
  const Library p11(folder_);
  const Client client(p11);
  EXPECT_EQ(client.Count(CKO_PRIVATE_KEY), size_t{PROCESSES * KEYS / 2});
  std::set<std::string> ids;
  for (const auto key : client.Find(Wanted().Number(CKA_CLASS, CKO_PRIVATE_KEY))) {
    EXPECT_EQ(client.Sign(key), CKR_OK);
    ids.insert(client.Get(key, CKA_ID));
  }
  EXPECT_EQ(ids.size(), size_t{PROCESSES * KEYS / 2}) << "each has the id that it was given";
}

// All functions, in the order of the list, called with nothing but zeros, and with a session.
TEST_F(Pkcs11TokenTest, NullIsACode) {
  using Any = CK_RV (*)(CK_ULONG, void*, void*, void*, void*, void*, void*, void*, void*, void*);
  constexpr size_t FIRST = offsetof(CK_FUNCTION_LIST_3_0, C_Initialize);
  std::vector<Any> functions((sizeof(CK_FUNCTION_LIST_3_0) - FIRST) / sizeof(Any));
  const auto* const list = reinterpret_cast<const char*>(p11.operator->());
  memcpy(functions.data(), list + FIRST, functions.size() * sizeof(Any));
  constexpr size_t FINALIZE = 1, GET_SLOT_LIST = 4, CLOSE_SESSION = 13, GET_INTERFACE_LIST = 68;
  for (size_t i = 0; i < functions.size(); i++) {
    SCOPED_TRACE(i);
    const bool hasHandle = i >= GET_SLOT_LIST && i / 2 != GET_INTERFACE_LIST / 2;
    for (const CK_ULONG first : {CK_ULONG{0}, client.session, ~CK_ULONG{0}}) {
      if (i == FINALIZE || (!hasHandle && first != 0)) continue;  // NULL is all that it takes
      if (i == CLOSE_SESSION && first == client.session) continue;
      functions[i](first, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   nullptr);
    }
  }
  EXPECT_EQ(p11->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  EXPECT_EQ(p11->C_Finalize(&functions), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Client(p11).Find({}).size(), 0u) << "still works";
}

// What can't be answered does not keep the rest from its answer.
TEST_F(Pkcs11TokenTest, EachAttributeIsAnswered) {
  CK_OBJECT_HANDLE pub = 0;
  const CK_OBJECT_HANDLE priv = Generate("id", &pub);
  const struct {
    CK_ATTRIBUTE_TYPE type;
    CK_ULONG room, length;
    CK_RV want;
  } rows[] = {{CKA_VALUE, 99, CK_UNAVAILABLE_INFORMATION, CKR_ATTRIBUTE_SENSITIVE},
              {CKA_LABEL, 11, CK_UNAVAILABLE_INFORMATION, CKR_BUFFER_TOO_SMALL},
              {CKA_MODULUS, 99, CK_UNAVAILABLE_INFORMATION, CKR_ATTRIBUTE_TYPE_INVALID},
              {CKA_ID, 2, 2, CKR_OK}};
  char value[99];
  std::vector<CK_ATTRIBUTE> all;
  for (const auto& row : rows) {
    all.push_back({row.type, value, row.room});
    CK_ATTRIBUTE one = all.back();
    EXPECT_EQ(p11->C_GetAttributeValue(client.session, priv, &one, 1), row.want) << row.type;
  }
  EXPECT_NE(p11->C_GetAttributeValue(client.session, priv, all.data(), all.size()), CKR_OK);
  for (size_t i = 0; i < all.size(); i++) EXPECT_EQ(all[i].ulValueLen, rows[i].length) << i;
  // A session for reading reads; with the login, what was known of private objects ends.
  CK_SESSION_HANDLE reader = 0;
  EXPECT_EQ(p11->C_OpenSession(client.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &reader), CKR_OK);
  EXPECT_EQ(p11->C_DestroyObject(reader, pub), CKR_SESSION_READ_ONLY);
  EXPECT_EQ(p11->C_Logout(reader), CKR_OK);
  EXPECT_EQ(client.Login(PIN), CKR_OK);
  CK_ULONG size = 0;
  EXPECT_EQ(p11->C_GetObjectSize(reader, pub, &size), CKR_OK);
  EXPECT_EQ(p11->C_GetObjectSize(reader, priv, &size), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(Pkcs11Test, FinalizeWaitsForThoseInside) {
  const Library p11(folder_);
  MakeToken(p11);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++)
    threads.emplace_back([&] {
      while (!stop) {
        CK_SLOT_ID slots[4];
        CK_ULONG count = 4;
        CK_SESSION_HANDLE session = 0;
        if (p11->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK) continue;
        p11->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &session);
        p11->C_Login(session, CKU_USER, Bytes(PIN), strlen(PIN));
        p11->C_FindObjectsInit(session, nullptr, 0);
        p11->C_CloseSession(session);
      }
    });
  for (int i = 0; i < 20; i++) {
    std::string reserved = "folder=" + folder_;
    CK_C_INITIALIZE_ARGS args = {};
    args.LibraryParameters = reinterpret_cast<CK_CHAR_PTR*>(reserved.data());
    usleep(2000);
    EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p11->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11->C_Initialize(&args), CKR_OK);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Pkcs11Test, ADeviceThatComesOrGoesIsAnEvent) {
  MakeToken(Library(folder_));
  const auto device = std::filesystem::directory_iterator(folder_)->path();
  const auto elsewhere = folder_ + "../" + device.filename().string();
  const Library p11(folder_);
  const CK_SLOT_ID slot = p11.Slots().at(0);
  const auto expect = [&](CK_RV want, CK_FLAGS flags, CK_SLOT_ID where = 0) {
    CK_SLOT_ID told = 0;
    EXPECT_EQ(p11->C_WaitForSlotEvent(flags, &told, nullptr), want);
    EXPECT_EQ(told, where);
  };
  expect(CKR_NO_EVENT, CKF_DONT_BLOCK);
  std::thread waiter([&] { expect(CKR_OK, 0, slot); });
  std::filesystem::rename(device, elsewhere);
  waiter.join();
  expect(CKR_NO_EVENT, CKF_DONT_BLOCK);
  std::filesystem::rename(elsewhere, device);
  expect(CKR_OK, CKF_DONT_BLOCK, slot);
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; i++)
    waiters.emplace_back([&] { expect(CKR_CRYPTOKI_NOT_INITIALIZED, 0); });
  usleep(50000);
  EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
  for (std::thread& thread : waiters) thread.join();
}

// One logs in and out, the others make, change, use and delete what they can meanwhile.
TEST_F(Pkcs11TokenTest, ThreadsShareAToken) {
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; i++)
    threads.emplace_back([&, i] {
      const Client other(p11, "");
      for (int k = 0; k < 4; k++) {
        CK_OBJECT_HANDLE priv = 0, pub = 0;
        const CK_RV made = other.Generate(std::to_string(i), &priv, &pub);
        EXPECT_TRUE(made == CKR_OK || made == CKR_USER_NOT_LOGGED_IN) << made;
        other.Sign(priv);
        other.Set(pub, CKA_LABEL, "changed");
        for (const auto key : other.Find(Wanted().Text(CKA_ID, std::to_string(i))))
          p11->C_DestroyObject(other.session, key);
      }
      done++;
    });
  while (done < 3) {
    EXPECT_EQ(p11->C_Logout(client.session), CKR_OK);
    EXPECT_EQ(client.Login(PIN), CKR_OK);
    usleep(20000);
  }
  for (std::thread& thread : threads) thread.join();
  CK_OBJECT_HANDLE pub = 0;
  EXPECT_EQ(client.Sign(Generate("last", &pub)), CKR_OK);
}

TEST_F(Pkcs11TokenTest, AChildStartsAnew) {
  CK_OBJECT_HANDLE priv = 0, pub = 0;
  ASSERT_EQ(client.Generate("1", &priv, &pub), CKR_OK);
  EXPECT_EQ(WaitFor(Fork([&] {
              EXPECT_EQ(client.Sign(priv), CKR_CRYPTOKI_NOT_INITIALIZED);
              const Library again(folder_);
              const Client child(again);
              const auto keys = child.Find(Wanted().Number(CKA_CLASS, CKO_PRIVATE_KEY));
              EXPECT_EQ(keys.size(), 1u);
              for (const auto key : keys) EXPECT_EQ(child.Sign(key), CKR_OK);
            })),
            0);
  EXPECT_EQ(client.Sign(priv), CKR_OK);
  // A login ends when another process has changed the PIN.
  EXPECT_EQ(WaitFor(Fork([&] {
              const Library again(folder_);
              const Client child(again);
              EXPECT_EQ(again->C_SetPIN(child.session, Bytes(PIN), strlen(PIN), Bytes("other"), 5),
                        CKR_OK);
            })),
            0);
  EXPECT_EQ(client.Generate("2", &priv, &pub), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(client.Login("other"), CKR_OK);
}

TEST_F(Pkcs11TokenTest, AProgramEndsAsItLikes) {
  EXPECT_EQ(WaitFor(Fork([&] {
              const Library own(folder_);
              const Client user(own);
              CK_OBJECT_HANDLE priv = 0, pub = 0;
              EXPECT_EQ(user.Generate("1", &priv, &pub), CKR_OK);
              CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
              EXPECT_EQ(own->C_SignInit(user.session, &mechanism, priv), CKR_OK);
              OPENSSL_cleanup();
              EXPECT_EQ(user.Sign(priv), CKR_CRYPTOKI_NOT_INITIALIZED);
              EXPECT_EQ(own->C_Finalize(nullptr), CKR_OK);
            })),
            0);
}

TEST_F(Pkcs11Test, IsUnloaded) {
  { MakeToken(Library(folder_)); }
  EXPECT_EQ(ReadText("/proc/self/maps").find("libvakro_pkcs11"), std::string::npos);
}
