// JSON, which the module stores devices in, at its borders.
#include "core/openssl_owners.h"
#include "tests/support/device_file.h"
#include "tests/support/interpose.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <math.h>
#include <stdlib.h>

using namespace std::string_literals;

static Json Decode(std::string_view text) {
  const std::vector<char> copy(text.begin(), text.end());  // without a NUL behind it
  errno = 0;
  return Json(vakro_json_decode(copy.data(), static_cast<unsigned int>(copy.size())));
}

static bool IsRefused(std::string_view text) { return Decode(text) == nullptr && errno == EINVAL; }

static std::string Encode(const VakroJson* value) {
  char* text = nullptr;
  unsigned length = 0;
  EXPECT_EQ(vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length), 1);
  const UtilText owned(text);
  EXPECT_EQ(text[length], '\0');
  return {text, length};
}

// `inner` inside so many arrays.
static std::string Nest(size_t arrays, const std::string& inner = "") {
  return std::string(arrays, '[').append(inner).append(arrays, ']');
}

TEST(JsonTest, ReadsAndWrites) {
  Json value;
  for (const auto& [row, at] : ReadRows("json.txt")) {
    SCOPED_TRACE(at);
    const std::string kind = row.substr(0, row.find(' ')), text = row.substr(kind.size() + 1);
    if (kind != "as") value = Decode(text);  // else of the row before
    EXPECT_EQ(value == nullptr, kind == "refused") << text;
    EXPECT_EQ(IsRefused(text), kind == "refused") << text;
    if (kind == "read" || kind == "refused") continue;
    EXPECT_TRUE(kind == "same" || kind == "as" || kind == "number") << "no kind of row: " << kind;
    EXPECT_EQ(Encode(value.get()), text);
    if (kind == "number") {
      EXPECT_EQ(vakro_json_getnumber(value.get()), strtod(text.c_str(), nullptr));
    }
  }
  EXPECT_EQ(Encode(Decode(" \t\r\n[ 1 ,\n2 ] \n").get()), "[1,2]");
  EXPECT_EQ(Encode(Decode(Nest(63, "{}")).get()), Nest(63, "{}"));
  for (const auto& bad : {""s, " "s, "[1]\0"s, "\0"s, "[\0001]"s, "\xef\xbb\xbf[]"s, "[\f1]"s,
                          Nest(65), Nest(64, "{}"), std::string(100000, '[')})
    EXPECT_TRUE(IsRefused(bad)) << bad;
  const std::pair<double, const char*> made[] = {
      {-7, "-7"}, {4294967295., "4294967295"}, {1e15, "1000000000000000"}, {-2.5e-10, "-2.5e-10"}};
  for (const auto& [number, want] : made)
    EXPECT_EQ(Encode(Json(vakro_json_newnumber(number)).get()), want);
  for (const double number : {HUGE_VAL, -HUGE_VAL, static_cast<double>(NAN)})
    EXPECT_EQ(vakro_json_newnumber(number), nullptr);
}

// Long strings run through vector code, whose blocks must not hide a byte at any place.
TEST(JsonTest, SeesEveryByteOfAString) {
  for (int c = 0; c < 256; c++)
    for (size_t at = 0; at < 150; at++) {
      std::string bytes(150, 'x');
      bytes[at] = static_cast<char>(c);
      const Json made(vakro_json_newstring(bytes.data(), 150)), read = Decode(Encode(made.get()));
      const unsigned int length = vakro_json_getstringlength(read.get());
      ASSERT_EQ(std::string(vakro_json_getstring(read.get()), length), bytes) << c << " at " << at;
      const bool special = c < 0x20 || c == '"' || c == '\\';
      EXPECT_EQ(Decode('"' + bytes + '"') == nullptr, special) << "raw " << c << " at " << at;
    }
}

TEST(JsonTest, TellsWantOfMemoryFromAFaultOfTheText) {
  for (const std::string text : {"1", "[]", "[[1,\"a\"],[2,{\"b\":3}]]"}) {
    Json read;
    for (int nth = 1; read == nullptr; nth++) {
      read = WithFault({.name = "vakro_malloc", .nth = nth}, [&] { return Decode(text); });
      EXPECT_TRUE(read != nullptr || errno == ENOMEM) << text << ", allocation " << nth;
      ASSERT_LT(nth, 100);
    }
    EXPECT_EQ(Encode(read.get()), text);
  }
}

// A copy shares nothing that a change could reach, wherever in a tree the changed array stands.
TEST(JsonTest, DecodedTreesCanBeChanged) {
  const std::string text = "[1,[[2,\"b\"],[]],{\"c\":[3]}]";
  Json tree = Decode(text);
  const Json copy(vakro_json_dup(tree.get()));
  VakroJson* const inner = vakro_json_getarrayitem(tree.get(), 1);
  const Json made(vakro_json_newarray()), number(vakro_json_newnumber(1));
  const auto add = [&] { return vakro_json_addarrayitem(made.get(), number.get()); };
  EXPECT_EQ(WithFault({"vakro_malloc"}, add), 0) << "it can't grow";
  std::string want = "[[2,\"b\"],[]";
  for (int i = 0; i < 20; i++) {  // the array outgrows its place, then the next one
    EXPECT_EQ(vakro_json_addarrayitem(inner, vakro_json_getarrayitem(inner, 0)), 1);
    want += ",[2,\"b\"]";
  }
  EXPECT_EQ(Encode(inner), want + "]");
  VakroJson* const empty = vakro_json_getarrayitem(inner, 1);
  EXPECT_EQ(vakro_json_addarrayitem(empty, tree.get()), 1);
  EXPECT_EQ(vakro_json_addarrayitem(empty, empty), 1);
  const std::string whole = Encode(tree.get()), part = Encode(empty);
  EXPECT_EQ(Encode(vakro_json_getarrayitem(vakro_json_getarrayitem(tree.get(), 1), 1)), part);
  const Json changed(vakro_json_dup(tree.get()));
  tree.reset();
  EXPECT_EQ(Encode(changed.get()), whole);
  EXPECT_EQ(Encode(copy.get()), text);
}
