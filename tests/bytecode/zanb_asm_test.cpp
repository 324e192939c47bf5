// ZANA text form: assembler messages and encodings, listing format, and the
// listing -> text -> module round trip.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "bytecode/zanb.h"

namespace {

using tov::zanb::assemble;
using tov::zanb::disassemble;
using tov::zanb::FuncMeta;
using tov::zanb::Insn;
using tov::zanb::Module;

std::string asmErr(const std::string& text) {
  Module m;
  std::string err;
  EXPECT_FALSE(assemble(text, m, err)) << text;
  return err;
}

Module asmOk(const std::string& text) {
  Module m;
  std::string err;
  EXPECT_TRUE(assemble(text, m, err)) << err << "\n--- text:\n" << text;
  return m;
}

struct ErrCase {
  const char* name;
  std::string text;
  const char* message;
};

TEST(ZanbAsm, EveryMessage) {
  const ErrCase cases[] = {
      {"func with two tokens", "func 0\n", "line 1: bad func line"},
      {"func alone", "  func", "line 1: bad func line"},
      {"funcs is a func line", "funcs 0\n", "line 1: bad func line"},
      {"func after blanks and comments", "\n  # c\n;c\n\t\r\nfunc x\n", "line 5: bad func line"},
      {"insn before func", "add.i32 a=1 b=2 c=3\nfunc 0 f\n", "line 1: instruction outside a func"},
      {"position then insn before func", "  0  nop.i32 a=0 b=0 c=0\n",
       "line 1: instruction outside a func"},
      {"control bytes are an insn", "\x01\x02\x03\n", "line 1: instruction outside a func"},
      {"form feed line has no mnemonic", "\f\nadd\n", "line 2: instruction outside a func"},
      {"bad type", "func 0 f\nadd.i16 a=1\n", "line 2: bad type 'i16'"},
      {"empty type", "func 0 f\nadd. a=1\n", "line 2: bad type ''"},
      {"type is case-sensitive", "func 0 f\nadd.I32\n", "line 2: bad type 'I32'"},
      {"type checked before op", "func 0 f\nfrob.x\n", "line 2: bad type 'x'"},
      {"type cut at first dot", "func 0 f\nconst.i32.i32 a=1\n", "line 2: bad type 'i32.i32'"},
      {"const without type", "func 0 f\nconst a=0 b=1\n", "line 2: const needs a type"},
      {"convert without kind", "func 0 f\nconvert\n", "line 2: convert needs a kind"},
      {"positioned convert without kind", "func 0 f\n  3  convert.f32\n",
       "line 2: convert needs a kind"},
      {"convert kind is case-sensitive", "func 0 f\nconvert F64.promote_f32 a=1\n",
       "line 2: unknown conversion"},
      {"convert kind must come next", "func 0 f\nconvert a=1 b=2 f64.promote_f32\n",
       "line 2: unknown conversion"},
      {"unknown op", "func 0 f\njump a=3\n", "line 2: unknown op 'jump'"},
      {"op is case-sensitive", "func 0 f\nADD.i32 a=1\n", "line 2: unknown op 'ADD'"},
      {"second number is the mnemonic", "func 0 f\n1 2 3\n", "line 2: unknown op '2'"},
      {"func behind a vertical tab", "func 0 f\n\vfunc 1 g\n", "line 2: unknown op 'func'"},
      {"first error wins", "func 0 f\nfoo\nbar.zz\n", "line 2: unknown op 'foo'"},
      {"CRLF lines", "func 0 f\r\nnop\r\nadd.x\r\n", "line 3: bad type 'x'"},
      {"empty text", "", "no functions in input"},
      {"header alone", "ZANB v1: funcs=0 globals=0 data=0B code=0 insn entry=0 mem=0..0 pages\n",
       "no functions in input"},
      {"only comments and blanks", "# a\n; b\n \t \r\n\n", "no functions in input"},
      {"position alone before func", "17\n", "no functions in input"},
  };
  for (const ErrCase& c : cases) EXPECT_EQ(asmErr(c.text), c.message) << c.name;
}

struct EncCase {
  const char* line;
  Insn want;
};

TEST(ZanbAsm, Encodings) {
  const EncCase cases[] = {
      {"nop", {0x000, 0, 0, 0}},
      {"const.i32 a=0 b=7", {0x001, 0, 7, 0}},
      {"const.i32 a=0 bits=7", {0x001, 0, 7, 0}},
      {"const.f64 a=1 bits=0x4000000000000000", {0x301, 1, 0, 0x40000000}},
      {"const.i64 a=2 b=5 c=6", {0x101, 2, 5, 6}},
      {"const.i64 a=2 b=-1", {0x101, 2, 0xFFFFFFFF, 0xFFFFFFFF}},
      {"const.i64 a=2 b=-1 c=0", {0x101, 2, 0xFFFFFFFF, 0xFFFFFFFF}},
      {"const.i64 a=2 c=-2", {0x101, 2, 0, 0xFFFFFFFE}},
      {"const.f32 a=3 bits=-1", {0x201, 3, 0xFFFFFFFF, 0xFFFFFFFF}},
      {"const.i64 a=3 bits=0xFFFFFFFFFFFFFFFF", {0x101, 3, 0xFFFFFFFF, 0xFFFFFFFF}},
      {"const.i32 a=4 bits=9 b=1 c=1", {0x001, 4, 9, 0}},  // bits= wins
      {"const.i32 a=4 bits=zz b=3", {0x001, 4, 3, 0}},     // unparsed bits= is missing
      {"ret a=-1", {61, 0xFFFFFFFF, 0, 0}},
      {"convert.i32 f64.promote_f32 a=1 b=2", {68, 1, 2, 12}},
      {"convert i32.wrap_i64 a=1 b=2 c=9", {68, 1, 2, 0}},
      {"convert i64.extend32_s a=5 b=6", {68, 5, 6, 25}},
      {"add a=0 b=1 c=2", {7, 0, 1, 2}},
      {"add.i32 a=0 b=1 c=2", {7, 0, 1, 2}},
      {"add.f64 c=2 b=1 a=0", {0x307, 0, 1, 2}},
      {"17 add.i64 a=0x10 b=010 c=-2", {0x107, 16, 8, 0xFFFFFFFE}},
      {"  4  load8_u a=1 b=2 c=3", {47, 1, 2, 3}},
      {"jmp.f32 a=4", {0x238, 4, 0, 0}},             // a suffix is taken on any op
      {"add a=99999999999", {7, 0x4876E7FF, 0, 0}},  // low 32 bits
      {"add a=x b= 5 c=", {7, 0, 5, 0}},
      {"reinterpret.f64 a=1 b=2", {0x345, 1, 2, 0}},
      {"syscall a=1 b=2 c=3", {70, 1, 2, 3}},
      {"trap a=7", {71, 7, 0, 0}},
      {"mem_init a=1 b=2 c=3", {67, 1, 2, 3}},
      {"calli a=1 b=2 c=3", {60, 1, 2, 3}},
      {"copysign.f32 a=1 b=2 c=3", {0x22C, 1, 2, 3}},
      {"store32 a=1 b=2 c=0xFFFFFFFF", {55, 1, 2, 0xFFFFFFFF}},
  };
  for (const EncCase& c : cases) {
    Module m = asmOk(std::string("func 0 f\n") + c.line + "\n");
    ASSERT_EQ(m.code.size(), 1u) << c.line;
    const Insn& got = m.code[0];
    EXPECT_EQ(got.opInfo, c.want.opInfo) << c.line;
    EXPECT_EQ(got.a, c.want.a) << c.line;
    EXPECT_EQ(got.b, c.want.b) << c.line;
    EXPECT_EQ(got.c, c.want.c) << c.line;
  }
}

TEST(ZanbAsm, ModuleShape) {
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
  EXPECT_EQ(std::memcmp(m.header.magic, "ZANB", 4), 0);
  EXPECT_EQ(m.header.version, 1u);
  EXPECT_EQ(m.header.flags, 1u);
  EXPECT_EQ(m.header.entry, 0u);
  EXPECT_EQ(m.header.funcCount, 3u);
  EXPECT_EQ(m.header.codeCount, 3u);
  EXPECT_EQ(m.header.namesSize, 11u);
  EXPECT_EQ(m.header.globalCount, 0u);
  EXPECT_EQ(m.header.dataSegCount, 0u);
  EXPECT_EQ(m.header.memMinPages, 0u);
  EXPECT_EQ(m.header.memMaxPages, 0u);
  EXPECT_TRUE(m.globals.empty());
  EXPECT_TRUE(m.dataSegs.empty());
  EXPECT_TRUE(m.data.empty());
  EXPECT_EQ(m.names, "main<anon>b");

  ASSERT_EQ(m.funcs.size(), 3u);
  const FuncMeta want[] = {
      {0, 4, 2, 1, 16, 3, 0, 2},
      {4, 6, 0, 0, 0, 0, 2, 0},
      {10, 1, 0, 0, 0, 0, 2, 1},
  };
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(std::memcmp(&m.funcs[i], &want[i], sizeof(FuncMeta)), 0) << "func " << i;
  }
  EXPECT_EQ(m.name(1), "<anon>");
  EXPECT_EQ(m.code[1].opInfo, 61u);
  EXPECT_EQ(m.code[2].opInfo, 71u);
}

