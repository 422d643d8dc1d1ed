// The records in the text: the reader of a device, and beside it the builders that write keypairs
// and certificates in the same layout. Data objects are datas.cpp's.
#include "store/store.h"

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
  return vakro_hexdecode(text.data(), static_cast<int>(text.size()), bytes, length) == 1;
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

// Json2Cert makes a certificate of a stored string; NULL for anything else.
static Cert* Json2Cert(const VakroJson* item) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() > INT_MAX) return nullptr;
  OwnedCert cert(static_cast<Cert*>(vakro_malloc(sizeof(Cert), "json", __LINE__)));
  if (!cert) return nullptr;
  *cert = {};
  if (vakro_base64decode(2, text.data(), static_cast<int>(text.size()), &cert->data,
                         &cert->length) != 1)
    return nullptr;
  return cert.release();
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
    Cert* cert = Json2Cert(item);
    if (cert != nullptr) keypair->certs[keypair->certCount++] = cert;
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

// Json2Keypair makes a keypair of a stored item; NULL for one that breaks the layout.
static Keypair* Json2Keypair(VakroJson* item) {
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

bool IsItemOf(VakroJson* item, const Keypair* keypair) {
  char label[NAME_SIZE];
  unsigned int type = 0;
  return ReadName(vakro_json_getarrayitem(item, KEYPAIR_LABEL), label) &&
         strcmp(label, keypair->label) == 0 &&
         ReadNumber(vakro_json_getarrayitem(item, KEYPAIR_TYPE), &type) && type == keypair->type &&
         HexEquals(vakro_json_getarrayitem(item, KEYPAIR_PUBLIC_KEY), keypair->publicKey,
                   keypair->publicKeyLen);
}

// --- Devices -------------------------------------------------------------------------------------

// DecodeText decodes a text whose digest is right. The library answers exhausted memory and broken
// text alike, and a good file must not be called broken: the text is to blame only when it fails
// twice while there is room, before and after the second attempt, for more than it can take.
static Found DecodeText(std::string_view text, Json* tree) {
  constexpr size_t BYTES_PER_CHARACTER = 64;
  constexpr size_t SLACK = 65536;
  for (int attempt = 0; attempt < 2; attempt++) {
    tree->reset(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
    if (*tree) return Found::GOOD;
    const UtilBytes room(static_cast<unsigned char*>(
        vakro_malloc(text.size() * BYTES_PER_CHARACTER + SLACK, "json", __LINE__)));
    if (!room) return Found::UNKNOWN;
  }
  return Found::MISSING_OR_DAMAGED;
}

Found LoadImage(const unsigned char* image, Device** out) {
  if (image == nullptr) return Found::MISSING_OR_DAMAGED;
  Json owner;
  const Found decoded = DecodeText(ImageText(image), &owner);
  if (decoded != Found::GOOD) return decoded;
  VakroJson* root = owner.get();
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
  device->fileTag = be2int(image + TAG_OFFSET);
  *out = device.release();
  return Found::GOOD;
}

Device* GetDeviceHandleFromData(const unsigned char* image, unsigned int /*size*/) {
  Device* device = nullptr;
  return LoadImage(image, &device) == Found::GOOD ? device : nullptr;
}
