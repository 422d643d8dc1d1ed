// The functions of multiply.h by the type of field operations, PortableField or AdxField, so that
// tests and measurements reach both.
#ifndef VAKRO_SM2_MULTIPLY_PATHS_H
#define VAKRO_SM2_MULTIPLY_PATHS_H

namespace sm2 {

// Whether the processor has what AdxField needs. The exported functions then use it.
bool UseAdx();

template <class Field>
int MultiplyGenerator(unsigned char* out, const unsigned char* k);

template <class Field>
int MultiplyPoint(unsigned char* out, const unsigned char* k, const unsigned char* point);

template <class Field>
int MultiplyPublic(unsigned char* out, const unsigned char* s, const unsigned char* point,
                   const unsigned char* t);

}  // namespace sm2
#endif
