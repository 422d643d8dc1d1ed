// The checks of container.cpp, reader.cpp and datas.cpp, one by one, with a name for each; and the
// mending of a container.
#include "store/inspect.h"

#include "store/inside.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

namespace {
// Hands faults on, with the label of the keypair that they are in.
struct Teller {
  void (*tell)(void* context, const StoredFault& fault);
  void* context;
  std::string_view label;
  void operator()(StoredFault fault) const {
    fault.label = label;
    tell(context, fault);
  }
};
}  // namespace

static constexpr const char* ROOT_FIELDS[] = {"serial number", "label", "list of keypairs"};
static constexpr const char* KEYPAIR_FIELDS[] = {
    "label",       "type", "algorithm", "bits", "salt", "iv", "public key", "encrypted private key",
    "certificates"};
static_assert(std::size(ROOT_FIELDS) == DEVICE_DATAS && std::size(KEYPAIR_FIELDS) == KEYPAIR_ITEMS);

static bool IsName(const VakroJson* item) {
  std::string_view text;
  return JsonString(item, &text) && text.size() < NAME_SIZE;
}

static bool IsNumber(const VakroJson* item) {
  int number = 0;
  return JsonNumber(item, &number);
}

static bool IsString(const VakroJson* item) {
  std::string_view text;
  return JsonString(item, &text);
}

static bool Decodes(const VakroJson* item, bool hex) {
  std::string_view text;
  if (!JsonString(item, &text) || text.size() > INT_MAX) return false;
  unsigned char* raw = nullptr;
  int length = 0;
  const auto size = static_cast<int>(text.size());
  const int result = hex ? vakro_hexdecode(text.data(), size, &raw, &length)
                         : vakro_base64decode(2, text.data(), size, &raw, &length);
  const UtilBytes bytes(result == 1 ? raw : nullptr);
  return result == 1;
}

// --- Keypairs ------------------------------------------------------------------------------------

static void InspectCerts(VakroJson* list, int keypair, const Teller& tell) {
  const int count = vakro_json_getarraysize(list);
  if (count > MAX_CERTS) {
    tell({.fault = FileFault::TOO_MANY_CERTS,
          .keypair = keypair,
          .found = static_cast<unsigned int>(count),
          .wanted = MAX_CERTS});
    return;
  }
  for (int i = 0; i < count; i++)
    if (!Decodes(vakro_json_getarrayitem(list, i), false))
      tell({.fault = FileFault::CERT, .keypair = keypair, .at = i});
}

static void InspectKeypair(VakroJson* item, int keypair, const Teller& tell) {
  if (!IsArray(item) || vakro_json_getarraysize(item) != KEYPAIR_ITEMS) {
    tell({.fault = FileFault::KEYPAIR, .keypair = keypair});
    return;
  }
  for (int field = 0; field < KEYPAIR_ITEMS; field++) {
    VakroJson* value = vakro_json_getarrayitem(item, field);
    const bool isHex = field >= KEYPAIR_SALT && field <= KEYPAIR_ENCRYPTED_PRIVATE_KEY;
    const bool typed = field == KEYPAIR_LABEL   ? IsName(value)
                       : field == KEYPAIR_CERTS ? IsArray(value)
                       : isHex                  ? IsString(value)
                                                : IsNumber(value);
    if (!typed)
      tell({.fault = FileFault::KEYPAIR_FIELD, .keypair = keypair, .field = KEYPAIR_FIELDS[field]});
    else if (isHex && !Decodes(value, true))
      tell({.fault = FileFault::KEYPAIR_HEX, .keypair = keypair, .field = KEYPAIR_FIELDS[field]});
    else if (field == KEYPAIR_CERTS)
      InspectCerts(value, keypair, tell);
  }
}

static bool SameNumber(const VakroJson* a, const VakroJson* b) {
  int first = 0, second = 0;
  return JsonNumber(a, &first) && JsonNumber(b, &second) && first == second;
}

static bool SameText(const VakroJson* a, const VakroJson* b) {
  std::string_view first, second;
  return JsonString(a, &first) && JsonString(b, &second) && first == second;
}

static bool SameName(VakroJson* a, VakroJson* b) {
  return SameNumber(vakro_json_getarrayitem(a, KEYPAIR_TYPE),
                    vakro_json_getarrayitem(b, KEYPAIR_TYPE)) &&
         SameText(vakro_json_getarrayitem(a, KEYPAIR_LABEL),
                  vakro_json_getarrayitem(b, KEYPAIR_LABEL));
}

static std::string_view LabelOf(VakroJson* item) {
  std::string_view label;
  if (IsArray(item)) JsonString(vakro_json_getarrayitem(item, KEYPAIR_LABEL), &label);
  return label;
}

