// The bytecode machine: one Vm loads one module and runs it once, on the
// caller's thread. It owns the guest memory, frames and globals of that run.
// The host object (window, drawing, input) is borrowed through VmConfig.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tov::zanb {

class UiHost;

using Value = uint64_t;  // one slot: raw bits, no tag

struct VmConfig {
  UiHost* host = nullptr;  // not owned; null answers every host call with its default
  std::vector<std::string> args;  // args[0] is the program path
  std::vector<std::string> env;
  std::function<void(const uint8_t*, uint64_t)> onStdout;  // empty: fwrite to stdout
  std::function<void(const uint8_t*, uint64_t)> onStderr;  // empty: fwrite to stderr
  // Bytes guest memory may reach: the initial pages, the data segments and
  // mem_grow all stay within it.
  uint64_t memLimit = 0x100000000ull;
  uint32_t stepLimit = 0;  // 0 = no limit
};

class Vm {
 public:
  Vm();
  ~Vm();
  Vm(const Vm&) = delete;
  Vm& operator=(const Vm&) = delete;

  bool load(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err);
  // The guest's exit code, or -1 after a trap or a failure to start.
  int run(std::string& err);

  struct Impl;

 private:
  Impl* impl_;
};

// Construct, load, run: -1 when load failed, else what run gave.
int runModule(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err);

}  // namespace tov::zanb
