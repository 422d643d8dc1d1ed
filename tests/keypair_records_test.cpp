// Updates of keypairs and certificates in the file, and the JSON helpers under them.
#include "store/store.h"
#include "tests/support/world.h"

static Json Tree(std::string_view text) {
  return Json(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
}

// The text of a new value, which is released.
static std::string Text(VakroJson* value) {
  const Json owned(value);
  char* text = nullptr;
  unsigned int length = 0;
  if (!owned || vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length) != 1) return "null";
  const UtilText ownedText(text);
  return std::string(text, length);
}

using JsonHelpersTest = ModuleTest;

TEST_F(JsonHelpersTest, ArraysAreCopiedWithOneItemChanged) {
  const struct {
    const char* array;
    int index;
    const char* deleted;
    const char* updated;
  } cases[] = {
      {"[1,[2],\"3\"]", 0, "[[2],\"3\"]", "[9,[2],\"3\"]"},
      {"[1,[2],\"3\"]", 2, "[1,[2]]", "[1,[2],9]"},
      {"[1]", 0, "[]", "[9]"},
      {"[1]", -1, "null", "null"},
      {"[1]", 1, "null", "null"},
      {"[]", 0, "null", "null"},
      {"5", 0, "null", "null"},
  };
  const Json nine = Tree("9");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.array);
    const Json array = Tree(c.array);
    EXPECT_EQ(Text(VakroJsonDeleteArrayItem(array.get(), c.index)), c.deleted);
    EXPECT_EQ(Text(VakroJsonUpdateArrayItem(array.get(), c.index, nine.get())), c.updated);
    EXPECT_EQ(Text(vakro_json_dup(array.get())), c.array);
  }
  EXPECT_EQ(Text(UpdateJsonKeypairsToDevice(Tree("[0,1,2,3]").get(), nine.get())), "[0,1,9,3]");
  EXPECT_EQ(Text(UpdateJsonKeypairsToDevice(Tree("[0,1]").get(), nine.get())), "null");
  EXPECT_EQ(Text(UpdateJsonCertsToKeypair(Tree("[0,1,2,3,4,5,6,7,8]").get(), nine.get())),
            "[0,1,2,3,4,5,6,7,9]");
}

TEST_F(JsonHelpersTest, Equality) {
  const struct {
    const char* a;
    const char* b;
    int keypair, cert;
  } cases[] = {
      {R"(["k",1,["c"]])", R"(["k",1,["d"]])", 1, 0},
      {R"(["k",1,0])", R"(["k",1,0])", 1, 1},
      {R"(["k",1,0])", R"(["k",2,0])", 0, 0},
      {R"(["k",1,0])", R"(["l",1,0])", 0, 0},
      {R"(["k",1,0])", R"(["k",1,0,0])", 0, 0},
      {R"(["k",1,0])", R"(["kk",1,0])", 0, 0},
      {R"([1,0])", R"(["1",0])", 0, 0},
      {R"([null,0])", R"([null,0])", 0, 0},
      {R"([[1],0])", R"([[1],0])", 0, 0},
      {R"([1])", R"([2])", 1, 0},
      {R"([])", R"([])", 1, 1},
      {R"("abc")", R"("abc")", -1, 1},
      {R"("abc")", R"("abd")", -1, 0},
      {R"("abc")", R"("abcd")", -1, 0},
      {R"("1")", "1", -1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " and " + c.b);
    const Json a = Tree(c.a);
    const Json b = Tree(c.b);
    EXPECT_EQ(CertJsonEqual(a.get(), b.get()), c.cert);
    EXPECT_EQ(CertJsonEqual(b.get(), a.get()), c.cert);
    if (c.keypair < 0) continue;
    EXPECT_EQ(KeypairJsonEqual(a.get(), b.get()), c.keypair);
    EXPECT_EQ(KeypairJsonEqual(b.get(), a.get()), c.keypair);
  }
}

