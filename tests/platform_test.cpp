// The libraries below the module: published vectors, and JSON. Encodings of keys, texts and
// signatures are looked at by the fuzz targets, the lock by lifecycle_test.cpp, and failing
// allocations by faults_test.cpp.
#include "device/owners.h"
#include "tests/support/device_file.h"

#include <gtest/gtest.h>

#include <math.h>
#include <stdlib.h>
#include <fstream>
#include <sstream>

using namespace std::string_literals;

static const std::string REFUSED = "refused";

// --- Hashes and ciphers --------------------------------------------------------------------------

namespace {

using Inputs = std::vector<std::string>;

// What the object hands out, in hex, for bytes that come in pieces of 1, 2, 4 … bytes.
template <class Update, class Final>
std::string Output(std::string_view bytes, Update update, Final final) {
  std::string hex;
  const auto take = [&hex](auto call) {
    unsigned char* out = nullptr;
    int size = 0;
    const int result = call(&out, &size);
    const LibBytes owned(out);
    hex += Hex({reinterpret_cast<char*>(out), static_cast<size_t>(size)});
    return result == 1;
  };
  bool good = true;
  for (size_t at = 0, piece = 1; good && (at < bytes.size() || piece == 1); piece *= 2) {
    const std::string_view part = bytes.substr(at, piece);
    good = take([&](auto... out) { return update(Raw(part), Len(part), out...); });
    at += part.size();
  }
  return good && take(final) ? hex : REFUSED;
}

// Objects outlive the device that they were made on.
template <int ALGORITHM>
std::string Hash(const Inputs& in) {
  const HashObject hash(
      VakroPKICryptoNewHash(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(), ALGORITHM));
  return Output(
      in[0],
      [&](auto bytes, int size, auto...) {
        return VakroPKICryptoHashUpdate(hash.get(), bytes, size);
      },
      [&](auto... out) { return VakroPKICryptoHashFinal(hash.get(), out...); });
}

template <int ALGORITHM>
std::string Authenticate(const Inputs& in) {
  const MacObject mac(VakroPKICryptoNewMac(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(),
                                           ALGORITHM, Raw(in[0]), Len(in[0]), nullptr));
  return Output(
      in[1],
      [&](auto bytes, int size, auto...) {
        return VakroPKICryptoMacUpdate(mac.get(), bytes, size);
      },
      [&](auto... out) { return VakroPKICryptoMacFinal(mac.get(), out...); });
}

template <int ENCRYPT>
std::string Gcm(const Inputs& in) {
  const AEADParams params = {16, Raw(in[1]), Len(in[1]), Raw(in[2]), Len(in[2])};
  const CipherObject cipher(
      VakroPKICryptoNewCipher(SoftDevice(VakroPKICryptoGetPseudoDevice()).get(), ENCRYPT,
                              VAKRO_CIPHER_AES256_GCM, Raw(in[0]), Len(in[0]), &params));
  if (VakroPKICryptoCipherSetPadding(cipher.get(), VAKRO_PADDING_NONE) != 1) return REFUSED;
  return Output(
      in[3], [&](auto... more) { return VakroPKICryptoCipherUpdate(cipher.get(), more...); },
      [&](auto... out) { return VakroPKICryptoCipherFinal(cipher.get(), out...); });
}

const std::map<std::string, std::string (*)(const Inputs&)> FUNCTIONS = {
    {"sha512", Hash<VAKRO_HASH_SHA512>},
    {"sm3", Hash<VAKRO_HASH_SM3>},
    {"hmac-sha512", Authenticate<VAKRO_HASH_SHA512>},
    {"hmac-sm3", Authenticate<VAKRO_HASH_SM3>},
    {"gcm-seal", Gcm<1>},
    {"gcm-open", Gcm<0>}};

}  // namespace

TEST(Platform, PublishedVectors) {
  for (const std::string& row : ReadRows("platform.txt")) {
    std::istringstream words(row);
    std::string function, word, want;
    Inputs in;
    words >> function;
    while (words >> word && word != "=")
      in.push_back(word[0] == '"' ? word.substr(1, word.size() - 2) : Unhex(word));
    while (words >> word) want += word == "-" ? "" : word;
    EXPECT_EQ(FUNCTIONS.at(function)(in), want) << row;
    if (function == "gcm-open") in[3] = Flipped(in[3], in[3].size() - 1);
    EXPECT_TRUE(function != "gcm-open" || Gcm<0>(in) == REFUSED) << row;
  }
}

// --- JSON ----------------------------------------------------------------------------------------

static Json Decode(std::string_view text) {
  const std::vector<char> copy(text.begin(), text.end());  // without a NUL behind it
  return Json(vakro_json_decode(copy.data(), static_cast<unsigned int>(copy.size())));
}

static std::string Encode(const VakroJson* value) {
  char* text = nullptr;
  unsigned length = 0;
  if (vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length) != 1) return REFUSED;
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
