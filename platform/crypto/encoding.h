// The header of a key encoding: magic and key algorithm.
#ifndef VAKRO_PLATFORM_ENCODING_H
#define VAKRO_PLATFORM_ENCODING_H

#include <stdint.h>
#include <string.h>

#include <span>

inline constexpr char KEYPAIR_MAGIC[] = "_KEYPAIR";
inline constexpr char PUBKEY_MAGIC[] = "_PUBKEY_";
inline constexpr size_t MAGIC_LEN = 8;
inline constexpr size_t WORD_LEN = 4;
inline constexpr size_t HEADER_LEN = MAGIC_LEN + WORD_LEN;
inline constexpr uint32_t KEY_RSA = 1;
inline constexpr uint32_t KEY_ECC = 4;

inline void PutWord(unsigned char* at, uint32_t value) {
  at[0] = static_cast<unsigned char>(value >> 24);
  at[1] = static_cast<unsigned char>(value >> 16);
  at[2] = static_cast<unsigned char>(value >> 8);
  at[3] = static_cast<unsigned char>(value);
}

inline uint32_t GetWord(const unsigned char* at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

inline void PutHeader(unsigned char* at, const char* magic, uint32_t algorithm) {
  memcpy(at, magic, MAGIC_LEN);
  PutWord(at + MAGIC_LEN, algorithm);
}

// GetBody finds what stands behind the header. Returns false when the header is another.
inline bool GetBody(const unsigned char* encoding, int length, const char* magic,
                    uint32_t algorithm, std::span<const unsigned char>* body) {
  if (encoding == nullptr || length < static_cast<int>(HEADER_LEN)) return false;
  if (memcmp(encoding, magic, MAGIC_LEN) != 0 || GetWord(encoding + MAGIC_LEN) != algorithm)
    return false;
  *body = {encoding + HEADER_LEN, static_cast<size_t>(length) - HEADER_LEN};
  return true;
}

#endif
