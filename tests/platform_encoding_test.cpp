// The encodings of keys and signatures.
#include "platform_test.h"

#include <limits.h>

// A toy key: p = 61, q = 53, e = 17.
static const std::string RSA_PUBLIC = Unhex("3007 02020ca1 020111");
static const std::string RSA_PRIVATE =
    Unhex("301d 020100 02020ca1 020111 02020ac1 02013d 020135 020135 020131 020126");
static const std::string RSA_PAIR = Unhex("5f4b455950414952 00000001") + RSA_PRIVATE;
static const std::string RSA_PUB = Unhex("5f5055424b45595f 00000001") + RSA_PUBLIC;
static const std::string ECC_PAIR =
    Unhex("5f4b455950414952 00000004 00000007 00000002 0011 00000003 ff0022 00000001 33");
static const std::string ECC_PUB =
    Unhex("5f5055424b45595f 00000004 80000003 00000002 0011 00000003 ff0022");

// The decoders of all kinds, each as one call that says how many numbers it gave.
using Decoder = int (*)(const unsigned char*, int, Out*, int*);

static int DecodeRsaPair(const unsigned char* data, int len, Out* out, int*) {
  return VakroPKICryptoRSAPrivKeyToDER(data, len, &out->bytes, &out->length);
}
static int DecodeRsaPub(const unsigned char* data, int len, Out* out, int*) {
  return VakroPKICryptoDecodeRSAPubKey(data, len, &out[0].bytes, &out[0].length, &out[1].bytes,
                                       &out[1].length);
}
static int DecodeEccPair(const unsigned char* data, int len, Out* out, int* curve) {
  return VakroPKICryptoDecodeECCKeyPair(data, len, curve, &out[0].bytes, &out[0].length,
                                        &out[1].bytes, &out[1].length, &out[2].bytes,
                                        &out[2].length);
}
static int DecodeEccPub(const unsigned char* data, int len, Out* out, int* curve) {
  return VakroPKICryptoDecodeECCPubKey(data, len, curve, &out[0].bytes, &out[0].length,
                                       &out[1].bytes, &out[1].length);
}
static int DecodeSignature(const unsigned char* data, int len, Out* out, int*) {
  return VakroPKICryptoDecodeECCSignature(data, len, &out[0].bytes, &out[0].length, &out[1].bytes,
                                          &out[1].length);
}

static int EncodeSignature(const std::string& r, const std::string& s, Out* out) {
  return VakroPKICryptoEncodeECCSignature(Data(r), Length(r), Data(s), Length(s), &out->bytes,
                                          &out->length);
}

static const std::string SIGNATURE = Unhex("3007 02020080 020101");

static const struct {
  const char* what;
  Decoder decode;
  std::string encoding;
  int curve;
  std::string numbers[3];
} KINDS[] = {
    {"RSA keypair", DecodeRsaPair, RSA_PAIR, 0, {RSA_PRIVATE}},
    {"RSA public key", DecodeRsaPub, RSA_PUB, 0, {Unhex("0ca1"), Unhex("11")}},
    {"ECC keypair", DecodeEccPair, ECC_PAIR, 7, {Unhex("0011"), Unhex("ff0022"), Unhex("33")}},
    {"ECC public key", DecodeEccPub, ECC_PUB, INT_MIN + 3, {Unhex("0011"), Unhex("ff0022")}},
    {"signature", DecodeSignature, SIGNATURE, 0, {Unhex("80"), Unhex("01")}}};

TEST(PlatformEncoding, DecodersGiveTheNumbersAndRefuseTheRest) {
  for (const auto& kind : KINDS) {
    SCOPED_TRACE(kind.what);
    Out out[3], none[3];
    int curve = 0, noCurve = 0;
    ASSERT_EQ(kind.decode(Data(kind.encoding), Length(kind.encoding), out, &curve), 1);
    for (int i = 0; i < 3 && out[i].length >= 0; i++) EXPECT_EQ(out[i].str(), kind.numbers[i]);
    EXPECT_EQ(curve, kind.curve);

    const auto refused = [&](std::string_view bytes) {
      return kind.decode(Exact(bytes).data(), Length(bytes), none, &noCurve) == 0;
    };
    const std::string_view whole = kind.encoding;
    for (size_t n = 0; n < whole.size(); n++) EXPECT_TRUE(refused(whole.substr(0, n))) << n;
    EXPECT_TRUE(refused(kind.encoding + '\0'));
    for (size_t i = 0; i < (kind.decode == DecodeSignature ? 2 : 12); i++) {
      std::string other = kind.encoding;
      other[i] ^= 1;
      EXPECT_TRUE(refused(other)) << "header byte " << i;
    }
    EXPECT_EQ(kind.decode(nullptr, Length(whole), none, &noCurve), 0);
    for (const int length : {-1, INT_MIN})
      EXPECT_EQ(kind.decode(Data(whole), length, none, &noCurve), 0);
    for (const Out& one : none) EXPECT_TRUE(one.untouched());
    EXPECT_EQ(noCurve, 0);
  }
}

