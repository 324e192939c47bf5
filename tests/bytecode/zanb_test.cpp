// Module reader and writer: layout byte for byte, every reader failure in its order, every cut.
// ZANA text form: assembler messages and encodings, the listing, the listing -> text -> module
// round trip, and hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "bytecode/zanb.h"

namespace {
using namespace tov::zanb;

// Three functions (two named), two globals, two segments reaching 7 bytes into the blob, three instructions.
// Layout: tables end at 240, names at 240..246, gap to 248, blob 248..255, gap to 256, code 256..304. Magic,
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

// Each row patches up to two little-endian fields of a valid module: `one` (one function, 112 bytes, code at
// 96) or `seg` (one segment: table at 64, blob 88..96), then keeps `size` bytes of it.
TEST(ZanbRead, EveryFailureWithItsMessage) {
  using Bytes = std::vector<uint8_t>;
  const Bytes one = writeModule({}, {{0, 0, 0, 0, 1, 0, 0, 1}}, {}, {}, "", {}, {{0, 0, 0, 0}});
  const Bytes seg = writeModule({}, {}, {}, {{0, 8, 0}}, "", Bytes(8, 7), {});
  struct Patch { size_t off, width; uint64_t value; };
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

// ---- text form ----

Module asmOk(const std::string& text) {
  Module m;
  std::string err;
  EXPECT_TRUE(assemble(text, m, err)) << err << "\n--- text:\n" << text;
  return m;
}

// What a text assembles to: the message, or its one instruction as "opInfo a b c" in hex.
std::string assembled(const std::string& text) {
  Module m;
  std::string err;
  if (!assemble(text, m, err)) return err;
  if (m.code.size() != 1) return "not one instruction";
  const Insn& i = m.code[0];
  char b[64];
  std::snprintf(b, sizeof b, "%x %x %x %x", i.opInfo, i.a, i.b, i.c);
  return b;
}

TEST(ZanbAsm, MessagesAndEncodings) {
  const std::string f = "func 0 f\n";
  const std::pair<std::string, const char*> cases[] = {
      {"func 0\n", "line 1: bad func line"}, {"funcs 0\n", "line 1: bad func line"},
      {"\n  # c\n;c\n\t\r\nfunc x\n", "line 5: bad func line"},  // blank lines count
      {"add.i32 a=1 b=2 c=3\nfunc 0 f\n", "line 1: instruction outside a func"},
      {"  0  nop a=0 b=0 c=0\n", "line 1: instruction outside a func"},
      {"\f\nadd\n", "line 2: instruction outside a func"},  // a form feed is no mnemonic
      {f + "add.i16 a=1\n", "line 2: bad type 'i16'"}, {f + "add. a=1\n", "line 2: bad type ''"},
      {f + "frob.x\n", "line 2: bad type 'x'"},  // before the op
      {f + "const.i32.i32 a=1\n", "line 2: bad type 'i32.i32'"},
      {f + "const a=0 b=1\n", "line 2: const needs a type"},
      {f + "  3  convert.f32\n", "line 2: convert needs a kind"},
      {f + "convert F64.promote_f32 a=1\n", "line 2: unknown conversion"},
      {f + "convert a=1 b=2 f64.promote_f32\n", "line 2: unknown conversion"},
      {f + "ADD.i32 a=1\n", "line 2: unknown op 'ADD'"}, {f + "1 2 3\n", "line 2: unknown op '2'"},
      {f + "\vfunc 1 g\n", "line 2: unknown op 'func'"}, {f + "foo\nbar.zz\n", "line 2: unknown op 'foo'"},
      {"func 0 f\r\nnop\r\nadd.x\r\n", "line 3: bad type 'x'"}, {"", "no functions in input"},
      {"ZANB v1: funcs=0 mem=0..0 pages\n# a\n; b\n \t \r\n17\n", "no functions in input"},

      {f + "nop", "0 0 0 0"}, {f + "const.i32 a=0 b=7", "1 0 7 0"},
      {f + "const.f64 a=1 bits=0x4000000000000000", "301 1 0 40000000"},
      {f + "const.i64 a=2 b=5 c=6", "101 2 5 6"},
      {f + "const.i64 a=2 b=-1 c=0", "101 2 ffffffff ffffffff"},  // b fills the high half
      {f + "const.i64 a=2 c=-2", "101 2 0 fffffffe"}, {f + "const.f32 a=3 bits=-1", "201 3 ffffffff ffffffff"},
      {f + "const.i32 a=4 bits=9 b=1 c=1", "1 4 9 0"},  // bits= wins
      {f + "const.i32 a=4 bits=zz b=3", "1 4 3 0"},     // unparsed bits= is missing
      {f + "ret a=-1", "3d ffffffff 0 0"}, {f + "convert.i32 f64.promote_f32 a=1 b=2", "44 1 2 c"},
      {f + "convert i32.wrap_i64 a=1 b=2 c=9", "44 1 2 0"},
      {f + "convert i64.extend32_s a=5 b=6", "44 5 6 19"}, {f + "add a=0 b=1 c=2", "7 0 1 2"},
      {f + "add.f64 c=2 b=1 a=0", "307 0 1 2"}, {f + "17 add.i64 a=0x10 b=010 c=-2", "107 10 8 fffffffe"},
      {f + "  4  load8_u a=1 b=2 c=3", "2f 1 2 3"},
      {f + "jmp.f32 a=4", "238 4 0 0"},  // a suffix is taken on any op
      {f + "add a=99999999999", "7 4876e7ff 0 0"}, {f + "add a=x b= 5 c=", "7 0 5 0"},
      {f + "reinterpret.f64 a=1 b=2", "345 1 2 0"}, {f + "syscall a=1 b=2 c=3", "46 1 2 3"},
      {f + "mem_init a=1 b=2 c=3", "43 1 2 3"}, {f + "copysign.f32 a=1 b=2 c=3", "22c 1 2 3"},
      {f + "store32 a=1 b=2 c=0xFFFFFFFF", "37 1 2 ffffffff"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(assembled(text), want) << text;
}

TEST(ZanbAsm, ModuleShapeAndHeaderLines) {
  Module m = asmOk(
      "# hand-written\n"
      "func 7 main params=2 rets=1 slots=0x10 argBase=3 code=[5,9)\n"
      "  nop\n"
      "  12\n"  // position alone
      "\n"
      "  0  ret a=0\n"
      "funcs 0 <anon>\n"
      "func 0 b\n"
      "  trap a=1\n");
  const Header want{{'Z', 'A', 'N', 'B'}, 1, 1, 0, 3, 0, 0, 11, 0, 3, 0, 0};
  EXPECT_EQ(std::memcmp(&m.header, &want, sizeof want), 0);
  EXPECT_TRUE(m.globals.empty() && m.dataSegs.empty() && m.data.empty());
  EXPECT_EQ(m.names, "main<anon>b");
  const FuncMeta funcs[] = {
      {0, 4, 2, 1, 16, 3, 0, 2}, {4, 6, 0, 0, 0, 0, 2, 0}, {10, 1, 0, 0, 0, 0, 2, 1}};
  ASSERT_EQ(m.funcs.size(), 3u);
  EXPECT_EQ(std::memcmp(m.funcs.data(), funcs, sizeof funcs), 0);
  EXPECT_EQ(std::make_pair(m.code[1].opInfo, m.code[2].opInfo), std::make_pair(61u, 71u));

  struct Case { std::string text; uint32_t entry; uint64_t memMin, memMax; };
  const Case cases[] = {
      {"ZANB v1: funcs=1 globals=0 code=0 insn entry=2 mem=3..9 pages\nfunc 0 f\n", 2, 3, 9},
      {"func 0 f\n  ZANB entry=1\n", 1, 0, 0},  // anywhere, fields missing stay 0
      {"ZANB mem=0x10..0x8000000000 entry=-1\nfunc 0 f\n", 0xFFFFFFFF, 16, 0x8000000000},
      {"ZANB entry=5 mem=2..4\nfunc 0 f\nZANB entry=6\n", 6, 2, 4},  // later lines override
      {"ZANBX ..7\nfunc 0 f\n", 0, 0, 7}, {"ZANB entry=x mem=..\nfunc 0 f\n", 0, 0, 0},
  };
  for (const Case& c : cases) {
    const Header h = asmOk(c.text).header;
    EXPECT_EQ(std::tie(h.entry, h.memMinPages, h.memMaxPages), std::tie(c.entry, c.memMin, c.memMax)) << c.text;
  }
}

// Every opcode with every type the listing keeps, every conversion kind, and
// const immediates at the edges, through the listing and back.
TEST(ZanbAsm, ListingRoundTrip) {
  Module src;
  auto open = [&](const char* name, uint32_t params) {
    uint32_t off = uint32_t(src.names.size()), len = uint32_t(std::strlen(name));
    src.names += name;
    src.funcs.push_back({off, len, params, 1, 9 + params, params, uint32_t(src.code.size()), 0});
  };
  open("typed", 0);
  for (uint32_t op = 0; op < 56; ++op)
    for (uint32_t type = 0; type < 4; ++type)
      src.code.push_back({op | type << 8, op, 0xFFFFFFFF - op, type * 1000003u});
  for (uint32_t type = 0; type < 4; ++type) src.code.push_back({69 | type << 8, 1, 2, 3});
  src.code.insert(src.code.end(), {{0x101, 7, 0, 0x80000000}, {0x301, 7, 0xFFFFFFFF, 0xFFFFFFFF}});
  open("plain", 2);
  for (uint32_t op = 56; op < 72; ++op)
    if (op != 68 && op != 69) src.code.push_back({op, op * 7, 0, op == 61 ? 0xFFFFFFFF : op});
  open("conv", 1);
  for (uint32_t kind = 0; kind < 26; ++kind) src.code.push_back({68, kind + 1, kind + 2, kind});
  for (size_t i = 0; i < 3; ++i)
    src.funcs[i].codeLen = (i < 2 ? src.funcs[i + 1].codeStart : uint32_t(src.code.size())) - src.funcs[i].codeStart;
  src.header = Header{{'Z', 'A', 'N', 'B'}, 1, 1, 2, 3, 0, 0, uint32_t(src.names.size()), 0, src.code.size(), 3, 70000};
  Module back = asmOk(disassemble(src));
  EXPECT_EQ(writeModule(back), writeModule(src));
  EXPECT_EQ(std::memcmp(&back.header, &src.header, sizeof(Header)), 0);
}

}  // namespace
