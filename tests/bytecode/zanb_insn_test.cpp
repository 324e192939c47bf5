// What each instruction computes, one table per family. Every row runs
// `op a=0 b=1 c=2` on slots loaded with bit patterns; slot 0 starts as kMark
// so a result that leaves high bits behind shows. Expected values are bit
// patterns worked out from IEEE 754 and two's complement by hand.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;

constexpr uint64_t M32 = 0xFFFFFFFFull, ALL = ~0ull, I32MIN = 0x80000000ull, I64MIN = 1ull << 63;
constexpr uint64_t F1 = 0x3F800000, F2 = 0x40000000, F3 = 0x40400000, FH = 0x3F000000,
                   FM1 = 0xBF800000, F6 = 0x40C00000, FINF = 0x7F800000, FNINF = 0xFF800000,
                   FNAN = 0x7FC00000, FNZ = 0x80000000;
constexpr uint64_t D1 = 0x3FF0000000000000, D2 = 0x4000000000000000, D3 = 0x4008000000000000,
                   DH = 0x3FE0000000000000, DM1 = 0xBFF0000000000000, D6 = 0x4018000000000000,
                   DINF = 0x7FF0000000000000, DNINF = 0xFFF0000000000000, DNAN = 0x7FF8000000000000,
                   DNZ = 0x8000000000000000;
// Any NaN is right for these; each sentinel is itself one.
constexpr uint64_t kNaN32 = 0x7F80BEEF, kNaN64 = 0x7FF0DEADBEEF0001;
constexpr uint32_t T5 = 5, T7 = 7, T9 = 9, T15 = 15;  // type codes above 3 act as f64

struct Row {
  uint8_t op;
  uint32_t type;
  uint64_t b, c, want;
};

void expectBits(uint64_t got, uint64_t want, const std::string& what) {
  if (want == kNaN32) {
    float f;
    uint32_t lo = uint32_t(got);
    std::memcpy(&f, &lo, 4);
    EXPECT_TRUE(got >> 32 == 0 && std::isnan(f))
        << what << " gave " << hex(got) << ", want an f32 NaN";
  } else if (want == kNaN64) {
    double d;
    std::memcpy(&d, &got, 8);
    EXPECT_TRUE(std::isnan(d)) << what << " gave " << hex(got) << ", want an f64 NaN";
  } else {
    EXPECT_EQ(hex(got), hex(want)) << what;
  }
}

void runRows(const std::vector<Row>& rows, const Prog& p = {}) {
  for (const Row& r : rows) {
    std::string what = std::string(opName(r.op)) + "." + typeName(r.type) + "(" +
                       std::to_string(r.type) + ") " + hex(r.b) + ", " + hex(r.c);
    Eval e = eval({kMark, r.b, r.c}, {op(r.op, 0, 1, 2, r.type)}, p);
    EXPECT_EQ(e.rc, 0) << what << ": " << e.err;
    if (e.rc == 0) expectBits(e.value, r.want, what);
  }
}

