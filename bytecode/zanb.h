// The ZANB module: the file layout, the decoded tables, the names of
// opcodes, types and conversions, the reader and writer, and the ZANA text
// form (assemble/disassemble).
//
// A Module owns copies of everything it was read from; it never points into
// the input bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tov::zanb {

inline constexpr char kMagic[4] = {'Z', 'A', 'N', 'B'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint64_t kPageSize = 65536;

enum Op : uint8_t {
#define X(name, num, typed, effect) Op_##name = num,
#include "bytecode/zanb_ops.def"
#undef X
};
inline constexpr uint32_t kOpCount = 72;
inline constexpr uint32_t kConvCount = 26;

enum Type : uint8_t { kI32 = 0, kI64 = 1, kF32 = 2, kF64 = 3 };

struct Header {
  char magic[4];
  uint32_t version;
  uint32_t flags;
  uint32_t entry;
  uint32_t funcCount;
  uint32_t globalCount;
  uint32_t dataSegCount;
  uint32_t namesSize;
  uint64_t reserved;
  uint64_t codeCount;
  uint64_t memMinPages;
  uint64_t memMaxPages;
};

struct FuncMeta {
  uint32_t nameOff;
  uint32_t nameLen;
  uint32_t params;
  uint32_t rets;
  uint32_t slots;
  uint32_t argBase;
  uint32_t codeStart;
  uint32_t codeLen;
};

struct Global {
  uint8_t opaque[8];  // no reader and no producer; carried as it stands
  uint64_t init;
};

struct DataSeg {
  uint64_t memOff;
  uint64_t length;
  uint64_t dataOff;
};

struct Insn {
  uint32_t opInfo;  // bits 0..7 opcode, bits 8..11 type code
  uint32_t a;
  uint32_t b;
  uint32_t c;

  uint8_t op() const { return uint8_t(opInfo & 0xFF); }
  uint32_t type() const { return (opInfo >> 8) & 0xF; }
  uint64_t imm() const { return uint64_t(b) | (uint64_t(c) << 32); }
};

static_assert(sizeof(Header) == 64);
static_assert(sizeof(FuncMeta) == 32);
static_assert(sizeof(Global) == 16);
static_assert(sizeof(DataSeg) == 24);
static_assert(sizeof(Insn) == 16);

struct Module {
  Header header{};
  std::vector<FuncMeta> funcs;
  std::vector<Global> globals;
  std::vector<DataSeg> dataSegs;
  std::string names;
  std::vector<uint8_t> data;
  std::vector<Insn> code;

  // Name of function `index`: "<bad>" past the table, "<anon>" when the
  // name is empty or reaches past the name table.
  std::string name(uint32_t index) const;
};

bool readModule(const uint8_t* bytes, uint64_t size, Module& module, std::string& err);

std::vector<uint8_t> writeModule(const Header& header, const std::vector<FuncMeta>& funcs,
                                 const std::vector<Global>& globals,
                                 const std::vector<DataSeg>& dataSegs, const std::string& names,
                                 const std::vector<uint8_t>& data, const std::vector<Insn>& code);
inline std::vector<uint8_t> writeModule(const Module& m) {
  return writeModule(m.header, m.funcs, m.globals, m.dataSegs, m.names, m.data, m.code);
}

extern const char* const kOpNames[kOpCount];
extern const char* const kConvNames[kConvCount];
const char* opName(uint32_t op);      // low 8 bits; "?" above 71
const char* typeName(uint32_t type);  // "?" above 3
const char* convName(uint32_t kind);  // "?" above 25

// ZANA text form.
bool assemble(const std::string& text, Module& module, std::string& err);
std::string disassemble(const Module& module);

}  // namespace tov::zanb
