// Every result code of every exported function, one table a function. A call that is refused
// leaves folder, record and live allocations as they were. (The scan's are in scan_test.cpp, the
// support query's in support_test.cpp, what keeps an encoding out in generate_test.cpp and
// public_key_test.cpp, which algorithm goes with which key in operations_test.cpp.)
#include "tests/support/operations.h"

#include <functional>

class ResultsTest : public OperationsTest {
 protected:
  using Call = std::function<int()>;
  struct Row {
    const char* what;
    int want;
    Call call;
  };

  void SetUp() override {
    OperationsTest::SetUp();
    closed_ = Rescan();  // the same device, its PIN not verified
  }
  void TearDown() override {
    closed_.reset();
    OperationsTest::TearDown();
  }
  void Check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.what);
      if (row.want == 1) {
        EXPECT_EQ(row.call(), 1);
      } else {
        Refuses(row.want, device_.get(), row.call);
      }
      EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
    }
  }
  // A size query over `needed` bytes; `get` takes buffer, size and length.
  template <class Get>
  void CheckSizeQuery(int needed, Get get) {
    const auto row = [&](int size) {
      return [=, this] {
        length_ = 77;
        const int result = get(size == 0 ? nullptr : buffer_, size, &length_);
        EXPECT_EQ(length_, needed);
        return result;
      };
    };
    Check({{"query", 1, row(0)},
           {"exact", 1, row(needed)},
           {"larger", 1, row(needed + 1)},
           {"one short", -4, row(needed - 1)},
           {"negative", -4, row(-1)},
           {"no length", 0, [&] { return get(nullptr, 0, nullptr); }}});
  }
  static Call NoLock(Call call) {
    return [call] { return WithFault({.name = "vakro_lock_lock"}, call); };
  }
  static unsigned int* Unsigned(int* length) { return reinterpret_cast<unsigned int*>(length); }

  DeviceHandle closed_;
  unsigned char buffer_[600];
  int length_ = 0;
};

TEST_F(ResultsTest, ModuleAndLock) {
  Check({{"lock", 1, [] { return DeviceLockDevice(nullptr) & DeviceUnlockDevice(nullptr); }},
         {"lock fails", 0, NoLock([] { return DeviceLockDevice(nullptr); })},
         {"not locked", 0, [] { return DeviceUnlockDevice(nullptr); }}});
}

TEST_F(ResultsTest, SetsAndDevices) {
  const SetHandle set(DeviceGetAllDevices());
  Device* device = set->devices[0];
  const auto get = [&](DeviceSet* from, unsigned int index) {
    return [=] { return DeviceHandle(DeviceGetDevice(from, index)) ? 1 : 0; };
  };
  Check({{"count", 1, [&] { return DeviceGetDeviceCount(set.get()); }},
         {"count of NULL", -1, [] { return DeviceGetDeviceCount(nullptr); }},
         {"device", 1, get(set.get(), 0)},
         {"index 1", 0, get(set.get(), 1)},
         {"index 64", 0, get(set.get(), 64)},
         {"index -1", 0, get(set.get(), 0xffffffff)},
         {"NULL set", 0, get(nullptr, 0)},
         {"no lock", 0, NoLock([&] { return DeviceGetDevice(set.get(), 0) != nullptr; })},
         {"free", 1, [&] { return DeviceFreeDevice(DeviceGetDevice(set.get(), 0)); }},
         {"free NULL", 1, [] { return DeviceFreeDevice(nullptr); }},
         {"free, no lock", 0, NoLock([&] { return DeviceFreeDevice(device); })},
         {"free NULL set", 1, [] { return DeviceFreeDevices(nullptr); }}});
  CheckSizeQuery(4, [&](unsigned char* buffer, int size, int* length) {
    return DeviceGetLabel(device, buffer, size, Unsigned(length));
  });
  EXPECT_EQ(Bytes(buffer_, 4), std::string("abc", 4));
  CheckSizeQuery(11, [&](unsigned char* buffer, int size, int* length) {
    return DeviceGetSerialNumber(device, buffer, size, Unsigned(length));
  });
  EXPECT_EQ(Bytes(buffer_, 11), std::string("0123456789", 11));
  unsigned int n = 0;
  Check({{"label of NULL", -2, [&] { return DeviceGetLabel(nullptr, nullptr, 0, &n); }},
         {"serial of NULL", -2, [&] { return DeviceGetSerialNumber(nullptr, nullptr, 0, &n); }}});
}

