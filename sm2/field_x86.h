// Field operations for x86-64 with MULX, ADCX, ADOX and AVX2: what PortableField does, in half the
// time or less. Compilers do not keep carries in flags well enough to be left to it.
//
// Every function is inlined and takes its operands from memory, so that the assembler needs 13
// registers and fits in any build. Operands may not be held back in registers: hence "memory".
#ifndef VAKRO_SM2_FIELD_X86_H
#define VAKRO_SM2_FIELD_X86_H
#ifdef __x86_64__

#include "sm2/field.h"

#include <immintrin.h>

namespace sm2 {

// The code below has these limbs of p built in.
static_assert(P.m.limb[0] == ~uint64_t{0} && P.m.limb[1] == 0xFFFFFFFF00000000 &&
              P.m.limb[2] == ~uint64_t{0} && P.m.limb[3] == 0xFFFFFFFEFFFFFFFF);

// clang-format off

// Adds a b[i] to the limbs t0 ... t3 and sets t4: two carry chains, low halves in CF, high in OF.
#define SM2_ROW(i, t0, t1, t2, t3, t4)                                                         \
  "mov "#i"*8(%[b]), %%rdx;  xor %k["#t4"], %k["#t4"];"                                        \
  "mulx   (%[a]), %[lo], %[hi];  adcx %[lo], %["#t0"];  adox %[hi], %["#t1"];"                 \
  "mulx  8(%[a]), %[lo], %[hi];  adcx %[lo], %["#t1"];  adox %[hi], %["#t2"];"                 \
  "mulx 16(%[a]), %[lo], %[hi];  adcx %[lo], %["#t2"];  adox %[hi], %["#t3"];"                 \
  "mulx 24(%[a]), %[lo], %[hi];  adcx %[lo], %["#t3"];  adox %[hi], %["#t4"];"                 \
  "adc $0, %["#t4"];"

// A product with one limb i above the diagonal of a square, and a limb on it: all that is above the
// diagonal is doubled in the CF chain while the OF chain adds the squares.
#define SM2_DIAGONAL(i, t0, t1)                                                                \
  "mov "#i"*8(%[a]), %%rdx;  mulx %%rdx, %[lo], %[hi];"                                        \
  "adcx %["#t0"], %["#t0"];  adox %[lo], %["#t0"];"                                            \
  "adcx %["#t1"], %["#t1"];  adox %[hi], %["#t1"];"

// A step of the reduction: T becomes (T + q p) / 2^64, where q is the lowest limb, as p = -1 mod
// 2^64. By the shape of p that is T / 2^64 + q 2^192 - (q 2^32) 2^128 - q (2^32 - 1): shifts and
// one borrow chain. The limbs t0 t1 t2 t3 become t1 t2 t3 t0. Uses up rdx and w.
#define SM2_REDUCE(t0, t1, t2, t3, w)                                                          \
  "mov %["#t0"], %[lo];  shl $32, %[lo];  mov %[lo], %["#w"];"                                 \
  "mov %["#t0"], %[hi];  shr $32, %[hi];  mov %[hi], %%rdx;"                                   \
  "sub %["#t0"], %["#w"];  sbb $0, %%rdx;"                                                     \
  "sub %["#w"], %["#t1"];  sbb %%rdx, %["#t2"];  sbb %[lo], %["#t3"];  sbb %[hi], %["#t0"];"

// After four steps: adds the upper limbs t4 ... t7 of the product.
#define SM2_ADD_UPPER                                                                          \
  "xor %%edx, %%edx;"                                                                          \
  "add %[t4], %[t0];  adc %[t5], %[t1];  adc %[t6], %[t2];  adc %[t7], %[t3];  adc $0, %%rdx;" \
  SM2_SUBTRACT_P

// Takes p from t0 ... t3 and rdx above them unless that would be negative.
#define SM2_SUBTRACT_P                                                                         \
  "mov $0xFFFFFFFF00000000, %[lo];  mov $0xFFFFFFFEFFFFFFFF, %[hi];"                           \
  "mov %[t0], %[t4];  mov %[t1], %[t5];  mov %[t2], %[t6];  mov %[t3], %[t7];"                 \
  "sub $-1, %[t4];  sbb %[lo], %[t5];  sbb $-1, %[t6];  sbb %[hi], %[t7];  sbb $0, %%rdx;"     \
  "cmovnc %[t4], %[t0];  cmovnc %[t5], %[t1];  cmovnc %[t6], %[t2];  cmovnc %[t7], %[t3];"

// Adds p to t0 ... t3 under a mask of ones; leaves the carry in CF.
#define SM2_ADD_P                                                                              \
  "mov %[mask], %[lo];  shl $32, %[lo];  mov %[mask], %[hi];  btr $32, %[hi];"                 \
  "add %[mask], %[t0];  adc %[lo], %[t1];  adc %[mask], %[t2];  adc %[hi], %[t3];"

struct AdxField {
#define SM2_INLINE __attribute__((always_inline)) static

