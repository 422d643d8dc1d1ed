// The records in the text: the reader of a device, and beside it the builders that write keypairs
// and certificates in the same layout. Data objects are datas.cpp's.
#include "store/inside.h"

#include <array>

// --- Strings and bytes ---------------------------------------------------------------------------

static bool ReadName(const VakroJson* item, char (&name)[NAME_SIZE]) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() >= NAME_SIZE) return false;
  text.copy(name, text.size());
  name[text.size()] = '\0';
  return true;
}

static bool ReadNumber(const VakroJson* item, unsigned int* field) {
  int number = 0;
  if (!JsonNumber(item, &number)) return false;
  *field = static_cast<unsigned int>(number);
  return true;
}

static bool AddNonZero(VakroJson* array, unsigned int field) {
  return field != 0 && AddNumber(array, static_cast<int>(field));
}

static bool ReadHex(const VakroJson* item, unsigned char** bytes, int* length) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() > INT_MAX) return false;
  unsigned char* decoded = nullptr;
  int decodedLength = 0;
  if (vakro_hexdecode(text.data(), static_cast<int>(text.size()), &decoded, &decodedLength) != 1)
    return false;
  *bytes = decoded;
  *length = decodedLength;
  return true;
}

static bool AddHex(VakroJson* array, const unsigned char* bytes, int length) {
  if (length == 0) return false;
  char* raw = nullptr;
  int rawLength = 0;
  if (vakro_hexencode(1, bytes, length, &raw, &rawLength) != 1) return false;
  const UtilText text(raw);
  return AddString(array, {raw, static_cast<size_t>(rawLength)});
}

// The value of each hex digit; -1 for every other character.
static constexpr std::array<signed char, 256> HEX_VALUES = [] {
  std::array<signed char, 256> values{};
  values.fill(-1);
  for (signed char i = 0; i < 16; i++)
    values[static_cast<unsigned char>("0123456789abcdef"[i])] =
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = i;
  return values;
}();

static int HexValue(char digit) { return HEX_VALUES[static_cast<unsigned char>(digit)]; }

static bool IsHex(const VakroJson* item) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() % 2 != 0) return false;
  for (const char digit : text)
    if (HexValue(digit) < 0) return false;
  return true;
}

bool HexEquals(const VakroJson* value, const unsigned char* bytes, int length) {
  std::string_view text;
  if (!JsonString(value, &text) || length < 0) return false;
  const auto count = static_cast<size_t>(length);
  if (text.size() != 2 * count) return false;
  for (size_t i = 0; i < count; i++)
    if (HexValue(text[2 * i]) != bytes[i] >> 4 || HexValue(text[2 * i + 1]) != (bytes[i] & 15))
      return false;
  return true;
}

// --- Certificates --------------------------------------------------------------------------------

// IsBase64 says whether a text is what the encoder writes: padded, and nothing but digits.
static bool IsBase64(std::string_view text) {
  constexpr std::string_view DIGITS =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (text.size() % 4 != 0) return false;
  size_t padding = 0;
  for (; padding < 2 && text.ends_with('='); padding++) text.remove_suffix(1);
  if (text.find_first_not_of(DIGITS) != text.npos) return false;
  const size_t unused = padding == 0 ? 1 : size_t{1} << (2 * padding);
  return text.empty() ? padding == 0 : DIGITS.find(text.back()) % unused == 0;
}

Found ReadCert(const VakroJson* item, Cert** out) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() > INT_MAX) return Found::MISSING_OR_DAMAGED;
  OwnedCert cert(static_cast<Cert*>(vakro_malloc(sizeof(Cert), "json", __LINE__)));
  if (!cert) return Found::UNKNOWN;
  *cert = {};
  unsigned char* data = nullptr;
  int length = 0;
  if (vakro_base64decode(2, text.data(), static_cast<int>(text.size()), &data, &length) != 1)
    return IsBase64(text) ? Found::UNKNOWN : Found::MISSING_OR_DAMAGED;  // the decoder does not say
  cert->data = data;
  cert->length = length;
  *out = cert.release();
  return Found::GOOD;
}

