#include "keypair/keypair.h"