TEST_F(JsonHelpersTest, CertificateListsAndKeypairItems) {
  const auto add = [](const char* list, const char* cert) {
    Json certs = Tree(list);
    EXPECT_EQ(AddJsonCertToCerts(certs.get(), Tree(cert).get()), 1);
    return Text(certs.release());
  };
  EXPECT_EQ(add(R"(["a"])", R"("b")"), R"(["a","b"])");
  EXPECT_EQ(add(R"(["a","b"])", R"("a")"), R"(["a","b"])");
  const auto drop = [](const char* list, const char* cert) {
    return Text(DeleteJsonCertToCerts(Tree(list).get(), Tree(cert).get()));
  };
  EXPECT_EQ(drop(R"(["a","b","a"])", R"("a")"), R"(["b","a"])");
  EXPECT_EQ(drop(R"(["a"])", R"("x")"), R"(["a"])");
  EXPECT_EQ(drop(R"([])", R"("x")"), R"([])");
  const auto strip = [](const char* item) {
    return Text(DeleteJsonCertToKeypair(Tree(item).get(), Tree(R"("c")").get()));
  };
  EXPECT_EQ(strip(R"([0,1,2,3,4,5,6,7,["b","c"]])"), R"([0,1,2,3,4,5,6,7,["b"]])");
  EXPECT_EQ(strip(R"([0,1,2,3,4,5,6,["c"]])"), "null");
  EXPECT_EQ(strip(R"([0,1,2,3,4,5,6,7,["c"],9])"), "null");
  const auto replace = [](const char* list, const char* item) {
    return Text(UpdateJsonKeypairToKeypairs(Tree(list).get(), Tree(item).get()));
  };
  EXPECT_EQ(replace(R"([["k",0],["l",0],["l",1]])", R"(["l",9])"), R"([["k",0],["l",9],["l",1]])");
  EXPECT_EQ(replace(R"([["k",0]])", R"(["l",9])"), "null");
  EXPECT_EQ(replace("[]", R"(["l",9])"), "null");
}

class KeypairRecordsTest : public ModuleTest {
 protected:
  const StoredKeypair first_ = {.certs = {"one", "two", "three"}};
  const StoredKeypair second_ = {.label = "enc", .type = 2, .key = &TestRsa()};
  // With an item that the reader skips and one that it doesn't know.
  StoredDevice stored_ = {.keypairs = {"[\"skipped\"]", first_.Json(), second_.Json()}};
  const std::string datas_ = Array({StoredData(5, "value"), "\"odd\""});

  std::string Keypairs() const { return TextOf(Read("dev")); }
  std::string With(const std::vector<std::string>& keypairs) const {
    StoredDevice device = stored_;
    device.keypairs = keypairs;
    return device.Json();
  }
};

TEST_F(KeypairRecordsTest, CertificatesInTheFileFollowTheRecord) {
  for (const bool datas : {false, true}) {
    if (datas) stored_.more = {datas_};
    const DeviceHandle device = Load(stored_.File());
    Keypair* keypair = device->keypairs[0];
    const auto certs = [&](std::vector<std::string> list) {
      StoredKeypair item = first_;
      item.certs = std::move(list);
      return With({"[\"skipped\"]", item.Json(), second_.Json()});
    };
    const OwnedCert fourth(NewCert(Raw("four"), 4));
    EXPECT_EQ(AddCertToFile(keypair, fourth.get()), 1);
    EXPECT_EQ(Keypairs(), certs({"one", "two", "three", "four"}));
    EXPECT_EQ(AddCertToFile(keypair, keypair->certs[1]), 1);  // the record holds it: no change
    EXPECT_EQ(Keypairs(), certs({"one", "two", "three"}));
    EXPECT_EQ(DeleteCertFromFile(keypair, keypair->certs[1]), 1);
    EXPECT_EQ(Keypairs(), certs({"one", "three"}));
    EXPECT_EQ(DeleteCertFromFile(keypair, fourth.get()), 1);  // not in the record
    EXPECT_EQ(Keypairs(), certs({"one", "two", "three"}));
    keypair->certCount = 1;
    EXPECT_EQ(UpdateKeypairToFile(keypair), datas ? 0 : 1);
    EXPECT_EQ(Keypairs(), certs(datas ? std::vector<std::string>{"one", "two", "three"}
                                      : std::vector<std::string>{"one"}));
    keypair->certCount = 3;
  }
}

