// The coders and the lock of the utility library.
#include "platform_test.h"

#include <limits.h>

#include <thread>

using namespace std::string_view_literals;

static std::string AllBytes() {
  std::string bytes;
  for (int i = 0; i < 256; i++) bytes += static_cast<char>(i);
  return bytes;
}

static int HexDecode(std::string_view text, Out* out) {
  return VakroPKICryptoHexDecode(Exact(text).bytes.get(), Length(text), &out->bytes, &out->length);
}

static int Base64Decode(std::string_view text, Out* out) {
  return vakro_base64decode(2, Exact(text).bytes.get(), Length(text), &out->bytes, &out->length);
}

TEST(PlatformCoders, PublishedVectors) {  // RFC 4648, section 10
  const struct {
    std::string_view bytes, base64, hex;
  } rows[] = {{"", "", ""},
              {"f", "Zg==", "66"},
              {"fo", "Zm8=", "666f"},
              {"foo", "Zm9v", "666f6f"},
              {"foob", "Zm9vYg==", "666f6f62"},
              {"fooba", "Zm9vYmE=", "666f6f6261"},
              {"foobar", "Zm9vYmFy", "666f6f626172"},
              {"\xfb\xff\xbf", "+/+/", "fbffbf"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.base64);
    Out hex, base64, back, back64;
    const Exact bytes(row.bytes);
    ASSERT_EQ(vakro_hexencode(1, bytes.data(), Length(row.bytes), hex.text(), &hex.length), 1);
    ASSERT_EQ(vakro_base64encode(1, bytes.data(), Length(row.bytes), base64.text(), &base64.length),
              1);
    EXPECT_STREQ(*hex.text(), row.hex.data());
    EXPECT_STREQ(*base64.text(), row.base64.data());
    EXPECT_EQ(hex.str(), row.hex);
    EXPECT_EQ(base64.str(), row.base64);
    ASSERT_EQ(HexDecode(row.hex, &back), 1);
    ASSERT_EQ(Base64Decode(row.base64, &back64), 1);
    EXPECT_EQ(back.str(), row.bytes);
    EXPECT_EQ(back64.str(), row.bytes);
  }
}

TEST(PlatformCoders, EveryByteAtEveryLength) {
  const std::string all = AllBytes();
  for (size_t n = 0; n <= all.size(); n++) {
    const auto bytes = std::string_view(all).substr(all.size() - n);
    Out hex, base64, back, back64;
    ASSERT_EQ(VakroPKICryptoHexEncode(1, Data(bytes), Length(bytes), hex.text(), &hex.length), 1);
    ASSERT_EQ(vakro_base64encode(1, Data(bytes), Length(bytes), base64.text(), &base64.length), 1);
    ASSERT_EQ(HexDecode(hex.str(), &back), 1);
    ASSERT_EQ(Base64Decode(base64.str(), &back64), 1);
    EXPECT_EQ(back.str(), bytes);
    EXPECT_EQ(back64.str(), bytes);
  }
  Out upper;
  ASSERT_EQ(HexDecode("00aAbBcCdDeEfF99", &upper), 1);
  EXPECT_EQ(upper.str(), Unhex("00aabbccddeeff99"));
}

TEST(PlatformCoders, RefuseEveryOtherByteAtEveryPlace) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (const char c : AllBytes()) {
    for (size_t at = 0; at < 80; at++) {
      Out hex, base64;
      std::string text(80, 'A');
      text[at] = c;
      const bool digit = c != '\0' && strchr("0123456789abcdefABCDEF", c) != nullptr;
      const bool letter = alphabet.find(c) != std::string::npos;
      ASSERT_EQ(HexDecode(text, &hex), digit ? 1 : 0) << int{c} << " at " << at;
      ASSERT_TRUE(digit || hex.untouched());
      if (c == '=' && at == 79) continue;  // padding
      ASSERT_EQ(Base64Decode(text, &base64), letter ? 1 : 0) << int{c} << " at " << at;
      ASSERT_TRUE(letter || base64.untouched());
    }
  }
}

