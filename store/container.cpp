// The container of the device file: header words, text, digest; its check and its writer. What the
// text holds is reader.cpp's.
#include "store/store.h"

static_assert(HEADER_SIZE == LENGTH_OFFSET + 4 && LENGTH_OFFSET == TAG_OFFSET + 4);

std::string_view ImageText(const unsigned char* image) {
  return {reinterpret_cast<const char*>(image) + HEADER_SIZE, be2int(image + LENGTH_OFFSET)};
}

// Digest hashes a text; NULL also when the hash is not as long as the container wants it.
static LibBytes Digest(const unsigned char* text, unsigned int length) {
  unsigned char* raw = nullptr;
  unsigned int rawLength = 0;
  if (CalculateHash(FILE_HASH_ID, text, length, &raw, &rawLength) != 1) return nullptr;
  LibBytes digest(raw);
  if (rawLength != DIGEST_SIZE) return nullptr;
  return digest;
}

Found ReadImage(const char* path, unsigned char** image, unsigned int* size) {
  UtilBytes data;
  unsigned int length = 0;
  struct stat status;
  const Found read = ReadFile(path, &data, &length, &status);
  if (read != Found::GOOD) return read;

  if (length < HEADER_SIZE + DIGEST_SIZE) return Found::MISSING_OR_DAMAGED;
  const unsigned int textLength = length - HEADER_SIZE - DIGEST_SIZE;
  if (be2int(data.get() + LENGTH_OFFSET) != textLength) return Found::MISSING_OR_DAMAGED;

  const unsigned char* text = data.get() + HEADER_SIZE;
  const LibBytes digest = Digest(text, textLength);
  if (!digest) return Found::UNKNOWN;
  if (memcmp(text + textLength, digest.get(), DIGEST_SIZE) != 0) return Found::MISSING_OR_DAMAGED;
  *image = data.release();
  *size = length;
  return Found::GOOD;
}

int VerifyDeviceFile(const char* path, unsigned char** image, unsigned int* size) {
  return ReadImage(path, image, size) == Found::GOOD ? 1 : 0;
}

int WriteDeviceDataToFile(Device* device, const unsigned char* text, unsigned int length) {
  if (device == nullptr || length > MAX_FILE_SIZE - HEADER_SIZE - DIGEST_SIZE) return 0;
  const LibBytes digest = Digest(text, length);
  if (!digest) return 0;

  unsigned char tagWord[4];
  unsigned char lengthWord[4];
  int2be(device->fileTag, tagWord);
  int2be(length, lengthWord);
  const File file = OpenEmptied(device->filePath, nullptr);
  const bool written = file && WriteBytes(file, tagWord, sizeof(tagWord)) &&
                       WriteBytes(file, lengthWord, sizeof(lengthWord)) &&
                       WriteBytes(file, text, length) &&
                       WriteBytes(file, digest.get(), DIGEST_SIZE) && FlushToStorage(file);
  return written ? 1 : 0;
}