TEST(ZanbAsm, HeaderLine) {
  struct Case {
    std::string text;
    uint32_t entry;
    uint64_t memMin, memMax;
  };
  const Case cases[] = {
      {"ZANB v1: funcs=1 globals=0 data=0B code=0 insn entry=2 mem=3..9 pages\nfunc 0 f\n", 2, 3,
       9},
      {"func 0 f\n  ZANB entry=1\n", 1, 0, 0},  // anywhere, fields missing stay 0
      {"ZANB mem=0x10..0x8000000000 entry=-1\nfunc 0 f\n", 0xFFFFFFFF, 16, 0x8000000000},
      {"ZANB entry=5 mem=2..4\nfunc 0 f\nZANB entry=6\n", 6, 2, 4},  // later line overrides
      {"ZANBX ..7\nfunc 0 f\n", 0, 0, 7},
      {"ZANB entry=x mem=..\nfunc 0 f\n", 0, 0, 0},
  };
  for (const Case& c : cases) {
    Module m = asmOk(c.text);
    EXPECT_EQ(m.header.entry, c.entry) << c.text;
    EXPECT_EQ(m.header.memMinPages, c.memMin) << c.text;
    EXPECT_EQ(m.header.memMaxPages, c.memMax) << c.text;
  }
}

TEST(ZanbAsm, ModuleIsResetBothWays) {
  Module m;
  m.globals.resize(2);
  m.data.assign(5, 1);
  m.funcs.resize(4);
  std::string err;
  EXPECT_FALSE(assemble("func 0 f\nbogus\n", m, err));
  EXPECT_TRUE(m.funcs.empty());
  EXPECT_TRUE(m.globals.empty());

  m.globals.resize(2);
  m.data.assign(5, 1);
  EXPECT_TRUE(assemble("func 0 f\nnop\n", m, err));
  EXPECT_TRUE(m.globals.empty());
  EXPECT_TRUE(m.data.empty());
  EXPECT_EQ(m.funcs.size(), 1u);
}