std::vector<Row> intBinaryRows() {
  return {
      {Op_add, kI32, M32, 1, 0}, {Op_add, kI32, 0xAAAAAAAA00000005, 0x5555555500000007, 12},
      {Op_sub, kI32, 0, 1, M32}, {Op_mul, kI32, 0x10000, 0x10000, 0},
      {Op_mul, kI32, 0x7FFFFFFF, 2, 0xFFFFFFFE}, {Op_div_s, kI32, 0xFFFFFFF9, 2, 0xFFFFFFFD},
      {Op_div_s, kI32, 7, 0xFFFFFFFE, 0xFFFFFFFD}, {Op_div_s, kI32, I32MIN, 1, I32MIN},
      {Op_div_u, kI32, ALL, 2, 0x7FFFFFFF}, {Op_div_u, kI32, 7, 0x100000002, 3},
      {Op_rem_s, kI32, 0xFFFFFFF9, 2, M32}, {Op_rem_s, kI32, 7, 0xFFFFFFFE, 1},
      {Op_rem_u, kI32, M32, 10, 5},
      {Op_and, kI32, 0xF0F0F0F0FF00FF00, 0xFFFFFFFF0FF00FF0, 0x0F000F00},
      {Op_or, kI32, 0xFFFFFFFF00000001, I32MIN, 0x80000001},
      {Op_xor, kI32, M32, 0xFFFF, 0xFFFF0000}, {Op_shl, kI32, 1, 31, I32MIN},
      {Op_shl, kI32, 1, 32, 1}, {Op_shl, kI32, 1, 33, 2}, {Op_shl, kI32, 1, 63, I32MIN},
      {Op_shl, kI32, 1, 64, 1}, {Op_shl, kI32, M32, 4, 0xFFFFFFF0},
      {Op_shr_s, kI32, I32MIN, 31, M32}, {Op_shr_s, kI32, I32MIN, 32, I32MIN},
      {Op_shr_s, kI32, I32MIN, 33, 0xC0000000}, {Op_shr_s, kI32, 0x7FFFFFFF80000000, 1, 0xC0000000},
      {Op_shr_u, kI32, I32MIN, 31, 1}, {Op_shr_u, kI32, I32MIN, 33, 0x40000000},
      {Op_shr_u, kI32, ALL, 1, 0x7FFFFFFF}, {Op_rotl, kI32, 0x80000001, 1, 3},
      {Op_rotl, kI32, 0x80000001, 33, 3}, {Op_rotl, kI32, 0x80000001, 32, 0x80000001},
      {Op_rotl, kI32, 0x80000001, 0, 0x80000001}, {Op_rotr, kI32, 0x80000001, 1, 0xC0000000},
      {Op_rotr, kI32, 0x80000001, 33, 0xC0000000}, {Op_rotr, kI32, 0x80000001, 63, 3},

      {Op_add, kI64, ALL, 1, 0}, {Op_add, kI64, M32, 1, 0x100000000}, {Op_sub, kI64, 0, 1, ALL},
      {Op_mul, kI64, 0x100000000, 0x100000000, 0}, {Op_mul, kI64, M32, M32, 0xFFFFFFFE00000001},
      {Op_div_s, kI64, -7ull, 2, -3ull}, {Op_div_s, kI64, 7, -2ull, -3ull},
      {Op_div_s, kI64, I64MIN, 2, 0xC000000000000000}, {Op_div_u, kI64, ALL, 2, 0x7FFFFFFFFFFFFFFF},
      {Op_div_u, kI64, 5, 0x100000000, 0}, {Op_rem_s, kI64, -7ull, 2, ALL},
      {Op_rem_s, kI64, 7, -2ull, 1}, {Op_rem_u, kI64, ALL, 10, 5},
      {Op_and, kI64, 0xF0F0F0F0FF00FF00, 0xFFFFFFFF0FF00FF0, 0xF0F0F0F00F000F00},
      {Op_or, kI64, 0xFFFFFFFF00000000, 1, 0xFFFFFFFF00000001},
      {Op_xor, kI64, ALL, 0xFFFF, 0xFFFFFFFFFFFF0000}, {Op_shl, kI64, 1, 31, 0x80000000},
      {Op_shl, kI64, 1, 32, 0x100000000}, {Op_shl, kI64, 1, 63, I64MIN}, {Op_shl, kI64, 1, 64, 1},
      {Op_shl, kI64, 1, 65, 2}, {Op_shr_s, kI64, I64MIN, 63, ALL},
      {Op_shr_s, kI64, I64MIN, 64, I64MIN}, {Op_shr_s, kI64, I64MIN, 32, 0xFFFFFFFF80000000},
      {Op_shr_u, kI64, I64MIN, 63, 1}, {Op_shr_u, kI64, I64MIN, 64, I64MIN},
      {Op_shr_u, kI64, I64MIN, 33, 0x40000000}, {Op_rotl, kI64, 0x8000000000000001, 1, 3},
      {Op_rotl, kI64, 0x8000000000000001, 64, 0x8000000000000001},
      {Op_rotl, kI64, 0x8000000000000001, 65, 3},
      {Op_rotr, kI64, 0x8000000000000001, 1, 0xC000000000000000},
      {Op_rotr, kI64, 0x8000000000000001, 127, 3},
  };
}

TEST(InsnIntBinary, I32AndI64) { runRows(intBinaryRows()); }

TEST(InsnIntBinary, DivisionTrapsAndMinimumByMinusOne) {
  struct T {
    uint8_t op;
    uint32_t type;
    uint64_t b, c;
    const char* err;
  };
  const T rows[] = {
      {Op_div_s, kI32, 5, 0, "i32 divide by zero"},
      {Op_div_u, kI32, 5, 0x100000000, "i32 divide by zero"},
      {Op_rem_s, kI32, 0, 0, "i32 remainder by zero"},
      {Op_rem_u, kI32, 5, 0xFFFFFFFF00000000, "i32 remainder by zero"},
      {Op_div_s, kI64, 5, 0, "i64 divide by zero"}, {Op_div_u, kI64, 5, 0, "i64 divide by zero"},
      {Op_rem_s, kI64, 5, 0, "i64 remainder by zero"},
      {Op_rem_u, kI64, 0, 0, "i64 remainder by zero"},
      // Any result will do, but the run must go on.
      {Op_div_s, kI32, I32MIN, M32, ""}, {Op_rem_s, kI32, I32MIN, M32, ""},
      {Op_div_s, kI64, I64MIN, ALL, ""}, {Op_rem_s, kI64, I64MIN, ALL, ""},
  };
  for (const T& r : rows) {
    Eval e = eval({kMark, r.b, r.c}, {op(r.op, 0, 1, 2, r.type)});
    std::string want = *r.err ? std::string("zanb trap: ") + r.err : "";
    EXPECT_EQ(e.err, want) << opName(r.op) << "." << typeName(r.type) << " " << hex(r.b);
    EXPECT_EQ(e.rc, *r.err ? -1 : 0);
  }
}

