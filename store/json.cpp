// JSON values: reading and appending single items, the copies of an array with one item changed,
// and the equality that identifies keypairs and certificates.
#include "store/inside.h"

#include <errno.h>
#include <math.h>

// The decoder says by errno why there is no tree: everything but EINVAL is no fault of the text.
ReadResult DecodeText(std::string_view text, Json* tree) {
  errno = 0;
  tree->reset(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  if (*tree) return ReadResult::GOOD;
  return errno == EINVAL ? ReadResult::BAD : ReadResult::UNKNOWN;
}

static bool HasType(const VakroJson* value, VakroJsonType type) {
  return value != nullptr && vakro_json_gettype(value) == type;
}

bool IsArray(const VakroJson* value) { return HasType(value, VAKRO_JSON_ARRAY); }

static int SizeOf(const VakroJson* value) {
  return IsArray(value) ? vakro_json_getarraysize(value) : 0;
}

bool JsonString(const VakroJson* value, std::string_view* text) {
  if (!HasType(value, VAKRO_JSON_STRING)) return false;
  *text = {vakro_json_getstring(value), vakro_json_getstringlength(value)};
  return true;
}

bool JsonNumber(const VakroJson* value, int* number) {
  if (!HasType(value, VAKRO_JSON_NUMBER)) return false;
  const double held = vakro_json_getnumber(value);
  if (isnan(held))
    *number = 0;
  else if (held >= INT_MAX)
    *number = INT_MAX;
  else if (held <= INT_MIN)
    *number = INT_MIN;
  else
    *number = static_cast<int>(held);
  return true;
}

bool AddItem(VakroJson* array, const Json& item) {
  return item && vakro_json_addarrayitem(array, item.get()) == 1;
}

bool AddString(VakroJson* array, std::string_view text) {
  if (text.size() > UINT_MAX) return false;
  return AddItem(array,
                 Json(vakro_json_newstring(text.data(), static_cast<unsigned int>(text.size()))));
}

bool AddNumber(VakroJson* array, int number) {
  return AddItem(array, Json(vakro_json_newnumber(number)));
}

bool AddName(VakroJson* array, const char (&name)[NAME_SIZE]) {
  return AddString(array, {name, strnlen(name, NAME_SIZE)});
}

UtilText EncodeTree(const VakroJson* tree, unsigned int* length) {
  char* text = nullptr;
  if (vakro_json_encode(tree, VAKRO_JSON_COMPACT, &text, length) != 1) return nullptr;
  return UtilText(text);
}

bool IsDeviceRoot(VakroJson* root) { return SizeOf(root) >= DEVICE_DATAS; }

bool HasDatas(VakroJson* root) { return SizeOf(root) > DEVICE_DATAS; }

// CopyArrayBut copies an array with `item` in place of the one at `index`, or without it for NULL.
static VakroJson* CopyArrayBut(VakroJson* array, int index, const VakroJson* item) {
  const int size = SizeOf(array);
  if (index < 0 || index >= size) return nullptr;
  Json copy(vakro_json_newarray());
  if (!copy) return nullptr;
  for (int i = 0; i < size; i++) {
    const VakroJson* next = i == index ? item : vakro_json_getarrayitem(array, i);
    if (i == index && next == nullptr) continue;
    if (next == nullptr || vakro_json_addarrayitem(copy.get(), next) != 1) return nullptr;
  }
  return copy.release();
}

VakroJson* VakroJsonDeleteArrayItem(VakroJson* array, int index) {
  return CopyArrayBut(array, index, nullptr);
}

VakroJson* VakroJsonUpdateArrayItem(VakroJson* array, int index, VakroJson* item) {
  return item != nullptr ? CopyArrayBut(array, index, item) : nullptr;
}

VakroJson* UpdateJsonKeypairsToDevice(VakroJson* tree, VakroJson* keypairs) {
  return VakroJsonUpdateArrayItem(tree, DEVICE_KEYPAIRS, keypairs);
}

VakroJson* UpdateJsonCertsToKeypair(VakroJson* keypairItem, VakroJson* certs) {
  return VakroJsonUpdateArrayItem(keypairItem, KEYPAIR_CERTS, certs);
}

// ScalarEqual compares two strings or two numbers; anything else is unequal.
static bool ScalarEqual(const VakroJson* a, const VakroJson* b) {
  std::string_view left, right;
  if (JsonString(a, &left)) return JsonString(b, &right) && left == right;
  return HasType(a, VAKRO_JSON_NUMBER) && HasType(b, VAKRO_JSON_NUMBER) &&
         vakro_json_getnumber(a) == vakro_json_getnumber(b);
}

// ItemsEqual compares the first `count` items of two arrays.
static bool ItemsEqual(VakroJson* a, VakroJson* b, int count) {
  for (int i = 0; i < count; i++)
    if (!ScalarEqual(vakro_json_getarrayitem(a, i), vakro_json_getarrayitem(b, i))) return false;
  return true;
}

// Alike says whether two values have the same type and, as arrays, the same size.
static bool Alike(const VakroJson* a, const VakroJson* b) {
  return a != nullptr && b != nullptr && vakro_json_gettype(a) == vakro_json_gettype(b) &&
         SizeOf(a) == SizeOf(b);
}

int KeypairJsonEqual(VakroJson* a, VakroJson* b) {
  return Alike(a, b) && ItemsEqual(a, b, SizeOf(a) - 1) ? 1 : 0;
}

int CertJsonEqual(VakroJson* a, VakroJson* b) {
  if (!Alike(a, b)) return 0;
  if (IsArray(a)) return ItemsEqual(a, b, SizeOf(a)) ? 1 : 0;
  return ScalarEqual(a, b) ? 1 : 0;
}

VakroJson* UpdateJsonKeypairToKeypairs(VakroJson* keypairs, VakroJson* keypairItem) {
  const int count = SizeOf(keypairs);
  for (int i = 0; i < count; i++)
    if (KeypairJsonEqual(vakro_json_getarrayitem(keypairs, i), keypairItem))
      return VakroJsonUpdateArrayItem(keypairs, i, keypairItem);
  return nullptr;
}

int AddJsonCertToCerts(VakroJson* certs, VakroJson* cert) {
  const int count = SizeOf(certs);
  for (int i = 0; i < count; i++) {
    VakroJson* stored = vakro_json_getarrayitem(certs, i);
    if (stored == nullptr) return 0;
    if (CertJsonEqual(stored, cert)) return 1;
  }
  return vakro_json_addarrayitem(certs, cert) == 1 ? 1 : 0;
}

VakroJson* DeleteJsonCertToCerts(VakroJson* certs, VakroJson* cert) {
  const int count = SizeOf(certs);
  for (int i = 0; i < count; i++) {
    VakroJson* stored = vakro_json_getarrayitem(certs, i);
    if (stored == nullptr) return nullptr;
    if (CertJsonEqual(stored, cert)) return VakroJsonDeleteArrayItem(certs, i);
  }
  return vakro_json_dup(certs);
}

VakroJson* DeleteJsonCertToKeypair(VakroJson* keypairItem, VakroJson* cert) {
  if (!IsArray(keypairItem) || vakro_json_getarraysize(keypairItem) != KEYPAIR_ITEMS)
    return nullptr;
  VakroJson* certs = vakro_json_getarrayitem(keypairItem, KEYPAIR_CERTS);
  if (certs == nullptr) return nullptr;
  const Json left(DeleteJsonCertToCerts(certs, cert));
  return left ? UpdateJsonCertsToKeypair(keypairItem, left.get()) : nullptr;
}