TEST(ZanbAsm, NulBytesAreOrdinaryCharacters) {
  // A key is searched in the whole line, behind a NUL as well.
  const char raw[] = "func 0 a\0b\nadd a=1\0 b=2 c=3\n";
  Module m = asmOk(std::string(raw, sizeof raw - 1));
  EXPECT_EQ(m.names, std::string("a\0b", 3));
  ASSERT_EQ(m.code.size(), 1u);
  EXPECT_EQ(m.code[0].a, 1u);
  EXPECT_EQ(m.code[0].b, 2u);
  EXPECT_EQ(m.code[0].c, 3u);
  // A number never runs on into the next line.
  Module n = asmOk("func 0 f\nadd b=\n5\n");
  ASSERT_EQ(n.code.size(), 1u);
  EXPECT_EQ(n.code[0].b, 0u);
}

Module listingModule() {
  Module m;
  std::memcpy(m.header.magic, "ZANB", 4);
  m.header.version = 1;
  m.header.funcCount = 3;
  m.header.globalCount = 1;
  m.header.codeCount = 7;
  m.header.entry = 1;
  m.header.memMinPages = 2;
  m.header.memMaxPages = 8;
  m.globals.resize(1);
  m.data.assign(5, 0);
  m.names = "main";
  m.funcs.push_back({0, 4, 0, 1, 4, 0, 0, 4});
  m.funcs.push_back({0, 0, 2, 0, 6, 1, 4, 5});               // unnamed, runs past the code
  m.funcs.push_back({2, 9, 1, 1, 1, 1, 0xFFFFFFF0u, 0x20});  // name past the table, wild range
  m.code.push_back({0x101, 1, 0x23456789, 0x1});             // const.i64
  m.code.push_back({0x207, 1, 2, 3});                        // add.f32
  m.code.push_back({0x32C, 0, 1, 2});                        // copysign.f64
  m.code.push_back({0x32C | 0xFFFF0000u, 3, 4, 5});          // bits 12..31 ignored
  m.code.push_back({0x300 | 68, 0, 0, 12});                  // convert: type bits dropped
  m.code.push_back({0x738, 4, 0, 0});                        // jmp: no suffix, type 7
  m.code.push_back({0x5C8, 1, 2, 3});                        // opcode 200
  return m;
}