TEST_F(ResultsTest, Pin) {
  int retries = 0;
  const auto leaves = [&](int want, Call call) {  // in `retries`
    return [=, &retries] {
      retries = 7;
      const int result = call();
      EXPECT_EQ(retries, want);
      return result;
    };
  };
  const auto verify = [&](Device* device, int type, const char* pin) -> Call {
    return [=, &retries] { return DeviceVerifyPwd(device, type, pin, &retries); };
  };
  const auto change = [&](Device* device, int type, const char* from, const char* to) -> Call {
    return [=, &retries] { return DeviceChangePwd(device, type, from, to, &retries); };
  };
  Device* d = device_.get();
  Device* closed = closed_.get();
  Check({{"NULL device", 0, leaves(7, verify(nullptr, 1, PIN))},
         {"type 2", -9, leaves(-1, verify(closed, 2, PIN))},
         {"type 0", -9, leaves(-1, verify(closed, 0, nullptr))},
         {"NULL PIN", 0, leaves(-1, verify(closed, 1, nullptr))},
         {"no lock", 0, NoLock(leaves(-1, verify(closed, 1, PIN)))},
         {"wrong", -5, leaves(-1, verify(closed, 1, "wrong"))},
         {"right", 1, leaves(-1, verify(closed, 1, PIN))},
         {"again", 1, leaves(-1, verify(closed, 1, PIN))},
         {"wrong now", -5, leaves(-1, verify(closed, 1, "wrong"))},
         {"retries NULL", 1, [&] { return DeviceVerifyPwd(closed, 1, PIN, nullptr); }},
         {"change: NULL device", 0, leaves(7, change(nullptr, 1, PIN, "new"))},
         {"change: type 2", -9, leaves(7, change(d, 2, PIN, "new"))},
         {"change: NULL old", 0, leaves(-1, change(d, 1, nullptr, "new"))},
         {"change: NULL new", 0, leaves(-1, change(d, 1, PIN, nullptr))},
         {"change: wrong old", -5, leaves(-1, change(d, 1, "wrong", "new"))},
         {"change: no lock", 0, NoLock(leaves(-1, change(d, 1, PIN, "new")))},
         {"change", 1, leaves(-1, change(d, 1, PIN, "new"))},
         {"change: retries NULL", 1, [&] { return DeviceChangePwd(d, 1, "new", PIN, nullptr); }}});
}

