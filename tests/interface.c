/* The interface as a C11 program uses it: this file need only compile without a warning. */
#include "vakro_device.h"

const ECCKeypairParams CURVE_OF_C = {CURVE_SM2, 1};
