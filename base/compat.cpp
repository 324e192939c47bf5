// POSIX side of the platform layer.
#include "base/compat.h"
