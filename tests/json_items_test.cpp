// The JSON of the store: arrays with one item changed, equality, and what stands for records.
#include "store/inside.h"
#include "tests/support/world.h"

using JsonItemsTest = ModuleTest;

// A text decoded, or NULL for "-".
static Json Decoded(std::string_view text) {
  return Json(text == "-" ? nullptr
                          : vakro_json_decode(text.data(), static_cast<unsigned>(text.size())));
}

// The text of a value that a function has made, or "-" for NULL.
static std::string Text(VakroJson* made) {
  const Json owned(made);
  unsigned int length = 0;
  return owned ? EncodeTree(owned.get(), &length).get() : "-";
}

TEST_F(JsonItemsTest, WhatIsEqual) {
  const struct {
    const char *a, *b;
    int asKeypair, asCert;
  } rows[] = {{R"(["k",1,["c"]])", R"(["k",1,["d"]])", 1, 0},
              {R"(["k",1,0])", R"(["k",1,0])", 1, 1},
              {R"(["k",1,0])", R"(["k",2,0])", 0, 0},
              {R"(["k",1,0])", R"(["k",1,0,0])", 0, 0},
              {R"(["k",1,0])", R"(["kk",1,0])", 0, 0},
              {"[1,0]", R"(["1",0])", 0, 0},
              {"[[1],0]", "[[1],0]", 0, 0},
              {"[1]", "[2]", 1, 0},
              {"[]", "[]", 1, 1},
              {R"("abc")", R"("abc")", 1, 1},
              {R"("abc")", R"("abcd")", 1, 0},
              {"-", "[1]", 0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " and " + row.b);
    const Json a = Decoded(row.a), b = Decoded(row.b);
    EXPECT_EQ(KeypairJsonEqual(a.get(), b.get()), row.asKeypair);
    EXPECT_EQ(CertJsonEqual(a.get(), b.get()), row.asCert);
  }
}

// A function of two values that makes a third.
TEST_F(JsonItemsTest, KeypairsAndCertificatesArePutInAndTakenOut) {
  const struct {
    VakroJson* (*function)(VakroJson*, VakroJson*);
    const char *list, *item, *want;
  } rows[] = {{UpdateJsonKeypairsToDevice, "[0,1,2,3]", "9", "[0,1,9,3]"},
              {UpdateJsonKeypairsToDevice, "[0,1]", "9", "-"},
              {UpdateJsonKeypairsToDevice, "5", "9", "-"},
              {UpdateJsonCertsToKeypair, "[0,1,2,3,4,5,6,7,8]", "9", "[0,1,2,3,4,5,6,7,9]"},
              {UpdateJsonKeypairToKeypairs, R"([["k",0],["l",0],["l",1]])", R"(["l",9])",
               R"([["k",0],["l",9],["l",1]])"},
              {UpdateJsonKeypairToKeypairs, R"([["k",0]])", R"(["l",9])", "-"},
              {DeleteJsonCertToCerts, R"(["a","b","a"])", R"("a")", R"(["b","a"])"},
              {DeleteJsonCertToCerts, "[]", R"("x")", "[]"},
              {DeleteJsonCertToKeypair, R"([0,1,2,3,4,5,6,7,["b","c"]])", R"("c")",
               R"([0,1,2,3,4,5,6,7,["b"]])"},
              {DeleteJsonCertToKeypair, R"([0,1,2,3,4,5,6,["c"]])", R"("c")", "-"},
              {DeleteJsonCertToKeypair, R"([0,1,2,3,4,5,6,7,["c"],9])", R"("c")", "-"}};
  for (const auto& row : rows) {
    const Json list = Decoded(row.list), item = Decoded(row.item);
    EXPECT_EQ(Text(row.function(list.get(), item.get())), row.want) << row.list;
  }
}
