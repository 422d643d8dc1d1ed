// Odd multiples of the generator, computed by make_generator_table when the library is built.
#ifndef VAKRO_SM2_GENERATOR_TABLE_H
#define VAKRO_SM2_GENERATOR_TABLE_H

#include "sm2/point.h"

namespace sm2 {

inline constexpr int GENERATOR_WIDTH = 6;     // bits of a window
inline constexpr int GENERATOR_WINDOWS = 43;  // 258 bits
inline constexpr size_t GENERATOR_ROWS = 32;

// Row j of window i is (2j + 1) 2^(6i) G.
extern const AffinePoint GENERATOR_TABLE[GENERATOR_WINDOWS][GENERATOR_ROWS];

}  // namespace sm2
#endif