VakroJson* Cert2Json(const Cert* cert) {
  if (cert == nullptr) return nullptr;
  char* raw = nullptr;
  int length = 0;
  if (vakro_base64encode(1, cert->data, cert->length, &raw, &length) != 1) return nullptr;
  const UtilText text(raw);
  return vakro_json_newstring(raw, static_cast<unsigned int>(length));
}

// ReadCerts fills in the certificates that can be read. False when the library hands out no item.
static bool ReadCerts(VakroJson* list, Keypair* keypair) {
  const int count = vakro_json_getarraysize(list);
  for (int i = 0; i < count; i++) {
    const VakroJson* item = vakro_json_getarrayitem(list, i);
    if (item == nullptr) return false;
    Cert* cert = nullptr;
    if (ReadCert(item, &cert) == Found::GOOD) keypair->certs[keypair->certCount++] = cert;
  }
  return true;
}

static bool AddCerts(VakroJson* array, const Keypair* keypair) {
  if (keypair->certCount < 0 || keypair->certCount > MAX_CERTS) return false;
  const Json list(vakro_json_newarray());
  if (!list) return false;
  for (int i = 0; i < keypair->certCount; i++)
    if (!AddItem(list.get(), Json(Cert2Json(keypair->certs[i])))) return false;
  return AddItem(array, list);
}

// --- Keypairs ------------------------------------------------------------------------------------

static bool HasCertList(VakroJson* item) {
  const VakroJson* list = vakro_json_getarrayitem(item, KEYPAIR_CERTS);
  return IsArray(list) && vakro_json_getarraysize(list) <= MAX_CERTS;
}

Keypair* Json2Keypair(VakroJson* item) {
  if (!IsArray(item) || vakro_json_getarraysize(item) != KEYPAIR_ITEMS) return nullptr;
  OwnedKeypair keypair(NewKeypair());
  if (!keypair) return nullptr;
  keypair->maxCerts = MAX_CERTS;

  const auto field = [item](int index) { return vakro_json_getarrayitem(item, index); };
  if (!ReadName(field(KEYPAIR_LABEL), keypair->label)) return nullptr;
  if (!ReadNumber(field(KEYPAIR_TYPE), &keypair->type)) return nullptr;
  if (!ReadNumber(field(KEYPAIR_ALGORITHM), &keypair->algorithm)) return nullptr;
  if (!ReadNumber(field(KEYPAIR_BITS), &keypair->bits)) return nullptr;
  if (!ReadHex(field(KEYPAIR_SALT), &keypair->salt, &keypair->saltLen)) return nullptr;
  if (!ReadHex(field(KEYPAIR_IV), &keypair->iv, &keypair->ivLen)) return nullptr;
  if (!ReadHex(field(KEYPAIR_PUBLIC_KEY), &keypair->publicKey, &keypair->publicKeyLen))
    return nullptr;
  if (!ReadHex(field(KEYPAIR_ENCRYPTED_PRIVATE_KEY), &keypair->encryptedPrivateKey,
               &keypair->encryptedPrivateKeyLen))
    return nullptr;
  if (!HasCertList(item) || !ReadCerts(field(KEYPAIR_CERTS), keypair.get())) return nullptr;
  return keypair.release();
}

VakroJson* Keypair2Json(const Keypair* keypair) {
  if (keypair == nullptr) return nullptr;
  Json owner(vakro_json_newarray());
  VakroJson* item = owner.get();
  if (item == nullptr) return nullptr;
  if (!AddName(item, keypair->label)) return nullptr;
  if (!AddNonZero(item, keypair->type)) return nullptr;
  if (!AddNonZero(item, keypair->algorithm)) return nullptr;
  if (!AddNonZero(item, keypair->bits)) return nullptr;
  if (!AddHex(item, keypair->salt, keypair->saltLen)) return nullptr;
  if (!AddHex(item, keypair->iv, keypair->ivLen)) return nullptr;
  if (!AddHex(item, keypair->publicKey, keypair->publicKeyLen)) return nullptr;
  if (!AddHex(item, keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen)) return nullptr;
  if (!AddCerts(item, keypair)) return nullptr;
  return owner.release();
}

