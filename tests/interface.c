/* The interface as a C11 program uses it: this file need only compile without a warning, and the
 * call below give what it gives elsewhere. */
#include "vakro_device.h"

#include <stddef.h>

int InterfaceFromC(void);

int InterfaceFromC(void) {
  const ECCKeypairParams ecc = {CURVE_SM2, 1};
  const RSAKeypairParams rsa = {NULL, 0, 1};
  Keypair* keypair = NULL;
  return rsa.temporary == ecc.temporary &&
         DeviceGenerateKeypair(NULL, ALGORITHM_ECC, 256, &ecc, 1, "c", &keypair) == VAKRO_FAILED;
}
