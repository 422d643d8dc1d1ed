// The libraries below the module: published vectors, strictness, JSON, the lock, and what failing
// allocations leave.
#include "device/owners.h"
#include "tests/support/device_file.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <math.h>
#include <stdlib.h>
#include <atomic>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

using namespace std::string_literals;

// --- The allocators of the libraries and of OpenSSL, counted and made to fail --------------------

static std::atomic<long> g_live = 0;    // buffers of the libraries that were not released
static std::atomic<long> g_failAt = 0;  // the allocation that fails, counted down; 0: none

static bool IsToFail() { return g_failAt > 0 && --g_failAt == 0; }

extern "C" void* vakro_malloc(size_t size, const char*, int) {
  void* const memory = IsToFail() ? nullptr : malloc(size + 1);
  g_live += memory != nullptr;
  return memory;
}
extern "C" void vakro_free(void* memory) {
  g_live -= memory != nullptr;
  free(memory);
}

static const int g_isSet = CRYPTO_set_mem_functions(
    [](size_t size, const char*, int) { return IsToFail() ? nullptr : malloc(size); },
    [](void* p, size_t size, const char*, int) { return IsToFail() ? nullptr : realloc(p, size); },
    [](void* p, const char*, int) { free(p); });

static const std::string REFUSED = "refused";

// FailEachAllocation runs `step` with the first, then the second … allocation failing, until none
// fails. A step gives `want` or, where one failed, REFUSED, and leaves nothing behind.
template <class Step>
static void FailEachAllocation(const std::string& want, Step step) {
  ASSERT_EQ(step(), want) << "undisturbed";  // also lets OpenSSL make what it keeps
  const long before = g_live;
  long n = 0;
  for (bool failed = true; failed; failed = g_failAt == 0) {
    g_failAt = ++n;
    const std::string result = step();
    EXPECT_TRUE(result == want || (g_failAt == 0 && result == REFUSED)) << n << ": " << result;
    EXPECT_EQ(g_live, before) << "allocation " << n;
  }
  g_failAt = 0;
  EXPECT_TRUE(n > 1 && g_isSet == 1) << "the allocators are not ours";
}

// --- Functions from bytes to bytes ---------------------------------------------------------------