std::vector<Row> floatBinaryRows() {
  std::vector<Row> rows = {
      {Op_add, kF32, F1, F2, F3},
      {Op_add, kF32, 0xFFFFFFFF00000000 | F1, 0x1234567800000000 | F2, F3},
      {Op_add, kF32, FINF, FNINF, kNaN32}, {Op_add, kF32, FNAN, F1, kNaN32},
      {Op_add, kF32, FNZ, FNZ, FNZ}, {Op_add, kF32, 0, FNZ, 0}, {Op_sub, kF32, F1, F2, FM1},
      {Op_mul, kF32, F2, F3, F6}, {Op_div_s, kF32, F1, F2, FH}, {Op_div_u, kF32, F1, 0, FINF},
      {Op_div_s, kF32, FM1, 0, FNINF}, {Op_div_u, kF32, F1, FNZ, FNINF},
      {Op_div_s, kF32, 0, 0, kNaN32}, {Op_add, kF64, D1, D2, D3}, {Op_sub, kF64, D1, D2, DM1},
      {Op_mul, kF64, D2, D3, D6}, {Op_div_s, kF64, D1, D2, DH}, {Op_div_s, kF64, D1, 0, DINF},
      {Op_div_u, kF64, DM1, 0, DNINF}, {Op_div_s, kF64, 0, 0, kNaN64},
      {Op_add, kF64, DNZ, DNZ, DNZ}, {Op_add, kF64, 0, DNZ, 0}, {Op_sub, kF64, DINF, DINF, kNaN64},
      {Op_add, T7, D1, D2, D3}, {Op_mul, 4, D2, D3, D6}, {Op_div_u, T15, D1, D2, DH},
  };
  // Every other binary opcode on a float type stores +0.0, never traps.
  for (uint8_t o = Op_rem_s; o <= Op_rotr; o++) {
    rows.push_back({o, kF32, F3, F2, 0});
    rows.push_back({o, kF32, F3, 0, 0});
    rows.push_back({o, kF64, D3, D2, 0});
    rows.push_back({o, T5, D3, 0, 0});
  }
  return rows;
}

TEST(InsnFloatBinary, F32AndF64) { runRows(floatBinaryRows()); }

std::vector<Row> unaryRows() {
  std::vector<Row> rows = {
      {Op_clz, kI32, 0, 0, 32}, {Op_clz, kI32, 1, 0, 31}, {Op_clz, kI32, I32MIN, 0, 0},
      {Op_clz, kI32, 0xFFFFFFFF00000001, 0, 31}, {Op_clz, kI64, 0, 0, 64}, {Op_clz, kI64, 1, 0, 63},
      {Op_clz, kI64, 0x100000000, 0, 31}, {Op_ctz, kI32, 0, 0, 32}, {Op_ctz, kI32, I32MIN, 0, 31},
      {Op_ctz, kI32, 0x100000000, 0, 32}, {Op_ctz, kI64, 0, 0, 64}, {Op_ctz, kI64, I64MIN, 0, 63},
      {Op_ctz, kI64, 0x100000000, 0, 32}, {Op_popcnt, kI32, ALL, 0, 32},
      {Op_popcnt, kI64, ALL, 0, 64}, {Op_popcnt, kI32, 0, 0, 0},
      {Op_popcnt, kI64, 0x8000000000000001, 0, 2},

      {Op_neg, kF32, F1, 0, FM1}, {Op_neg, kF32, 0, 0, FNZ}, {Op_neg, kF32, FNAN, 0, 0xFFC00000},
      {Op_neg, kF32, 0xFFFFFFFF00000000 | F1, 0, FM1}, {Op_abs, kF32, FM1, 0, F1},
      {Op_abs, kF32, 0xFFC00001, 0, 0x7FC00001}, {Op_abs, kF32, FNZ, 0, 0},
      {Op_abs, kF32, FNINF, 0, FINF}, {Op_ceil, kF32, 0x3FC00000, 0, F2},
      {Op_ceil, kF32, 0xBFC00000, 0, FM1}, {Op_ceil, kF32, 0xBF000000, 0, FNZ},
      {Op_floor, kF32, 0x3FC00000, 0, F1}, {Op_floor, kF32, 0xBFC00000, 0, 0xC0000000},
      {Op_trunc, kF32, 0xBFC00000, 0, FM1}, {Op_trunc, kF32, 0x3FC00000, 0, F1},
      {Op_nearest, kF32, 0x40200000, 0, F2}, {Op_nearest, kF32, 0x40600000, 0, 0x40800000},
      {Op_nearest, kF32, 0xBF000000, 0, FNZ}, {Op_nearest, kF32, 0x3FC00000, 0, F2},
      {Op_nearest, kF32, FH, 0, 0}, {Op_nearest, kF32, 0xC0200000, 0, 0xC0000000},
      {Op_sqrt, kF32, 0x40800000, 0, F2}, {Op_sqrt, kF32, FM1, 0, kNaN32},
      {Op_sqrt, kF32, FNZ, 0, FNZ}, {Op_sqrt, kF32, FINF, 0, FINF}, {Op_clz, kF32, F1, 0, F1},
      {Op_ctz, kF32, F3, 0, F3}, {Op_popcnt, kF32, 0xFFFFFFFF00000000 | F1, 0, F1},

      {Op_neg, kF64, D1, 0, DM1}, {Op_neg, kF64, 0, 0, DNZ},
      {Op_neg, kF64, DNAN, 0, 0xFFF8000000000000}, {Op_abs, kF64, DNINF, 0, DINF},
      {Op_abs, kF64, 0xFFF8000000000001, 0, 0x7FF8000000000001},
      {Op_ceil, kF64, 0xBFE0000000000000, 0, DNZ}, {Op_ceil, kF64, 0x3FF8000000000000, 0, D2},
      {Op_floor, kF64, 0x3FF8000000000000, 0, D1},
      {Op_floor, kF64, 0xBFF8000000000000, 0, 0xC000000000000000},
      {Op_trunc, kF64, 0xBFF8000000000000, 0, DM1}, {Op_nearest, kF64, 0x4004000000000000, 0, D2},
      {Op_nearest, kF64, 0x400C000000000000, 0, 0x4010000000000000},
      {Op_nearest, kF64, 0xC004000000000000, 0, 0xC000000000000000},
      {Op_sqrt, kF64, 0x4010000000000000, 0, D2}, {Op_sqrt, kF64, D2, 0, 0x3FF6A09E667F3BCD},
      {Op_sqrt, kF64, DM1, 0, kNaN64}, {Op_popcnt, kF64, D1, 0, D1}, {Op_clz, kF64, DNAN, 0, DNAN},
      {Op_abs, T9, DM1, 0, D1},
  };
  // No integer negation or rounding: the operand is copied.
  for (uint8_t o = Op_neg; o <= Op_sqrt; o++) {
    rows.push_back({o, kI32, 0xABCDEF0012345678, 0, 0x12345678});
    rows.push_back({o, kI32, M32, 0, M32});
    rows.push_back({o, kI64, 0xABCDEF0012345678, 0, 0xABCDEF0012345678});
    rows.push_back({o, kI64, I64MIN, 0, I64MIN});
  }
  return rows;
}

