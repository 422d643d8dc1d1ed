// C_GenerateRandom and C_SeedRandom: OpenSSL's generator, which starts anew in a forked child.
#include "pkcs11/call.h"

#include <openssl/rand.h>

#include <limits.h>
#include <algorithm>

// OpenSSL counts in int.
static constexpr CK_ULONG MAX_STEP = INT_MAX;

CK_RV C_GenerateRandom(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG length) {
  return InSession("C_GenerateRandom", handle, [&](Session&) -> CK_RV {
    if (data == nullptr && length > 0) return CKR_ARGUMENTS_BAD;
    for (CK_ULONG done = 0; done < length;) {
      const CK_ULONG step = std::min(length - done, MAX_STEP);
      if (RAND_bytes(data + done, static_cast<int>(step)) != 1) return CKR_FUNCTION_FAILED;
      done += step;
    }
    return CKR_OK;
  });
}

// The seed is stirred in and counts for nothing: a program can't weaken the generator by it.
CK_RV C_SeedRandom(CK_SESSION_HANDLE handle, CK_BYTE_PTR seed, CK_ULONG length) {
  return InSession("C_SeedRandom", handle, [&](Session&) -> CK_RV {
    if (seed == nullptr && length > 0) return CKR_ARGUMENTS_BAD;
    if (length > 0) RAND_add(seed, static_cast<int>(std::min(length, MAX_STEP)), 0);
    return CKR_OK;
  });
}