namespace {

// Bytes and texts, as the functions want them.
struct Pointer {
  const unsigned char* at;
  operator const unsigned char*() const { return at; }
  operator const char*() const { return reinterpret_cast<const char*>(at); }
};
struct In {
  Pointer at;
  int size;
};

struct Place {
  unsigned char** at;
  operator unsigned char**() const { return at; }
  operator char**() const { return reinterpret_cast<char**>(at); }
};
struct Out {
  std::string front;  // what comes before the bytes
  unsigned char* bytes = nullptr;
  int size = -1;
  ~Out() { VakroPKICryptoFreeMemory(bytes); }
  Place at() { return {&bytes}; }
  std::string str() const { return {reinterpret_cast<char*>(bytes), static_cast<size_t>(size)}; }
};

// Calls FUNCTION with what comes first, so many inputs, and so many outputs.
template <auto FUNCTION, size_t INPUTS = 1, size_t OUTPUTS = 1, auto... FIRST>
int Call(const In* in, Out* out) {
  return [&]<size_t... I, size_t... O>(std::index_sequence<I...>, std::index_sequence<O...>) {
    return std::apply(FUNCTION,
                      std::tuple_cat(std::tuple(FIRST...), std::tuple(in[I].at, in[I].size)...,
                                     std::tuple(out[O].at(), &out[O].size)...));
  }
  (std::make_index_sequence<INPUTS>(), std::make_index_sequence<OUTPUTS>());
}

// The same for a decoder that hands out a curve first.
template <auto DECODE, size_t OUTPUTS>
int CallWithCurve(const In* in, Out* out) {
  static int curve;
  static constexpr auto decode = [](const unsigned char* bytes, int size, auto... numbers) {
    return DECODE(bytes, size, &curve, numbers...);
  };
  const int result = Call<decode, 1, OUTPUTS>(in, out);
  out->front = Word(static_cast<unsigned int>(curve));
  return result;
}

// Hands the input to `update` in pieces of 1, 2, 4 … bytes.
template <class Update>
bool InPieces(const In& in, Update update) {
  bool good = true;
  for (int at = 0, piece = 1; good && (at < in.size || piece == 1); piece *= 2) {
    const int size = std::min(piece, in.size - at);
    good = update(in.at.at + at, size) == 1;
    at += size;
  }
  return good;
}

// Objects outlive the device that they were made on.
template <int ALGORITHM>
int Hash(const In* in, Out* out) {
  const HashObject hash(
      VakroPKICryptoNewHash(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(), ALGORITHM));
  const auto update = [&](auto... piece) { return VakroPKICryptoHashUpdate(hash.get(), piece...); };
  return InPieces(*in, update) && VakroPKICryptoHashFinal(hash.get(), out->at(), &out->size);
}

template <int ALGORITHM>
int Authenticate(const In* in, Out* out) {
  const MacObject mac(VakroPKICryptoNewMac(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(),
                                           ALGORITHM, in[0].at, in[0].size, nullptr));
  const auto update = [&](auto... piece) { return VakroPKICryptoMacUpdate(mac.get(), piece...); };
  return InPieces(in[1], update) && VakroPKICryptoMacFinal(mac.get(), out->at(), &out->size);
}

// What the updates gave, and what the final step gave.
template <int ENCRYPT>
int Gcm(const In* in, Out* out) {
  const AEADParams params = {16, in[1].at, in[1].size, in[2].at, in[2].size};
  const CipherObject cipher(
      VakroPKICryptoNewCipher(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(), ENCRYPT,
                              VAKRO_CIPHER_AES256_GCM, in[0].at, in[0].size, &params));
  if (VakroPKICryptoCipherSetPadding(cipher.get(), VAKRO_PADDING_NONE) != 1) return 0;
  const auto update = [&](auto... piece) {
    Out part;
    if (VakroPKICryptoCipherUpdate(cipher.get(), piece..., part.at(), &part.size) != 1) return 0;
    out->front += part.str();
    return 1;
  };
  return InPieces(in[3], update) && VakroPKICryptoCipherFinal(cipher.get(), out->at(), &out->size);
}

const std::map<std::string, int (*)(const In* in, Out* out)> FUNCTIONS = {
    {"sha512", Hash<VAKRO_HASH_SHA512>},
    {"sm3", Hash<VAKRO_HASH_SM3>},
    {"hmac-sha512", Authenticate<VAKRO_HASH_SHA512>},
    {"hmac-sm3", Authenticate<VAKRO_HASH_SM3>},
    {"gcm-seal", Gcm<1>},
    {"gcm-open", Gcm<0>},
    {"to-hex", Call<VakroPKICryptoHexEncode, 1, 1, 1>},
    {"from-hex", Call<VakroPKICryptoHexDecode>},
    {"to-base64", Call<vakro_base64encode, 1, 1, 1>},
    {"from-base64", Call<vakro_base64decode, 1, 1, 2>},
    {"rsa-public-encode", Call<VakroPKICryptoRSAPubKeyFromDER>},
    {"rsa-public-decode", Call<VakroPKICryptoDecodeRSAPubKey, 1, 2>},
    {"rsa-pair-encode", Call<VakroPKICryptoRSAPrivKeyFromDER>},
    {"rsa-pair-decode", Call<VakroPKICryptoRSAPrivKeyToDER>},
    {"ecc-public-encode", Call<VakroPKICryptoEncodeECCPubKey, 2, 1, INT_MIN + 3>},
    {"ecc-public-decode", CallWithCurve<VakroPKICryptoDecodeECCPubKey, 2>},
    {"ecc-pair-encode", Call<VakroPKICryptoEncodeECCKeyPair, 3, 1, 7>},
    {"ecc-pair-decode", CallWithCurve<VakroPKICryptoDecodeECCKeyPair, 3>},
    {"signature-encode", Call<VakroPKICryptoEncodeECCSignature, 2>},
    {"signature-decode", Call<VakroPKICryptoDecodeECCSignature, 1, 2>}};

// Words of hex, one for each output, "-" for no bytes; or REFUSED, and then nothing was handed out.
std::string PerformOn(const std::string& function, const std::vector<In>& in) {
  Out out[3];
  const int result = FUNCTIONS.at(function)(in.data(), out);
  std::string words = Hex(out->front);
  for (const Out& part : out) {
    EXPECT_TRUE(result == 1 || (result == 0 && part.bytes == nullptr && part.size == -1));
    if (part.size >= 0 && !words.empty()) words += ' ';
    if (part.size >= 0) words += part.size == 0 ? "-" : Hex(part.str());
  }
  return result == 1 ? words : REFUSED;
}

// Copies without a NUL behind them, so that the address sanitizer sees a byte read too many.
std::string Perform(const std::string& function, const std::vector<std::string>& inputs) {
  std::vector<std::vector<unsigned char>> copies;
  std::vector<In> in;
  for (const std::string& input : inputs) copies.emplace_back(input.begin(), input.end());
  for (const auto& copy : copies) in.push_back({{copy.data()}, static_cast<int>(copy.size())});
  return PerformOn(function, in);
}

}  // namespace