bool IsKeypairItem(VakroJson* item) {
  if (!IsArray(item) || vakro_json_getarraysize(item) != KEYPAIR_ITEMS) return false;
  char label[NAME_SIZE];
  unsigned int number = 0;
  if (!ReadName(vakro_json_getarrayitem(item, KEYPAIR_LABEL), label)) return false;
  for (int i = KEYPAIR_TYPE; i <= KEYPAIR_BITS; i++)
    if (!ReadNumber(vakro_json_getarrayitem(item, i), &number)) return false;
  for (int i = KEYPAIR_SALT; i <= KEYPAIR_ENCRYPTED_PRIVATE_KEY; i++)
    if (!IsHex(vakro_json_getarrayitem(item, i))) return false;
  return HasCertList(item);
}

bool IsItemNamed(VakroJson* item, unsigned int type, const char* label) {
  char storedLabel[NAME_SIZE];
  unsigned int storedType = 0;
  return IsArray(item) && ReadName(vakro_json_getarrayitem(item, KEYPAIR_LABEL), storedLabel) &&
         strcmp(storedLabel, label) == 0 &&
         ReadNumber(vakro_json_getarrayitem(item, KEYPAIR_TYPE), &storedType) && storedType == type;
}

bool IsItemOf(VakroJson* item, const Keypair* keypair) {
  return IsItemNamed(item, keypair->type, keypair->label) &&
         HexEquals(vakro_json_getarrayitem(item, KEYPAIR_PUBLIC_KEY), keypair->publicKey,
                   keypair->publicKeyLen);
}

bool HasTwin(const Keypair* keypair) {
  const Device* device = keypair->device;
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* other = device->keypairs[i];
    if (other != keypair && other->type == keypair->type &&
        strcmp(other->label, keypair->label) == 0 && other->publicKeyLen == keypair->publicKeyLen &&
        memcmp(other->publicKey, keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)) ==
            0)
      return true;
  }
  return false;
}

// --- Devices -------------------------------------------------------------------------------------

Found LoadTree(VakroJson* root, unsigned int tag, Device** out) {
  if (!IsArray(root) || vakro_json_getarraysize(root) < DEVICE_ITEMS)
    return Found::MISSING_OR_DAMAGED;

  OwnedDevice device(NewDevice());
  if (!device) return Found::UNKNOWN;
  VakroJson* keypairs = vakro_json_getarrayitem(root, DEVICE_KEYPAIRS);
  if (!ReadName(vakro_json_getarrayitem(root, DEVICE_SERIAL_NUMBER), device->serialNumber) ||
      !ReadName(vakro_json_getarrayitem(root, DEVICE_LABEL), device->label) || !IsArray(keypairs))
    return Found::MISSING_OR_DAMAGED;

  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count && device->keypairCount < device->maxKeypairs; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (item == nullptr) return Found::UNKNOWN;
    Keypair* keypair = Json2Keypair(item);
    if (keypair == nullptr) continue;
    keypair->device = device.get();
    device->keypairs[device->keypairCount++] = keypair;
    device->refCount++;
  }
  device->fileTag = tag;
  *out = device.release();
  return Found::GOOD;
}

Found LoadImage(const unsigned char* image, Device** out) {
  if (image == nullptr) return Found::MISSING_OR_DAMAGED;
  Json root;
  const Found decoded = DecodeText(ImageText(image), &root);
  if (decoded != Found::GOOD) return decoded;
  return LoadTree(root.get(), be2int(image + TAG_OFFSET), out);
}

Device* GetDeviceHandleFromData(const unsigned char* image, unsigned int /*size*/) {
  Device* device = nullptr;
  return LoadImage(image, &device) == Found::GOOD ? device : nullptr;
}
