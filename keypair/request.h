// What the four key operations have in common. Inside keypair/ only.
#ifndef VAKRO_KEYPAIR_REQUEST_H
#define VAKRO_KEYPAIR_REQUEST_H

#include "vakro_device.h"

#include <openssl/rsa.h>

// IsBlock says whether a caller's bytes can be read; where there are none the pointer may be NULL.
inline bool IsBlock(const unsigned char* bytes, int length) {
  return length >= 0 && (bytes != nullptr || length == 0);
}

// The caller's buffers.
struct OperationRequest {
  const unsigned char* input;
  int inputLen;
  unsigned char* output;  // NULL asks for the length alone
  int size;               // of the output
  int* length;            // out; not NULL

  bool HasInput() const { return IsBlock(input, inputLen); }

  // Says whether an output of `needed` bytes is wanted and has room, and writes that length. If
  // not, `result` is the answer to the caller.
  bool HasRoom(int needed, int& result) const {
    *length = needed;
    result = output != nullptr && size < needed ? VAKRO_BUFFER_TOO_SMALL : VAKRO_OK;
    return output != nullptr && size >= needed;
  }
};

// AnswerSize answers a caller who asks for the length alone.
inline int AnswerSize(int needed, int* length) {
  *length = needed;
  return VAKRO_OK;
}

// RsaPadding returns OpenSSL's padding for one of the two algorithms of a kind of operation, or 0
// for any other.
inline int RsaPadding(unsigned int algorithm, unsigned int pkcs1, unsigned int raw) {
  if (algorithm == pkcs1) return RSA_PKCS1_PADDING;
  return algorithm == raw ? RSA_NO_PADDING : 0;
}

#endif