TEST_F(KeypairRecordsTest, AnItemThatDiffersInAnyOfEightIsAnotherKeypair) {
  const DeviceHandle device = Load(stored_.File());
  Keypair* keypair = device->keypairs[0];
  const Keypair whole = *keypair;
  const OwnedCert cert(NewCert(Raw("cert"), 4));
  void (*edits[])(Keypair*) = {
      [](Keypair* k) { k->label[0] ^= 1; },  [](Keypair* k) { k->type++; },
      [](Keypair* k) { k->algorithm++; },    [](Keypair* k) { k->bits++; },
      [](Keypair* k) { k->saltLen--; },      [](Keypair* k) { k->ivLen--; },
      [](Keypair* k) { k->publicKeyLen--; }, [](Keypair* k) { k->encryptedPrivateKeyLen--; },
  };
  for (size_t i = 0; i < std::size(edits); i++) {
    SCOPED_TRACE(i);
    edits[i](keypair);
    Refuses(0, device.get(), [&] { return AddCertToFile(keypair, cert.get()); });
    Refuses(0, device.get(), [&] { return DeleteCertFromFile(keypair, keypair->certs[0]); });
    Refuses(0, device.get(), [&] { return UpdateKeypairToFile(keypair); });
    *keypair = whole;
  }
}

TEST_F(KeypairRecordsTest, KeypairsAreAddedOnceAtTheEnd) {
  for (const bool datas : {false, true}) {
    if (datas) stored_.more = {datas_};
    const DeviceHandle device = Load(stored_.File());
    EXPECT_EQ(AddhKeypairToFile(device.get(), device->keypairs[1]), 1);
    EXPECT_EQ(Keypairs(), stored_.Json());
    snprintf(device->keypairs[1]->label, NAME_SIZE, "third");
    StoredKeypair third = second_;
    third.label = "third";
    EXPECT_EQ(AddhKeypairToFile(device.get(), device->keypairs[1]), 1);
    EXPECT_EQ(Keypairs(), With({"[\"skipped\"]", first_.Json(), second_.Json(), third.Json()}));
  }
}

TEST_F(KeypairRecordsTest, KeypairsAreDeletedWithoutDataObjectsOnly) {
  const DeviceHandle device = Load(stored_.File());
  for (const std::string& item : {std::string("[]"), datas_}) {
    stored_.more = {item};
    Write("dev", stored_.File());
    Refuses(0, device.get(), [&] { return DeleteKeypairFromFile(device->keypairs[0]); });
  }
  stored_.more = {};
  Write("dev", stored_.File());
  EXPECT_EQ(DeleteKeypairFromFile(device->keypairs[0]), 1);
  EXPECT_EQ(Keypairs(), With({"[\"skipped\"]", second_.Json()}));
  EXPECT_EQ(DeleteKeypairFromFile(device->keypairs[0]), 1);  // not stored any more
  EXPECT_EQ(Keypairs(), With({"[\"skipped\"]", second_.Json()}));
}

TEST_F(KeypairRecordsTest, AFileThatIsNoDeviceIsLeftAlone) {
  const DeviceHandle device = Load(stored_.File());
  Keypair* keypair = device->keypairs[0];
  for (const std::string& file :
       {std::string("short"), Word(1) + Word(0xfffffff8) + "[]", Container(TAG, "[\"a\",\"b\"]"),
        Container(TAG, "[\"a\",\"b\",5]"), Container(TAG, "{}"), Container(TAG, "[")}) {
    SCOPED_TRACE(Hex(file));
    Write("dev", file);
    Refuses(0, device.get(), [&] { return AddhKeypairToFile(device.get(), keypair); });
    Refuses(0, device.get(), [&] { return DeleteKeypairFromFile(keypair); });
    Refuses(0, device.get(), [&] { return AddCertToFile(keypair, keypair->certs[0]); });
    Refuses(0, device.get(), [&] { return DeleteCertFromFile(keypair, keypair->certs[0]); });
    Refuses(0, device.get(), [&] { return UpdateKeypairToFile(keypair); });
  }
}