TEST_F(ResultsTest, DataObjects) {
  Device* d = closed_.get();  // no PIN needed
  const auto create = [](Device* device, int id, int size) -> Call {
    return [=] { return DeviceCreateData(device, id, 0, size); };
  };
  const auto read = [this](Device* device, int id, int offset) -> Call {
    return [=, this] { return DeviceReadDataEx(device, id, offset, buffer_, 8, nullptr); };
  };
  const auto write = [](Device* device, int id, int offset, int size) -> Call {
    return [=] { return DeviceWriteDataEx(device, id, offset, Raw("abcd"), size); };
  };
  const auto erase = [](Device* device, int id) -> Call {
    return [=] { return DeviceDeleteData(device, id); };
  };
  Check({{"create: NULL", -2, create(nullptr, 0, 0)},
         {"create: id 0", -1, create(d, 0, 4)},
         {"create: id -1", -1, create(d, -1, 4)},
         {"create: length 0", -1, create(d, 5, 0)},
         {"create: length -1", -1, create(d, 5, -1)},
         {"create: no lock", 0, NoLock(create(d, 5, 4))},
         {"create", 1, create(d, 5, 4)},
         {"create again", -6, create(d, 5, 9)},
         {"read: NULL", -2, read(nullptr, 0, 0)},
         {"read: id 0", -1, read(d, 0, 0)},
         {"read: no such id", -7, read(d, 6, 0)},
         {"read: offset 5", 0, read(d, 5, 5)},
         {"read: no lock", 0, NoLock(read(d, 5, 0))},
         {"read", 1, read(d, 5, 4)},
         {"write: NULL", -2, write(nullptr, 0, 0, 0)},
         {"write: id 0", -1, write(d, 0, 0, 4)},
         {"write: length 0", -1, write(d, 5, 0, 0)},
         {"write: no bytes", -1, [d] { return DeviceWriteDataEx(d, 5, 0, nullptr, 4); }},
         {"write: no such id", -7, write(d, 6, 0, 4)},
         {"write: beyond", -21, write(d, 5, 1, 4)},
         {"write: offset -1", -21, write(d, 5, -1, 4)},
         {"write: no lock", 0, NoLock(write(d, 5, 0, 4))},
         {"write", 1, write(d, 5, 0, 4)},
         {"delete: NULL", -2, erase(nullptr, 0)},
         {"delete: id 0", -1, erase(d, 0)},
         {"delete: no such id", -7, erase(d, 6)},
         {"delete: no lock", 0, NoLock(erase(d, 5))},
         {"delete", 1, erase(d, 5)},
         {"delete again", -7, erase(d, 5)}});
  Write("dev", Flipped(Read("dev"), 30));
  Check({{"create: damaged file", 0, create(d, 5, 4)},
         {"read: damaged file", 0, read(d, 5, 0)},
         {"write: damaged file", 0, write(d, 5, 0, 4)},
         {"delete: damaged file", 0, erase(d, 5)}});
}

TEST_F(ResultsTest, KeypairsAndCertificates) {
  Device* d = device_.get();
  Keypair* k = p256_;
  Keypair* closed = closed_->keypairs[0];
  const auto get = [](Device* device, int index) -> Call {
    return [=] { return KeypairHandle(DeviceGetKeypair(device, index)) ? 1 : 0; };
  };
  const auto add = [](Keypair* keypair, int size) -> Call {
    return [=] { return DeviceAddCertificate(keypair, Raw("cert"), size); };
  };
  const auto erase = [](Keypair* keypair, int index) -> Call {
    return [=] { return DeviceDeleteCertificate(keypair, index); };
  };
  const auto remove = [](Keypair* keypair) -> Call {
    return [=] { return DeviceDeleteKeypair(keypair); };
  };
  EXPECT_EQ(DeviceGetKeypairCount(d), 3);
  EXPECT_EQ(DeviceGetKeypairType(k), 2u);
  EXPECT_EQ(DeviceGetKeypairAlgorithm(k), 4u);
  EXPECT_EQ(DeviceGetKeypairBits(k), 256u);
  EXPECT_EQ(DeviceGetKeypairType(nullptr), 0u);
  EXPECT_EQ(DeviceGetKeypairAlgorithm(nullptr), 0u);
  EXPECT_EQ(DeviceGetKeypairBits(nullptr), 0u);
  int* n = &length_;
  Check({{"count of NULL", -2, [] { return DeviceGetKeypairCount(nullptr); }},
         {"label of NULL", -2, [n] { return DeviceGetKeypairLabel(nullptr, nullptr, 0, n); }},
         {"certificates of NULL", -2, [] { return DeviceGetCertificateCount(nullptr); }},
         {"get", 1, get(d, 2)},
         {"get: -1", 0, get(d, -1)},
         {"get: 3", 0, get(d, 3)},
         {"get: NULL", 0, get(nullptr, 0)},
         {"get: no lock", 0, NoLock([=] { return DeviceGetKeypair(d, 0) != nullptr; })},
         {"free: NULL", -2, [] { return DeviceFreeKeypair(nullptr); }},
         {"free: no lock", 0, NoLock([k] { return DeviceFreeKeypair(k); })},
         {"add: no bytes", 0, [k] { return DeviceAddCertificate(k, nullptr, 4); }},
         {"add: 0 bytes", 0, add(k, 0)},
         {"add: -1 bytes", 0, add(k, -1)},
         {"add: NULL keypair", -2, add(nullptr, 4)},
         {"add: not verified", -8, add(closed, 4)},
         {"add: no lock", 0, NoLock(add(k, 4))},
         {"add", 1, add(k, 4)},
         {"delete: NULL keypair", -2, erase(nullptr, 0)},
         {"delete: not verified", -8, erase(closed, 99)},
         {"delete: -1", 0, erase(k, -1)},
         {"delete: 1", 0, erase(k, 1)},
         {"delete: no lock", 0, NoLock(erase(k, 0))}});
  CheckSizeQuery(5, [k](unsigned char* buffer, int size, int* length) {
    return DeviceGetKeypairLabel(k, reinterpret_cast<char*>(buffer), size, length);
  });
  CheckSizeQuery(4, std::bind_front(DeviceGetCertificate, k, 0));
  length_ = 77;
  for (const int index : {-1, 1, 10})
    Refuses(0, d, [&] { return DeviceGetCertificate(k, index, nullptr, 0, n); });
  EXPECT_EQ(length_, 77);
  const KeypairHandle handle(DeviceGetKeypair(d, 1));
  Check(
      {{"certificate of NULL", -2, [n] { return DeviceGetCertificate(nullptr, 0, nullptr, 0, n); }},
       {"delete", 1, erase(k, 0)},
       {"delete keypair: NULL", -2, remove(nullptr)},
       {"delete keypair: not verified", -8, remove(closed)},
       {"delete keypair: no lock", 0, NoLock(remove(k))},
       {"delete keypair", 1, remove(k)}});
}