TEST(PlatformEncoding, EncodersWriteTheDocumentedBytes) {
  Out pair, pub, eccPair, eccPub, empty;
  const std::string x = Unhex("0011"), y = Unhex("ff0022"), d = Unhex("33");
  EXPECT_EQ(VakroPKICryptoRSAPrivKeyFromDER(Data(RSA_PRIVATE), Length(RSA_PRIVATE), &pair.bytes,
                                            &pair.length),
            1);
  EXPECT_EQ(
      VakroPKICryptoRSAPubKeyFromDER(Data(RSA_PUBLIC), Length(RSA_PUBLIC), &pub.bytes, &pub.length),
      1);
  EXPECT_EQ(VakroPKICryptoEncodeECCKeyPair(7, Data(x), 2, Data(y), 3, Data(d), 1, &eccPair.bytes,
                                           &eccPair.length),
            1);
  EXPECT_EQ(VakroPKICryptoEncodeECCPubKey(INT_MIN + 3, Data(x), 2, Data(y), 3, &eccPub.bytes,
                                          &eccPub.length),
            1);
  EXPECT_EQ(VakroPKICryptoEncodeECCPubKey(1, nullptr, 0, nullptr, 0, &empty.bytes, &empty.length),
            1);
  EXPECT_EQ(pair.str(), RSA_PAIR);
  EXPECT_EQ(pub.str(), RSA_PUB);
  EXPECT_EQ(eccPair.str(), ECC_PAIR);
  EXPECT_EQ(eccPub.str(), ECC_PUB);
  Out none, empties[3];
  int curve = 0;
  EXPECT_EQ(DecodeEccPub(empty.bytes, empty.length, empties, &curve), 1);
  EXPECT_EQ(empties[1].length, 0);
  for (const auto& [data, length] : {std::pair{Data(x), -1}, std::pair{Data(x), INT_MIN},
                                     std::pair<const unsigned char*, int>{nullptr, 2}}) {
    EXPECT_EQ(VakroPKICryptoEncodeECCKeyPair(7, Data(x), 2, Data(y), 3, data, length, &none.bytes,
                                             &none.length),
              0);
    EXPECT_EQ(VakroPKICryptoEncodeECCPubKey(7, data, length, Data(y), 3, &none.bytes, &none.length),
              0);
    EXPECT_EQ(VakroPKICryptoEncodeECCSignature(data, length, Data(y), 3, &none.bytes, &none.length),
              0);
    EXPECT_EQ(VakroPKICryptoRSAPubKeyFromDER(data, length, &none.bytes, &none.length), 0);
  }
  EXPECT_EQ(VakroPKICryptoEncodeECCPubKey(7, Data(x), INT_MAX, Data(y), INT_MAX, &none.bytes,
                                          &none.length),
            0);
  EXPECT_TRUE(none.untouched());
}

TEST(PlatformEncoding, LengthsThatLie) {
  for (const size_t at : {16u, 22u, 29u}) {  // the length words of ECC_PAIR
    for (const char* const word :
         {"00000000", "00000004", "0000ffff", "7fffffff", "80000002", "ffffffff", "fffffffe"}) {
      std::string lying = ECC_PAIR;
      lying.replace(at, 4, Unhex(word));
      Out none[3];
      int curve = 0;
      EXPECT_EQ(DecodeEccPair(Exact(lying).data(), Length(lying), none, &curve), 0)
          << word << " at " << at;
    }
  }
}

