// The machine: loading, lazy validation and decoding, and the two copies of
// the run loop (plain, and traced for the step limit and the diagnostics).
#include "bytecode/zanb_vm.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bytecode/zanb_vm_impl.h"

namespace tov::zanb {

// ---- guest memory ----------------------------------------------------------

GuestMemory::~GuestMemory() { std::free(base_); }

bool GuestMemory::resize(uint64_t n) {
  if (n > SIZE_MAX - 16) return false;
  if (!base_) {
    base_ = static_cast<uint8_t*>(std::calloc(n ? n : 1, 1));
    if (!base_) return false;
    size_ = n;
    return true;
  }
  if (n <= size_) {
    // Shrinking: the cut bytes must read as zero if the memory grows again.
    std::memset(base_ + n, 0, size_ - n);
    size_ = n;
    return true;
  }
  void* p = std::realloc(base_, n);
  if (!p) return false;
  base_ = static_cast<uint8_t*>(p);
  std::memset(base_ + size_, 0, n - size_);
  size_ = n;
  return true;
}

uint8_t* Vm::Impl::memPtr(uint64_t addr, uint64_t len) {
  uint64_t size = memory.size();
  if (addr <= size && len <= size - addr) return memory.data() + addr;
  fault = "memory access out of bounds (addr=" + std::to_string(addr) +
          " len=" + std::to_string(len) + " size=" + std::to_string(size) + ")";
  return nullptr;
}

// ---- load ------------------------------------------------------------------

Vm::Vm() : impl_(new Impl) {}
Vm::~Vm() { delete impl_; }

namespace {
bool envSet(const char* name) { return std::getenv(name) != nullptr; }
void envU32(const char* name, uint32_t& out) {
  if (const char* v = std::getenv(name)) out = uint32_t(std::atoi(v));
}
// Memory a data segment may stretch to. The guest addresses 32 bits plus
// 32-bit counts; past this a hostile header could ask for terabytes.
constexpr uint64_t kMaxSegmentReach = uint64_t(1) << 34;
}  // namespace

bool Vm::load(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err) {
  Impl& m = *impl_;
  if (!readModule(bytes, size, m.module, err)) return false;
  m.config = config;

  m.ringOn = envSet("ZAN_ZANB_RING");
  envU32("ZAN_ZANB_RING_FUNC", m.ringFunc);
  envU32("ZAN_ZANB_RING_LO", m.ringLo);
  envU32("ZAN_ZANB_RING_HI", m.ringHi);
  if (m.ringOn) m.ring.assign(Impl::kRingSize, RingEntry{});

  m.globals.resize(m.module.globals.size());
  for (size_t i = 0; i < m.globals.size(); ++i) m.globals[i] = m.module.globals[i].init;

  const Header& h = m.module.header;
  uint64_t pages = h.memMinPages ? h.memMinPages : 2;
  if (pages > config.memLimit / kPageSize) {
    err = "zanb: initial memory exceeds the configured limit";
    return false;
  }
  if (!m.memory.resize(pages * kPageSize)) {
    err = "zanb: cannot allocate initial memory";
    return false;
  }

  const uint64_t blob = m.module.data.size();
  for (const DataSeg& s : m.module.dataSegs) {
    uint64_t reach;
    if (__builtin_add_overflow(s.dataOff, s.length, &reach) || reach > blob) {
      err = "zanb: data segment out of bounds";
      return false;
    }
    if (__builtin_add_overflow(s.memOff, s.length, &reach) || reach > kMaxSegmentReach) {
      err = "zanb: data segment extends memory beyond what can be allocated";
      return false;
    }
    if (reach > config.memLimit) {
      err = "zanb: data segment extends memory beyond the configured limit";
      return false;
    }
    if (reach > m.memory.size() && !m.memory.resize(reach)) {
      err = "zanb: data segment extends memory beyond what can be allocated";
      return false;
    }
    if (s.length) std::memcpy(m.memory.data() + s.memOff, m.module.data.data() + s.dataOff, s.length);
  }
  m.dcode.assign(m.module.funcs.size(), {});
  m.validated.assign(m.module.funcs.size(), 0);
  return true;
}

int runModule(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err) {
  Vm vm;
  if (!vm.load(bytes, size, config, err)) return -1;
  return vm.run(err);
}

// ---- validation and decoding -------------------------------------------------

namespace {
enum : uint32_t { kOperandA = 1, kOperandB = 2, kOperandC = 4 };

// Which operands validateSlots compares with the frame size. The rule goes by
// opcode alone, not by what an operand means.
uint32_t checkedOperands(uint32_t op) {
  switch (op) {
    case Op_jmp: return 0;
    case Op_const: case Op_getg: case Op_ret: return kOperandA;
    case Op_jz: case Op_jnz: return kOperandB;
    case Op_call: return kOperandA | kOperandC;
    case Op_syscall: return kOperandB | kOperandC;
    case Op_setg: return kOperandA | kOperandB;
    default:
      if (op >= Op_load && op <= Op_store32) return kOperandA | kOperandB;
      return kOperandA | kOperandB | kOperandC;
  }
}

bool typeSelectsForm(uint32_t op) {
  return (op >= Op_add && op <= Op_ge_u && op < Op_min) || op == Op_load || op == Op_store;
}
}  // namespace

}  // namespace tov::zanb