TEST_F(ResultsTest, GenerationAndImport) {
  static const ECCKeypairParams p256 = {3, 0};
  Keypair* made = nullptr;
  Keypair** out = &made;
  Device* d = device_.get();
  Device* closed = closed_.get();
  const std::string& pair = TestP256().pair;
  const auto generate = [](Device* device, unsigned int algorithm, const void* params, long type,
                           const char* label, Keypair** to) -> Call {
    return [=] {
      return DeviceGenerateKeypair(device, algorithm, 256, params, static_cast<unsigned int>(type),
                                   label, to);
    };
  };
  const auto import = [](Device* device, const unsigned char* bytes, int size, unsigned int type,
                         const char* label, Keypair** to) -> Call {
    return [=] { return DeviceImportKeypair(device, bytes, size, type, label, to); };
  };
  const unsigned char* raw = Raw(pair);
  const int len = Len(pair);
  Check({{"generate: NULL", 0, generate(nullptr, 4, &p256, 9, "n", out)},
         {"generate: algorithm 3", -9, generate(d, 3, nullptr, 9, "n", out)},
         {"generate: no parameters", 0, generate(d, 4, nullptr, 9, "n", out)},
         {"generate: no label", 0, generate(d, 4, &p256, 9, nullptr, out)},
         {"generate: no out", 0, generate(d, 4, &p256, 9, "n", nullptr)},
         {"generate: not verified", -8, generate(closed, 4, &p256, 9, "n", out)},
         {"generate: exists", -6, generate(d, 4, &p256, 1, "sign", out)},
         {"generate: no lock", 0, NoLock(generate(d, 4, &p256, 9, "n", out))},
         {"import: NULL", -2, import(nullptr, raw, len, 9, "n", out)},
         {"import: no out", 0, import(d, raw, len, 9, "n", nullptr)},
         {"import: no label", 0, import(d, raw, len, 9, nullptr, out)},
         {"import: no encoding", 0, import(d, nullptr, 100, 9, "n", out)},
         {"import: negative length", 0, import(d, raw, -1, 9, "n", out)},
         {"import: not verified", -8, import(closed, raw, len, 9, "n", out)},
         {"import: exists", -6, import(d, raw, len, 1, "sign", out)},
         {"import: no lock", 0, NoLock(import(d, raw, len, 9, "n", out))}});
  EXPECT_EQ(made, nullptr);
  Check({{"generate", 1, generate(d, 4, &p256, 9, "n", out)}});
  const KeypairHandle generated(made);
  Check({{"import", 1, import(d, raw, len, 8, "n", out)}});
  const KeypairHandle imported(made);
}