TEST(ZanbAsm, DisassembleExactListing) {
  const std::string want =
      "ZANB v1: funcs=3 globals=1 data=5B code=7 insn entry=1 mem=2..8 pages\n"
      "func 0 main params=0 rets=1 slots=4 argBase=0 code=[0,4)\n"
      "      0  const.i64 a=1 bits=0x123456789\n"
      "      1  add.f32 a=1 b=2 c=3\n"
      "      2  copysign.f64 a=0 b=1 c=2\n"
      "      3  copysign.f64 a=3 b=4 c=5\n"
      "func 1 <anon> params=2 rets=0 slots=6 argBase=1 code=[4,9)\n"
      "      4  convert f64.promote_f32 a=0 b=0\n"
      "      5  jmp a=4 b=0 c=0\n"
      "      6  ? a=1 b=2 c=3\n"
      "func 2 <anon> params=1 rets=1 slots=1 argBase=1 code=[4294967280,16)\n";
  EXPECT_EQ(disassemble(listingModule()), want);
}

TEST(ZanbAsm, DisassembleUnknownNames) {
  Module m;
  m.header.version = 1;
  m.funcs.push_back({0, 0, 0, 0, 0, 0, 0, 4});
  m.code.push_back({0x401, 0, 0, 0});        // const, type 4
  m.code.push_back({0xF45, 1, 2, 3});        // reinterpret, type 15
  m.code.push_back({68, 1, 2, 26});          // conversion kind past the table
  m.code.push_back({72, 0, 0xFFFFFFFF, 9});  // first opcode past the table
  const std::string want =
      "ZANB v1: funcs=0 globals=0 data=0B code=0 insn entry=0 mem=0..0 pages\n"
      "func 0 <anon> params=0 rets=0 slots=0 argBase=0 code=[0,4)\n"
      "      0  const.? a=0 bits=0x0\n"
      "      1  reinterpret.? a=1 b=2 c=3\n"
      "      2  convert ? a=1 b=2\n"
      "      3  ? a=0 b=4294967295 c=9\n";
  EXPECT_EQ(disassemble(m), want);
}

TEST(ZanbAsm, DisassembleCutsLinesAt255Bytes) {
  const std::string tail = " params=0 rets=0 slots=0 argBase=0 code=[0,0)\n";
  const std::string head = "func 0 ";
  const size_t fits = 255 - head.size() - tail.size();  // line of 255 bytes with its newline
  for (size_t len : {fits, fits + 1, size_t(300)}) {
    Module m;
    m.header.version = 1;
    m.names.assign(len, 'n');
    m.funcs.push_back({0, uint32_t(len), 0, 0, 0, 0, 0, 0});
    std::string line = head + m.names + tail;
    if (line.size() > 255) line.resize(255);  // the newline is lost with the rest
    const std::string want =
        "ZANB v1: funcs=0 globals=0 data=0B code=0 insn entry=0 mem=0..0 pages\n" + line;
    EXPECT_EQ(disassemble(m), want) << "name length " << len;
  }
}