static void InspectKeypairs(VakroJson* list, const Teller& teller) {
  const int count = vakro_json_getarraysize(list);
  VakroJson* loaded[MAX_KEYPAIRS];
  int loadedCount = 0;
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(list, i);
    const Teller tell{teller.tell, teller.context, LabelOf(item)};
    InspectKeypair(item, i, tell);
    if (!IsKeypairItem(item)) continue;
    if (loadedCount == MAX_KEYPAIRS) {
      tell({.fault = FileFault::TOO_MANY_KEYPAIRS, .keypair = i});
      continue;
    }
    for (int k = 0; k < loadedCount; k++) {
      if (!SameName(loaded[k], item)) continue;
      tell({.fault = FileFault::SAME_KEYPAIR, .keypair = i});
      break;
    }
    loaded[loadedCount++] = item;
  }
}

// --- Data objects --------------------------------------------------------------------------------

static void InspectDatas(VakroJson* list, const Teller& tell) {
  if (!IsArray(list)) {
    tell({.fault = FileFault::DATAS});
    return;
  }
  const int count = vakro_json_getarraysize(list);
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(list, i);
    const OwnedData data(Json2Data(item));
    if (!data) {
      tell({.fault = FileFault::DATA, .at = i});
      continue;
    }
    for (int k = 0; k < i; k++) {
      VakroJson* other = vakro_json_getarrayitem(list, k);
      if (!IsArray(other)) continue;
      const VakroJson* earlier = vakro_json_getarrayitem(other, DATA_ID);
      if (!SameNumber(earlier, vakro_json_getarrayitem(item, DATA_ID))) continue;
      tell({.fault = FileFault::SAME_DATA, .at = i});
      break;
    }
  }
}

// --- The whole -----------------------------------------------------------------------------------

static int InspectText(std::string_view text, const Teller& tell) {
  errno = 0;
  const Json root(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  if (!root) {
    if (errno != EINVAL) return -1;
    tell({.fault = FileFault::TEXT});
    return 0;
  }
  if (!IsDeviceRoot(root.get())) {
    tell({.fault = FileFault::ROOT});
    return 0;
  }
  int loads = 1;
  for (int field = 0; field < DEVICE_DATAS; field++) {
    const VakroJson* value = vakro_json_getarrayitem(root.get(), field);
    if (field == DEVICE_KEYPAIRS ? IsArray(value) : IsName(value)) continue;
    tell({.fault = FileFault::ROOT_FIELD, .field = ROOT_FIELDS[field]});
    loads = 0;
  }
  VakroJson* keypairs = vakro_json_getarrayitem(root.get(), DEVICE_KEYPAIRS);
  if (IsArray(keypairs)) InspectKeypairs(keypairs, tell);
  VakroJson* datas = vakro_json_getarrayitem(root.get(), DEVICE_DATAS);
  if (datas != nullptr) InspectDatas(datas, tell);
  return loads;
}

static constexpr unsigned int LEAST = HEADER_SIZE + DIGEST_SIZE;  // with an empty text

// IsProven says whether a text of this length is followed by its digest: 1, 0; -1 when memory is
// out.
static int IsProven(const unsigned char* image, unsigned int length) {
  const unsigned char* text = image + HEADER_SIZE;
  unsigned char* raw = nullptr;
  unsigned int rawLength = 0;
  if (CalculateHash(FILE_HASH_ID, text, length, &raw, &rawLength) != 1) return -1;
  const LibBytes digest(raw);
  return rawLength >= DIGEST_SIZE && memcmp(raw, text + length, DIGEST_SIZE) == 0 ? 1 : 0;
}

int InspectImage(const unsigned char* image, unsigned int size,
                 void (*tell)(void* context, const StoredFault& fault), void* context) {
  const Teller teller{tell, context, {}};
  if (size < LEAST) {
    teller({.fault = FileFault::SHORT, .found = size, .wanted = LEAST});
    return 0;
  }
  const unsigned int length = be2int(image + LENGTH_OFFSET);
  if (length != size - LEAST) {
    teller({.fault = FileFault::LENGTH_WORD, .found = length, .wanted = size - LEAST});
    return 0;
  }
  const std::string_view text = ImageText(image);
  const int proven = IsProven(image, length);
  if (proven < 0) return proven;
  if (proven == 0) teller({.fault = FileFault::DIGEST});
  const int loads = InspectText(text, teller);
  return loads == 1 && proven == 0 ? 0 : loads;
}

// --- Mending -------------------------------------------------------------------------------------

int FindText(const unsigned char* image, unsigned int size, unsigned int* length) {
  if (size < LEAST) return 0;
  const unsigned int bySize = size - LEAST;
  const unsigned int byWord = be2int(image + LENGTH_OFFSET);
  if (byWord == bySize) return 0;
  *length = bySize;
  const int proven = IsProven(image, bySize);
  if (proven != 0 || byWord > bySize) return proven;
  *length = byWord;
  return IsProven(image, byWord);
}

bool SetTextLength(const char* path, unsigned int length) {
  const Descriptor file(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW));
  unsigned char word[4];
  int2be(length, word);
  return file.fd >= 0 && pwrite(file.fd, word, sizeof(word), LENGTH_OFFSET) == sizeof(word) &&
         ftruncate(file.fd, off_t{LEAST} + length) == 0 && fsync(file.fd) == 0;
}
