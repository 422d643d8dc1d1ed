#include "sm2/generator_table.h"

namespace sm2 {

alignas(64) const AffinePoint GENERATOR_TABLE[GENERATOR_WINDOWS][GENERATOR_ROWS] = {
#include "generator_table.inc"
};

}  // namespace sm2