TEST(InsnUnary, IntegerAndFloat) { runRows(unaryRows()); }

std::vector<Row> compareRows() {
  return {
      {Op_eq, kI32, 5, 5, 1}, {Op_eq, kI32, 0xFFFFFFFF00000005, 5, 1},
      {Op_ne, kI32, 0xFFFFFFFF00000005, 5, 0}, {Op_ne, kI32, 1, 2, 1}, {Op_lt_s, kI32, M32, 0, 1},
      {Op_lt_u, kI32, M32, 0, 0}, {Op_gt_s, kI32, 0, M32, 1}, {Op_gt_u, kI32, 0, M32, 0},
      {Op_le_s, kI32, I32MIN, 0x7FFFFFFF, 1}, {Op_le_u, kI32, I32MIN, 0x7FFFFFFF, 0},
      {Op_ge_s, kI32, 5, 5, 1}, {Op_ge_u, kI32, I32MIN, 0x7FFFFFFF, 1},
      {Op_ge_s, kI32, I32MIN, 0x7FFFFFFF, 0}, {Op_le_u, kI32, 0x100000000, 0, 1},
      {Op_eq, kI64, 0xFFFFFFFF00000005, 5, 0}, {Op_ne, kI64, ALL, ALL, 0},
      {Op_lt_s, kI64, ALL, 0, 1}, {Op_lt_u, kI64, ALL, 0, 0}, {Op_lt_s, kI64, M32, 0, 0},
      {Op_gt_s, kI64, 0, ALL, 1}, {Op_gt_u, kI64, 0, ALL, 0}, {Op_le_s, kI64, I64MIN, ~I64MIN, 1},
      {Op_le_u, kI64, I64MIN, ~I64MIN, 0}, {Op_ge_u, kI64, I64MIN, ~I64MIN, 1},
      {Op_ge_s, kI64, I64MIN, ~I64MIN, 0}, {Op_lt_s, kF32, F1, F2, 1}, {Op_lt_u, kF32, FM1, F1, 1},
      {Op_gt_u, kF32, F1, FM1, 1}, {Op_gt_s, kF32, FM1, F1, 0}, {Op_le_u, kF32, FNINF, FM1, 1},
      {Op_ge_u, kF32, FM1, FNINF, 1}, {Op_eq, kF32, 0, FNZ, 1}, {Op_eq, kF32, FNAN, FNAN, 0},
      {Op_ne, kF32, FNAN, FNAN, 1}, {Op_ne, kF32, F1, F1, 0}, {Op_lt_s, kF32, FNAN, F1, 0},
      {Op_gt_u, kF32, FNAN, F1, 0}, {Op_le_s, kF32, FNAN, FNAN, 0}, {Op_ge_u, kF32, F1, FNAN, 0},
      {Op_eq, kF32, 0xFFFFFFFF00000000 | F1, F1, 1}, {Op_lt_s, kF64, DM1, D1, 1},
      {Op_lt_u, kF64, DM1, D1, 1}, {Op_le_u, kF64, D2, D2, 1}, {Op_ge_s, kF64, DNINF, DNAN, 0},
      {Op_ne, kF64, DNAN, D1, 1}, {Op_eq, kF64, DNZ, 0, 1},
      {Op_gt_u, kF64, DINF, 0x7FEFFFFFFFFFFFFF, 1}, {Op_gt_s, kF64, DNAN, DNINF, 0},
      {Op_ge_u, kF64, 0, DNZ, 1}, {Op_lt_u, T5, DM1, D1, 1},
  };
}

TEST(InsnCompare, IntegerAndFloat) { runRows(compareRows()); }