TEST_F(ResultsTest, PublicKeys) {
  PublicKey* key = nullptr;
  const std::string& encoding = TestRsa().publicKey;
  const auto import = [](const unsigned char* bytes, int n, PublicKey** to) -> Call {
    return [=] { return DeviceImportPublicKey(nullptr, bytes, n, to); };
  };
  CheckSizeQuery(Len(encoding), std::bind_front(DeviceExportPublicKey, rsaPublic_.get()));
  Check({{"export NULL", -2, [&] { return DeviceExportPublicKey(nullptr, nullptr, 0, &length_); }},
         {"free NULL", -2, [] { return DeviceFreePublicKey(nullptr); }},
         {"of NULL", 0, [] { return DeviceGetPublicKeyFromKeypair(nullptr) != nullptr; }},
         {"import: no bytes", 0, import(nullptr, 100, &key)},
         {"import: negative length", 0, import(Raw(encoding), -1, &key)},
         {"import: no out", 0, import(Raw(encoding), Len(encoding), nullptr)},
         {"import", 1, import(Raw(encoding), Len(encoding), &key)},
         {"free", 1, [&] { return DeviceFreePublicKey(key); }}});
  EXPECT_EQ(DeviceGetPublicKeyAlgorithm(nullptr) + DeviceGetPublicKeyBits(nullptr), 0);
}