  SM2_INLINE FieldElement Multiply(const FieldElement& x, const FieldElement& y) {
    const FieldElement* a = &x;
    uint64_t t0, t1, t2, t3, t4, t5, t6, t7, lo, hi;
    __asm__("mov (%[b]), %%rdx;"
            "mulx   (%[a]), %[t0], %[t1];"
            "mulx  8(%[a]), %[lo], %[t2];  add %[lo], %[t1];"
            "mulx 16(%[a]), %[lo], %[t3];  adc %[lo], %[t2];"
            "mulx 24(%[a]), %[lo], %[t4];  adc %[lo], %[t3];  adc $0, %[t4];"
            // Each step of the reduction stands as early as its limb is final: the processor looks
            // ahead by little more than one multiplication.
            SM2_ROW(1, t1, t2, t3, t4, t5)
            SM2_REDUCE(t0, t1, t2, t3, t7)
            SM2_ROW(2, t2, t3, t4, t5, t6)
            SM2_REDUCE(t1, t2, t3, t0, t7)
            SM2_ROW(3, t3, t4, t5, t6, t7)
            SM2_REDUCE(t2, t3, t0, t1, a)
            SM2_REDUCE(t3, t0, t1, t2, a)
            SM2_ADD_UPPER
            : [t0] "=&r"(t0), [t1] "=&r"(t1), [t2] "=&r"(t2), [t3] "=&r"(t3), [t4] "=&r"(t4),
              [t5] "=&r"(t5), [t6] "=&r"(t6), [t7] "=&r"(t7), [lo] "=&r"(lo), [hi] "=&r"(hi),
              [a] "+&r"(a)
            : [b] "r"(&y)
            : "rdx", "cc", "memory");
    return {{t0, t1, t2, t3}};
  }

  SM2_INLINE FieldElement Square(const FieldElement& x) {
    const FieldElement* a = &x;
    uint64_t t0, t1, t2, t3, t4, t5, t6, t7, lo, hi;
    __asm__("mov (%[a]), %%rdx;"
            "mulx  8(%[a]), %[t1], %[t2];"
            "mulx 16(%[a]), %[lo], %[t3];  add %[lo], %[t2];"
            "mulx 24(%[a]), %[lo], %[t4];  adc %[lo], %[t3];  adc $0, %[t4];"
            "mov 8(%[a]), %%rdx;  xor %k[t5], %k[t5];"
            "mulx 16(%[a]), %[lo], %[hi];  adcx %[lo], %[t3];  adox %[hi], %[t4];"
            "mulx 24(%[a]), %[lo], %[hi];  adcx %[lo], %[t4];  adox %[hi], %[t5];"
            "mov 16(%[a]), %%rdx;"
            "mulx 24(%[a]), %[lo], %[t6];  adcx %[lo], %[t5];"
            "mov $0, %k[lo];  adcx %[lo], %[t6];  adox %[lo], %[t6];"
            "xor %k[t7], %k[t7];"
            "mov (%[a]), %%rdx;  mulx %%rdx, %[t0], %[hi];"
            "adcx %[t1], %[t1];  adox %[hi], %[t1];"
            SM2_DIAGONAL(1, t2, t3)
            SM2_DIAGONAL(2, t4, t5)
            SM2_DIAGONAL(3, t6, t7)
            SM2_REDUCE(t0, t1, t2, t3, a)
            SM2_REDUCE(t1, t2, t3, t0, a)
            SM2_REDUCE(t2, t3, t0, t1, a)
            SM2_REDUCE(t3, t0, t1, t2, a)
            SM2_ADD_UPPER
            : [t0] "=&r"(t0), [t1] "=&r"(t1), [t2] "=&r"(t2), [t3] "=&r"(t3), [t4] "=&r"(t4),
              [t5] "=&r"(t5), [t6] "=&r"(t6), [t7] "=&r"(t7), [lo] "=&r"(lo), [hi] "=&r"(hi),
              [a] "+&r"(a)
            :
            : "rdx", "cc", "memory");
    return {{t0, t1, t2, t3}};
  }

