// Start and end of the library, as the other parts see them.
#ifndef VAKRO_PKCS11_MODULE_H
#define VAKRO_PKCS11_MODULE_H

#include "pkcs11/cryptoki.h"

#include <stddef.h>

// PadText fills a field of fixed size with a text, cut where a character ends, and blanks.
void PadText(const char* text, CK_UTF8CHAR* field, size_t size);

#define LIBRARY_NAME "Vakro"

#endif