// Every row again, followed by jz or jnz on its result, which tests the low
// 32 bits; slot 3 must still hold the result afterwards. pc 0..3 load the
// slots.
TEST(InsnBranch, AfterEveryFamily) {
  std::vector<Row> rows = intBinaryRows();
  for (auto more : {floatBinaryRows(), unaryRows(), compareRows()})
    rows.insert(rows.end(), more.begin(), more.end());
  for (const Row& r : rows) {
    if (r.want == kNaN32 || r.want == kNaN64) continue;
    for (uint8_t br : {Op_jz, Op_jnz}) {
      Eval e = eval({kMark, r.b, r.c, kMark},
                    {op(r.op, 3, 1, 2, r.type), op(br, 8, 3), konst(0, 1), op(Op_jmp, 9),
                     konst(0, 2), konst(5, 0x100), op(Op_store, 5, 3, 0, kI64)},
                    {}, {}, 0x100, 8);
      std::string what = std::string(opName(r.op)) + "." + typeName(r.type) + " " + hex(r.b) +
                         ", " + hex(r.c) + " then " + opName(br);
      bool taken = (br == Op_jz) == (uint32_t(r.want) == 0);
      EXPECT_EQ(e.value, taken ? 2u : 1u) << what << e.err;
      EXPECT_EQ(hex(le64(e.mem)), hex(r.want)) << what;
    }
  }
  // The branch tests another slot than the compare wrote.
  EXPECT_EQ(eval({kMark, 1, 2, 0, 0}, {op(Op_lt_s, 3, 1, 2), op(Op_jz, 8, 4), konst(0, 1)}).value,
            kMark);
  EXPECT_EQ(eval({kMark, 1, 2, 0, 0}, {op(Op_lt_s, 4, 1, 2), op(Op_jz, 8, 3), konst(0, 1)}).value,
            kMark);
  // A jump straight onto the branch skips the compare: slot 3 stays 0.
  EXPECT_EQ(
      eval({kMark, 1, 2, 0}, {op(Op_jmp, 6), op(Op_lt_s, 3, 1, 2), op(Op_jz, 8, 3), konst(0, 1)})
          .value,
      kMark);
  EXPECT_EQ(
      eval({kMark, 1, 2, 0}, {op(Op_jmp, 6), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 8, 3), konst(0, 1)})
          .value,
      1u);
}

// add, compare, branch as a loop step would have them: slot 0 = slot 1 +
// slot 4 (= 1), where slot 1 is the compare row's left operand less one,
// then the compare into slot 3 and jz/jnz on it. pc 0..4 load the slots.
TEST(InsnBranch, AfterAnAddAndACompare) {
  for (const Row& r : compareRows()) {
    for (uint32_t addType : {kI64, kI32}) {
      if (addType == kI32 && r.type != kI32 && r.type != kF32)
        continue;  // the sum's high half is cleared
      for (uint8_t br : {Op_jz, Op_jnz}) {
        Eval e = eval({kMark, r.b - 1, r.c, kMark, 1},
                      {op(Op_add, 0, 1, 4, addType), op(r.op, 3, 0, 2, r.type), op(br, 10, 3),
                       konst(6, 1), op(Op_jmp, 11), konst(6, 2), konst(5, 0x100),
                       op(Op_store, 5, 3, 0, kI64), op(Op_store, 5, 6, 8, kI64)},
                      {}, {}, 0x100, 16);
        std::string what = std::string("add.") + typeName(addType) + " then " + opName(r.op) + "." +
                           typeName(r.type) + " " + hex(r.b) + ", " + hex(r.c) + " then " +
                           opName(br);
        bool taken = (br == Op_jz) == (r.want == 0);
        EXPECT_EQ(hex(e.value), hex(addType == kI32 ? uint32_t(r.b) : r.b)) << what << e.err;
        EXPECT_EQ(le64(e.mem), r.want) << what;
        EXPECT_EQ(le64(e.mem, 8), taken ? 2u : 1u) << what;
      }
    }
  }
}

