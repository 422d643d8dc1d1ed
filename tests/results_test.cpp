// Plays the tables of results in tests/data: lives.txt, stored_changes.txt, results.txt and
// without_sm2.txt.
#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "store/store.h"
#include "tests/support/operations.h"

#include <functional>
#include <set>
#include <sstream>
#include <utility>

namespace {
// A word of the table: a number, a JSON value, the name of something, or a text for itself.
struct Word {
  std::string text;
  const std::map<std::string, void*>& things;
  int number = static_cast<int>(strtoll(text.c_str(), nullptr, 0));
  std::shared_ptr<VakroJson> tree =
      Json(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));

  explicit operator int() const { return number; }
  explicit operator unsigned int() const { return static_cast<unsigned int>(number); }
  template <class T>
  explicit operator T*() const {
    const bool named = things.contains(text);
    if constexpr (std::is_same_v<T, const char> || std::is_same_v<T, const unsigned char>)
      if (!named) return reinterpret_cast<T*>(text.data());
    if constexpr (std::is_same_v<T, const int>)
      if (!named) return &number;
    if constexpr (std::is_same_v<T, VakroJson>)
      if (!named) return tree.get();
    return static_cast<T*>(things.at(text));
  }
};
using Words = std::vector<Word>;
using Call = std::function<int(const Words&)>;

unsigned char g_out[600];

// What a call has handed out; it is given back unless the row names it.
std::unique_ptr<void, void (*)(void*)> g_handle(nullptr, nullptr);
template <auto Free, class Handle>
int Take(Handle* handle) {
  g_handle = {handle, [](void* kept) { Free(static_cast<Handle*>(kept)); }};
  return handle != nullptr ? 1 : 0;
}

// A handle or a value counts as 1; what reads as text becomes the output.
int Code(int result) { return result; }
int Code(unsigned int result) { return static_cast<int>(result); }
int Code(DeviceSet* set) { return Take<DeviceFreeDevices>(set); }
int Code(Device* device) { return Take<DeviceFreeDevice>(device); }
int Code(Keypair* keypair) { return Take<DeviceFreeKeypair>(keypair); }
int Code(PublicKey* key) { return Take<DeviceFreePublicKey>(key); }
int Code(Cert* cert) { return Take<FreeCert>(cert); }
int Code(Data* data) { return Take<FreeData>(data); }
int Code(char* text) {
  const UtilText owned(text);
  if (owned) memcpy(g_out, text, std::min(strlen(text), sizeof(g_out)));
  return owned ? 1 : 0;
}
int Code(VakroJson* value) {
  const Json owned(value);
  char* text = nullptr;
  unsigned int length = 0;
  return owned && vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length) == 1 ? Code(text)
                                                                                    : 0;
}

// What no function of the module tells.
int IsEqual(const Device* a, const Device* b) {
  return Describe(*a, false) == Describe(*b, false) ? 1 : 0;
}
unsigned int References(const Device* device) { return device->refCount; }
unsigned int Tag(const Device* device) { return device->fileTag; }
int Exponent(const Keypair* keypair) {
  const RsaKey rsa(EVP_PKEY_get1_RSA(keypair->privateKey));
  return static_cast<int>(BN_get_word(RSA_get0_e(rsa.get())));
}

// What a word may name, as it is kept.
template <class Result, class... Args>
Call Kept(Result (*function)(Args...)) {
  return [function](const Words& words) {
    EXPECT_EQ(words.size(), sizeof...(Args));
    return [&]<size_t... I>(std::index_sequence<I...>) {
      if constexpr (!std::is_void_v<Result>)
        return Code(function(static_cast<Args>(words.at(I))...));
      else
        return function(static_cast<Args>(words.at(I))...), 1;
    }
    (std::index_sequence_for<Args...>());
  };
}
template <class T>
void* Kept(T& thing) {
  if constexpr (requires { thing.data(); })
    return thing.data();
  else if constexpr (requires { *thing; })
    return &*thing;
  else
    return &thing;
}

// A map of things under their own names, trailing underscores left out.
#define NAMED(...) Named(#__VA_ARGS__, __VA_ARGS__)
template <class... Things>
auto Named(const std::string& names, Things&... things) {
  std::istringstream words(names);
  const auto next = [&words] {
    std::string name;
    std::getline(words >> std::ws, name, ',');
    if (name.ends_with('_')) name.pop_back();
    return name;
  };
  using Kind = std::common_type_t<decltype(Kept(things))...>;
  return std::map<std::string, Kind>{{next(), Kept(things)}...};
}

