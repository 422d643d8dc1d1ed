// The container of the device file: header words, text, digest; its check and its writer. What the
// text holds is reader.cpp's.
#include "store/inside.h"

static_assert(HEADER_SIZE == LENGTH_OFFSET + 4 && LENGTH_OFFSET == TAG_OFFSET + 4);

std::string_view ImageText(const unsigned char* image) {
  return {reinterpret_cast<const char*>(image) + HEADER_SIZE, be2int(image + LENGTH_OFFSET)};
}

// Digest hashes a text; NULL also when the hash is shorter than the container wants it. What it
// has beyond DIGEST_SIZE bytes counts for nothing.
static LibBytes Digest(const unsigned char* text, unsigned int length) {
  unsigned char* raw = nullptr;
  unsigned int rawLength = 0;
  if (CalculateHash(FILE_HASH_ID, text, length, &raw, &rawLength) != 1) return nullptr;
  LibBytes digest(raw);
  return rawLength >= DIGEST_SIZE ? std::move(digest) : nullptr;
}

ReadResult CheckImage(const FileImage& image) {
  constexpr unsigned int FRAME = HEADER_SIZE + DIGEST_SIZE;
  if (image.size < FRAME) return ReadResult::BAD;
  const unsigned int textLength = image.size - FRAME;
  if (be2int(image.bytes.get() + LENGTH_OFFSET) != textLength) return ReadResult::BAD;
  const unsigned char* text = image.bytes.get() + HEADER_SIZE;
  const LibBytes digest = Digest(text, textLength);
  if (!digest) return ReadResult::UNKNOWN;
  const bool same = memcmp(text + textLength, digest.get(), DIGEST_SIZE) == 0;
  return same ? ReadResult::GOOD : ReadResult::BAD;
}

ReadResult ReadImage(const char* path, FileImage* image) {
  image->bytes.reset();
  File file;
  const ReadResult opened = OpenRegularFile(path, &file, &image->status);
  if (opened != ReadResult::GOOD) return opened;
  const off_t size = image->status.st_size;
  if (size < off_t{HEADER_SIZE + DIGEST_SIZE} || size > off_t{MAX_FILE_SIZE})
    return ReadResult::BAD;
  image->size = static_cast<unsigned int>(size);

  // Any file may stand in the folder, of any size: of one that is no container only this is read.
  unsigned char header[HEADER_SIZE];
  ReadResult read = ReadBytes(file, header, HEADER_SIZE);
  if (read != ReadResult::GOOD) return read;
  if (be2int(header + LENGTH_OFFSET) != image->size - HEADER_SIZE - DIGEST_SIZE)
    return ReadResult::BAD;

  image->bytes.reset(static_cast<unsigned char*>(vakro_malloc(image->size, "json", __LINE__)));
  if (!image->bytes) return ReadResult::UNKNOWN;
  memcpy(image->bytes.get(), header, HEADER_SIZE);
  read = ReadBytes(file, image->bytes.get() + HEADER_SIZE, image->size - HEADER_SIZE);
  return read == ReadResult::GOOD ? CheckImage(*image) : read;
}

UtilBytes MakeImage(unsigned int tag, std::string_view text, unsigned int* size) {
  if (text.size() > MAX_TEXT_SIZE) return nullptr;
  const auto length = static_cast<unsigned int>(text.size());
  const LibBytes digest = Digest(reinterpret_cast<const unsigned char*>(text.data()), length);
  UtilBytes image(static_cast<unsigned char*>(
      vakro_malloc(HEADER_SIZE + length + DIGEST_SIZE, "json", __LINE__)));
  if (!digest || !image) return nullptr;
  int2be(tag, image.get() + TAG_OFFSET);
  int2be(length, image.get() + LENGTH_OFFSET);
  memcpy(image.get() + HEADER_SIZE, text.data(), length);
  memcpy(image.get() + HEADER_SIZE + length, digest.get(), DIGEST_SIZE);
  *size = HEADER_SIZE + length + DIGEST_SIZE;
  return image;
}

int VerifyDeviceFile(const char* path, unsigned char** image, unsigned int* size) {
  FileImage read;
  if (ReadImage(path, &read) != ReadResult::GOOD) return 0;
  *image = read.bytes.release();
  *size = read.size;
  return 1;
}

int WriteDeviceDataToFile(Device* device, const unsigned char* text, unsigned int length) {
  if (device == nullptr || length > MAX_TEXT_SIZE) return 0;
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
