/* The interface as a C11 program uses it: this file need only compile without a warning, and the
 * call below give what it gives elsewhere. */
#include "vakro_device.h"

#include <stddef.h>

int InterfaceFromC(void);

int InterfaceFromC(void) {
  const ECCKeypairParams ecc = {CURVE_SM2, 1};
  const RSAKeypairParams rsa = {NULL, 0, 1};
  Keypair* keypair = NULL;
  unsigned char signature[80];
  const unsigned char e[32] = {0};
  int length = 0;
  if (DeviceGetDeviceCount(NULL) != VAKRO_INVALID_ARGUMENT || rsa.temporary != ecc.temporary)
    return 0;
  return DeviceGenerateKeypair(NULL, ALGORITHM_ECC, 256, &ecc, 1, "c", &keypair) == VAKRO_FAILED &&
         DeviceSign(keypair, ALGORITHM_SM2_SIGN, NULL, e, 32, signature, 80, &length) ==
             VAKRO_NULL_HANDLE;
}