const auto FUNCTIONS = NAMED(
    IsEqual, References, Tag, Exponent, DeviceGetAllDevices, DeviceGetDeviceCount, DeviceGetDevice,
    DeviceFreeDevice, DeviceFreeDevices, DeviceGetLabel, DeviceGetSerialNumber, DeviceUnlockDevice,
    DeviceCreateData, DeviceReadDataEx, DeviceWriteDataEx, DeviceDeleteData, DeviceGetKeypairCount,
    DeviceGetKeypair, DeviceFreeKeypair, DeviceGetKeypairType, DeviceGetKeypairAlgorithm,
    DeviceGetKeypairBits, DeviceGetKeypairLabel, HasKeypair, DeviceAddCertificate,
    DeviceGetCertificateCount, DeviceGetCertificate, DeviceDeleteCertificate, DeviceDeleteKeypair,
    DeleteKeypairFromDevice, DeviceGetPublicKeyFromKeypair, DeviceImportPublicKey,
    DeviceFreePublicKey, DeviceExportPublicKey, DeviceGetPublicKeyAlgorithm, DeviceGetPublicKeyBits,
    DeviceSign, DeviceVerify, DevicePublicKeyEncrypt, DevicePrivateKeyDecrypt,
    DeviceGenerateKeypair, DeviceImportKeypair, DeviceVerifyPwd, DeviceChangePwd,
    DeviceIsSupportedAlgorithm2, GetECCBits, GetECCCurveNid, checkCurveBits, string_endwiths,
    GetFilePath, NewCert, newData, VakroJsonDeleteArrayItem, VakroJsonUpdateArrayItem,
    UpdateJsonKeypairsToDevice, UpdateJsonCertsToKeypair, KeypairJsonEqual, CertJsonEqual,
    UpdateJsonKeypairToKeypairs, DeleteJsonCertToCerts, DeleteJsonCertToKeypair,
    UpdateKeypairToFile, FreeDeviceSet, FreeKeypair, FreeCert, FreeData, FreeDatas, FreeSM2Info,
    Keypair2Json, Cert2Json, Data2Json, CalculateMac, CalculateHash, CalculateCipher,
    UpdateData2DeviceJson, AddhKeypairToFile, UpdateDeviceDataToFile, AddCertToFile,
    DeleteCertFromFile, GetDeviceDataFromFile);

// A word that stands where a row has a verb or a field must be one, or the row would prove nothing.
const std::set<std::string> VERBS = {"scan", "bytes", "more", "file", "backup", "left"};
const std::set<std::string> FIELDS = {"=",   "n",      "holds",   "hex", "fails",
                                      "nth", "writes", "becomes", "by",  "as"};
constexpr int UNTOUCHED = 77;
}  // namespace

class ResultsTest : public OperationsTest {
 protected:
  // One call, and that it leaves what it should.
  template <class Function>
  void Gives(int want, bool writes, Function call) {
    const std::string file = Read("dev"), closed = Describe(*closed_);
    memset(g_out, '.', sizeof(g_out));
    n_ = UNTOUCHED;
    if (want == 1) {
      EXPECT_EQ(call(), 1);
      const LibBytes made(std::exchange(*bytes_, nullptr));
      if (made) memcpy(g_out, made.get(), std::min(static_cast<size_t>(n_), sizeof(g_out)));
      EXPECT_EQ(Read("dev") != file, writes) << "the file";
    } else {
      Refuses(want, device_.get(), call);
      EXPECT_TRUE(Describe(*closed_) == closed && !*made_ && !*key_ && !*bytes_);
    }
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
    if (*made_) Code(std::exchange(*made_, nullptr));
    if (*key_) Code(std::exchange(*key_, nullptr));
  }

  // A line that is no call: what the file is, or must be, or a record made from it.
  void Arrange(const std::string& verb, const std::string& what, std::string text,
               unsigned int tag) {
    if (verb == "scan") return static_cast<void>(things_[what] = Rescan().release());
    if (verb == "bytes") return Write("dev", Unhex(what));
    if (verb == "more")
      text = base_.substr(0, base_.size() - 1) + "," + what + "]";
    else if (what != "ALL")
      text = Replaced(base_, what, text);
    if (verb == "left") {
      EXPECT_EQ(TextOf(Read("dev")), text);
    } else {
      Write(verb == "backup" ? "dev.bak" : "dev", Container(tag, text));
    }
  }

  void Play(const std::string& line) {
    SCOPED_TRACE(line);
    std::istringstream row(line);
    std::string function, text, by;
    Words words;
    row >> function;
    if (VERBS.contains(function)) {
      unsigned int tag = TAG;
      row.unsetf(std::ios::basefield);
      row >> text >> by >> tag;
      return Arrange(function, text, by, tag);
    }
    while (row >> text && text != "=") words.push_back({text, things_});
    std::map<std::string, std::string> want;
    for (std::string value; row >> value; row >> text) {
      EXPECT_TRUE(FIELDS.contains(text)) << text;
      want[text] = value;
    }
    const auto call = [&] { return FUNCTIONS.at(function)(words); };
    const int result = std::stoi(want["="]);
    const std::string before = TextOf(Read("dev"));
    const Fault fault = {want["fails"], want.contains("nth") ? std::stol(want["nth"]) : 0};
    Gives(result, want.contains("writes") || want.contains("becomes"),
          [&] { return WithFault(fault, call); });
    EXPECT_TRUE(result != 1 || !Exists("dev.bak") || fault.name == "remove");
    if (want.contains("as")) things_[want["as"]] = g_handle.release();
    g_handle.reset();
    EXPECT_EQ(n_, want.contains("n") ? std::stoi(want["n"]) : result == 1 ? n_ : UNTOUCHED);
    EXPECT_EQ(Bytes(g_out, Len(want["holds"])), want["holds"]);
    EXPECT_EQ(Hex(Bytes(g_out, Len(want["hex"]) / 2)), want["hex"]);
    if (want.contains("becomes")) {
      EXPECT_EQ(TextOf(Read("dev")), Replaced(before, want["becomes"], want["by"]));
    }
  }

