// Conversion of SM2 ciphertexts.
#include "tools/sm2_cipher.h"

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "sm2/sm2.h"

#include <openssl/asn1.h>

static void FreeItems(STACK_OF(ASN1_TYPE) * items) { sk_ASN1_TYPE_pop_free(items, ASN1_TYPE_free); }

using Items = std::unique_ptr<STACK_OF(ASN1_TYPE), Release<FreeItems>>;
using Item = std::unique_ptr<ASN1_TYPE, Release<ASN1_TYPE_free>>;
using Integer = std::unique_ptr<ASN1_INTEGER, Release<ASN1_INTEGER_free>>;
using OctetString = std::unique_ptr<ASN1_OCTET_STRING, Release<ASN1_OCTET_STRING_free>>;

static constexpr size_t FIELD = SM2_FIELD_SIZE;

bool IsSm2CipherDer(ByteSpan ciphertext) {
  return !ciphertext.empty() && ciphertext[0] == (V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED);
}

static void Push(const Items& items, int type, void* value) {
  Item item(ASN1_TYPE_new());
  if (!item) throw std::bad_alloc();
  ASN1_TYPE_set(item.get(), type, value);  // takes the value over
  if (sk_ASN1_TYPE_push(items.get(), item.get()) <= 0) throw std::bad_alloc();
  item.release();
}

static void PushNumber(const Items& items, ByteSpan bytes) {
  const BigNum number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  Integer integer(BN_to_ASN1_INTEGER(number.get(), nullptr));
  if (!integer) throw std::bad_alloc();
  Push(items, V_ASN1_INTEGER, integer.release());
}

static void PushOctets(const Items& items, ByteSpan bytes) {
  OctetString string(ASN1_OCTET_STRING_new());
  if (!string ||
      ASN1_OCTET_STRING_set(string.get(), bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::bad_alloc();
  }
  Push(items, V_ASN1_OCTET_STRING, string.release());
}

Bytes Sm2CipherToDer(ByteSpan ciphertext) {
  const Items items(sk_ASN1_TYPE_new_null());
  const ByteSpan c2 = ciphertext.subspan(SM2_POINT_SIZE, ciphertext.size() - SM2_CIPHER_OVERHEAD);
  PushNumber(items, ciphertext.subspan(1, FIELD));
  PushNumber(items, ciphertext.subspan(1 + FIELD, FIELD));
  PushOctets(items, ciphertext.last(FIELD));
  PushOctets(items, c2);
  const int size = i2d_ASN1_SEQUENCE_ANY(items.get(), nullptr);
  if (size <= 0) throw std::bad_alloc();
  Bytes der(static_cast<size_t>(size));
  unsigned char* end = der.data();
  i2d_ASN1_SEQUENCE_ANY(items.get(), &end);
  return der;
}

static const ASN1_TYPE* ItemAt(const Items& items, int index, int type) {
  const ASN1_TYPE* item = sk_ASN1_TYPE_value(items.get(), index);
  if (item != nullptr && item->type == type) return item;
  throw Failure("This is no SM2 ciphertext: its DER has another form.");
}

static void AppendNumber(Bytes& bytes, const ASN1_TYPE* item) {
  const BigNum number(ASN1_INTEGER_to_BN(item->value.integer, nullptr));
  const size_t end = bytes.size();
  bytes.resize(end + FIELD);
  if (!number || BN_is_negative(number.get()) ||
      BN_bn2binpad(number.get(), bytes.data() + end, SM2_FIELD_SIZE) != SM2_FIELD_SIZE) {
    throw Failure("This is no SM2 ciphertext: a coordinate is too large.");
  }
}

Bytes Sm2CipherFromDer(ByteSpan der) {
  const unsigned char* end = der.data();
  const Items items(d2i_ASN1_SEQUENCE_ANY(nullptr, &end, static_cast<long>(der.size())));
  if (!items || end != der.data() + der.size() || sk_ASN1_TYPE_num(items.get()) != 4) {
    throw Failure("This is no SM2 ciphertext: neither C1 || C2 || C3 nor DER.");
  }
  Bytes bytes{POINT_CONVERSION_UNCOMPRESSED};
  AppendNumber(bytes, ItemAt(items, 0, V_ASN1_INTEGER));
  AppendNumber(bytes, ItemAt(items, 1, V_ASN1_INTEGER));
  for (int index : {3, 2}) {  // C2, then C3
    const ASN1_OCTET_STRING* part = ItemAt(items, index, V_ASN1_OCTET_STRING)->value.octet_string;
    const unsigned char* data = ASN1_STRING_get0_data(part);
    if (index == 2 && ASN1_STRING_length(part) != SM2_FIELD_SIZE) {
      throw Failure("This is no SM2 ciphertext: its check value has another length.");
    }
    bytes.insert(bytes.end(), data, data + ASN1_STRING_length(part));
  }
  return bytes;
}
