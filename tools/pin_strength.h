// How quickly a PIN is found by who holds a copy of the device file.
#ifndef VAKRO_TOOLS_PIN_STRENGTH_H
#define VAKRO_TOOLS_PIN_STRENGTH_H

#include "tools/secret.h"

// PinWeakness is a remark, with the figure, on a PIN that is quickly guessed; "" for any other. The
// time of one guess is measured here and now.
std::string PinWeakness(const SecretText& pin);

#endif