  std::string base_;  // the text that the table began with
  DeviceHandle closed_;
  int n_ = 0;
  Keypair* made_[1] = {};  // arrays, so that the table names their addresses
  PublicKey* key_[1] = {};
  unsigned char* bytes_[1] = {};
  std::map<std::string, void*> things_;
};

TEST_F(ResultsTest, AreThoseOfTheTables) {
  std::string digest(64, 'e'), block = '\0' + std::string(256, 'b'), ones(256, '\xff');
  std::string pair = TestP256().pair, encoding = TestP256().publicKey;
  std::string pairOf2 = Flipped(pair, 11, 4 ^ 2);
  std::string sm2Pair = TestSm2().pair, sm2Encoding = TestSm2().publicKey;
  std::string rsaCipher = ReadVectors("keys.txt")["rsa2048_cipher"];
  std::string rawCipher = Encrypt(rsaPublic_.get(), 48, block.substr(0, 256));
  std::string longCipher = Encrypt(rsaPublic_.get(), 16, ones.substr(11));
  std::string emptyCipher = Encrypt(rsaPublic_.get(), 16, "");
  std::string rsaSignature = Sign(rsa_, 256, digest.substr(32));
  std::string emptySignature = Sign(rsa_, 256, "");
  std::string rawSignature = Sign(rsa_, 768, block.substr(0, 256));
  std::string sm2Cipher = Encrypt(sm2Public_.get(), 64, digest.substr(32)), signature;
  std::string pin = PIN, empty;
  while (signature.size() != 71) signature = Sign(sm2_, 4096, digest.substr(32));  // the table's
  ECCKeypairParams onP256 = {3, 0}, onP384 = {4, 0}, on6 = {6, 0}, onSm2 = {7, 0};
  ECCKeypairParams temporaryOnP256 = {3, 1}, temporaryOn6 = {6, 1}, temporaryOnSm2 = {7, 1};
  RSAKeypairParams noExponent = {Raw(""), 0, 0}, exponentOf3 = {Raw("\3"), 1, 0},
                   temporaryRsa = {nullptr, 0, 1};
  auto& out = g_out;
  AEADParams aead = {16, Raw("a nonce"), 7, Raw("data"), 4}, shortTag = aead;
  shortTag.tagLen = 15;
  Keypair *fourth, *temporary;
  ASSERT_EQ(DeviceGenerateKeypair(device_.get(), 4, 256, &onP256, 4, "sign", &fourth), 1);
  ASSERT_EQ(DeviceGenerateKeypair(device_.get(), 4, 256, &temporaryOnP256, 4, "", &temporary), 1);
  const KeypairHandle ownedFourth(fourth), ownedTemporary(temporary);
  const SetHandle owned(DeviceGetAllDevices());
  DeviceSet* set = owned.get();
  closed_.reset(DeviceGetDevice(set, 0));
  Keypair* locked = closed_->keypairs[1];
  // The curve of this one isn't known, since no PIN has opened its keypair.
  const PublicHandle unknown(DeviceGetPublicKeyFromKeypair(closed_->keypairs[2]));
  // These are given back by the table.
  Device* deviceHandle = DeviceGetDevice(set, 0);
  Keypair* keypairHandle = DeviceGetKeypair(device_.get(), 0);
  PublicKey* publicHandle = DeviceGetPublicKeyFromKeypair(p256_);
  const OwnedCert ownedCert(NewCert(Raw("other"), 5));
  Cert* otherCert = ownedCert.get();
  things_ = NAMED(device_, closed_, set, rsa_, p256_, sm2_, fourth, temporary, locked, rsaPublic_,
                  p256Public_, sm2Public_, unknown, deviceHandle, keypairHandle, publicHandle,
                  otherCert, digest, block, ones, pair, pairOf2, encoding, sm2Pair, sm2Encoding,
                  rsaCipher, rawCipher, longCipher, emptyCipher, sm2Cipher, rsaSignature,
                  emptySignature, rawSignature, signature, pin, onP256, onP384, on6, onSm2,
                  temporaryOnP256, temporaryOn6, temporaryOnSm2, noExponent, exponentOf3,
                  temporaryRsa, empty, aead, shortTag, out, made_, key_, bytes_, n_);
  things_["-"] = nullptr;
  const auto things = things_;
  for (const std::string table :
       {"lives.txt", "stored_changes.txt", "results.txt", "without_sm2.txt"}) {
    if (table == "without_sm2.txt") FreeSM2Info(std::exchange(g_sm2, nullptr));
    things_ = things;
    base_ = TextOf(Read("dev"));
    for (const std::string& row : ReadRows(table.c_str())) Play(row);
  }
  closed_.reset();
}
