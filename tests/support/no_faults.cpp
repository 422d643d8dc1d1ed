// For programs that replace nothing of what the module imports: the part of interpose.h that a
// world needs.
#include "tests/support/interpose.h"

long LiveAllocations() { return 0; }
