#include "plugins/llama/kernels.h"
