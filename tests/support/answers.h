// What calls answer and what they leave alone, a line each:
//
//   EXPECT_REFUSED(-7, DeviceDeleteData(closed_, 5));    the result, or 0 for NULL; nothing changes
//   EXPECT_DONE(DeviceGetLabel(closed_, out_, 9, &size_));  1, and the device file stays as it is
//   EXPECT_WRITTEN(DeviceDeleteData(closed_, 5));        1, and the device file is another
//   EXPECT_CHANGE("\"a\"", "\"b\"", call);               1, and so this piece of its text is
//
// Refused means: folder, both records, allocations, OpenSSL's queue of errors and what is handed
// out stay as they were. After each of them the module lock is free. Before each out_ is all dots
// and n_ and size_ are UNTOUCHED.
#ifndef VAKRO_TESTS_ANSWERS_H
#define VAKRO_TESTS_ANSWERS_H

#include "tests/support/operations.h"

#define EXPECT_REFUSED(want, call) EXPECT_REFUSED_AND_TOLD(want, UNTOUCHED, call)
// The same of a call that tells a length, in n_, all the same.
#define EXPECT_REFUSED_AND_TOLD(want, length, call)    \
  do {                                                 \
    SCOPED_TRACE(#call);                               \
    Refused(want, length, [&] { return Code(call); }); \
  } while (false)
#define EXPECT_DONE(call)                    \
  do {                                       \
    SCOPED_TRACE(#call);                     \
    Done(false, [&] { return Code(call); }); \
  } while (false)
#define EXPECT_WRITTEN(call)                \
  do {                                      \
    SCOPED_TRACE(#call);                    \
    Done(true, [&] { return Code(call); }); \
  } while (false)
#define EXPECT_CHANGE(from, to, call)                                    \
  do {                                                                   \
    SCOPED_TRACE(#call);                                                 \
    const std::string changed = Replaced(TextOf(Read("dev")), from, to); \
    Done(true, [&] { return Code(call); });                              \
    EXPECT_EQ(TextOf(Read("dev")), changed);                             \
  } while (false)

// The device of OperationsTest, whose PIN is verified, and closed_, a record of the same file whose
// PIN is not.
class AnswersTest : public OperationsTest {
 protected:
  static constexpr int UNTOUCHED = 77;
  // Those of the interface, and some that are none.
  static constexpr unsigned int ALGORITHMS[] = {0,  1,   4,   16,   32,   48,
                                                64, 256, 768, 2048, 4096, 0x80000100};

  static int Code(int result) { return result; }
  static int Code(const void* handle) { return handle != nullptr ? 1 : 0; }

  void Refused(int want, int length, const std::function<int()>& call) {
    Clear();
    const std::string closed = Describe(*closed_);
    Refuses(want, device_.get(), call);
    EXPECT_TRUE(Describe(*closed_) == closed) << "the other record changed";
    EXPECT_TRUE(made_ == nullptr && key_ == nullptr) << "something was handed out";
    EXPECT_TRUE(n_ == length && size_ == UNTOUCHED) << "a length of " << n_ << " or " << size_;
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
  }

  void Done(bool writes, const std::function<int()>& call) {
    Clear();
    const std::string file = Read("dev");
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(Read("dev") != file, writes) << "the device file";
    EXPECT_FALSE(Exists("dev.bak"));
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
  }

  // What a call puts into a buffer of the caller's. `call(buffer, size, &length)` tells the size
  // to a NULL buffer and takes one just as long, but none that is shorter.
  template <class Length = int, class Byte = unsigned char, class Call>
  std::string Output(int needed, Call call) {
    auto* const out = reinterpret_cast<Byte*>(out_);
    Length length = 0;
    EXPECT_TRUE(call(nullptr, 0, &length) == 1 && length == static_cast<Length>(needed)) << length;
    for (const int size : {needed - 1, -1}) {
      length = 0;
      EXPECT_REFUSED(-4, call(out, size, &length));
      EXPECT_EQ(length, static_cast<Length>(needed));
    }
    EXPECT_REFUSED(0, call(nullptr, 0, nullptr));
    Clear();
    EXPECT_EQ(call(out, needed, &length), 1);
    EXPECT_EQ(out_[length], '.') << "written behind the end";
    return Bytes(out_, static_cast<int>(length));
  }

  void Clear() {
    memset(out_, '.', sizeof(out_));
    n_ = UNTOUCHED;
    size_ = UNTOUCHED;
  }
  // Puts a device file of this text there.
  void WriteText(const std::string& text, unsigned int tag = TAG) const {
    Write("dev", Container(tag, text));
  }

  const std::string text_ = TextOf(Read("dev"));  // of the file that the test begins with
  const DeviceHandle closedHandle_ = Rescan();
  Device* const closed_ = closedHandle_.get();
  unsigned char out_[600];
  int n_ = UNTOUCHED;
  unsigned int size_ = UNTOUCHED;
  Keypair* made_ = nullptr;
  PublicKey* key_ = nullptr;
};

#endif