// DER has one form for a value: whoever takes two lets a stored key or signature be changed.
TEST(PlatformEncoding, OnlyDer) {
  for (const auto& hex : Split(R"(
      308107 02020ca1 020111 | 3008 0203000ca1 020111 | 3007 02028ca1 020111 |
      3008 0203000ca1 020191 | 3006 020100 020111 | 3007 02020ca1 020100 |
      300a 02020ca1 020111 020100 | 3080 02020ca1 020111 0000 | 3107 02020ca1 020111 |
      3007 03020ca1 020111 | 3000 | 30)",
                               "|")) {
    SCOPED_TRACE(hex);
    const std::string der = Unhex(hex);
    Out none[2];
    EXPECT_EQ(
        VakroPKICryptoRSAPubKeyFromDER(Data(der), Length(der), &none[0].bytes, &none[0].length), 0);
    const std::string encoding = RSA_PUB.substr(0, 12) + der;
    EXPECT_EQ(DecodeRsaPub(Data(encoding), Length(encoding), none, nullptr), 0);
    EXPECT_EQ(
        VakroPKICryptoRSAPrivKeyFromDER(Data(der), Length(der), &none[0].bytes, &none[0].length),
        0);
  }
  std::string padded = RSA_PRIVATE;  // one prime with a zero in front
  padded[1]++;
  padded.replace(16, 3, Unhex("0202003d"));
  Out none;
  EXPECT_EQ(
      VakroPKICryptoRSAPrivKeyFromDER(Data(padded), Length(padded), &none.bytes, &none.length), 0);

  // Zeros in front, negative, 0, empty; long and indefinite lengths; a third or no second number,
  // other types; lengths that lie.
  for (const auto& hex : Split(R"(
      3008 0203000080 020101 | 3007 02020001 020101 | 3006 020180 020101 | 3006 0201ff 0201ff |
      3006 020100 020101 | 3006 020101 020100 | 3005 0200 020101 |
      308106 020101 020101 | 3007 02810101 020101 | 3080 020101 020101 0000 |
      3009 020101 020101 020101 | 3003 020101 | 3000 | 3106 020101 020101 | 3006 030101 020101 |
      3006 020101 020102 00 | 3005 020101 020101 | 3007 020101 020101)",
                               "|")) {
    const std::string der = Unhex(hex);
    Out out[2];
    EXPECT_EQ(DecodeSignature(Exact(der).data(), Length(der), out, nullptr), 0) << hex;
  }
}

TEST(PlatformEncoding, SignaturesBothWays) {
  const std::string zeros(3, '\0'), high(32, '\xff'), long521(66, '\x7f'), low = "\x01";
  const struct {
    std::string r, s, der;
  } rows[] = {{low, low, Unhex("3006 020101 020101")},
              {high, low, Unhex("3026 022100") + high + Unhex("020101")},
              {long521, long521, Unhex("308188 0242") + long521 + Unhex("0242") + long521}};
  for (const auto& row : rows) {
    Out der, padded, back[2];
    ASSERT_EQ(EncodeSignature(row.r, row.s, &der), 1);
    ASSERT_EQ(EncodeSignature(zeros + row.r, zeros + row.s, &padded), 1);
    EXPECT_EQ(der.str(), row.der);
    EXPECT_EQ(padded.str(), row.der);
    ASSERT_EQ(DecodeSignature(der.bytes, der.length, back, nullptr), 1);
    EXPECT_EQ(back[0].str(), row.r);
    EXPECT_EQ(back[1].str(), row.s);
  }
  Out none;
  EXPECT_EQ(EncodeSignature("", low, &none), 0);
  EXPECT_EQ(EncodeSignature(low, zeros, &none), 0);
  EXPECT_TRUE(none.untouched());
}

TEST(PlatformEncoding, SurvivesExhaustedMemory) {
  for (const auto& kind : KINDS) {
    SCOPED_TRACE(kind.what);
    FailEachAllocation([&] {
      Out out[3];
      int curve = 0;
      return kind.decode(Data(kind.encoding), Length(kind.encoding), out, &curve) == 1;
    });
  }
  FailEachAllocation([] {
    Out pair, pub, ecc, signature;
    return VakroPKICryptoRSAPrivKeyFromDER(Data(RSA_PRIVATE), Length(RSA_PRIVATE), &pair.bytes,
                                           &pair.length) == 1 &&
           VakroPKICryptoRSAPubKeyFromDER(Data(RSA_PUBLIC), Length(RSA_PUBLIC), &pub.bytes,
                                          &pub.length) == 1 &&
           VakroPKICryptoEncodeECCPubKey(7, Data("x"), 1, Data("y"), 1, &ecc.bytes, &ecc.length) ==
               1 &&
           EncodeSignature("r", "s", &signature) == 1;
  });
}