#include "bytecode/zanb_xops.h"

namespace tov::zanb {

bool Vm::Impl::validateAndDecode(uint32_t func, std::string& err) {
  const FuncMeta& f = module.funcs[func];
  // A function reaching past the code array ends where the array ends.
  const uint64_t codeSize = module.code.size();
  const uint64_t start = std::min<uint64_t>(f.codeStart, codeSize);
  const uint64_t end = std::min<uint64_t>(uint64_t(f.codeStart) + f.codeLen, codeSize);
  const uint32_t n = uint32_t(end - start);

  for (uint64_t pc = start; pc < end; ++pc) {
    const Insn& in = module.code[pc];
    uint32_t op = in.op(), which = checkedOperands(op);
    bool bad = ((which & kOperandA) && in.a >= f.slots &&
                !(op == Op_ret && in.a == 0xFFFFFFFF)) ||
               ((which & kOperandB) && in.b >= f.slots) ||
               ((which & kOperandC) && in.c >= f.slots);
    if (bad) {
      char buf[160];
      std::snprintf(buf, sizeof buf,
                    "zanb trap: slot out of range: pc %u op %u a=%u b=%u c=%u frameSlots=%u",
                    uint32_t(pc), op, in.a, in.b, in.c, f.slots);
      err = buf;
      return false;
    }
  }

  std::vector<DInsn>& d = dcode[func];
  d.resize(size_t(n) + 2);
  for (uint32_t i = 0; i < n; ++i) {
    const Insn& in = module.code[start + i];
    uint32_t op = in.op();
    DInsn& o = d[i];
    o.a = in.a;
    o.b = in.b;
    o.c = in.c;
    if (op >= kOpCount || op == Op_min || op == Op_max || op == Op_copysign) {
      o.x = kXUnknown;
    } else if (op == Op_convert) {
      o.x = in.c < kConvCount ? kXConv + in.c : kXConvBad;
    } else if (typeSelectsForm(op)) {
      o.x = op * 4 + std::min<uint32_t>(in.type(), 3);
    } else {
      o.x = op * 4;
    }
    if (op == Op_jmp || op == Op_jz || op == Op_jnz) {
      if (in.a >= end) o.a = n;               // leaving forwards: a return
      else if (in.a < start) o.a = n + 1;     // leaving backwards: a trap
      else o.a = uint32_t(in.a - start);
    }
  }
  if (fuseCompares) {
    for (uint32_t k = 0; k + 1 < n; ++k) {
      const Insn& cmp = module.code[start + k];
      const Insn& jump = module.code[start + k + 1];
      uint32_t op = cmp.op(), jop = jump.op();
      if (op >= Op_eq && op <= Op_ge_u && (jop == Op_jz || jop == Op_jnz) && jump.b == cmp.a)
        d[k].x = kXFused + ((op - Op_eq) * 4 + std::min<uint32_t>(cmp.type(), 3)) * 2 +
                 (jop == Op_jnz ? 1 : 0);
    }
    for (uint32_t k = 0; k + 1 < n; ++k) {
      const Insn& add = module.code[start + k];
      if (add.op() == Op_add && add.type() <= kI64 && d[k + 1].x >= kXFused &&
          d[k + 1].x < kXAddThen)
        d[k].x = kXAddThen + add.type() * 80 + (d[k + 1].x - kXFused);
    }
  }
  d[n] = DInsn{kXEnd, 0, 0, 0};
  d[n + 1] = DInsn{kXJumpOut, 0, 0, 0};
  validated[func] = 1;
  return true;
}

bool Vm::Impl::growStack(uint64_t slots) {
  if (slots > kMaxStackSlots) return false;
  stack.resize(std::min<uint64_t>(std::max<uint64_t>(slots, stack.size() * 2), kMaxStackSlots));
  return true;
}

bool Vm::Impl::traceStep(uint32_t func, uint32_t pc, std::string& err) {
  if (config.stepLimit != 0 && ++steps > config.stepLimit) {
    err = "zanb trap: step limit reached";
    return false;
  }
  const Insn& in = module.code[pc];
  if (ringOn && (ringFunc == 0xFFFFFFFF || ringFunc == func) && pc >= ringLo && pc <= ringHi) {
    ring[ringCount % kRingSize] = RingEntry{func, pc, in.opInfo, in.a, in.b, in.c};
    ++ringCount;
  }
  if (pcTrace)
    std::fprintf(stderr, "f%u pc=%u op=%u a=%u b=%u c=%u\n", func, pc, unsigned(in.op()), in.a,
                 in.b, in.c);
  return true;
}

void Vm::Impl::traceCall(uint32_t callee, uint32_t params, uint32_t c, const Value* S,
                         uint32_t nslots) {
  auto arg = [&](uint64_t k) { return k < nslots ? uint32_t(S[k]) : 0u; };
  std::fprintf(stderr, "[call f%u argc=%u base=%u a0=%u a1=%u a2=%u]\n", callee, params, c,
               arg(c), arg(uint64_t(c) + 1), arg(uint64_t(c) + 2));
}

// ---- run -------------------------------------------------------------------

int Vm::run(std::string& err) {
  Impl& m = *impl_;
  if (m.module.funcs.empty()) {
    err = "zanb: module has no functions";
    return -1;
  }
  const uint32_t entry = m.module.header.entry;
  if (entry >= m.module.funcs.size()) {
    err = "zanb: entry function out of range";
    return -1;
  }
  if (m.exited) return m.exitCode;
  if (!m.frames.empty()) {  // a run that trapped is over
    err = "zanb: machine already ran";
    return -1;
  }

  m.pcTrace = envSet("ZAN_ZANB_PCTRACE");
  m.callTrace = envSet("ZAN_ZANB_TRACE");

  const uint32_t nslots = m.module.funcs[entry].slots;
  if (nslots > kMaxStackSlots) {
    err = "zanb trap: call stack exhausted";
    return -1;
  }
  m.stack.assign(std::max<uint64_t>(nslots, 1 << 16), 0);
  m.frames.reserve(256);
  m.frames.push_back(Frame{entry, 0, -1, nslots, 0});

  bool traced = m.pcTrace || m.ringOn || m.config.stepLimit != 0;
  m.fuseCompares = !traced;  // the traced loop must see every instruction
  return traced ? m.execTraced(err) : m.execPlain(err);
}

}  // namespace tov::zanb
