#include "plugins/llama/tokenizer.h"
