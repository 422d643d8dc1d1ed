#include "sm2/sm2.h"