TEST(InsnConvert, EveryKind) {
  struct C {
    uint32_t kind;
    uint64_t src, want;
  };
  const C rows[] = {
      {0, 0x123456789ABCDEF0, 0x9ABCDEF0}, {1, I32MIN, 0xFFFFFFFF80000000},
      {1, 0xFFFFFFFF7FFFFFFF, 0x7FFFFFFF}, {2, 0xFFFFFFFF80000000, I32MIN},
      {3, 0x12345678FFFFFFFF, FM1}, {4, M32, 0x4F800000}, {5, ALL, FM1}, {5, I64MIN, 0xDF000000},
      {6, ALL, 0x5F800000},
      // Rounded once, straight to f32: through f64 the low 1 would be lost
      // and the tie would round down.
      {5, 0x4000004000000001, 0x5E800001}, {6, 0x8000008000000001, 0x5F000001},
      {10, 0x8000000000000401, 0x43E0000000000001}, {9, 0x7FFFFFFFFFFFFFFF, 0x43E0000000000000},
      {7, I32MIN, 0xC1E0000000000000}, {8, M32, 0x41EFFFFFFFE00000},
      {9, I64MIN, 0xC3E0000000000000}, {10, ALL, 0x43F0000000000000}, {11, D1, F1}, {11, DNZ, FNZ},
      {11, 0x7E37E43C8800759C, FINF}, {11, 0x3FF0000010000000, F1},
      {11, 0x3FF0000030000000, 0x3F800002}, {12, F1, D1}, {12, 0xFFFFFFFF00000000 | F2, D2},
      // i32.trunc_*_s: out of range and NaN give the minimum.
      {13, 0xBFC00000, M32}, {13, FNAN, I32MIN}, {13, 0x4F32D05E, I32MIN}, {13, 0xCF32D05E, I32MIN},
      {13, 0x4F000000, I32MIN}, {13, 0xCF000000, I32MIN}, {13, 0x4EFFFFFF, 0x7FFFFF80},
      {13, FINF, I32MIN}, {15, 0xBFF8000000000000, M32}, {15, 0x41DFFFFFFFF9999A, 0x7FFFFFFF},
      {15, 0x41E0000000000000, I32MIN}, {15, 0xC1DFFFFFFFE00000, 0x80000001},
      {15, 0xC1E0000000200000, I32MIN}, {15, DNAN, I32MIN}, {15, DINF, I32MIN},
      // i32.trunc_*_u: through a signed 64-bit truncation, low half kept.
      {14, 0xBFC00000, M32}, {14, 0x4F800000, 0}, {14, 0x4F32D05E, 0xB2D05E00}, {14, FNAN, 0},
      {14, 0x5F000000, 0}, {14, 0xDF000000, 0}, {14, FINF, 0}, {16, 0xBFF8000000000000, M32},
      {16, DNAN, 0}, {16, 0x41EFFFFFFFE00000, M32}, {16, 0x41F0000000000000, 0},
      {16, 0x43E0000000000000, 0}, {16, 0xC3E0000000000000, 0}, {16, DNINF, 0},
      {16, 0x43E158E460913D00, 0}, {17, 0xBFC00000, ALL}, {17, FNAN, I64MIN},
      {17, 0x5F000000, I64MIN}, {17, FINF, I64MIN}, {17, 0xDF000000, I64MIN},
      {17, 0x4F32D05E, 3000000000}, {19, 0xBFF8000000000000, ALL},
      {19, 0x43DFFFFFFFFFFFFF, 0x7FFFFFFFFFFFFC00}, {19, 0x43E0000000000000, I64MIN},
      {19, DNAN, I64MIN}, {19, DNINF, I64MIN},
      // i64.trunc_*_u: 2^63 and above go through subtract-and-flip.
      {18, 0x5F000000, I64MIN}, {18, 0x5F800000, 0}, {18, 0x3FC00000, 1}, {18, 0xBFC00000, ALL},
      {18, FNAN, I64MIN}, {18, FINF, 0}, {18, 0x5F7FFFFF, 0xFFFFFF0000000000},
      {20, 0x43E0000000000000, I64MIN}, {20, 0x43EFFFFFFFFFFFFF, 0xFFFFFFFFFFFFF800},
      {20, 0x43F0000000000000, 0}, {20, DNAN, I64MIN}, {20, 0xBFF8000000000000, ALL},
      {20, 0x7E37E43C8800759C, 0}, {21, 0x80, 0xFFFFFF80}, {21, 0x7F, 0x7F},
      {21, 0x1234567880, 0xFFFFFF80}, {22, 0x8000, 0xFFFF8000}, {22, 0xFFFFFFFF00007FFF, 0x7FFF},
      {23, 0x80, 0xFFFFFFFFFFFFFF80}, {23, 0x17F, 0x7F}, {24, 0xFFFF, ALL}, {24, 0x7FFF, 0x7FFF},
      {25, I32MIN, 0xFFFFFFFF80000000}, {25, 0xFFFFFFFF7FFFFFFF, 0x7FFFFFFF},
  };
  for (const C& r : rows) {
    Eval e = eval({kMark, r.src}, {op(Op_convert, 0, 1, r.kind)});
    std::string what = std::string(convName(r.kind)) + " " + hex(r.src);
    EXPECT_EQ(e.rc, 0) << what << ": " << e.err;
    expectBits(e.value, r.want, what);
  }
}

TEST(InsnMove, MovesConstSelectAndBranches) {
  const uint64_t v = 0xFFFFFFFF12345678;
  runRows({
      {Op_mov, kI32, v, 0, v}, {Op_getl, kF32, v, 0, v}, {Op_setl, kI32, v, 0, v},
      {Op_reinterpret, kF32, v, 0, v}, {Op_reinterpret, kI32, v, 0, v},
      // select keeps slot 0 unless the low half of the condition is zero.
      {Op_select, kI32, 1, v, kMark}, {Op_select, kI32, I32MIN, v, kMark},
      {Op_select, kI32, 0, v, v}, {Op_select, kI32, 0x100000000, v, v},
  });
  EXPECT_EQ(eval({}, {op(Op_const, 0, 0x12345678, 0x9ABCDEF0, kI32)}).value, 0x9ABCDEF012345678u);
  EXPECT_EQ(eval({}, {op(Op_const, 0, 0, 0xFFFFFFFF, kF32)}).value, 0xFFFFFFFF00000000u);
  // pc 0..1 load the slots, pc 2 branches over pc 3 to pc 4.
  struct B {
    uint8_t op;
    uint64_t cond, want;
  };
  for (B r : {B{Op_jz, 0, 0}, B{Op_jz, 0x100000000, 0}, B{Op_jz, 1, 1}, B{Op_jz, I32MIN, 1},
              B{Op_jnz, 0, 1}, B{Op_jnz, 0x100000000, 1}, B{Op_jnz, 2, 0}}) {
    EXPECT_EQ(eval({0, r.cond}, {op(r.op, 4, 1), konst(0, 1)}).value, r.want)
        << opName(r.op) << " " << hex(r.cond);
  }
  EXPECT_EQ(eval({7}, {op(Op_jmp, 3), konst(0, 1)}).value, 7u);
}