// One function per group of opcodes, every opcode 0..71 with every type the
// listing keeps, and every conversion kind.
Module everyOpModule() {
  Module m;
  std::memcpy(m.header.magic, "ZANB", 4);
  m.header.version = 1;
  m.header.entry = 2;
  m.header.memMinPages = 3;
  m.header.memMaxPages = 70000;
  const char* names[] = {"typed", "plain", "conv"};
  auto open = [&](const char* name, uint32_t params) {
    FuncMeta f{};
    f.nameOff = uint32_t(m.names.size());
    f.nameLen = uint32_t(std::strlen(name));
    m.names += name;
    f.params = params;
    f.rets = 1;
    f.slots = 9 + params;
    f.argBase = params;
    f.codeStart = uint32_t(m.code.size());
    m.funcs.push_back(f);
  };
  open(names[0], 0);
  for (uint32_t op = 0; op < 56; ++op)
    for (uint32_t type = 0; type < 4; ++type)
      m.code.push_back({op | type << 8, op, 0xFFFFFFFF - op, type * 1000003u});
  for (uint32_t type = 0; type < 4; ++type) m.code.push_back({69 | type << 8, 1, 2, 3});
  m.code.push_back({0x101, 7, 0, 0x80000000});  // const immediates at the edges
  m.code.push_back({0x301, 7, 0xFFFFFFFF, 0xFFFFFFFF});
  m.funcs.back().codeLen = uint32_t(m.code.size());
  open(names[1], 2);
  for (uint32_t op = 56; op < 72; ++op)
    if (op != 68 && op != 69) m.code.push_back({op, op * 7, 0, op == 61 ? 0xFFFFFFFF : op});
  m.funcs.back().codeLen = uint32_t(m.code.size()) - m.funcs.back().codeStart;
  open(names[2], 1);
  for (uint32_t kind = 0; kind < 26; ++kind) m.code.push_back({68, kind + 1, kind + 2, kind});
  m.funcs.back().codeLen = uint32_t(m.code.size()) - m.funcs.back().codeStart;
  m.header.funcCount = uint32_t(m.funcs.size());
  m.header.codeCount = m.code.size();
  m.header.namesSize = uint32_t(m.names.size());
  m.header.flags = 1;
  return m;
}

TEST(ZanbAsm, ListingRoundTrip) {
  const Module src = everyOpModule();
  ASSERT_EQ(src.code.size(), 56u * 4 + 4 + 2 + 14 + 26);
  Module back = asmOk(disassemble(src));
  EXPECT_EQ(back.header.entry, src.header.entry);
  EXPECT_EQ(back.header.memMinPages, src.header.memMinPages);
  EXPECT_EQ(back.header.memMaxPages, src.header.memMaxPages);
  EXPECT_EQ(back.header.flags, 1u);
  EXPECT_EQ(back.names, src.names);
  ASSERT_EQ(back.funcs.size(), src.funcs.size());
  for (size_t i = 0; i < src.funcs.size(); ++i)
    EXPECT_EQ(std::memcmp(&back.funcs[i], &src.funcs[i], sizeof(FuncMeta)), 0) << "func " << i;
  ASSERT_EQ(back.code.size(), src.code.size());
  for (size_t i = 0; i < src.code.size(); ++i)
    EXPECT_EQ(std::memcmp(&back.code[i], &src.code[i], sizeof(Insn)), 0)
        << "insn " << i << " opInfo " << src.code[i].opInfo;
  // And the written files agree byte for byte.
  EXPECT_EQ(tov::zanb::writeModule(back), tov::zanb::writeModule(src));
}

// Bad input of any shape: a message or a module, quickly.
class ZanbAsmHostile : public ::testing::Test {
 protected:
  void SetUp() override { start_ = std::chrono::steady_clock::now(); }
  void TearDown() override {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - start_)
                  .count();
    // Each case runs in well under a second; the bound is loose for slow
    // builds, and still far below what quadratic work would take.
    EXPECT_LT(ms, 5000) << "hostile input took " << ms << " ms";
  }
  std::chrono::steady_clock::time_point start_;
};

// Deterministic bytes; the seed picks the stream.
std::string noise(size_t n, uint32_t seed) {
  std::string s(n, '\0');
  uint32_t x = seed;
  for (char& ch : s) {
    x = x * 1664525u + 1013904223u;
    ch = char(x >> 24);
  }
  return s;
}

// Assembles every line of `text` on its own behind a func line, so none
// hides behind an earlier error. Gives how many assembled.
size_t eachLineAlone(const std::string& text, size_t& lines) {
  size_t at = 0, passed = 0;
  lines = 0;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) nl = text.size();
    Module m;
    std::string err;
    bool ok = assemble("func 0 f\n" + text.substr(at, nl - at), m, err);
    EXPECT_TRUE(ok ? !m.funcs.empty() && m.code.size() <= 1 : err.rfind("line 2: ", 0) == 0) << err;
    passed += ok;
    ++lines;
    at = nl + 1;
  }
  return passed;
}