TEST(PlatformCoders, RefuseMalformedTexts) {
  Out out;
  for (const char* const text : {"0", "abc", "0x00", " 00 "}) EXPECT_EQ(HexDecode(text, &out), 0);
  // Missing, surplus and misplaced padding; bits that belong to no byte; what others allow.
  for (const auto& text : Split("Zg Zg= Zm8 Zm9vYg ==== Z=== =g== Zg=v Zg==Zg== Zm9v==== Zm9v= "
                                "Zh== Zv== Zm9= Zm+= Zm-_"))
    EXPECT_EQ(Base64Decode(text, &out), 0) << text;
  EXPECT_EQ(Base64Decode("Zm9v\n", &out) + Base64Decode("Zm9\n", &out), 0);

  const unsigned char byte = 0;
  const struct {
    int mode;
    const unsigned char* bytes;
    int length, decoded;
  } rows[] = {{0, &byte, 1, 1},   {2, &byte, 1, 3},        {1, nullptr, 1, 4},
              {1, &byte, -1, -4}, {1, &byte, INT_MIN, -8}, {1, &byte, INT_MAX, INT_MIN}};
  for (const auto& row : rows) {
    const char* const text = reinterpret_cast<const char*>(row.bytes);
    EXPECT_EQ(vakro_hexencode(row.mode, row.bytes, row.length, out.text(), &out.length), 0);
    EXPECT_EQ(vakro_base64encode(row.mode, row.bytes, row.length, out.text(), &out.length), 0);
    EXPECT_EQ(vakro_hexdecode(text, row.decoded, &out.bytes, &out.length), 0);
    EXPECT_EQ(vakro_base64decode(2, text, row.decoded, &out.bytes, &out.length), 0);
  }
  EXPECT_EQ(vakro_base64decode(1, "Zm9v", 4, &out.bytes, &out.length), 0);
  EXPECT_TRUE(out.untouched());
}

TEST(PlatformCoders, SurviveExhaustedMemory) {
  FailEachAllocation([] {
    Out hex, base64, back, back64;
    const unsigned char bytes[] = {1, 2, 3, 4};
    return vakro_hexencode(1, bytes, 4, hex.text(), &hex.length) == 1 &&
           vakro_base64encode(1, bytes, 4, base64.text(), &base64.length) == 1 &&
           vakro_hexdecode("00", 2, &back.bytes, &back.length) == 1 &&
           vakro_base64decode(2, "Zg==", 4, &back64.bytes, &back64.length) == 1;
  });
}

TEST(PlatformLock, IsRecursiveAndGuards) {
  VakroLock* const lock = vakro_lock_new();
  ASSERT_NE(lock, nullptr);
  int count = 0;
  const auto work = [&] {
    for (int i = 0; i < 1000; i++) {
      EXPECT_EQ(vakro_lock_lock(lock) + vakro_lock_lock(lock), 2);
      count++;
      EXPECT_EQ(vakro_lock_unlock(lock) + vakro_lock_unlock(lock), 2);
    }
  };
  std::thread one(work), other(work);
  one.join();
  other.join();
  EXPECT_EQ(count, 2000);
  vakro_lock_free(lock);
  EXPECT_EQ(vakro_lock_lock(nullptr), 0);
  FailEachAllocation([] {
    VakroLock* const made = vakro_lock_new();
    vakro_lock_free(made);
    return made != nullptr;
  });
}

#ifndef __SANITIZE_THREAD__  // it reports what is done here on purpose
TEST(PlatformLock, OnlyItsHolderReleasesIt) {
  VakroLock* const lock = vakro_lock_new();
  EXPECT_EQ(vakro_lock_unlock(lock), 0);
  EXPECT_EQ(vakro_lock_lock(lock), 1);
  std::thread([=] { EXPECT_EQ(vakro_lock_unlock(lock), 0); }).join();
  EXPECT_EQ(vakro_lock_unlock(lock), 1);
  EXPECT_EQ(vakro_lock_unlock(lock), 0);
  vakro_lock_free(lock);
}
#endif