TEST(InsnMemory, LoadsAndStores) {
  Prog p;
  p.seg(0, "\x5A");
  p.seg(0x100, std::string("\x80\x81\x82\x83\x84\x85\x86\x7F", 8));
  struct L {
    uint8_t op;
    uint32_t type;
    uint64_t base;
    uint32_t off;
    uint64_t want;
    std::string err;
  };
  const L rows[] = {
      {Op_load, kI32, 0x100, 0, 0x83828180, ""}, {Op_load, kI64, 0x100, 0, 0x7F86858483828180, ""},
      {Op_load, kF32, 0x100, 0, 0x83828180, ""}, {Op_load, kF64, 0x100, 0, 0x7F86858483828180, ""},
      {Op_load, 6, 0x100, 0, 0x7F86858483828180, ""}, {Op_load, kI32, 0x100, 4, 0x7F868584, ""},
      {Op_load8_s, kI32, 0x100, 0, 0xFFFFFFFFFFFFFF80, ""},
      {Op_load8_s, kF32, 0x100, 0, 0xFFFFFFFFFFFFFF80, ""}, {Op_load8_s, kI32, 0x107, 0, 0x7F, ""},
      {Op_load8_u, kI64, 0x100, 0, 0x80, ""}, {Op_load16_s, kI32, 0x100, 0, 0xFFFFFFFFFFFF8180, ""},
      {Op_load16_u, kI32, 0x100, 0, 0x8180, ""},
      {Op_load32_s, kI32, 0x100, 0, 0xFFFFFFFF83828180, ""},
      {Op_load32_u, kI64, 0x100, 0, 0x83828180, ""},
      // The address is base (low half) + offset in 32 bits.
      {Op_load8_u, kI32, M32, 1, 0x5A, ""}, {Op_load8_u, kI32, 0xFFFFFFFF00000100, 0, 0x80, ""},
      {Op_load8_u, kI32, 0xFFFFFFF0, 0x110, 0x80, ""}, {Op_load8_u, kI32, 0x80, 0x80, 0x80, ""},
      {Op_load, kI32, 131068, 0, 0, ""}, {Op_load, kI64, 131064, 0, 0, ""},
      {Op_load8_u, kI32, 131071, 0, 0, ""}, {Op_load, kI32, 131069, 0, 0, fault(131069, 4)},
      {Op_load, kI64, 131060, 8, 0, fault(131068, 8)},
      {Op_load8_u, kI32, 131072, 0, 0, fault(131072, 1)},
      {Op_load16_s, kI32, M32, 0, 0, fault(4294967295, 2)},
  };
  for (const L& r : rows) {
    std::string what = std::string(opName(r.op)) + " " + hex(r.base) + "+" + std::to_string(r.off);
    Eval e = eval({kMark, r.base}, {op(r.op, 0, 1, r.off, r.type)}, p);
    EXPECT_EQ(e.err, r.err) << what;
    if (r.err.empty()) {
      EXPECT_EQ(hex(e.value), hex(r.want)) << what;
    }
  }

  // Stores over eight 0xEE bytes at 0x10, read back as one i64.
  Prog q;
  q.seg(0x10, std::string(8, '\xEE'));
  const uint64_t val = 0x1122334455667788;
  const L srows[] = {
      {Op_store, kI32, 0x10, 0, 0xEEEEEEEE55667788, ""},
      {Op_store, kF32, 0x10, 0, 0xEEEEEEEE55667788, ""}, {Op_store, kI64, 0x10, 0, val, ""},
      {Op_store, kF64, 0x10, 0, val, ""}, {Op_store, T5, 0x10, 0, val, ""},
      {Op_store8, kI64, 0x10, 0, 0xEEEEEEEEEEEEEE88, ""},
      {Op_store16, kI32, 0x10, 0, 0xEEEEEEEEEEEE7788, ""},
      {Op_store32, kF64, 0x10, 0, 0xEEEEEEEE55667788, ""},
      {Op_store8, kI32, M32, 0x11, 0xEEEEEEEEEEEEEE88, ""},
      {Op_store16, kI32, 0xABCD000000000008, 8, 0xEEEEEEEEEEEE7788, ""},
      {Op_store, kI64, 131064, 0, 0xEEEEEEEEEEEEEEEE, ""},
      {Op_store, kI32, 131069, 0, 0, fault(131069, 4)},
      {Op_store8, kI32, 131072, 0, 0, fault(131072, 1)},
      {Op_store, kI64, 131000, 65, 0, fault(131065, 8)},
  };
  for (const L& r : srows) {
    std::string what = std::string(opName(r.op)) + " " + hex(r.base) + "+" + std::to_string(r.off);
    Eval e = eval({kMark, r.base, val, 0x10},
                  {op(r.op, 1, 2, r.off, r.type), op(Op_load, 0, 3, 0, kI64)}, q);
    EXPECT_EQ(e.err, r.err) << what;
    if (r.err.empty()) {
      EXPECT_EQ(hex(e.value), hex(r.want)) << what;
    }
  }
}