TEST_F(ZanbAsmHostile, BinaryGarbage) {
  for (uint32_t seed = 1; seed <= 4; ++seed) {
    std::string text = noise(256 * 1024, seed);
    Module m;
    std::string err;
    bool ok = assemble(text, m, err);
    EXPECT_TRUE(ok ? !m.funcs.empty() : !err.empty()) << "seed " << seed;
    // Behind a func line the garbage reaches the instruction parser.
    ok = assemble("func 0 f\n" + text, m, err);
    EXPECT_TRUE(ok ? !m.funcs.empty() : !err.empty()) << "seed " << seed;
    size_t lines = 0;
    eachLineAlone(text, lines);
    EXPECT_GT(lines, 100u);
  }
}

TEST_F(ZanbAsmHostile, WordSalad) {
  // Valid pieces in random order reach every path of the parser, and most
  // lines of it get past the first error check.
  const char* const vocab[] = {
      "func", "funcs", "0",    "7",    "const", "convert", "nop",          "add",  ".i32",
      ".f64", ".",     "a=-1", "b=0x", "c=9",   "bits=",   "..",           "ZANB", "#",
      ";",    "\n",    "\r\n", "\t",   "\v",    "=",       "i32.wrap_i64", "\0"};
  const size_t nv = sizeof vocab / sizeof vocab[0];
  for (uint32_t seed = 1; seed <= 8; ++seed) {
    std::string picks = noise(64 * 1024, seed);
    std::string text = "func 0 f\n";
    for (char p : picks) {
      const char* w = vocab[uint8_t(p) % nv];
      if (*w == '\0')
        text += '\0';
      else
        text += w;
      if (uint8_t(p) & 1) text += ' ';
    }
    Module m;
    std::string err;
    bool ok = assemble(text, m, err);
    EXPECT_TRUE(ok ? !m.funcs.empty() : !err.empty()) << "seed " << seed;
    size_t lines = 0;
    size_t passed = eachLineAlone(text, lines);
    EXPECT_GT(passed, 0u) << "seed " << seed << " of " << lines << " lines";
  }
}

TEST_F(ZanbAsmHostile, MegabyteLines) {
  const size_t mb = 1 << 20;
  Module m;
  std::string err;
  // A name of a megabyte.
  ASSERT_TRUE(assemble("func 0 " + std::string(mb, 'x') + " params=1\nnop\n", m, err)) << err;
  EXPECT_EQ(m.names.size(), mb);
  EXPECT_EQ(m.funcs[0].params, 1u);
  // A number of a megabyte saturates, and keeps its low bits.
  ASSERT_TRUE(assemble("func 0 f\nadd a=" + std::string(mb, '9') + " b=2\n", m, err)) << err;
  EXPECT_EQ(m.code[0].a, 0xFFFFFFFFu);
  EXPECT_EQ(m.code[0].b, 2u);
  // A megabyte of words, of keys without numbers, of spaces.
  std::string words;
  for (size_t i = 0; words.size() < mb; ++i) words += "a= b= c= ";
  ASSERT_TRUE(assemble("func 0 f\nadd " + words + "\n", m, err)) << err;
  EXPECT_EQ(m.code[0].a, 0u);
  EXPECT_EQ(asmErr("func 0 f\n" + std::string(mb, ' ') + "x.y\n"), "line 2: bad type 'y'");
  EXPECT_EQ(asmErr("func 0 f\nx" + std::string(mb, '.') + "\n"),
            "line 2: bad type '" + std::string(mb - 1, '.') + "'");
  EXPECT_EQ(asmErr(std::string(mb, '\0')), "line 1: instruction outside a func");
}

TEST_F(ZanbAsmHostile, MillionsOfLines) {
  const size_t n = 1000000;
  std::string nops = "func 0 f\n";
  for (size_t i = 0; i < n; ++i) nops += "nop\n";
  Module m;
  std::string err;
  ASSERT_TRUE(assemble(nops, m, err)) << err;
  EXPECT_EQ(m.code.size(), n);
  EXPECT_EQ(m.funcs[0].codeLen, n);

  std::string funcs;
  for (size_t i = 0; i < n; ++i) funcs += "func 0 g\n";
  ASSERT_TRUE(assemble(funcs, m, err)) << err;
  EXPECT_EQ(m.funcs.size(), n);
  EXPECT_EQ(m.names.size(), n);

  EXPECT_EQ(asmErr(std::string(3 * n, '\n') + "func 0 f\nbad\n"),
            "line " + std::to_string(3 * n + 2) + ": unknown op 'bad'");
}

}  // namespace
