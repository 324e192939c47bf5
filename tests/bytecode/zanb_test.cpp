// Module reader and writer: layout byte for byte, every reader failure in its order, every cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bytecode/zanb.h"

namespace {
using namespace tov::zanb;

// Three functions (two named), two globals, two segments reaching 7 bytes
// into the blob, three instructions. Layout: tables end at 240, names at
// 240..246, gap to 248, blob 248..255, gap to 256, code 256..304. Magic,
// version and the counts are the writer's to set.
Module sample() {
  Module m;
  m.header = Header{{'X', 'X', 'X', 'X'}, 7, 1, 1, 99, 77, 55, 1234, 0x1122334455667788, 999, 3, 9};
  m.funcs = {{0, 4, 0, 1, 8, 0, 0, 2}, {0, 0, 2, 1, 4, 3, 2, 1}, {4, 2, 1, 0, 2, 0, 3, 0}};
  m.globals = {{{1, 2, 3, 4, 5, 6, 7, 8}, 0xFEDCBA9876543210ull}, {{0xFF, 0, 0, 0, 0, 0, 0, 0xEE}, 5}};
  m.dataSegs = {{0x100, 3, 0}, {0x2000, 2, 5}};
  m.names = "mainfx";
  m.data = {'a', 'b', 'c', 9, 9, 'd', 'e'};
  m.code = {{0x101, 1, 0xAABBCCDD, 0x11223344}, {0xFFFF0F47, 7, 8, 9}, {61, 0xFFFFFFFF, 0, 0}};
  return m;
}

TEST(ZanbWrite, LayoutByteForByte) {
  std::vector<uint8_t> f = writeModule(sample());
  ASSERT_EQ(f.size(), 304u);
  // Offset, width, little-endian value: the header, a field of each table,
  // the names, both gaps, the blob and the code.
  const uint64_t fields[][3] = {
      {0, 4, 0x424E415A}, {4, 4, 1}, {8, 4, 1}, {12, 4, 1}, {16, 4, 3}, {20, 4, 2}, {24, 4, 2},
      {28, 4, 6}, {32, 8, 0x1122334455667788}, {40, 8, 3}, {48, 8, 3}, {56, 8, 9}, {96 + 20, 4, 3},
      {160, 1, 1}, {168, 8, 0xFEDCBA9876543210}, {216 + 16, 8, 5}, {240, 6, 0x78666E69616D},
      {246, 2, 0}, {248, 7, 0x65640909636261}, {255, 1, 0},
      {256, 4, 0x101}, {264, 8, 0x11223344AABBCCDD}, {292, 4, 0xFFFFFFFF}};
  for (const auto& [off, width, want] : fields) {
    uint64_t got = 0;
    std::memcpy(&got, f.data() + off, width);
    EXPECT_EQ(got, want) << "at " << off;
  }
}

// Each row patches up to two little-endian fields of a valid module: `one`
// (one function, 112 bytes, code at 96) or `seg` (one segment: table at 64,
// blob 88..96), then keeps `size` bytes of it.
TEST(ZanbRead, EveryFailureWithItsMessage) {
  Module m1, m2;
  m1.funcs = {{0, 0, 0, 0, 1, 0, 0, 1}};
  m1.code = {{0, 0, 0, 0}};
  m2.dataSegs = {{0, 8, 0}};
  m2.data.assign(8, 7);
  const std::vector<uint8_t> one = writeModule(m1), seg = writeModule(m2);
  struct Patch { size_t off, width; uint64_t value; };
  using Bytes = std::vector<uint8_t>;
  struct Row { const char* what; const Bytes& base; size_t size; std::vector<Patch> patch; const char* msg; };
  const size_t all = SIZE_MAX;  // size: the bytes kept
  const char *small = "zanb: too small", *trunc = "zanb: truncated module";
  const Row rows[] = {
      {"empty", one, 0, {}, small}, {"63 bytes", one, 63, {}, small},
      {"lower-case magic", one, all, {{3, 1, 'b'}}, "zanb: bad magic"},
      {"magic checked before version", one, all, {{0, 1, 'X'}, {4, 4, 2}}, "zanb: bad magic"},
      {"version max", one, all, {{4, 4, 0xFFFFFFFF}}, "zanb: unsupported version 4294967295"},
      {"version before sizes", one, all, {{4, 4, 0}, {16, 4, 9}}, "zanb: unsupported version 0"},
      {"function table past the end", one, all, {{16, 4, 2}}, trunc},
      {"segment table past the end", one, all, {{24, 4, 1}}, trunc},
      {"huge global count", one, all, {{20, 4, 0xFFFFFFFF}}, trunc},
      {"huge name table", one, all, {{28, 4, 0xFFFFFFFF}}, trunc}, {"one insn short", one, all, {{40, 8, 2}}, trunc},
      // codeCount * 16 wraps to 0, to 16 (exactly the real size) and to -16.
      {"codeCount 2^60", one, all, {{40, 8, 1ull << 60}}, trunc},
      {"codeCount 2^60+1", one, all, {{40, 8, (1ull << 60) + 1}}, trunc},
      {"codeCount max", one, all, {{40, 8, ~0ull}}, trunc},
      // dataOff + length wraps to 8, the real blob size; blob start + size wraps to 8; the blob end
      // rounded up to 8 wraps to 0.
      {"dataOff+length wraps", seg, all, {{72, 8, 16}, {80, 8, ~0ull - 7}}, trunc},
      {"blob end wraps", seg, all, {{72, 8, 0xFFFFFFFFFFFFFFB0}}, trunc},
      {"blob rounding wraps", seg, all, {{72, 8, 0xFFFFFFFFFFFFFFA4}}, trunc}};
  for (const Row& r : rows) {
    std::vector<uint8_t> b = r.base;
    for (const Patch& p : r.patch) std::memcpy(b.data() + p.off, &p.value, p.width);
    b.resize(std::min(r.size, b.size()));
    Module m;
    m.names = "keep";
    std::string err;
    EXPECT_FALSE(readModule(b.data(), b.size(), m, err)) << r.what;
    EXPECT_EQ(err, r.msg) << r.what;
    EXPECT_EQ(m.names, "keep") << r.what << ": nothing is replaced unless every check passed";
  }
}

// Also without names, so the segment table is the last table. An exact-size
// copy, so that a read past the end shows under ASan.
TEST(ZanbRead, EveryCutOfAValidModuleFails) {
  Module bare = sample();
  bare.names.clear();
  for (FuncMeta& f : bare.funcs) f.nameLen = 0;
  for (const Module& m : {sample(), bare}) {
    std::vector<uint8_t> f = writeModule(m);
    for (size_t n = 0; n < f.size(); n++) {
      std::vector<uint8_t> cut(f.begin(), f.begin() + n);
      Module out;
      std::string err;
      EXPECT_FALSE(readModule(cut.data(), n, out, err)) << "cut at " << n;
      EXPECT_EQ(err, n < 64 ? "zanb: too small" : "zanb: truncated module") << "cut at " << n;
    }
  }
}

}  // namespace