// Every row; and for every one that works: each allocation failing, arguments that can't be, and
// for what has one form only a last input cut anywhere or one byte too long.
TEST(Platform, FunctionsGiveWhatTheTableSays) {
  std::ifstream file(DataFile("platform.txt"));
  int count = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(line);
    std::istringstream words(line);
    std::string function, word, want;
    std::vector<std::string> inputs;
    words >> function;
    while (words >> word && word != "=")
      inputs.push_back(word[0] == '"' ? word.substr(1, word.size() - 2) : Unhex(word));
    std::getline(words >> std::ws, want);
    ASSERT_EQ(Perform(function, inputs), want);
    count++;
    if (want == REFUSED) continue;
    FailEachAllocation(want, [&] { return Perform(function, inputs); });
    for (size_t i = 0; i < inputs.size(); i++) {
      std::vector<In> in;
      for (const std::string& input : inputs) in.push_back({{Raw(input)}, Len(input)});
      for (const In& bad : {In{in[i].at, -1}, In{in[i].at, INT_MIN}, In{{nullptr}, 2}}) {
        in[i] = bad;
        EXPECT_EQ(PerformOn(function, in), REFUSED) << "input " << i << " of " << bad.size;
      }
    }
    const bool strict = function == "gcm-open" || function.ends_with("-decode");
    const std::string longer = inputs.back() + '\0';
    for (size_t n = 0; strict && n <= longer.size(); n++) {
      inputs.back() = longer.substr(0, n);
      EXPECT_EQ(Perform(function, inputs) == REFUSED, n != longer.size() - 1) << "cut to " << n;
    }
  }
  EXPECT_GT(count, 100);
}