  SM2_INLINE FieldElement Add(const FieldElement& x, const FieldElement& y) {
    uint64_t t0 = x.limb[0], t1 = x.limb[1], t2 = x.limb[2], t3 = x.limb[3];
    uint64_t t4, t5, t6, t7, lo, hi;
    __asm__("xor %%edx, %%edx;"
            "add (%[b]), %[t0];  adc 8(%[b]), %[t1];  adc 16(%[b]), %[t2];  adc 24(%[b]), %[t3];"
            "adc $0, %%rdx;"
            SM2_SUBTRACT_P
            : [t0] "+&r"(t0), [t1] "+&r"(t1), [t2] "+&r"(t2), [t3] "+&r"(t3), [t4] "=&r"(t4),
              [t5] "=&r"(t5), [t6] "=&r"(t6), [t7] "=&r"(t7), [lo] "=&r"(lo), [hi] "=&r"(hi)
            : [b] "r"(&y)
            : "rdx", "cc", "memory");
    return {{t0, t1, t2, t3}};
  }

  SM2_INLINE FieldElement Subtract(const FieldElement& x, const FieldElement& y) {
    uint64_t t0 = x.limb[0], t1 = x.limb[1], t2 = x.limb[2], t3 = x.limb[3];
    uint64_t mask, lo, hi;
    __asm__("sub (%[b]), %[t0];  sbb 8(%[b]), %[t1];  sbb 16(%[b]), %[t2];  sbb 24(%[b]), %[t3];"
            "sbb %[mask], %[mask];"
            SM2_ADD_P
            : [t0] "+&r"(t0), [t1] "+&r"(t1), [t2] "+&r"(t2), [t3] "+&r"(t3),
              [mask] "=&r"(mask), [lo] "=&r"(lo), [hi] "=&r"(hi)
            : [b] "r"(&y)
            : "cc", "memory");
    return {{t0, t1, t2, t3}};
  }

  SM2_INLINE FieldElement Halve(const FieldElement& x) {
    uint64_t t0 = x.limb[0], t1 = x.limb[1], t2 = x.limb[2], t3 = x.limb[3];
    uint64_t mask = uint64_t{0} - (t0 & 1), lo, hi;
    __asm__(SM2_ADD_P
            "sbb %[mask], %[mask];"
            : [t0] "+&r"(t0), [t1] "+&r"(t1), [t2] "+&r"(t2), [t3] "+&r"(t3),
              [mask] "+&r"(mask), [lo] "=&r"(lo), [hi] "=&r"(hi)
            :
            : "cc");
    return {{t0 >> 1 | t1 << 63, t1 >> 1 | t2 << 63, t2 >> 1 | t3 << 63, t3 >> 1 | mask << 63}};
  }

  // clang-format on
#undef SM2_INLINE
#undef SM2_ROW
#undef SM2_DIAGONAL
#undef SM2_REDUCE
#undef SM2_ADD_UPPER
#undef SM2_SUBTRACT_P
#undef SM2_ADD_P

  // A blend takes a limb where the sign bit of its mask is set.
  template <class Row>
  __attribute__((target("avx2"))) static void PassRows(Search<Row>& search) {
    constexpr size_t VECTORS = sizeof(Row) / sizeof(__m256d);
    double* const result = reinterpret_cast<double*>(&search.found);
    __m256i bit = _mm256_set1_epi64x(static_cast<int64_t>(search.bit));
    __m256d found[VECTORS];
    for (size_t j = 0; j < VECTORS; j++) found[j] = _mm256_loadu_pd(result + 4 * j);
#pragma GCC unroll 8
    for (size_t i = 0; i < STEP_ROWS; i++) {
      const double* const row = reinterpret_cast<const double*>(search.next + i);
#pragma GCC unroll 8
      for (size_t j = 0; j < VECTORS; j++) {
        const __m256d limbs = _mm256_loadu_pd(row + 4 * j);
        found[j] = _mm256_blendv_pd(found[j], limbs, _mm256_castsi256_pd(bit));
      }
      bit = _mm256_add_epi64(bit, bit);
    }
    for (size_t j = 0; j < VECTORS; j++) _mm256_storeu_pd(result + 4 * j, found[j]);
    search.next += STEP_ROWS;
    search.bit <<= STEP_ROWS;
  }
};

}  // namespace sm2
#endif
#endif
