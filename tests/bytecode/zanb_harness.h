// Test-side module builder and runner for the bytecode machine tests. Functions are appended in order;
// jump targets are absolute code indices, as in the file.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"

namespace zanbtest {
using namespace tov::zanb;

inline Insn op(uint8_t o, uint32_t a = 0, uint32_t b = 0, uint32_t c = 0, uint32_t type = 0) {
  return Insn{uint32_t(o) | (type << 8), a, b, c};
}
inline Insn konst(uint32_t slot, uint64_t v) { return op(Op_const, slot, uint32_t(v), uint32_t(v >> 32), kI64); }
inline Insn sys(uint32_t n, uint32_t res, uint32_t base) { return op(Op_syscall, n, res, base); }
inline Insn call(uint32_t res, uint32_t fn, uint32_t base) { return op(Op_call, res, fn, base); }
inline Insn exitWith(uint32_t slot) { return sys(0, slot, slot); }

// Little-endian u32 words as bytes, for data segments.
inline std::string u32s(std::initializer_list<uint32_t> words) {
  std::string s;
  for (uint32_t w : words) s.append((const char*)&w, 4);
  return s;
}

struct Prog {
  Header header{};
  std::vector<FuncMeta> funcs;
  std::vector<Global> globals;
  std::vector<DataSeg> segs;
  std::vector<uint8_t> data;
  std::vector<Insn> code;

  void fn(uint32_t slots, const std::vector<Insn>& body, uint32_t params = 0) {
    funcs.push_back(FuncMeta{0, 0, params, 0, slots, 0, uint32_t(code.size()), uint32_t(body.size())});
    code.insert(code.end(), body.begin(), body.end());
  }
  void seg(uint64_t memOff, const std::string& bytes) {
    segs.push_back(DataSeg{memOff, bytes.size(), data.size()});
    data.insert(data.end(), bytes.begin(), bytes.end());
  }
  std::vector<uint8_t> bytes() const { return writeModule(header, funcs, globals, segs, "", data, code); }
};

struct Result { int rc = 0; std::string err, out, errOut; };

inline Result run(const Prog& p, VmConfig cfg = {}) {
  Result r;
  cfg.onStdout = [&r](const uint8_t* b, uint64_t n) { r.out.append((const char*)b, n); };
  cfg.onStderr = [&r](const uint8_t* b, uint64_t n) { r.errOut.append((const char*)b, n); };
  std::vector<uint8_t> bytes = p.bytes();
  r.rc = runModule(bytes.data(), bytes.size(), cfg, r.err);
  return r;
}

// Frames built by eval() have 32 slots; 28..31 are scratch for the dumps
// below, and guest address kOut is their staging word.
inline constexpr uint32_t kOut = 0xFF00;
inline constexpr uint64_t kMark = 0x5A5A5A5A5A5A5A5Aull;

// write(1, addr, len) through the scratch slots.
inline void dumpMem(std::vector<Insn>& v, uint32_t addr, uint32_t len) {
  v.insert(v.end(), {konst(28, 1), konst(29, addr), konst(30, len), sys(1, 31, 28)});
}

inline uint64_t le64(const std::string& s, size_t at = 0) {
  uint64_t v = 0;
  if (s.size() >= at + 8) std::memcpy(&v, s.data() + at, 8);
  return v;
}

// `out` is what the body itself wrote to stdout.
struct Eval : Result {
  uint64_t value = 0;  // slot 0 after the body
  std::string mem;     // the dumped memory range
};

// Loads init[i] into slot i, runs body, then writes slot 0 and `dumpLen` bytes from `dumpAt` to stdout. `p`
// may carry data segments and header fields but no functions.
inline Eval eval(const std::vector<uint64_t>& init, const std::vector<Insn>& body, Prog p = {},
                 VmConfig cfg = {}, uint32_t dumpAt = 0, uint32_t dumpLen = 0) {
  std::vector<Insn> v;
  for (size_t i = 0; i < init.size(); i++) v.push_back(konst(uint32_t(i), init[i]));
  v.insert(v.end(), body.begin(), body.end());
  v.insert(v.end(), {konst(29, kOut), op(Op_store, 29, 0, 0, kI64)});
  dumpMem(v, kOut, 8);
  if (dumpLen) dumpMem(v, dumpAt, dumpLen);
  p.fn(32, v);
  Eval e;
  static_cast<Result&>(e) = run(p, cfg);
  const size_t tail = 8 + dumpLen;
  if (e.rc == 0 && e.out.size() >= tail) {
    e.value = le64(e.out, e.out.size() - tail);
    e.mem = e.out.substr(e.out.size() - dumpLen);
    e.out.resize(e.out.size() - tail);
  } else if (e.rc == 0) {
    ADD_FAILURE() << "dump missing: stdout has " << e.out.size() << " bytes";
  }
  return e;
}

// System call `num` with its arguments in slots 10.., the result to slot 0 (preset to kMark);
// `after` runs behind the call.
inline Eval callSys(uint32_t num, const std::vector<uint64_t>& args, const Prog& p = {}, VmConfig cfg = {},
                    uint32_t dumpAt = 0, uint32_t dumpLen = 0, const std::vector<Insn>& after = {}) {
  std::vector<Insn> body;
  for (size_t i = 0; i < args.size(); i++) body.push_back(konst(uint32_t(10 + i), args[i]));
  body.push_back(sys(num, 0, 10));
  body.insert(body.end(), after.begin(), after.end());
  return eval({kMark}, body, p, cfg, dumpAt, dumpLen);
}

inline std::string hex(uint64_t v) {
  char b[24];
  snprintf(b, sizeof b, "0x%llx", (unsigned long long)v);
  return b;
}

// The trap text, or slot 0 when the run went through.
inline std::string outcome(const Eval& e) { return e.err.empty() ? hex(e.value) : e.err; }

inline std::string fault(uint64_t addr, uint64_t len, uint64_t size = 131072) {
  return "zanb trap: memory access out of bounds (addr=" + std::to_string(addr) +
         " len=" + std::to_string(len) + " size=" + std::to_string(size) + ")";
}

}  // namespace zanbtest
