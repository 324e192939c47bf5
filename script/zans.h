// The script compiler: a small indentation-based language compiled in one
// pass per function straight to a bytecode Module, with no syntax tree.
// Owns nothing past the call: the caller's Module receives the functions,
// the name table, one data segment at kDataBase and the code.
#pragma once

#include <string>

#include "bytecode/zanb.h"

namespace tov::zans {

// Address of the one data segment; 0..1023 stay empty, 0 means no string.
inline constexpr uint32_t kDataBase = 1024;

// Compiles `source` into `out`. False with a message in `error` (most carry
// a "line N: " prefix); `out` is then unusable.
bool compile(const std::string& source, zanb::Module& out, std::string& error);

}  // namespace tov::zans
