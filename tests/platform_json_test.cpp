// JSON values: what is read, what is written, and what borrowing, copying and failing leave.
#include "platform_test.h"

#include <limits.h>
#include <math.h>

#include <limits>
#include <thread>

using namespace std::string_view_literals;

static Json Decode(std::string_view text) {
  return Json(vakro_json_decode(Exact(text).bytes.get(), static_cast<unsigned>(text.size())));
}

static const std::string FAILED = "(failed)";

static std::string Encode(const VakroJson* value) {
  char* text = nullptr;
  unsigned length = 0;
  if (vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length) != 1) return FAILED;
  EXPECT_EQ(text[length], '\0');
  const std::string result(text, length);
  vakro_free(text);
  return result;
}

// `inner` inside so many arrays.
static std::string Nest(size_t arrays, const std::string& inner = "") {
  return std::string(arrays, '[').append(inner).append(arrays, ']');
}

TEST(PlatformJson, ReadsAndWrites) {
  for (const auto& text : Split(R"(
      [] {} null [true,false,null] "" {"a":[1,{"b":null}],"a":2} "\"\\\b\f\n\r\t"
      ["\u0000","\u0001\u001f"] 0 -0 -0.0 1.50 1E+05 1e999 -1e-999 4294967296 2147483648
      123456789012345678901234567890.000 [0.1e1,2])"))
    EXPECT_EQ(Encode(Decode(text).get()), text);
  const auto bytes = "\"\x7f/\xc3\xa9\xff\xfe\xed\"";
  EXPECT_EQ(Encode(Decode(bytes).get()), bytes);

  const std::pair<std::string_view, std::string_view> others[] = {
      {" \t\r\n[ 1 , \"a\" ,\n{ \"b\" : 2 } ] \n", R"([1,"a",{"b":2}])"},
      {R"("\u0041\/\u00e9\u20AC\ud83d\ude00")", "\"A/\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
      {R"("\u0022\u005c\u000a")", R"("\"\\\n")"}};
  for (const auto& [text, want] : others) EXPECT_EQ(Encode(Decode(text).get()), want);
}

TEST(PlatformJson, RefusesWhatIsNotOneJsonText) {
  for (const auto& text : Split(R"(
      [ [1 [1,] [,1] ] [1]] [1]x [1][2] [1]// 01 1. .5 - --1 +1 1e 1e+ 0x1 1.e1 NaN Infinity tru
      truex nul True 'a' "a "\x" "\u12g4" "\u12 "\ud800" "\ud800\u0041" "\" { {"a"} {"a":}
      {"a":1,} {1:2} {"a"1})"))
    EXPECT_EQ(Decode(text), nullptr) << text;
  for (const auto text : {""sv, " "sv, "[1 2]"sv, "[1]\0"sv, "\0"sv, "[\0001]"sv, "\"a\0\""sv,
                          "\"a\nb\""sv, "\xef\xbb\xbf[]"sv})
    EXPECT_EQ(Decode(text), nullptr) << text;
  EXPECT_EQ(vakro_json_decode(nullptr, 0), nullptr);
  EXPECT_EQ(vakro_json_decode("[1]", 2), nullptr);
}

// Long strings run through vector code, whose blocks must not hide a byte at any place.
TEST(PlatformJson, SeesEveryByteOfAString) {
  for (int c = 0; c < 256; c++) {
    for (size_t at = 0; at < 150; at += c < 0x20 || c == '"' || c == '\\' ? 1 : 37) {
      std::string bytes(150, 'x');
      bytes[at] = static_cast<char>(c);
      const Json made(vakro_json_newstring(bytes.data(), 150));
      const Json read = Decode(Encode(made.get()));
      ASSERT_TRUE(read) << c << " at " << at;
      ASSERT_EQ(vakro_json_getstringlength(read.get()), 150u);
      EXPECT_EQ(std::string(vakro_json_getstring(read.get()), 150), bytes) << c << " at " << at;
      if (c < 0x20 || c == '"' || c == '\\') {
        EXPECT_EQ(Decode('"' + bytes + '"'), nullptr) << "raw " << c << " at " << at;
      }
    }
  }
}

TEST(PlatformJson, BoundsTheDepth) {
  EXPECT_EQ(Encode(Decode(Nest(63, "{}")).get()), Nest(63, "{}"));
  for (const auto& text : {Nest(65), Nest(100000), std::string(100000, '['), Nest(64, "{}")})
    EXPECT_EQ(Decode(text), nullptr);

  const Json root = Decode(Nest(2));
  VakroJson* const inner = vakro_json_getarrayitem(root.get(), 0);  // at level 2
  EXPECT_EQ(vakro_json_addarrayitem(inner, Decode(Nest(63)).get()), 0);
  EXPECT_EQ(Encode(root.get()), Nest(2));
  EXPECT_EQ(vakro_json_addarrayitem(inner, Decode(Nest(62)).get()), 1);
  EXPECT_EQ(Encode(Decode(Encode(root.get())).get()), Nest(64));
  const Json alone(vakro_json_dup(vakro_json_getarrayitem(root.get(), 0)));  // at level 1 again
  EXPECT_EQ(vakro_json_addarrayitem(alone.get(), Decode(Nest(63)).get()), 1);
}

TEST(PlatformJson, ConvertsNumbers) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::pair<const char*, double> read[] = {
      // clang-format off
      {"-12", -12}, {"1.50", 1.5}, {"1E+2", 100}, {"4294967296", 4294967296.}, {"5e-324", 5e-324},
      {"0e9999", 0}, {"1e308", 1e308}, {"9e308", inf}, {"-1e999", -inf}, {"1e-999", 0},
      {"0.001e99999999999999999999", inf}, {"1e9223372036854775807", inf},
      {"1e-99999999999999999999", 0}};  // clang-format on
  for (const auto& [text, want] : read)
    EXPECT_EQ(vakro_json_getnumber(Decode(text).get()), want) << text;
  const std::string zeros(400, '0');
  EXPECT_EQ(vakro_json_getnumber(Decode("1" + zeros + "e-50").get()), inf);
  EXPECT_EQ(vakro_json_getnumber(Decode("0." + zeros + "1e50").get()), 0);
  EXPECT_EQ(vakro_json_getnumber(Decode("1" + zeros + "e-400").get()), 1);
  EXPECT_TRUE(signbit(vakro_json_getnumber(Decode("-0").get())));

  const std::pair<double, const char*> made[] = {// clang-format off
      {0, "0"}, {-7, "-7"}, {INT_MIN, "-2147483648"}, {4294967295., "4294967295"},
      {1e15, "1000000000000000"}, {0.1, "0.1"}, {-2.5e-10, "-2.5e-10"}};  // clang-format on
  for (const auto& [number, want] : made)
    EXPECT_EQ(Encode(Json(vakro_json_newnumber(number)).get()), want);
  const double most = std::numeric_limits<double>::max();
  EXPECT_EQ(vakro_json_getnumber(Json(vakro_json_newnumber(-most)).get()), -most);
  for (const double number : {inf, -inf, static_cast<double>(NAN)})
    EXPECT_EQ(vakro_json_newnumber(number), nullptr);
}

TEST(PlatformJson, LendsItemsAndCopiesValues) {
  Json root = Decode(R"(["sn",[["a"]],3])");
  VakroJson* const list = vakro_json_getarrayitem(root.get(), 1);
  VakroJson* const item = vakro_json_getarrayitem(list, 0);
  for (int i = 0; i < 20; i++)  // seen through the root, also when the items move
    ASSERT_EQ(vakro_json_addarrayitem(item, vakro_json_getarrayitem(item, i)), 1);
  EXPECT_EQ(vakro_json_getarraysize(vakro_json_getarrayitem(list, 0)), 21);

  const std::string before = Encode(root.get());
  const Json copy(vakro_json_dup(root.get()));
  ASSERT_EQ(vakro_json_addarrayitem(root.get(), root.get()), 1);
  ASSERT_EQ(vakro_json_addarrayitem(root.get(), vakro_json_getarrayitem(root.get(), 3)), 1);
  EXPECT_EQ(Encode(copy.get()), before);
  EXPECT_EQ(Encode(vakro_json_getarrayitem(root.get(), 4)), before);
  ASSERT_EQ(vakro_json_addarrayitem(copy.get(), Json(vakro_json_newstring("a\0b", 3)).get()), 1);
  root.reset();
  EXPECT_EQ(Encode(copy.get()), std::string(before).insert(before.size() - 1, R"(,"a\u0000b")"));
}

TEST(PlatformJson, AnswersWrongTypesAndNull) {
  const Json object = Decode(R"({"a":1})");
  const Json string(vakro_json_newstring(nullptr, 0));
  EXPECT_EQ(vakro_json_gettype(string.get()), 1);
  EXPECT_EQ(vakro_json_gettype(Decode("1").get()), 2);
  EXPECT_EQ(vakro_json_gettype(Decode("[]").get()), 6);
  EXPECT_STREQ(vakro_json_getstring(string.get()), "");
  VakroJson* const none[] = {nullptr, object.get(), string.get()};
  for (VakroJson* const value : none) {
    EXPECT_EQ(vakro_json_getarraysize(value), 0);
    EXPECT_EQ(vakro_json_getarrayitem(value, 0), nullptr);
    EXPECT_EQ(vakro_json_addarrayitem(value, string.get()), 0);
    EXPECT_EQ(vakro_json_getnumber(value), 0);
  }
  EXPECT_EQ(vakro_json_getstring(object.get()), nullptr);
  const Json array = Decode("[1]");
  for (const int index : {-1, 1, INT_MAX, INT_MIN})
    EXPECT_EQ(vakro_json_getarrayitem(array.get(), index), nullptr);
  EXPECT_EQ(vakro_json_addarrayitem(array.get(), nullptr), 0);
  EXPECT_EQ(vakro_json_newstring(nullptr, 1), nullptr);
  EXPECT_EQ(vakro_json_dup(nullptr), nullptr);
  char* text = nullptr;
  unsigned length = 0;
  EXPECT_EQ(vakro_json_encode(array.get(), 0, &text, &length), 0);
  EXPECT_EQ(vakro_json_encode(nullptr, VAKRO_JSON_COMPACT, &text, &length), 0);
  EXPECT_EQ(text, nullptr);
}

TEST(PlatformJson, SurvivesExhaustedMemory) {
  const Json kept = Decode(R"([["a",1],{"b":[2]}])");
  FailEachAllocation([&] {
    const Json root = Decode(R"(["\u0041",1.5,[[]],{"a":[1,2,3,4,5,6,7,8,9,"b"]}])");
    const Json string(vakro_json_newstring("abc", 3)), number(vakro_json_newnumber(2));
    const Json copy(vakro_json_dup(root.get()));
    bool ok = copy && string && number;
    for (int i = 0; ok && i < 9; i++) {
      const std::string before = Encode(copy.get());
      ok = before != FAILED && vakro_json_addarrayitem(copy.get(), kept.get()) == 1;
      EXPECT_TRUE(ok || before == FAILED || Encode(copy.get()) == before);
    }
    return ok;
  });
  EXPECT_EQ(Encode(kept.get()), R"([["a",1],{"b":[2]}])");
}

TEST(PlatformJson, CopiesBelongToTheirThreads) {
  const Json root = Decode(R"(["shared",["bytes"]])");
  std::thread threads[4];
  for (auto& thread : threads)
    thread = std::thread([copy = vakro_json_dup(root.get())] {
      for (int i = 0; i < 1000; i++) vakro_json_free(vakro_json_dup(copy));
      vakro_json_free(copy);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(Encode(root.get()), R"(["shared",["bytes"]])");
}
