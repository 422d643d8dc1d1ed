// The reader: the records of a device, its keypairs and certificates, made of what is stored. Data
// objects are datas.cpp's.
#include "store/inside.h"

// --- Strings and bytes ---------------------------------------------------------------------------

bool ReadName(const VakroJson* item, char (&name)[NAME_SIZE]) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() >= NAME_SIZE) return false;
  text.copy(name, text.size());
  name[text.size()] = '\0';
  return true;
}

bool ReadNumber(const VakroJson* item, unsigned int* field) {
  int number = 0;
  if (!JsonNumber(item, &number)) return false;
  *field = static_cast<unsigned int>(number);
  return true;
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

static bool IsHex(const VakroJson* item) {
  std::string_view text;
  return JsonString(item, &text) && text.size() % 2 == 0 &&
         text.find_first_not_of("0123456789abcdefABCDEF") == text.npos;
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

ReadResult ReadCert(const VakroJson* item, Cert** out) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() > INT_MAX) return ReadResult::BAD;
  OwnedCert cert(static_cast<Cert*>(vakro_malloc(sizeof(Cert), "json", __LINE__)));
  if (!cert) return ReadResult::UNKNOWN;
  *cert = {};
  unsigned char* data = nullptr;
  int length = 0;
  if (vakro_base64decode(2, text.data(), static_cast<int>(text.size()), &data, &length) != 1)
    return IsBase64(text) ? ReadResult::UNKNOWN : ReadResult::BAD;  // the decoder does not say
  cert->data = data;
  cert->length = length;
  *out = cert.release();
  return ReadResult::GOOD;
}

// ReadCerts fills in the certificates that can be read. False when the library hands out no item.
static bool ReadCerts(VakroJson* list, Keypair* keypair) {
  const int count = vakro_json_getarraysize(list);
  for (int i = 0; i < count; i++) {
    const VakroJson* item = vakro_json_getarrayitem(list, i);
    if (item == nullptr) return false;
    Cert* cert = nullptr;
    if (ReadCert(item, &cert) == ReadResult::GOOD) keypair->certs[keypair->certCount++] = cert;
  }
  return true;
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

bool MayBeKeypair(VakroJson* item) {
  return IsArray(item) && vakro_json_getarraysize(item) == KEYPAIR_ITEMS &&
         IsHex(vakro_json_getarrayitem(item, KEYPAIR_ENCRYPTED_PRIVATE_KEY));
}

// --- Devices -------------------------------------------------------------------------------------

ReadResult LoadTree(VakroJson* root, unsigned int tag, Device** out) {
  if (!IsDeviceRoot(root)) return ReadResult::BAD;

  OwnedDevice device(NewDevice());
  if (!device) return ReadResult::UNKNOWN;
  VakroJson* keypairs = vakro_json_getarrayitem(root, DEVICE_KEYPAIRS);
  if (!ReadName(vakro_json_getarrayitem(root, DEVICE_SERIAL_NUMBER), device->serialNumber) ||
      !ReadName(vakro_json_getarrayitem(root, DEVICE_LABEL), device->label) || !IsArray(keypairs))
    return ReadResult::BAD;

  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count && device->keypairCount < device->maxKeypairs; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (item == nullptr) return ReadResult::UNKNOWN;
    Keypair* keypair = Json2Keypair(item);
    if (keypair == nullptr) continue;
    keypair->device = device.get();
    device->keypairs[device->keypairCount++] = keypair;
    device->refCount++;
  }
  device->fileTag = tag;
  *out = device.release();
  return ReadResult::GOOD;
}

ReadResult LoadImage(const unsigned char* image, Device** out) {
  if (image == nullptr) return ReadResult::BAD;
  Json root;
  const ReadResult decoded = DecodeText(ImageText(image), &root);
  if (decoded != ReadResult::GOOD) return decoded;
  return LoadTree(root.get(), be2int(image + TAG_OFFSET), out);
}

Device* GetDeviceHandleFromData(const unsigned char* image, unsigned int /*size*/) {
  Device* device = nullptr;
  return LoadImage(image, &device) == ReadResult::GOOD ? device : nullptr;
}
