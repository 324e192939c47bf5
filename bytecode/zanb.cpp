// ZANB reader, writer and the name tables.
#include "bytecode/zanb.h"

#include <cstring>

namespace tov::zanb {

const char* const kOpNames[kOpCount] = {
#define X(name, num, typed, effect) #name,
#include "bytecode/zanb_ops.def"
#undef X
};

namespace {
// The list must stay dense: row k has number k.
constexpr uint32_t kOpNumbers[] = {
#define X(name, num, typed, effect) num,
#include "bytecode/zanb_ops.def"
#undef X
};
constexpr bool opsDense() {
  for (uint32_t i = 0; i < sizeof(kOpNumbers) / sizeof(kOpNumbers[0]); ++i)
    if (kOpNumbers[i] != i) return false;
  return true;
}
static_assert(sizeof(kOpNumbers) / sizeof(kOpNumbers[0]) == kOpCount, "72 opcodes");
static_assert(opsDense(), "zanb_ops.def rows must be numbered 0..71 in order");

constexpr uint64_t align8(uint64_t v) { return (v + 7) & ~uint64_t(7); }

// a + b, or false when it does not fit in 64 bits.
bool addU64(uint64_t a, uint64_t b, uint64_t& out) { return !__builtin_add_overflow(a, b, &out); }
}  // namespace

const char* const kConvNames[kConvCount] = {
    "i32.wrap_i64",      "i64.extend_i32_s",  "i64.extend_i32_u",  "f32.convert_i32_s",
    "f32.convert_i32_u", "f32.convert_i64_s", "f32.convert_i64_u", "f64.convert_i32_s",
    "f64.convert_i32_u", "f64.convert_i64_s", "f64.convert_i64_u", "f32.demote_f64",
    "f64.promote_f32",   "i32.trunc_f32_s",   "i32.trunc_f32_u",   "i32.trunc_f64_s",
    "i32.trunc_f64_u",   "i64.trunc_f32_s",   "i64.trunc_f32_u",   "i64.trunc_f64_s",
    "i64.trunc_f64_u",   "i32.extend8_s",     "i32.extend16_s",    "i64.extend8_s",
    "i64.extend16_s",    "i64.extend32_s",
};

const char* opName(uint32_t op) {
  op &= 0xFF;
  return op < kOpCount ? kOpNames[op] : "?";
}

const char* typeName(uint32_t type) {
  static const char* const names[] = {"i32", "i64", "f32", "f64"};
  return type < 4 ? names[type] : "?";
}

const char* convName(uint32_t kind) { return kind < kConvCount ? kConvNames[kind] : "?"; }

std::string Module::name(uint32_t index) const {
  if (index >= funcs.size()) return "<bad>";
  const FuncMeta& f = funcs[index];
  if (f.nameLen == 0 || uint64_t(f.nameOff) + f.nameLen > names.size()) return "<anon>";
  return names.substr(f.nameOff, f.nameLen);
}

bool readModule(const uint8_t* bytes, uint64_t size, Module& module, std::string& err) {
  if (size < sizeof(Header)) {
    err = "zanb: too small";
    return false;
  }
  Header h;
  std::memcpy(&h, bytes, sizeof h);
  if (std::memcmp(h.magic, kMagic, 4) != 0) {
    err = "zanb: bad magic";
    return false;
  }
  if (h.version != kVersion) {
    err = "zanb: unsupported version " + std::to_string(h.version);
    return false;
  }

  // The four tables: u32 counts, so these sums cannot overflow 64 bits.
  const uint64_t funcsOff = sizeof(Header);
  const uint64_t globalsOff = funcsOff + uint64_t(h.funcCount) * sizeof(FuncMeta);
  const uint64_t segsOff = globalsOff + uint64_t(h.globalCount) * sizeof(Global);
  const uint64_t namesOff = segsOff + uint64_t(h.dataSegCount) * sizeof(DataSeg);
  const uint64_t namesEnd = namesOff + h.namesSize;
  if (namesEnd > size) {
    err = "zanb: truncated module";
    return false;
  }

  // The blob's size is implied by the segments; any overflow is "beyond size".
  std::vector<DataSeg> segs(h.dataSegCount);
  if (h.dataSegCount) std::memcpy(segs.data(), bytes + segsOff, segs.size() * sizeof(DataSeg));
  uint64_t blob = 0;
  for (const DataSeg& s : segs) {
    uint64_t reach;
    if (!addU64(s.dataOff, s.length, reach)) {
      err = "zanb: truncated module";
      return false;
    }
    if (reach > blob) blob = reach;
  }
  const uint64_t blobOff = align8(namesEnd);
  uint64_t blobEnd, codeOff, codeBytes, end;
  if (!addU64(blobOff, blob, blobEnd) || blobEnd > size || !addU64(blobEnd, 7, codeOff) ||
      __builtin_mul_overflow(h.codeCount, uint64_t(sizeof(Insn)), &codeBytes) ||
      !addU64(codeOff & ~uint64_t(7), codeBytes, end) || end > size) {
    err = "zanb: truncated module";
    return false;
  }
  codeOff &= ~uint64_t(7);

  module.header = h;
  module.funcs.resize(h.funcCount);
  if (h.funcCount) std::memcpy(module.funcs.data(), bytes + funcsOff, h.funcCount * sizeof(FuncMeta));
  module.globals.resize(h.globalCount);
  if (h.globalCount)
    std::memcpy(module.globals.data(), bytes + globalsOff, h.globalCount * sizeof(Global));
  module.dataSegs = std::move(segs);
  module.names.assign(reinterpret_cast<const char*>(bytes + namesOff), h.namesSize);
  module.data.assign(bytes + blobOff, bytes + blobEnd);
  module.code.resize(h.codeCount);
  if (h.codeCount) std::memcpy(module.code.data(), bytes + codeOff, codeBytes);
  return true;
}

std::vector<uint8_t> writeModule(const Header& header, const std::vector<FuncMeta>& funcs,
                                 const std::vector<Global>& globals,
                                 const std::vector<DataSeg>& dataSegs, const std::string& names,
                                 const std::vector<uint8_t>& data, const std::vector<Insn>& code) {
  Header h = header;
  std::memcpy(h.magic, kMagic, 4);
  h.version = kVersion;
  h.funcCount = uint32_t(funcs.size());
  h.globalCount = uint32_t(globals.size());
  h.dataSegCount = uint32_t(dataSegs.size());
  h.namesSize = uint32_t(names.size());
  h.codeCount = code.size();

  const uint64_t funcsOff = sizeof(Header);
  const uint64_t globalsOff = funcsOff + funcs.size() * sizeof(FuncMeta);
  const uint64_t segsOff = globalsOff + globals.size() * sizeof(Global);
  const uint64_t namesOff = segsOff + dataSegs.size() * sizeof(DataSeg);
  const uint64_t blobOff = align8(namesOff + names.size());
  // Written whole: a caller whose data is not exactly as long as the
  // segments reach makes a file the reader will misplace the code in.
  const uint64_t codeOff = align8(blobOff + data.size());
  std::vector<uint8_t> out(codeOff + code.size() * sizeof(Insn), 0);
  std::memcpy(out.data(), &h, sizeof h);
  if (!funcs.empty()) std::memcpy(&out[funcsOff], funcs.data(), funcs.size() * sizeof(FuncMeta));
  if (!globals.empty())
    std::memcpy(&out[globalsOff], globals.data(), globals.size() * sizeof(Global));
  if (!dataSegs.empty())
    std::memcpy(&out[segsOff], dataSegs.data(), dataSegs.size() * sizeof(DataSeg));
  if (!names.empty()) std::memcpy(&out[namesOff], names.data(), names.size());
  if (!data.empty()) std::memcpy(&out[blobOff], data.data(), data.size());
  if (!code.empty()) std::memcpy(&out[codeOff], code.data(), code.size() * sizeof(Insn));
  return out;
}

}  // namespace tov::zanb
