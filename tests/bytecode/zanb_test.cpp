// Module reader and writer: layout byte for byte, every reader failure in its
// order, count overflow, and the name tables.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "bytecode/zanb.h"

namespace {
using namespace tov::zanb;

template <class T>
T at(const std::vector<uint8_t>& b, size_t off) {
  T v{};
  std::memcpy(&v, b.data() + off, sizeof v);
  return v;
}
template <class T>
void put(std::vector<uint8_t>& b, size_t off, T v) {
  std::memcpy(b.data() + off, &v, sizeof v);
}

// Three functions (two named), two globals, two segments reaching 7 bytes
// into the blob, three instructions. Layout: tables end at 240, names at
// 240..246, gap to 248, blob 248..255, gap to 256, code 256..304.
Module sample() {
  Module m;
  std::memcpy(m.header.magic, "XXXX", 4);
  m.header.version = 7;
  m.header.flags = 1;
  m.header.entry = 1;
  m.header.funcCount = 99;  // counts are recomputed by the writer
  m.header.globalCount = 77;
  m.header.dataSegCount = 55;
  m.header.namesSize = 1234;
  m.header.codeCount = 999;
  m.header.reserved = 0x1122334455667788ull;
  m.header.memMinPages = 3;
  m.header.memMaxPages = 9;
  m.funcs = {{0, 4, 0, 1, 8, 0, 0, 2}, {0, 0, 2, 1, 4, 3, 2, 1}, {4, 2, 1, 0, 2, 0, 3, 0}};
  m.globals = {{{1, 2, 3, 4, 5, 6, 7, 8}, 0xFEDCBA9876543210ull}, {{0xFF, 0, 0, 0, 0, 0, 0, 0xEE}, 5}};
  m.dataSegs = {{0x100, 3, 0}, {0x2000, 2, 5}};
  m.names = "mainfx";
  m.data = {'a', 'b', 'c', 9, 9, 'd', 'e'};
  m.code = {{0x101, 1, 0xAABBCCDD, 0x11223344}, {0xFFFF0F47, 7, 8, 9}, {61, 0xFFFFFFFF, 0, 0}};
  return m;
}

template <class T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

TEST(ZanbWrite, LayoutByteForByte) {
  std::vector<uint8_t> f = writeModule(sample());
  ASSERT_EQ(f.size(), 304u);
  EXPECT_EQ(std::memcmp(f.data(), "ZANB", 4), 0);
  EXPECT_EQ(at<uint32_t>(f, 4), 1u);
  EXPECT_EQ(at<uint32_t>(f, 8), 1u);
  EXPECT_EQ(at<uint32_t>(f, 12), 1u);
  EXPECT_EQ(at<uint32_t>(f, 16), 3u);
  EXPECT_EQ(at<uint32_t>(f, 20), 2u);
  EXPECT_EQ(at<uint32_t>(f, 24), 2u);
  EXPECT_EQ(at<uint32_t>(f, 28), 6u);
  EXPECT_EQ(at<uint64_t>(f, 32), 0x1122334455667788ull);
  EXPECT_EQ(at<uint64_t>(f, 40), 3u);
  EXPECT_EQ(at<uint64_t>(f, 48), 3u);
  EXPECT_EQ(at<uint64_t>(f, 56), 9u);
  EXPECT_EQ(at<uint32_t>(f, 96 + 20), 3u);            // second function's argBase
  EXPECT_EQ(at<uint8_t>(f, 160), 1u);                  // first global's opaque bytes
  EXPECT_EQ(at<uint64_t>(f, 168), 0xFEDCBA9876543210ull);
  EXPECT_EQ(at<uint64_t>(f, 216 + 16), 5u);            // second segment's dataOff
  EXPECT_EQ(std::string(f.begin() + 240, f.begin() + 246), "mainfx");
  EXPECT_EQ(at<uint16_t>(f, 246), 0u);                 // gap
  EXPECT_EQ(std::string(f.begin() + 248, f.begin() + 255), std::string("abc\x09\x09" "de"));
  EXPECT_EQ(f[255], 0u);                               // gap
  EXPECT_EQ(at<uint32_t>(f, 256), 0x101u);
  EXPECT_EQ(at<uint64_t>(f, 264), 0x11223344AABBCCDDull);
  EXPECT_EQ(at<uint32_t>(f, 288 + 4), 0xFFFFFFFFu);
}

TEST(ZanbRead, RoundTripGivesIdenticalTables) {
  Module in = sample(), out;
  std::vector<uint8_t> f = writeModule(in);
  f.insert(f.end(), {1, 2, 3, 4, 5});  // trailing bytes are dropped
  std::string err;
  ASSERT_TRUE(readModule(f.data(), f.size(), out, err)) << err;
  EXPECT_EQ(std::memcmp(out.header.magic, "ZANB", 4), 0);
  EXPECT_EQ(out.header.version, 1u);
  EXPECT_EQ(out.header.flags, 1u);
  EXPECT_EQ(out.header.entry, 1u);
  EXPECT_EQ(out.header.funcCount, 3u);
  EXPECT_EQ(out.header.globalCount, 2u);
  EXPECT_EQ(out.header.dataSegCount, 2u);
  EXPECT_EQ(out.header.namesSize, 6u);
  EXPECT_EQ(out.header.codeCount, 3u);
  EXPECT_EQ(out.header.reserved, in.header.reserved);
  EXPECT_EQ(out.header.memMinPages, 3u);
  EXPECT_EQ(out.header.memMaxPages, 9u);
  EXPECT_TRUE(sameBytes(out.funcs, in.funcs));
  EXPECT_TRUE(sameBytes(out.globals, in.globals));
  EXPECT_TRUE(sameBytes(out.dataSegs, in.dataSegs));
  EXPECT_EQ(out.names, in.names);
  EXPECT_EQ(out.data, in.data);
  EXPECT_TRUE(sameBytes(out.code, in.code));
}

TEST(ZanbRead, SmallModulesAndPlacement) {
  // One unnamed function of one instruction: header, record, instruction.
  Module one;
  one.funcs = {{0, 0, 0, 0, 1, 0, 0, 1}};
  one.code = {{71, 0, 0, 0}};
  std::vector<uint8_t> f = writeModule(one);
  EXPECT_EQ(f.size(), 112u);
  EXPECT_EQ(at<uint32_t>(f, 96), 71u);

  // No data segments: code at the end of the names rounded to 8 (101 -> 104).
  one.names = "hello";
  one.header.flags = 1;
  one.funcs[0].nameLen = 5;
  f = writeModule(one);
  ASSERT_EQ(f.size(), 120u);
  EXPECT_EQ(at<uint32_t>(f, 104), 71u);
  Module back;
  std::string err;
  ASSERT_TRUE(readModule(f.data(), f.size(), back, err)) << err;
  ASSERT_EQ(back.code.size(), 1u);
  EXPECT_EQ(back.code[0].opInfo, 71u);
  EXPECT_EQ(back.name(0), "hello");

  // A bare header with zero counts reads, and replaces every table.
  std::vector<uint8_t> h = writeModule(Module{});
  ASSERT_EQ(h.size(), 64u);
  ASSERT_TRUE(readModule(h.data(), h.size(), back, err)) << err;
  EXPECT_TRUE(back.funcs.empty());
  EXPECT_TRUE(back.code.empty());
  EXPECT_TRUE(back.names.empty());
}

struct BadRow {
  const char* what;
  std::vector<uint8_t> bytes;
  const char* msg;
};

std::vector<BadRow> badRows() {
  Module one;
  one.funcs = {{0, 0, 0, 0, 1, 0, 0, 1}};
  one.code = {{0, 0, 0, 0}};
  const std::vector<uint8_t> ok = writeModule(one);  // 112 bytes, code at 96
  Module seg;
  seg.dataSegs = {{0, 8, 0}};
  seg.data.assign(8, 7);
  const std::vector<uint8_t> segOk = writeModule(seg);  // table at 64, blob at 88..96
  auto with = [](std::vector<uint8_t> b, auto fix) { fix(b); return b; };
  std::vector<BadRow> rows = {
      {"empty", {}, "zanb: too small"},
      {"63 bytes of a valid module", std::vector<uint8_t>(ok.begin(), ok.begin() + 63), "zanb: too small"},
      {"63 bytes of junk", std::vector<uint8_t>(63, 0xFF), "zanb: too small"},
      {"lower-case magic", with(ok, [](auto& b) { b[3] = 'b'; }), "zanb: bad magic"},
      {"magic checked before version", with(ok, [](auto& b) { b[0] = 'X'; put<uint32_t>(b, 4, 2); }), "zanb: bad magic"},
      {"version 2", with(ok, [](auto& b) { put<uint32_t>(b, 4, 2); }), "zanb: unsupported version 2"},
      {"version 0", with(ok, [](auto& b) { put<uint32_t>(b, 4, 0); }), "zanb: unsupported version 0"},
      {"version max", with(ok, [](auto& b) { put<uint32_t>(b, 4, 0xFFFFFFFF); }), "zanb: unsupported version 4294967295"},
      {"version before truncation", with(ok, [](auto& b) { put<uint32_t>(b, 4, 3); put<uint32_t>(b, 16, 9); }), "zanb: unsupported version 3"},
      {"function table past the end", with(ok, [](auto& b) { put<uint32_t>(b, 16, 2); }), "zanb: truncated module"},
      {"segment table past the end", with(ok, [](auto& b) { put<uint32_t>(b, 24, 1); }), "zanb: truncated module"},
      {"huge global count", with(ok, [](auto& b) { put<uint32_t>(b, 20, 0xFFFFFFFF); }), "zanb: truncated module"},
      {"huge name table", with(ok, [](auto& b) { put<uint32_t>(b, 28, 0xFFFFFFFF); }), "zanb: truncated module"},
      {"one instruction short", with(ok, [](auto& b) { put<uint64_t>(b, 40, 2); }), "zanb: truncated module"},
      // codeCount * 16 wraps to 0, to 16 (exactly the real size) and to -16.
      {"codeCount 2^60", with(ok, [](auto& b) { put<uint64_t>(b, 40, 1ull << 60); }), "zanb: truncated module"},
      {"codeCount 2^60+1", with(ok, [](auto& b) { put<uint64_t>(b, 40, (1ull << 60) + 1); }), "zanb: truncated module"},
      {"codeCount max", with(ok, [](auto& b) { put<uint64_t>(b, 40, ~0ull); }), "zanb: truncated module"},
      // dataOff + length wraps to 8, the real blob size.
      {"dataOff+length wraps", with(segOk, [](auto& b) { put<uint64_t>(b, 72, 16); put<uint64_t>(b, 80, ~0ull - 7); }), "zanb: truncated module"},
      // blob start + size wraps to 8; blob end rounded up to 8 wraps to 0.
      {"blob end wraps", with(segOk, [](auto& b) { put<uint64_t>(b, 72, 0xFFFFFFFFFFFFFFB0ull); }), "zanb: truncated module"},
      {"blob rounding wraps", with(segOk, [](auto& b) { put<uint64_t>(b, 72, 0xFFFFFFFFFFFFFFA4ull); }), "zanb: truncated module"},
  };
  return rows;
}

TEST(ZanbRead, EveryFailureWithItsMessage) {
  for (const BadRow& r : badRows()) {
    SCOPED_TRACE(r.what);
    Module m;
    m.funcs = {{1, 2, 3, 4, 5, 6, 7, 8}};
    m.names = "keep";
    std::string err;
    EXPECT_FALSE(readModule(r.bytes.data(), r.bytes.size(), m, err));
    EXPECT_EQ(err, r.msg);
    // Nothing is replaced unless every check passed.
    EXPECT_EQ(m.funcs.size(), 1u);
    EXPECT_EQ(m.names, "keep");
  }
}

TEST(ZanbRead, EveryCutOfAValidModuleFails) {
  std::vector<uint8_t> f = writeModule(sample());
  const std::set<std::string> known = {"zanb: too small", "zanb: bad magic", "zanb: truncated module"};
  for (size_t n = 0; n < f.size(); n++) {
    std::vector<uint8_t> cut(f.begin(), f.begin() + n);  // own buffer, so overreads show under ASan
    Module m;
    std::string err;
    EXPECT_FALSE(readModule(cut.data(), n, m, err)) << "cut at " << n;
    EXPECT_TRUE(known.count(err)) << "cut at " << n << ": '" << err << "'";
  }
}

TEST(ZanbNames, FunctionNames) {
  Module m;
  m.names = "mainfx";
  const uint32_t spans[][2] = {{0, 4}, {4, 2}, {0, 0}, {4, 3}, {6, 0}, {6, 1}, {0xFFFFFFFF, 2}, {5, 1}};
  for (auto& s : spans) m.funcs.push_back(FuncMeta{s[0], s[1], 0, 0, 0, 0, 0, 0});
  const char* want[] = {"main", "fx", "<anon>", "<anon>", "<anon>", "<anon>", "<anon>", "x"};
  for (uint32_t i = 0; i < 8; i++) EXPECT_EQ(m.name(i), want[i]) << i;
  EXPECT_EQ(m.name(8), "<bad>");
  EXPECT_EQ(m.name(0xFFFFFFFF), "<bad>");
  EXPECT_EQ(Module{}.name(0), "<bad>");
}

TEST(ZanbNames, OpTypeAndConversionNames) {
  const char* ops[72] = {
      "nop", "const", "mov", "getl", "setl", "getg", "setg", "add", "sub", "mul", "div_s", "div_u",
      "rem_s", "rem_u", "and", "or", "xor", "shl", "shr_s", "shr_u", "rotl", "rotr", "clz", "ctz",
      "popcnt", "neg", "abs", "ceil", "floor", "trunc", "nearest", "sqrt", "eq", "ne", "lt_s", "lt_u",
      "gt_s", "gt_u", "le_s", "le_u", "ge_s", "ge_u", "min", "max", "copysign", "load", "load8_s",
      "load8_u", "load16_s", "load16_u", "load32_s", "load32_u", "store", "store8", "store16",
      "store32", "jmp", "jz", "jnz", "call", "calli", "ret", "select", "mem_size", "mem_grow",
      "mem_copy", "mem_fill", "mem_init", "convert", "reinterpret", "syscall", "trap"};
  for (uint32_t i = 0; i < 72; i++) {
    EXPECT_STREQ(opName(i), ops[i]) << i;
    EXPECT_STREQ(kOpNames[i], ops[i]) << i;
  }
  EXPECT_STREQ(opName(72), "?");
  EXPECT_STREQ(opName(255), "?");
  EXPECT_STREQ(opName(0x100), "nop");    // low 8 bits only
  EXPECT_STREQ(opName(0x247), "trap");
  EXPECT_STREQ(opName(0x1148), "?");

  const char* types[] = {"i32", "i64", "f32", "f64", "?", "?"};
  const uint32_t typeArgs[] = {0, 1, 2, 3, 4, 0xFFFFFFFF};
  for (int i = 0; i < 6; i++) EXPECT_STREQ(typeName(typeArgs[i]), types[i]) << typeArgs[i];

  const char* convs[26] = {
      "i32.wrap_i64", "i64.extend_i32_s", "i64.extend_i32_u", "f32.convert_i32_s",
      "f32.convert_i32_u", "f32.convert_i64_s", "f32.convert_i64_u", "f64.convert_i32_s",
      "f64.convert_i32_u", "f64.convert_i64_s", "f64.convert_i64_u", "f32.demote_f64",
      "f64.promote_f32", "i32.trunc_f32_s", "i32.trunc_f32_u", "i32.trunc_f64_s",
      "i32.trunc_f64_u", "i64.trunc_f32_s", "i64.trunc_f32_u", "i64.trunc_f64_s",
      "i64.trunc_f64_u", "i32.extend8_s", "i32.extend16_s", "i64.extend8_s", "i64.extend16_s",
      "i64.extend32_s"};
  for (uint32_t i = 0; i < 26; i++) {
    EXPECT_STREQ(convName(i), convs[i]) << i;
    EXPECT_STREQ(kConvNames[i], convs[i]) << i;
  }
  EXPECT_STREQ(convName(26), "?");
  EXPECT_STREQ(convName(0x100), "?");  // no masking for kinds
}

}  // namespace