TEST(Platform, RefusesWrongUse) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  const unsigned char bytes[80] = {};
  const auto gcm = [&](const AEADParams& params, int encrypt = 1,
                       int algorithm = VAKRO_CIPHER_AES256_GCM) {
    return CipherObject(
        VakroPKICryptoNewCipher(device.get(), encrypt, algorithm, bytes, 32, &params));
  };
  const AEADParams good = {16, bytes, 12, nullptr, 0};
  EXPECT_FALSE(gcm(good, 2) || gcm(good, 1, VAKRO_CIPHER_AES256_GCM + 1));
  EXPECT_FALSE(gcm({15, bytes, 12, nullptr, 0}) || gcm({16, bytes, 12, bytes, int64_t{1} << 40}));
  EXPECT_EQ(VakroPKICryptoCipherSetPadding(gcm(good).get(), 1), 0);
  EXPECT_EQ(VakroPKICryptoNewHash(device.get(), 0x5000), nullptr);
  EXPECT_EQ(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SM3, bytes, 1, bytes), nullptr);

  Out none;
  for (const auto& [mode, size] : {std::pair{1, INT_MAX}, {2, 1}}) {
    EXPECT_EQ(vakro_hexencode(mode, bytes, size, none.at(), &none.size), 0);
    EXPECT_EQ(vakro_base64encode(mode, bytes, size, none.at(), &none.size), 0);
  }
  EXPECT_EQ(vakro_base64decode(1, "Zm9v", 4, none.at(), &none.size), 0);

  const HashObject hash(VakroPKICryptoNewHash(device.get(), VAKRO_HASH_SM3));
  const MacObject mac(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SHA512, nullptr, 0, nullptr));
  const CipherObject seal = gcm(good);
  for (const int want : {1, 0}) {  // the final step ends an object
    Out out[4];
    EXPECT_EQ(VakroPKICryptoHashUpdate(hash.get(), bytes, 1), want);
    EXPECT_EQ(VakroPKICryptoMacUpdate(mac.get(), bytes, 1), want);
    EXPECT_EQ(VakroPKICryptoCipherUpdate(seal.get(), bytes, 1, out[0].at(), &out[0].size), want);
    EXPECT_EQ(VakroPKICryptoHashFinal(hash.get(), out[1].at(), &out[1].size), want);
    EXPECT_EQ(VakroPKICryptoMacFinal(mac.get(), out[2].at(), &out[2].size), want);
    EXPECT_EQ(VakroPKICryptoCipherFinal(seal.get(), out[3].at(), &out[3].size), want);
  }
}

// --- JSON ----------------------------------------------------------------------------------------

static Json Decode(std::string_view text) {
  const std::vector<char> copy(text.begin(), text.end());  // without a NUL behind it
  return Json(vakro_json_decode(copy.data(), static_cast<unsigned int>(copy.size())));
}

static std::string Encode(const VakroJson* value, unsigned flags = VAKRO_JSON_COMPACT) {
  char* text = nullptr;
  unsigned length = 0;
  if (vakro_json_encode(value, flags, &text, &length) != 1) return REFUSED;
  const UtilText owned(text);
  EXPECT_EQ(text[length], '\0');
  return {text, length};
}

// `inner` inside so many arrays.
static std::string Nest(size_t arrays, const std::string& inner = "") {
  return std::string(arrays, '[').append(inner).append(arrays, ']');
}

TEST(PlatformJson, ReadsAndWrites) {
  std::ifstream file(DataFile("platform_json.txt"));
  std::map<std::string, int> counts;
  std::string kind, text;
  while (file >> kind && std::getline(file >> std::ws, text)) {
    if (kind == "#") continue;
    counts[kind]++;
    const Json value = Decode(text);
    EXPECT_EQ(value == nullptr, kind == "refused") << text;
    EXPECT_TRUE(value == nullptr || Encode(value.get()) == text) << text;
    const double number = vakro_json_getnumber(value.get());
    EXPECT_TRUE(kind != "number" || number == strtod(text.c_str(), nullptr)) << text;
  }
  EXPECT_TRUE(counts["same"] > 18 && counts["refused"] > 35 && counts["number"] > 15);

  const std::pair<std::string, std::string> rows[] = {
      {" \t\r\n[ 1 , \"a\" ,\n{ \"b\" : 2 } ] \n", R"([1,"a",{"b":2}])"},
      {R"("\u0041\/\u00e9\u20AC\ud83d\ude00\u0022\u005c\u000a")",
       "\"A/\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\\\"\\\\\\n\""},
      {Nest(63, "{}"), Nest(63, "{}")}};
  for (const auto& [read, written] : rows) EXPECT_EQ(Encode(Decode(read).get()), written);
  for (const auto& bad : {""s, " "s, "[1]\0"s, "\0"s, "[\0001]"s, "\xef\xbb\xbf[]"s, "[\f1]"s,
                          Nest(65), Nest(64, "{}"), std::string(100000, '[')})
    EXPECT_EQ(Decode(bad), nullptr) << bad;
  const std::pair<double, const char*> made[] = {
      {-7, "-7"}, {4294967295., "4294967295"}, {1e15, "1000000000000000"}, {-2.5e-10, "-2.5e-10"}};
  for (const auto& [number, want] : made)
    EXPECT_EQ(Encode(Json(vakro_json_newnumber(number)).get()), want);
  const double most = std::numeric_limits<double>::max();
  EXPECT_EQ(vakro_json_getnumber(Json(vakro_json_newnumber(-most)).get()), -most);
  for (const double number : {HUGE_VAL, -HUGE_VAL, static_cast<double>(NAN)})
    EXPECT_EQ(vakro_json_newnumber(number), nullptr);
}