TEST_F(ResultsTest, KeyOperations) {
  // size 0 asks for the length; wantLength 0 leaves it open, 77 is what it was before.
  const auto run = [this](auto operation, auto* key, unsigned int algorithm, const std::string& in,
                          int size, int wantLength) -> Call {
    return [=, this] {
      length_ = 77;
      unsigned char* buffer = size == 0 ? nullptr : buffer_;
      const unsigned char* data = in.empty() ? nullptr : Raw(in);
      const int result = operation(key, algorithm, nullptr, data, Len(in), buffer, size, &length_);
      EXPECT_TRUE(wantLength == 0 || length_ == wantLength) << length_;
      return result;
    };
  };
  const auto sign = DeviceSign;
  const auto decrypt = DevicePrivateKeyDecrypt;
  const auto encrypt = DevicePublicKeyEncrypt;
  const std::string e(32, 'e');
  const unsigned char* raw = Raw(e);
  PublicKey* rsa = rsaPublic_.get();
  PublicKey* sm2 = sm2Public_.get();
  const std::string rsaC = Encrypt(rsa, 16, e);
  const std::string sm2C = Encrypt(sm2, 64, e);
  Keypair* none = nullptr;
  PublicKey* noKey = nullptr;
  Keypair* closed = closed_->keypairs[2];
  Check({{"sign: NULL", -2, run(sign, none, 256, e, 600, 77)},
         {"sign: not verified", -8, run(sign, closed, 999, e, 600, 77)},
         {"sign: no length", 0,
          [&] { return sign(rsa_, 256, nullptr, raw, 32, buffer_, 600, nullptr); }},
         {"sign RSA: query", 1, run(sign, rsa_, 256, e, 0, 256)},
         {"sign RSA: one short", -4, run(sign, rsa_, 256, e, 255, 256)},
         {"sign RSA", 1, run(sign, rsa_, 256, e, 256, 256)},
         {"sign RSA: no data", 0, run(sign, rsa_, 256, "", 256, 256)},
         {"sign RSA: raw of 32 bytes", 0, run(sign, rsa_, 768, e, 256, 256)},
         {"sign ECDSA: query", 1, run(sign, p256_, 2048, e, 0, 72)},
         {"sign ECDSA: short", -4, run(sign, p256_, 2048, e, 10, 0)},
         {"sign ECDSA", 1, run(sign, p256_, 2048, e, 72, 0)},
         {"sign SM2: query", 1, run(sign, sm2_, 4096, e, 0, 80)},
         {"sign SM2: short", -4, run(sign, sm2_, 4096, e, 10, 0)},
         {"sign SM2", 1, run(sign, sm2_, 4096, e, 80, 0)},
         {"sign SM2: query, 20 bytes", 0, run(sign, sm2_, 4096, e.substr(12), 0, 77)},
         {"sign SM2: query, P-256", 0, run(sign, p256_, 4096, e, 0, 77)}});
  Check({{"decrypt: NULL", -2, run(decrypt, none, 16, rsaC, 600, 77)},
         {"decrypt: not verified", -8, run(decrypt, closed, 999, e, 600, 77)},
         {"decrypt: no length", 0,
          [&] { return decrypt(sm2_, 64, nullptr, raw, 129, buffer_, 600, nullptr); }},
         {"decrypt: no lock", 0, NoLock(run(decrypt, rsa_, 16, rsaC, 600, 77))},
         {"decrypt RSA: query", 1, run(decrypt, rsa_, 16, rsaC, 0, 256)},
         {"decrypt RSA: query, algorithm 256", 1, run(decrypt, rsa_, 256, rsaC, 0, 256)},
         {"decrypt RSA: algorithm 256", 0, run(decrypt, rsa_, 256, rsaC, 600, 77)},
         {"decrypt RSA: short buffer", -4, run(decrypt, rsa_, 16, rsaC, 31, 32)},
         {"decrypt RSA", 1, run(decrypt, rsa_, 16, rsaC, 32, 32)},
         {"decrypt RSA: short input", 0, run(decrypt, rsa_, 16, rsaC.substr(1), 600, 77)},
         {"decrypt SM2: query", 1, run(decrypt, sm2_, 64, sm2C, 0, 32)},
         {"decrypt SM2: short buffer", -4, run(decrypt, sm2_, 64, sm2C, 31, 32)},
         {"decrypt SM2", 1, run(decrypt, sm2_, 64, sm2C, 32, 32)},
         {"decrypt SM2: 97 bytes", 0, run(decrypt, sm2_, 64, sm2C.substr(0, 97), 600, 77)},
         {"decrypt SM2: no input", 0, run(decrypt, sm2_, 64, "", 600, 77)},
         {"decrypt SM2: 16", 0, run(decrypt, sm2_, 16, sm2C, 600, 77)},
         {"decrypt SM2: P-256", 0, run(decrypt, p256_, 64, sm2C, 600, 77)}});
  Check({{"encrypt: NULL", 0, run(encrypt, noKey, 16, e, 600, 77)},
         {"encrypt: no length", 0,
          [&] { return encrypt(sm2, 64, nullptr, raw, 32, buffer_, 600, nullptr); }},
         {"encrypt: longest", 0,
          [&] { return encrypt(sm2, 64, nullptr, raw, 0x7fffffff, nullptr, 0, &length_); }},
         {"encrypt RSA: query", 1, run(encrypt, rsa, 16, e, 0, 256)},
         {"encrypt RSA: raw query", 1, run(encrypt, rsa, 48, e, 0, 256)},
         {"encrypt RSA: one short", -4, run(encrypt, rsa, 16, e, 255, 256)},
         {"encrypt RSA", 1, run(encrypt, rsa, 16, e, 256, 256)},
         {"encrypt RSA: raw of 32 bytes", 0, run(encrypt, rsa, 48, e, 256, 256)},
         {"encrypt SM2: query", 1, run(encrypt, sm2, 64, e, 0, 129)},
         {"encrypt SM2: one short", -4, run(encrypt, sm2, 64, e, 128, 129)},
         {"encrypt SM2", 1, run(encrypt, sm2, 64, e, 129, 129)},
         {"encrypt SM2: empty", 0, run(encrypt, sm2, 64, "", 600, 77)}});
  Check({{"verify", 1, [&] { return Verify(sm2, 4096, e, Sign(sm2_, 4096, e)); }},
         {"verify: NULL", 0, [&] { return Verify(nullptr, 256, e, e); }},
         {"verify: no data", 0,
          [&] { return DeviceVerify(rsa, 256, nullptr, nullptr, 32, raw, 256); }},
         {"verify: no signature", 0,
          [&] { return DeviceVerify(sm2, 4096, nullptr, raw, 32, nullptr, 70); }},
         {"verify: algorithm 4", 0, [&] { return Verify(sm2, 4, e, e); }}});
}