TEST(InsnMemory, MemGrow) {
  struct G {
    uint64_t minPages, maxPages, memLimit, delta, want, pagesAfter;
  };
  const uint64_t k4G = 0x100000000;
  const G rows[] = {
      {0, 0, k4G, 1, 2, 3}, {0, 0, k4G, 0, 2, 2}, {0, 3, k4G, 1, 2, 3}, {0, 3, k4G, 2, ALL, 2},
      {0, 2, k4G, 0, 2, 2}, {0, 0, 196608, 1, 2, 3}, {0, 0, 196607, 1, ALL, 2},
      {0, 0, k4G, M32, ALL, 2}, {0, 0, k4G, 0x100000001, 2, 3}, {1, 0, k4G, 2, 1, 3},
      {0, 1, k4G, 0, ALL, 2}, {0, 0, 131072, 0, 2, 2},
  };
  for (const G& r : rows) {
    Prog p;
    p.header.memMinPages = r.minPages;
    p.header.memMaxPages = r.maxPages;
    VmConfig cfg;
    cfg.memLimit = r.memLimit;
    Eval e = eval(
        {kMark, r.delta},
        {op(Op_mem_grow, 0, 1), op(Op_mem_size, 2), konst(3, 0x100), op(Op_store, 3, 2, 0, kI64)},
        p, cfg, 0x100, 8);
    std::string what = "max " + std::to_string(r.maxPages) + " limit " +
                       std::to_string(r.memLimit) + " delta " + hex(r.delta);
    EXPECT_EQ(e.rc, 0) << what << ": " << e.err;
    EXPECT_EQ(hex(e.value), hex(r.want)) << what;
    EXPECT_EQ(le64(e.mem), r.pagesAfter) << what;
  }

  // A segment left 70000 bytes; growing by 0 cuts that to one page.
  Prog t;
  t.header.memMinPages = 1;
  t.seg(69999, "Z");
  Eval e = eval({kMark, 69999}, {op(Op_load8_u, 0, 1), op(Op_mem_grow, 2, 3)}, t);
  EXPECT_EQ(e.value, 'Z');
  e = eval({kMark, 69999}, {op(Op_mem_grow, 2, 3), op(Op_load8_u, 0, 1)}, t);
  EXPECT_EQ(e.err, fault(69999, 1, 65536));
  e = eval({kMark, 65535}, {op(Op_mem_grow, 0, 3), op(Op_load8_u, 2, 1)}, t);
  EXPECT_EQ(e.value, 1u);
  EXPECT_EQ(e.err, "");
}

// mem_copy, mem_fill and mem_init over "abcdefgh" at 0x100; slot 0 ends up
// as those 8 bytes.
TEST(InsnMemory, BulkOperations) {
  Prog p;
  p.seg(0x100, "abcdefgh");
  p.seg(0x200, "WXYZ");
  auto bytes = [](const char* s) { uint64_t v = 0; std::memcpy(&v, s, 8); return v; };
  struct R {
    uint8_t op;
    uint64_t a, b, c;
    const char* want;
    std::string err;
  };
  const R rows[] = {
      {Op_mem_copy, 0x102, 0x100, 6, "ababcdef", ""},
      {Op_mem_copy, 0x100, 0x102, 6, "cdefghgh", ""},
      {Op_mem_copy, 0x100, 0x100, 8, "abcdefgh", ""},
      {Op_mem_copy, 0x100, 0x104, 0x100000002, "efcdefgh", ""},
      {Op_mem_copy, 0xFFFFFFF0, 0xFFFFFFF0, 0, "abcdefgh", ""},
      {Op_mem_copy, 131070, 0x100, 4, "", fault(131070, 4)},
      {Op_mem_copy, 0x100, 131071, 4, "", fault(131071, 4)},
      {Op_mem_copy, 131070, 131071, 4, "", fault(131071, 4)},
      {Op_mem_fill, 0x101, 0x1FF, 3, "a\xFF\xFF\xFF" "efgh", ""},
      {Op_mem_fill, 0x100, 0x41, 0x100000001, "Abcdefgh", ""},
      {Op_mem_fill, 0xFFFFFFF0, 0x41, 0, "abcdefgh", ""},
      {Op_mem_fill, 131070, 0, 3, "", fault(131070, 3)},
  };
  for (const R& r : rows) {
    std::string what = std::string(opName(r.op)) + " " + hex(r.a) + " " + hex(r.b) + " " + hex(r.c);
    Eval e =
        eval({kMark, r.a, r.b, r.c, 0x100}, {op(r.op, 1, 2, 3), op(Op_load, 0, 4, 0, kI64)}, p);
    EXPECT_EQ(e.err, r.err) << what;
    if (r.err.empty()) {
      EXPECT_EQ(hex(e.value), hex(bytes(r.want))) << what;
    }
  }

  // mem_init a=5 (destination) b=4 (offset) c=index, where slot `index`
  // also holds the count; the result is read from 0x300.
  struct I {
    uint32_t index;
    uint64_t count, off, dst;
    uint64_t want;
    std::string err;
  };
  const I irows[] = {
      {1, 3, 1, 0x300, 0x5A5958, ""}, {1, 4, 0, 0x300, 0x5A595857, ""},
      {0, 8, 0, 0x300, bytes("abcdefgh"), ""}, {1, 0, 99, 0x300, 0, ""},
      {1, 0x100000002, 2, 0x300, 0x5A59, ""},
      {1, 3, 2, 0x300, 0, "zanb trap: data segment out of bounds"},
      {1, 1, 0xFFFFFFFF, 0x300, 0, "zanb trap: data segment out of bounds"},
      {2, 0, 0, 0x300, 0, "zanb trap: data segment index"},
      {3, 1, 0, 0x300, 0, "zanb trap: data segment index"}, {1, 4, 0, 131070, 0, fault(131070, 4)},
  };
  for (const I& r : irows) {
    std::vector<uint64_t> init = {kMark, 0, 0, 0, r.off, r.dst, 0x300};
    init[r.index] = r.count;
    Eval e = eval(init, {op(Op_mem_init, 5, 4, r.index), op(Op_load, 0, 6, 0, kI64)}, p);
    std::string what =
        "mem_init seg " + std::to_string(r.index) + " count " + hex(r.count) + " off " + hex(r.off);
    EXPECT_EQ(e.err, r.err) << what;
    if (r.err.empty()) {
      EXPECT_EQ(hex(e.value), hex(r.want)) << what;
    }
  }
}

}  // namespace