// Long strings run through vector code, whose blocks must not hide a byte at any place.
TEST(PlatformJson, SeesEveryByteOfAString) {
  for (int c = 0; c < 256; c++) {
    const bool special = c < 0x20 || c == '"' || c == '\\';
    for (size_t at = 0; at < 150; at += special ? 1 : 37) {
      std::string bytes(150, 'x');
      bytes[at] = static_cast<char>(c);
      const Json made(vakro_json_newstring(bytes.data(), 150));
      const Json read = Decode(Encode(made.get()));
      ASSERT_EQ(
          std::string(vakro_json_getstring(read.get()), vakro_json_getstringlength(read.get())),
          bytes)
          << c << " at " << at;
      EXPECT_EQ(Decode('"' + bytes + '"') == nullptr, special) << "raw " << c << " at " << at;
    }
  }
}

TEST(PlatformJson, LendsItemsAndCopiesValues) {
  Json root = Decode(R"(["sn",[["a"]],3])");
  VakroJson* const item = vakro_json_getarrayitem(vakro_json_getarrayitem(root.get(), 1), 0);
  for (int i = 0; i < 20; i++)  // also when the items move
    ASSERT_EQ(vakro_json_addarrayitem(item, vakro_json_getarrayitem(item, i)), 1);
  std::string before = Encode(root.get());
  EXPECT_EQ(std::count(before.begin(), before.end(), 'a'), 21) << "seen through the root";
  const Json copy(vakro_json_dup(root.get()));
  ASSERT_EQ(vakro_json_addarrayitem(root.get(), root.get()), 1);
  EXPECT_EQ(Encode(vakro_json_getarrayitem(root.get(), 3)), before);
  ASSERT_EQ(vakro_json_addarrayitem(copy.get(), Json(vakro_json_newstring("a\0b", 3)).get()), 1);
  root.reset();
  EXPECT_EQ(Encode(copy.get()), before.insert(before.size() - 1, R"(,"a\u0000b")"));

  const Json outer = Decode(Nest(2));
  VakroJson* const inner = vakro_json_getarrayitem(outer.get(), 0);  // at level 2
  EXPECT_EQ(vakro_json_addarrayitem(inner, Decode(Nest(63)).get()), 0);
  EXPECT_EQ(Encode(outer.get()), Nest(2));
  EXPECT_EQ(vakro_json_addarrayitem(inner, Decode(Nest(62)).get()), 1);
  const Json alone(vakro_json_dup(vakro_json_getarrayitem(outer.get(), 0)));  // at level 1 again
  EXPECT_EQ(vakro_json_addarrayitem(alone.get(), Decode(Nest(63)).get()), 1);
}

