// ZANA text form: assemble and disassemble.
#include "bytecode/zanb.h"

namespace tov::zanb {
bool assemble(const std::string& text, Module& module, std::string& err) {
  module = Module{};
  err = "no functions in input";
  return false;
}
std::string disassemble(const Module& module) { return {}; }
}  // namespace tov::zanb
