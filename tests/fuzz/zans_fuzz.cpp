// libFuzzer target: what the script compiler accepts must load and run; a slot
// operand out of the frame is a compiler fault.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"
#include "script/zans.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string source(reinterpret_cast<const char*>(data), size);
  tov::zanb::Module m;
  std::string err;
  if (!tov::zans::compile(source, m, err)) {
    if (err.empty()) std::abort();
    return 0;
  }
  const std::vector<uint8_t> bytes = tov::zanb::writeModule(m);
  tov::zanb::VmConfig cfg;
  cfg.stepLimit = 20000;
  cfg.memLimit = 16u << 20;
  cfg.onStdout = [](const uint8_t*, uint64_t) {};
  cfg.onStderr = [](const uint8_t*, uint64_t) {};
  tov::zanb::runModule(bytes.data(), bytes.size(), cfg, err);
  if (err.find("slot out of range") != std::string::npos) std::abort();
  return 0;
}