TEST(PlatformJson, AnswersWrongTypesAndNull) {
  const Json array = Decode(R"([{"a":1},"",1])");
  const int types[] = {7, 1, 2, 0};
  for (int i = 0; i < 4; i++) {
    VakroJson* const value = vakro_json_getarrayitem(array.get(), i);  // the last is NULL
    EXPECT_EQ(vakro_json_gettype(value), types[i]);
    EXPECT_EQ(vakro_json_getarraysize(value), 0);
    EXPECT_EQ(vakro_json_addarrayitem(value, array.get()), 0);
    EXPECT_EQ(vakro_json_getnumber(value), types[i] == 2);
    EXPECT_EQ(vakro_json_getstring(value) != nullptr, types[i] == 1);
  }
  EXPECT_EQ(vakro_json_getarrayitem(array.get(), -1), nullptr);
  EXPECT_EQ(vakro_json_addarrayitem(array.get(), nullptr), 0);
  EXPECT_EQ(vakro_json_newstring(nullptr, 1), nullptr);
  EXPECT_EQ(vakro_json_dup(nullptr), nullptr);
  EXPECT_EQ(vakro_json_decode(nullptr, 0), nullptr);
  EXPECT_EQ(Encode(nullptr), REFUSED);
  EXPECT_EQ(Encode(array.get(), 0), REFUSED);
}

TEST(PlatformJson, SurvivesExhaustedMemory) {
  const Json kept = Decode(R"([["a",1],{"b":[2]}])");
  const std::string want = Encode(kept.get());
  FailEachAllocation(want, [&] {
    const Json root = Decode(R"(["\u0041",1.5,[[]],{"a":[1,2,3,4,5,6,7,8,9,"b"]}])");
    const Json string(vakro_json_newstring("abc", 3)), number(vakro_json_newnumber(2));
    const Json copy(vakro_json_dup(root.get()));
    if (!copy || !string || !number) return REFUSED;
    for (int i = 0; i < 9; i++) {
      const std::string before = Encode(copy.get());
      if (vakro_json_addarrayitem(copy.get(), kept.get()) == 1) continue;
      EXPECT_TRUE(before == REFUSED || Encode(copy.get()) == before);
      return REFUSED;
    }
    return Encode(vakro_json_getarrayitem(copy.get(), 12));
  });
  EXPECT_EQ(Encode(kept.get()), want);
}

// --- Threads -------------------------------------------------------------------------------------

TEST(Platform, LocksAreRecursiveAndTheirHoldersAlone) {
  const Lock lock(vakro_lock_new());
  EXPECT_EQ(vakro_lock_lock(nullptr), 0);
  FailEachAllocation("made", [] { return Lock(vakro_lock_new()) ? "made" : REFUSED; });
#ifndef __SANITIZE_THREAD__  // it reports what is done here on purpose
  EXPECT_EQ(vakro_lock_unlock(lock.get()), 0);
  EXPECT_EQ(vakro_lock_lock(lock.get()), 1);
  std::thread([&] { EXPECT_EQ(vakro_lock_unlock(lock.get()), 0); }).join();
  EXPECT_EQ(vakro_lock_unlock(lock.get()), 1);
#endif
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());  // shared
  const Json root = Decode(R"(["shared",["bytes"]])");       // each thread has a copy
  std::thread threads[4];
  int count = 0;
  for (auto& thread : threads) {
    thread = std::thread([&, copy = vakro_json_dup(root.get())] {
      const Json owned(copy);
      for (int i = 0; i < 500; i++) {
        EXPECT_EQ(vakro_lock_lock(lock.get()) + vakro_lock_lock(lock.get()), 2);
        count++;
        EXPECT_EQ(vakro_lock_unlock(lock.get()) + vakro_lock_unlock(lock.get()), 2);
        EXPECT_NE(Json(vakro_json_dup(copy)), nullptr);
        EXPECT_NE(HashObject(VakroPKICryptoNewHash(device.get(), VAKRO_HASH_SM3)), nullptr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count, 2000);
}
