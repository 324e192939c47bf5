// The machine core (loading, starting, call and return, the step limit, lazy slot validation and every trap
// text), then what each instruction computes, one table per family. Every table row runs `op a=0 b=1 c=2` on
// slots loaded with bit patterns; slot 0 starts as kMark so a result that leaves high bits behind shows.
// Expected values are bit patterns worked out from IEEE 754 and two's complement by hand.
#include <gtest/gtest.h>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;

// main (pc 0..7) calls function 1 with 20, 22 and a 99 behind them that must
// not be copied, then exits with the result + 7. Function 2 follows function 1
// in the code: a body ending inside an add, compare, branch run must not reach it.
TEST(ZanbVm, CallResultsReachTheCallersSlot) {
  struct R { const char* what; uint32_t params, slots; std::vector<Insn> body, next; int want; };
  const Insn one = konst(1, 1), five = konst(2, 5), lt = op(Op_lt_s, 3, 1, 2), trap = op(Op_trap, 1);
  const R rows[] = {
      {"ret slot", 2, 4, {op(Op_add, 3, 0, 1), op(Op_add, 3, 3, 2), op(Op_ret, 3)}, {}, 49},
      {"falls off the end", 0, 1, {konst(0, 5)}, {}, 7},
      {"ret none", 0, 1, {konst(0, 5), op(Op_ret, 0xFFFFFFFF), op(Op_ret, 0)}, {}, 7},
      {"jmp far beyond the end", 0, 1, {konst(0, 5), op(Op_jmp, 1000), op(Op_ret, 0)}, {}, 7},
      {"jmp to the end", 0, 1, {konst(0, 5), op(Op_jmp, 11), op(Op_ret, 0)}, {}, 7}, {"empty", 0, 0, {}, {}, 7},
      {"ends in add", 0, 4, {one, five, op(Op_add, 0, 1, 2)}, {lt, op(Op_jnz, 13, 3), trap}, 7},
      {"ends in compare", 0, 4, {one, five, lt}, {op(Op_jnz, 12, 3), trap}, 7},
      {"branch far past the end", 0, 4, {one, five, lt, op(Op_jnz, 1000, 3), op(Op_trap, 2)}, {trap}, 7},
      {"branch to the end", 0, 4, {one, five, lt, op(Op_jnz, 13, 3), op(Op_trap, 2)}, {trap}, 7},
      {"counted step at the end", 0, 4, {one, five, op(Op_add, 1, 1, 1), lt, op(Op_jnz, 500, 3)}, {trap}, 7},
  };
  for (const R& r : rows) {
    Prog p;
    p.fn(10, {konst(4, 20), konst(5, 22), konst(6, 99), konst(0, 77), call(0, 1, 4), konst(1, 7),
              op(Op_add, 0, 0, 1), exitWith(0)});
    p.fn(r.slots, r.body, r.params);
    p.fn(4, r.next);
    Result res = run(p);
    EXPECT_EQ(res.rc, r.want) << r.what << ": " << res.err;
  }
}

TEST(ZanbVm, EntryAndLoadFailures) {
  const char* lim = "zanb: initial memory exceeds the configured limit";
  const char* range = "zanb: entry function out of range";
  const char* cap = "zanb: data segment extends memory beyond what can be allocated";
  const char* segLim = "zanb: data segment extends memory beyond the configured limit";
  const uint64_t k4G = 0x100000000;
  struct Row { const char* what; uint32_t funcs, slots, entry; uint64_t minPages, memLimit, segAt; const char* err; };
  const Row rows[] = {
      {"empty entry", 1, 0, 0, 0, k4G, 0, ""}, {"no funcs", 0, 0, 0, 0, k4G, 0, "zanb: module has no functions"},
      {"entry out of range", 1, 0, 1, 0, k4G, 0, range}, {"entry max", 1, 0, 0xFFFFFFFF, 0, k4G, 0, range},
      {"entry frame too big", 1, 0xFFFFFFFF, 0, 0, k4G, 0, "zanb trap: call stack exhausted"},
      {"limit below the initial memory", 1, 0, 0, 0, 131071, 0, lim}, {"limit equal", 1, 0, 0, 0, 131072, 0, ""},
      {"limit below explicit pages", 1, 0, 0, 3, 196607, 0, lim},
      {"pages past the default limit", 1, 0, 0, 65537, k4G, 0, lim},
      {"pages * 65536 wrapping to 0", 1, 0, 0, 1ull << 48, k4G, 0, lim},
      {"segment up to the limit", 1, 0, 0, 0, 196608, 196606, ""},
      {"segment past the limit", 1, 0, 0, 0, 196607, 196606, segLim},
      {"segment at 8 GiB, 1 MiB limit", 1, 0, 0, 0, 1 << 20, 8ull << 30, segLim},
      {"segment end past 2^64", 1, 0, 0, 0, k4G, ~0ull, cap},
      {"segment past 16 GiB, no limit", 1, 0, 0, 0, ~0ull, (1ull << 34) - 1, cap}};
  for (const Row& r : rows) {
    Prog p;
    p.header.entry = r.entry;
    p.header.memMinPages = r.minPages;
    if (r.funcs) p.fn(r.slots, {});
    if (r.segAt) p.seg(r.segAt, "xy");
    VmConfig cfg;
    cfg.memLimit = r.memLimit;
    Result res = run(p, cfg);
    EXPECT_EQ(res.err, r.err) << r.what;
    EXPECT_EQ(res.rc, *r.err ? -1 : 0) << r.what;
  }
  std::vector<uint8_t> junk(64, 0);
  std::string err;
  EXPECT_EQ(runModule(junk.data(), junk.size(), VmConfig{}, err), -1);
  EXPECT_EQ(err, "zanb: bad magic");
}

// Every instruction run counts, the callee's too, and a compare and its branch count as two; the return at a
// function's end is none. The instruction past the limit does not run: `write` prints only at 4.
TEST(ZanbVm, StepLimitCountsEveryInstruction) {
  Prog nops, callee, loop, write;
  nops.fn(1, std::vector<Insn>(5, op(Op_nop)));
  callee.fn(1, {call(0, 1, 0)});
  callee.fn(1, {op(Op_nop), op(Op_nop)});
  // 2 setup + 5 rounds of add, lt_s, jnz + exit = 18 instructions.
  loop.fn(8, {konst(2, 5), konst(4, 1), op(Op_add, 1, 1, 4), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 2, 3), exitWith(1)});
  write.seg(0x10, "x");
  write.fn(4, {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1)});
  struct R { const Prog& p; uint32_t limit; int rc; };
  const R rows[] = {{nops, 5, 0},   {nops, 4, -1}, {nops, 0, 0},   {callee, 3, 0}, {callee, 2, -1},
                    {loop, 18, 5},  {loop, 17, -1}, {write, 4, 0}, {write, 3, -1}};
  for (const R& r : rows) {
    VmConfig cfg;
    cfg.stepLimit = r.limit;
    Result res = run(r.p, cfg);
    EXPECT_EQ(res.rc, r.rc) << r.limit;
    EXPECT_EQ(res.err, r.rc < 0 ? "zanb trap: step limit reached" : "") << r.limit;
    EXPECT_EQ(res.out, &r.p == &write && r.rc == 0 ? "x" : "") << r.limit;
  }
}

// main is [call f1] at pc 0, so the function under test starts at pc 1. Function 2 is empty with
// 3 params, 3 empty with none, 4 empty with 2^32 - 1 params, and 5 empty with 2^32 - 1 slots. Two
// globals, one data segment. An empty err: the function runs to its end.
TEST(ZanbVm, TrapTextsAndSlotValidation) {
  auto bad = [](uint32_t pc, const Insn& i, uint32_t n) {
    return "slot out of range: pc " + std::to_string(pc) + " op " + std::to_string(i.op()) +
           " a=" + std::to_string(i.a) + " b=" + std::to_string(i.b) + " c=" + std::to_string(i.c) +
           " frameSlots=" + std::to_string(n);
  };
  const std::string slot = "slot";  // the last instruction names a slot outside the frame
  struct TrapRow { uint32_t slots; std::vector<Insn> body; std::string err; };
  const TrapRow rows[] = {
      {3, {op(Op_nop), op(Op_min)}, "unknown opcode 42 at pc 2"},
      {3, {op(Op_copysign, 0, 0, 0, kF64)}, "unknown opcode 44 at pc 1"},
      {3, {op(Op_nop), op(Op_nop), op(255)}, "unknown opcode 255 at pc 3"},
      {8, {op(Op_trap, 7)}, "explicit trap 7"},
      {3, {op(Op_calli, 0, 1, 2)}, "indirect calls are not implemented yet"},
      {3, {op(Op_nop), op(Op_jmp, 0)}, "jump leaves function f1 backwards"},
      {3, {op(Op_getg, 0, 2)}, "global index"}, {3, {op(Op_setg, 2, 0)}, "global index"},
      {3, {op(Op_getg, 0, 1)}, ""}, {27, {op(Op_convert, 0, 1, 26)}, "convert kind"},
      {3, {op(Op_mem_init, 0, 0, 1)}, "data segment index"}, {3, {call(0, 6, 0)}, "call index"},
      {4, {call(0, 2, 2)}, "call argument base out of frame"}, {4, {call(0, 2, 1)}, ""},
      // c + params in full width: 2^32 - 1 params must not wrap the check.
      {4, {call(0, 4, 1)}, "call argument base out of frame"}, {1, {call(0, 5, 0)}, "call stack exhausted"},
      // Arguments must end in the frame; a call taking none may sit at its last slot.
      {3, {sys(4, 0, 2)}, ""}, {3, {sys(1, 0, 1)}, "syscall args out of frame"},
      {3, {sys(1, 0, 0)}, ""}, {31, {sys(24, 0, 2)}, "syscall args out of frame"},
      {3, {sys(8, 0, 0)}, "unknown syscall 8"}, {3, {sys(56, 0, 0)}, "unknown syscall 56"},
      {3, {sys(116, 0, 0)}, "unknown syscall 116"}, {3, {sys(0xFFFFFFFF, 0, 0)}, "unknown syscall 4294967295"},
      // Each function is checked whole before it first runs: a, b and c must name slots of the
      // frame, except where the opcode gives them another meaning.
      {7, {op(Op_trap, 7)}, slot}, {7, {op(Op_convert, 0, 1, 7)}, slot},  // a trap code or a kind counts
      {0, {op(Op_nop)}, slot}, {9, {op(Op_trap, 3), op(Op_trap, 9)}, slot},  // before anything runs
      {2, {op(Op_nop), op(Op_add, 5), op(Op_or, 6)}, bad(2, op(Op_add, 5), 2)},  // first wins
      {1, {op(Op_jmp, 500, 7, 7)}, ""}, {0, {op(Op_ret, 0xFFFFFFFF, 3, 3)}, ""}, {1, {op(Op_ret, 0x80000000)}, slot},
      {1, {op(Op_const, 0, 99, 99)}, ""}, {1, {op(Op_getg, 0, 1, 9)}, ""}, {1, {op(Op_jz, 900, 0, 9)}, ""},
      {1, {op(Op_jnz, 0, 1)}, slot}, {1, {op(Op_setg, 1, 0)}, slot}, {2, {op(Op_load, 0, 1, 70000, kI64)}, ""},
      {2, {op(Op_load8_u, 0, 2)}, slot}, {2, {op(Op_store16, 2, 0)}, slot}, {2, {call(0, 3, 1)}, ""},
      {2, {call(0, 3, 2)}, slot}, {2, {sys(112, 1, 0)}, ""}, {2, {sys(112, 2, 0)}, slot},
      {3, {op(Op_mem_init, 0, 1, 3)}, slot}, {4, {op(Op_mov, 0, 1, 4)}, slot},
      {4, {op(72, 0, 0, 4)}, slot},  // an unknown opcode too
  };
  for (size_t i = 0; i < std::size(rows); i++) {
    const TrapRow& r = rows[i];
    Prog p;
    p.globals = {Global{{}, 40}, Global{{}, 41}};
    p.seg(0, "hi");
    p.fn(1, {call(0, 1, 0)});
    p.fn(r.slots, r.body);
    p.fn(3, {}, 3);
    p.fn(0, {});
    p.fn(4, {}, 0xFFFFFFFF);
    p.fn(0xFFFFFFFF, {});
    Result res = run(p);
    const std::string err = r.err == slot ? bad(uint32_t(r.body.size()), r.body.back(), r.slots) : r.err;
    const std::string what = "row " + std::to_string(i) + ", " + opName(r.body.back().op());
    EXPECT_EQ(res.err, err.empty() ? "" : "zanb trap: " + err) << what;
    EXPECT_EQ(res.rc, err.empty() ? 0 : -1) << what;
  }
}

TEST(ZanbVm, Globals) {
  Prog k;
  k.globals = {Global{{9, 9, 9, 9, 9, 9, 9, 9}, 0x1122334455667788ull}, Global{{}, 7}};
  EXPECT_EQ(eval({}, {op(Op_getg, 0, 0)}, k).value, 0x1122334455667788ull);
  EXPECT_EQ(eval({0, 0xFFFFFFFF00000ABCull}, {op(Op_setg, 1, 1), op(Op_getg, 0, 1)}, k).value,
            0xFFFFFFFF00000ABCull);
}

// ---- instructions ----

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

struct Row { uint8_t op; uint32_t type; uint64_t b, c, want; };

std::string what(const Row& r) {
  return std::string(opName(r.op)) + "." + typeName(r.type) + "(" + std::to_string(r.type) +
         ") " + hex(r.b) + ", " + hex(r.c);
}

// A NaN of the sentinel's width passes for it; all else compares as bits.
void expectBits(uint64_t got, uint64_t want, const std::string& what) {
  auto nan = [](uint64_t v, uint64_t inf) { return (v & inf) == inf && (v & ~inf & (inf - 1)); };
  if ((want == kNaN32 && got >> 32 == 0 && nan(got, FINF)) || (want == kNaN64 && nan(got, DINF))) got = want;
  EXPECT_EQ(hex(got), hex(want)) << what;
}

void runRows(const std::vector<Row>& rows) {
  for (const Row& r : rows) {
    Eval e = eval({kMark, r.b, r.c}, {op(r.op, 0, 1, 2, r.type)});
    EXPECT_EQ(e.rc, 0) << what(r) << ": " << e.err;
    if (e.rc == 0) expectBits(e.value, r.want, what(r));
  }
}

TEST(ZanbInsn, IntBinary) {
  runRows({
      {Op_add, kI32, M32, 1, 0}, {Op_add, kI32, 0xAAAAAAAA00000005, 0x5555555500000007, 12},
      {Op_sub, kI32, 0, 1, M32}, {Op_mul, kI32, 0x10000, 0x10000, 0}, {Op_mul, kI32, 0x7FFFFFFF, 2, 0xFFFFFFFE},
      {Op_div_s, kI32, 0xFFFFFFF9, 2, 0xFFFFFFFD}, {Op_div_s, kI32, 7, 0xFFFFFFFE, 0xFFFFFFFD},
      {Op_div_s, kI32, I32MIN, 1, I32MIN}, {Op_div_u, kI32, ALL, 2, 0x7FFFFFFF},
      {Op_div_u, kI32, 7, 0x100000002, 3}, {Op_rem_s, kI32, 0xFFFFFFF9, 2, M32},
      {Op_rem_s, kI32, 7, 0xFFFFFFFE, 1}, {Op_rem_u, kI32, M32, 10, 5},
      {Op_and, kI32, 0xF0F0F0F0FF00FF00, 0xFFFFFFFF0FF00FF0, 0x0F000F00},
      {Op_or, kI32, 0xFFFFFFFF00000001, I32MIN, 0x80000001}, {Op_xor, kI32, M32, 0xFFFF, 0xFFFF0000},
      {Op_shl, kI32, 1, 31, I32MIN}, {Op_shl, kI32, 1, 32, 1}, {Op_shl, kI32, M32, 4, 0xFFFFFFF0},
      {Op_shr_s, kI32, I32MIN, 31, M32}, {Op_shr_s, kI32, I32MIN, 32, I32MIN},
      {Op_shr_s, kI32, 0x7FFFFFFF80000000, 1, 0xC0000000}, {Op_shr_u, kI32, I32MIN, 31, 1},
      {Op_shr_u, kI32, I32MIN, 33, 0x40000000}, {Op_shr_u, kI32, ALL, 1, 0x7FFFFFFF},
      {Op_rotl, kI32, 0x80000001, 1, 3}, {Op_rotl, kI32, 0x80000001, 33, 3},
      {Op_rotr, kI32, 0x80000001, 1, 0xC0000000}, {Op_rotr, kI32, 0x80000001, 63, 3},

      {Op_add, kI64, ALL, 1, 0}, {Op_add, kI64, M32, 1, 0x100000000}, {Op_sub, kI64, 0, 1, ALL},
      {Op_mul, kI64, 0x100000000, 0x100000000, 0}, {Op_mul, kI64, M32, M32, 0xFFFFFFFE00000001},
      {Op_div_s, kI64, -7ull, 2, -3ull}, {Op_div_s, kI64, 7, -2ull, -3ull},
      {Op_div_s, kI64, I64MIN, 2, 0xC000000000000000}, {Op_div_u, kI64, ALL, 2, 0x7FFFFFFFFFFFFFFF},
      {Op_div_u, kI64, 5, 0x100000000, 0}, {Op_rem_s, kI64, -7ull, 2, ALL}, {Op_rem_s, kI64, 7, -2ull, 1},
      {Op_rem_u, kI64, ALL, 10, 5}, {Op_and, kI64, 0xF0F0F0F0FF00FF00, 0xFFFFFFFF0FF00FF0, 0xF0F0F0F00F000F00},
      {Op_or, kI64, 0xFFFFFFFF00000000, 1, 0xFFFFFFFF00000001}, {Op_xor, kI64, ALL, 0xFFFF, 0xFFFFFFFFFFFF0000},
      {Op_shl, kI64, 1, 32, 0x100000000}, {Op_shl, kI64, 1, 63, I64MIN}, {Op_shl, kI64, 1, 64, 1},
      {Op_shr_s, kI64, I64MIN, 63, ALL}, {Op_shr_s, kI64, I64MIN, 64, I64MIN}, {Op_shr_u, kI64, I64MIN, 63, 1},
      {Op_shr_u, kI64, I64MIN, 64, I64MIN}, {Op_rotl, kI64, 0x8000000000000001, 1, 3},
      {Op_rotl, kI64, 0x8000000000000001, 64, 0x8000000000000001},
      {Op_rotr, kI64, 0x8000000000000001, 1, 0xC000000000000000}, {Op_rotr, kI64, 0x8000000000000001, 127, 3},
      // The minimum divided by -1 gives the minimum back, and remainder 0.
      {Op_div_s, kI32, I32MIN, M32, I32MIN}, {Op_rem_s, kI32, I32MIN, M32, 0},
      {Op_div_s, kI64, I64MIN, ALL, I64MIN}, {Op_rem_s, kI64, I64MIN, ALL, 0},
  });
  // A zero divisor traps; for i32 only the low half of the divisor counts.
  for (uint8_t o : {Op_div_s, Op_div_u, Op_rem_s, Op_rem_u}) {
    for (uint32_t t : {kI32, kI64}) {
      Eval e = eval({kMark, 5, uint64_t(t == kI32) << 32}, {op(o, 0, 1, 2, t)});
      EXPECT_EQ(e.err, std::string("zanb trap: ") + typeName(t) +
                           (o <= Op_div_u ? " divide" : " remainder") + " by zero");
      EXPECT_EQ(e.rc, -1);
    }
  }
}

TEST(ZanbInsn, FloatBinary) {
  std::vector<Row> rows = {
      {Op_add, kF32, F1, F2, F3}, {Op_add, kF32, 0xFFFFFFFF00000000 | F1, 0x1234567800000000 | F2, F3},
      {Op_add, kF32, FINF, FNINF, kNaN32}, {Op_add, kF32, FNAN, F1, kNaN32}, {Op_add, kF32, FNZ, FNZ, FNZ},
      {Op_add, kF32, 0, FNZ, 0}, {Op_sub, kF32, F1, F2, FM1}, {Op_mul, kF32, F2, F3, F6},
      {Op_div_s, kF32, F1, F2, FH}, {Op_div_u, kF32, F1, 0, FINF}, {Op_div_u, kF32, F1, FNZ, FNINF},
      {Op_div_s, kF32, 0, 0, kNaN32}, {Op_add, kF64, D1, D2, D3}, {Op_sub, kF64, D1, D2, DM1},
      {Op_mul, kF64, D2, D3, D6}, {Op_div_s, kF64, D1, D2, DH}, {Op_div_u, kF64, DM1, 0, DNINF},
      {Op_div_s, kF64, 0, 0, kNaN64}, {Op_add, kF64, DNZ, DNZ, DNZ}, {Op_sub, kF64, DINF, DINF, kNaN64},
      {Op_add, T7, D1, D2, D3}, {Op_mul, 4, D2, D3, D6}, {Op_div_u, T15, D1, D2, DH},
  };
  // Every other binary opcode on a float type stores +0.0, never traps.
  for (uint8_t o = Op_rem_s; o <= Op_rotr; o++) {
    rows.push_back({o, kF32, F3, 0, 0});
    rows.push_back({o, kF64, D3, D2, 0});
    rows.push_back({o, T5, D3, 0, 0});
  }
  runRows(rows);
}

TEST(ZanbInsn, UnaryAndMoves) {
  std::vector<Row> rows = {
      {Op_clz, kI32, 0, 0, 32}, {Op_clz, kI32, I32MIN, 0, 0}, {Op_clz, kI64, 0, 0, 64},
      {Op_clz, kI32, 0xFFFFFFFF00000001, 0, 31}, {Op_clz, kI64, 0x100000000, 0, 31}, {Op_ctz, kI32, 0, 0, 32},
      {Op_ctz, kI32, I32MIN, 0, 31}, {Op_ctz, kI32, 0x100000000, 0, 32}, {Op_ctz, kI64, 0, 0, 64},
      {Op_ctz, kI64, 0x100000000, 0, 32}, {Op_popcnt, kI32, ALL, 0, 32}, {Op_popcnt, kI64, ALL, 0, 64},
      {Op_popcnt, kI64, 0x8000000000000001, 0, 2},

      {Op_neg, kF32, F1, 0, FM1}, {Op_neg, kF32, 0, 0, FNZ}, {Op_neg, kF32, FNAN, 0, 0xFFC00000},
      {Op_neg, kF32, 0xFFFFFFFF00000000 | F1, 0, FM1}, {Op_abs, kF32, 0xFFC00001, 0, 0x7FC00001},
      {Op_abs, kF32, FNZ, 0, 0}, {Op_abs, kF32, FNINF, 0, FINF}, {Op_ceil, kF32, 0x3FC00000, 0, F2},
      {Op_ceil, kF32, 0xBF000000, 0, FNZ}, {Op_floor, kF32, 0xBFC00000, 0, 0xC0000000},
      {Op_trunc, kF32, 0xBFC00000, 0, FM1}, {Op_nearest, kF32, 0x40200000, 0, F2},
      {Op_nearest, kF32, 0x40600000, 0, 0x40800000}, {Op_nearest, kF32, 0xBF000000, 0, FNZ},
      {Op_nearest, kF32, FH, 0, 0}, {Op_sqrt, kF32, 0x40800000, 0, F2}, {Op_sqrt, kF32, FM1, 0, kNaN32},
      {Op_sqrt, kF32, FNZ, 0, FNZ}, {Op_clz, kF32, F1, 0, F1}, {Op_popcnt, kF32, 0xFFFFFFFF00000000 | F1, 0, F1},

      {Op_neg, kF64, D1, 0, DM1}, {Op_neg, kF64, DNAN, 0, 0xFFF8000000000000}, {Op_abs, kF64, DNINF, 0, DINF},
      {Op_abs, kF64, 0xFFF8000000000001, 0, 0x7FF8000000000001}, {Op_ceil, kF64, 0xBFE0000000000000, 0, DNZ},
      {Op_floor, kF64, 0x3FF8000000000000, 0, D1}, {Op_trunc, kF64, 0xBFF8000000000000, 0, DM1},
      {Op_nearest, kF64, 0x4004000000000000, 0, D2},
      {Op_nearest, kF64, 0x400C000000000000, 0, 0x4010000000000000}, {Op_sqrt, kF64, D2, 0, 0x3FF6A09E667F3BCD},
      {Op_sqrt, kF64, DM1, 0, kNaN64}, {Op_ctz, kF64, D1, 0, D1}, {Op_abs, T9, DM1, 0, D1},
  };
  // Moves copy all 64 bits; select keeps slot 0 unless the condition's low half is zero.
  const uint64_t v = 0xFFFFFFFF12345678;
  rows.insert(rows.end(), {{Op_mov, kI32, v, 0, v}, {Op_getl, kF32, v, 0, v},
                           {Op_setl, kI32, v, 0, v}, {Op_reinterpret, kF32, v, 0, v},
                           {Op_select, kI32, I32MIN, v, kMark},
                           {Op_select, kI32, 1ull << 32, v, v}});
  // No integer negation or rounding: the operand is copied.
  for (uint8_t o = Op_neg; o <= Op_sqrt; o++) {
    rows.push_back({o, kI32, 0xABCDEF0012345678, 0, 0x12345678});
    rows.push_back({o, kI64, 0xABCDEF0012345678, 0, 0xABCDEF0012345678});
  }
  runRows(rows);
}

std::vector<Row> compareRows() {
  return {
      {Op_eq, kI32, 5, 5, 1}, {Op_eq, kI32, 0xFFFFFFFF00000005, 5, 1}, {Op_ne, kI32, 0xFFFFFFFF00000005, 5, 0},
      {Op_ne, kI32, 1, 2, 1}, {Op_lt_s, kI32, M32, 0, 1}, {Op_lt_u, kI32, M32, 0, 0}, {Op_gt_s, kI32, 0, M32, 1},
      {Op_gt_u, kI32, 0, M32, 0}, {Op_le_s, kI32, I32MIN, 0x7FFFFFFF, 1}, {Op_le_u, kI32, I32MIN, 0x7FFFFFFF, 0},
      {Op_ge_s, kI32, 5, 5, 1}, {Op_ge_u, kI32, I32MIN, 0x7FFFFFFF, 1}, {Op_ge_s, kI32, I32MIN, 0x7FFFFFFF, 0},
      {Op_le_u, kI32, 0x100000000, 0, 1}, {Op_eq, kI64, 0xFFFFFFFF00000005, 5, 0}, {Op_ne, kI64, ALL, ALL, 0},
      {Op_lt_s, kI64, ALL, 0, 1}, {Op_lt_u, kI64, ALL, 0, 0}, {Op_lt_s, kI64, M32, 0, 0},
      {Op_gt_s, kI64, 0, ALL, 1}, {Op_gt_u, kI64, 0, ALL, 0}, {Op_le_s, kI64, I64MIN, ~I64MIN, 1},
      {Op_le_u, kI64, I64MIN, ~I64MIN, 0}, {Op_ge_u, kI64, I64MIN, ~I64MIN, 1},
      {Op_ge_s, kI64, I64MIN, ~I64MIN, 0}, {Op_lt_s, kF32, F1, F2, 1}, {Op_lt_u, kF32, FM1, F1, 1},
      {Op_gt_u, kF32, F1, FM1, 1}, {Op_gt_s, kF32, FM1, F1, 0}, {Op_le_u, kF32, FNINF, FM1, 1},
      {Op_ge_u, kF32, FM1, FNINF, 1}, {Op_eq, kF32, 0, FNZ, 1}, {Op_eq, kF32, FNAN, FNAN, 0},
      {Op_ne, kF32, FNAN, FNAN, 1}, {Op_ne, kF32, F1, F1, 0}, {Op_lt_s, kF32, FNAN, F1, 0},
      {Op_gt_u, kF32, FNAN, F1, 0}, {Op_le_s, kF32, FNAN, FNAN, 0}, {Op_ge_u, kF32, F1, FNAN, 0},
      {Op_eq, kF32, 0xFFFFFFFF00000000 | F1, F1, 1}, {Op_lt_s, kF64, DM1, D1, 1}, {Op_lt_u, kF64, DM1, D1, 1},
      {Op_le_u, kF64, D2, D2, 1}, {Op_ge_s, kF64, DNINF, DNAN, 0}, {Op_ne, kF64, DNAN, D1, 1},
      {Op_eq, kF64, DNZ, 0, 1}, {Op_gt_u, kF64, DINF, 0x7FEFFFFFFFFFFFFF, 1}, {Op_gt_s, kF64, DNAN, DNINF, 0},
      {Op_ge_u, kF64, 0, DNZ, 1}, {Op_lt_u, T5, DM1, D1, 1},
  };
}

TEST(ZanbInsn, Compare) { runRows(compareRows()); }

// Every compare row again, followed by jz or jnz on its result (one fused step in the plain loop), and with
// an add or sub right before the compare (a counted loop's step) making slot 0 from slot 1 and slot 4 (= 1).
// The branch goes to pc 10 or on to pc 8; the compare's slot keeps its result.
TEST(ZanbInsn, Branches) {
  for (const Row& r : compareRows()) {
    struct Step { Insn insn; uint64_t slot1, slot0; };
    std::vector<Step> steps = {{konst(0, r.b), 0, r.b}, {op(Op_add, 0, 1, 4, kI64), r.b - 1, r.b},
                               {op(Op_sub, 0, 1, 4, kI64), r.b + 1, r.b}};
    if (r.type == kI32 || r.type == kF32)  // else the i32 sum's cleared high half matters
      steps.push_back({op(Op_add, 0, 1, 4, kI32), r.b - 1, uint32_t(r.b)});
    for (const Step& s : steps) {
      for (uint8_t br : {Op_jz, Op_jnz}) {
        Eval e = eval({kMark, s.slot1, r.c, kMark, 1},
                      {s.insn, op(r.op, 3, 0, 2, r.type), op(br, 10, 3), konst(6, 1),
                       op(Op_jmp, 11), konst(6, 2), konst(5, 0x100), op(Op_store, 5, 3, 0, kI64),
                       op(Op_store, 5, 6, 8, kI64)},
                      {}, {}, 0x100, 16);
        std::string w = std::string(opName(s.insn.op())) + " then " + what(r) + " then " +
                        opName(br) + ": " + e.err;
        bool taken = (br == Op_jz) == (r.want == 0);
        EXPECT_EQ(hex(e.value), hex(s.slot0)) << w;
        EXPECT_EQ(le64(e.mem), r.want) << w;
        EXPECT_EQ(le64(e.mem, 8), taken ? 2u : 1u) << w;
      }
    }
  }
  // The branch tests another slot than the compare wrote: no fusing.
  EXPECT_EQ(eval({kMark, 1, 2, 0, 0}, {op(Op_lt_s, 3, 1, 2), op(Op_jz, 8, 4), konst(0, 1)}).value, kMark);
  EXPECT_EQ(eval({kMark, 1, 2, 0, 0}, {op(Op_lt_s, 4, 1, 2), op(Op_jz, 8, 3), konst(0, 1)}).value, kMark);
  // Plain branches test the low half; pc 2 branches over pc 3 to pc 4.
  struct B { uint8_t op; uint64_t cond, want; };
  for (B r : {B{Op_jz, 0x100000000, 0}, B{Op_jz, I32MIN, 1}, B{Op_jnz, 0x100000000, 1}, B{Op_jnz, 2, 0},
              B{Op_jmp, 0, 0}})
    EXPECT_EQ(eval({0, r.cond}, {op(r.op, 4, 1), konst(0, 1)}).value, r.want) << hex(r.cond);
  // const keeps all 64 bits, whatever its type.
  EXPECT_EQ(eval({}, {op(Op_const, 0, 0x12345678, 0x9ABCDEF0, kI32)}).value, 0x9ABCDEF012345678u);
  // A jump straight onto the branch skips the compare: slot 3 stays 0.
  for (uint8_t br : {Op_jz, Op_jnz}) {
    Eval e = eval({kMark, 1, 2, 0}, {op(Op_jmp, 6), op(Op_lt_s, 3, 1, 2), op(br, 8, 3), konst(0, 1)});
    EXPECT_EQ(e.value, br == Op_jz ? kMark : 1u);
  }
}

// Conversions by name: a name in the wrong place of the table fails here too.
TEST(ZanbInsn, Conversions) {
  struct C { const char* name; std::vector<std::pair<uint64_t, uint64_t>> cases; };  // source bits, result bits
  const C rows[] = {
      {"i32.wrap_i64", {{0x123456789ABCDEF0, 0x9ABCDEF0}}}, {"f64.promote_f32", {{0xFFFFFFFF00000000 | F2, D2}}},
      {"i64.extend_i32_s", {{I32MIN, 0xFFFFFFFF80000000}, {0xFFFFFFFF7FFFFFFF, 0x7FFFFFFF}}},
      {"i64.extend_i32_u", {{0xFFFFFFFF80000000, I32MIN}}}, {"f32.convert_i32_s", {{0x12345678FFFFFFFF, FM1}}},
      {"f32.convert_i32_u", {{M32, 0x4F800000}}},
      // Rounded once, straight to f32: through f64 the low 1 would be lost and the tie would round down.
      {"f32.convert_i64_s", {{ALL, FM1}, {I64MIN, 0xDF000000}, {0x4000004000000001, 0x5E800001}}},
      {"f32.convert_i64_u", {{ALL, 0x5F800000}, {0x8000008000000001, 0x5F000001}}},
      {"f64.convert_i32_s", {{I32MIN, 0xC1E0000000000000}}}, {"f64.convert_i32_u", {{M32, 0x41EFFFFFFFE00000}}},
      {"f64.convert_i64_s", {{~I64MIN, 0x43E0000000000000}, {I64MIN, 0xC3E0000000000000}}},
      {"f64.convert_i64_u", {{0x8000000000000401, 0x43E0000000000001}, {ALL, 0x43F0000000000000}}},
      {"f32.demote_f64", {{DNZ, FNZ}, {0x7E37E43C8800759C, FINF}, {0x3FF0000010000000, F1},
                          {0x3FF0000030000000, 0x3F800002}}},
      // i32.trunc_*_s: out of range and NaN give the minimum.
      {"i32.trunc_f32_s", {{0xBFC00000, M32}, {FNAN, I32MIN}, {0x4F000000, I32MIN}, {0xCF32D05E, I32MIN},
                           {0x4EFFFFFF, 0x7FFFFF80}}},
      {"i32.trunc_f64_s", {{0x41DFFFFFFFF9999A, 0x7FFFFFFF}, {0x41E0000000000000, I32MIN},
                           {0xC1DFFFFFFFE00000, 0x80000001}, {0xC1E0000000200000, I32MIN}, {DINF, I32MIN}}},
      // i32.trunc_*_u: through a signed 64-bit truncation, low half kept.
      {"i32.trunc_f32_u", {{0xBFC00000, M32}, {0x4F800000, 0}, {0x4F32D05E, 0xB2D05E00}, {FNAN, 0}, {0x5F000000, 0}}},
      {"i32.trunc_f64_u", {{0xBFF8000000000000, M32}, {0x41EFFFFFFFE00000, M32}, {0x43E0000000000000, 0},
                           {0xC3E0000000000000, 0}, {DNINF, 0}, {0x43E158E460913D00, 0}}},
      {"i64.trunc_f32_s", {{0xBFC00000, ALL}, {FNAN, I64MIN}, {0x5F000000, I64MIN}, {0x4F32D05E, 3000000000}}},
      {"i64.trunc_f64_s", {{0x43DFFFFFFFFFFFFF, 0x7FFFFFFFFFFFFC00}, {0x43E0000000000000, I64MIN}, {DNINF, I64MIN}}},
      // i64.trunc_*_u: 2^63 and above go through subtract-and-flip.
      {"i64.trunc_f32_u", {{0x5F000000, I64MIN}, {0x5F800000, 0}, {0x3FC00000, 1}, {0xBFC00000, ALL}, {FNAN, I64MIN},
                           {0x5F7FFFFF, 0xFFFFFF0000000000}}},
      {"i64.trunc_f64_u", {{0x43EFFFFFFFFFFFFF, 0xFFFFFFFFFFFFF800}, {0x43F0000000000000, 0}, {DNAN, I64MIN},
                           {0xBFF8000000000000, ALL}}},
      {"i32.extend8_s", {{0x1234567880, 0xFFFFFF80}, {0x7F, 0x7F}}},
      {"i64.extend16_s", {{0xFFFF, ALL}, {0x7FFF, 0x7FFF}}},
      {"i32.extend16_s", {{0x8000, 0xFFFF8000}, {0xFFFFFFFF00007FFF, 0x7FFF}}},
      {"i64.extend8_s", {{0x80, 0xFFFFFFFFFFFFFF80}, {0x17F, 0x7F}}},
      {"i64.extend32_s", {{I32MIN, 0xFFFFFFFF80000000}, {0xFFFFFFFF7FFFFFFF, 0x7FFFFFFF}}},
  };
  for (const C& r : rows) {
    uint32_t kind = 0;
    while (kind < kConvCount && std::string(convName(kind)) != r.name) ++kind;
    for (auto [src, want] : r.cases) {
      Eval e = eval({kMark, src}, {op(Op_convert, 0, 1, kind)});
      EXPECT_EQ(e.rc, 0) << r.name << " " << hex(src) << ": " << e.err;
      expectBits(e.value, want, r.name + (" " + hex(src)));
    }
  }
}

// Loads read the bytes at 0x100; stores write slot 2 over the eight 0xEE
// bytes at 0x10, read back as one i64. An empty `err` means no trap.
TEST(ZanbInsn, LoadsAndStores) {
  struct L { uint8_t op; uint32_t type; uint64_t base; uint32_t off; uint64_t want; std::string err; };
  Prog p;
  p.seg(0, "\x5A");
  p.seg(0x10, std::string(8, '\xEE'));
  p.seg(0x100, std::string("\x80\x81\x82\x83\x84\x85\x86\x7F", 8));
  const uint64_t val = 0x1122334455667788;
  const L rows[] = {
      {Op_load, kI32, 0x100, 0, 0x83828180, ""}, {Op_load, kF32, 0x100, 4, 0x7F868584, ""},
      {Op_load, kI64, 0x100, 0, 0x7F86858483828180, ""}, {Op_load, 6, 0x100, 0, 0x7F86858483828180, ""},
      {Op_load8_s, kF32, 0x100, 0, 0xFFFFFFFFFFFFFF80, ""}, {Op_load8_s, kI32, 0x107, 0, 0x7F, ""},
      {Op_load8_u, kI64, 0x100, 0, 0x80, ""}, {Op_load16_s, kI32, 0x100, 0, 0xFFFFFFFFFFFF8180, ""},
      {Op_load16_u, kI32, 0x100, 0, 0x8180, ""}, {Op_load32_s, kI32, 0x100, 0, 0xFFFFFFFF83828180, ""},
      {Op_load32_u, kI64, 0x100, 0, 0x83828180, ""},
      // The address is base (low half) + offset in 32 bits.
      {Op_load8_u, kI32, M32, 1, 0x5A, ""}, {Op_load8_u, kI32, 0xFFFFFFFF00000100, 0, 0x80, ""},
      {Op_load8_u, kI32, 0xFFFFFFF0, 0x110, 0x80, ""}, {Op_load, kI32, 131068, 0, 0, ""},
      {Op_load, kI64, 131064, 0, 0, ""}, {Op_load8_u, kI32, 131071, 0, 0, ""},
      {Op_load, kI32, 131069, 0, 0, fault(131069, 4)}, {Op_load, kI64, 131060, 8, 0, fault(131068, 8)},
      {Op_load8_u, kI32, 131072, 0, 0, fault(131072, 1)}, {Op_load16_s, kI32, M32, 0, 0, fault(4294967295, 2)},

      {Op_store, kI32, 0x10, 0, 0xEEEEEEEE55667788, ""}, {Op_store, kI64, 0x10, 0, val, ""},
      {Op_store, T5, 0x10, 0, val, ""}, {Op_store8, kI64, 0x10, 0, 0xEEEEEEEEEEEEEE88, ""},
      {Op_store16, kI32, 0x10, 0, 0xEEEEEEEEEEEE7788, ""}, {Op_store32, kF64, 0x10, 0, 0xEEEEEEEE55667788, ""},
      {Op_store8, kI32, M32, 0x11, 0xEEEEEEEEEEEEEE88, ""},
      {Op_store16, kI32, 0xABCD000000000008, 8, 0xEEEEEEEEEEEE7788, ""},
      {Op_store, kI64, 131064, 0, 0xEEEEEEEEEEEEEEEE, ""}, {Op_store, kI32, 131069, 0, 0, fault(131069, 4)},
      {Op_store8, kI32, 131072, 0, 0, fault(131072, 1)}, {Op_store, kI64, 131000, 65, 0, fault(131065, 8)},
  };
  for (const L& r : rows) {
    std::vector<Insn> body = {op(r.op, 0, 1, r.off, r.type)};
    if (r.op >= Op_store) body = {op(r.op, 1, 2, r.off, r.type), op(Op_load, 0, 3, 0, kI64)};
    Eval e = eval({kMark, r.base, val, 0x10}, body, p);
    EXPECT_EQ(outcome(e), r.err.empty() ? hex(r.want) : r.err)
        << opName(r.op) << " " << hex(r.base) << "+" << r.off;
  }
}

TEST(ZanbInsn, MemGrow) {
  struct G { uint64_t minPages, maxPages, memLimit, delta, want, pagesAfter; };
  const uint64_t k4G = 0x100000000;
  const G rows[] = {
      {0, 0, k4G, 1, 2, 3}, {0, 0, k4G, 0, 2, 2}, {0, 3, k4G, 1, 2, 3}, {0, 3, k4G, 2, ALL, 2},
      {0, 0, 196608, 1, 2, 3}, {0, 0, 196607, 1, ALL, 2}, {0, 0, k4G, M32, ALL, 2},
      {0, 0, k4G, 0x100000001, 2, 3}, {1, 0, k4G, 2, 1, 3}, {0, 1, k4G, 0, ALL, 2},
  };
  for (const G& r : rows) {
    Prog p;
    p.header.memMinPages = r.minPages;
    p.header.memMaxPages = r.maxPages;
    VmConfig cfg;
    cfg.memLimit = r.memLimit;
    Eval e = eval({kMark, r.delta, 0, 0x100}, {op(Op_mem_grow, 0, 1), op(Op_mem_size, 2), op(Op_store, 3, 2, 0, kI64)},
                  p, cfg, 0x100, 8);
    std::string w = "max " + std::to_string(r.maxPages) + " limit " + std::to_string(r.memLimit) +
                    " delta " + hex(r.delta) + ": " + e.err;
    EXPECT_EQ(std::make_pair(hex(e.value), le64(e.mem)), std::make_pair(hex(r.want), r.pagesAfter)) << w;
  }

  // Segments grow memory to exactly their end, 70000 bytes, later ones overwriting earlier ones;
  // mem_size rounds that down, and growing by 0 cuts it to one page.
  Prog t;
  t.header.memMinPages = 1;
  t.seg(69996, "abcd");
  t.seg(69998, "Z");
  EXPECT_EQ(eval({kMark, 69996}, {op(Op_load, 0, 1, 0, kI32), op(Op_mem_grow, 2, 3)}, t).value, 0x645A6261u);
  EXPECT_EQ(eval({kMark, 69997}, {op(Op_load, 0, 1, 0, kI32)}, t).err, fault(69997, 4, 70000));
  EXPECT_EQ(eval({kMark}, {op(Op_mem_size, 0)}, t).value, 1u);
  EXPECT_EQ(eval({kMark, 69999}, {op(Op_mem_grow, 2, 3), op(Op_load8_u, 0, 1)}, t).err, fault(69999, 1, 65536));
  EXPECT_EQ(eval({kMark, 65535}, {op(Op_mem_grow, 0, 3), op(Op_load8_u, 2, 1)}, t).value, 1u);
}

// mem_copy, mem_fill and mem_init `op a=1 b=2 c=3` over "abcdefgh" at 0x100; slot 0 ends up as those 8 bytes.
// mem_init copies from segment 3, "WXYZ", and takes its count from slot 3 as well.
TEST(ZanbInsn, BulkMemory) {
  Prog p;
  p.seg(0x100, "abcdefgh");
  p.seg(0, "");
  p.seg(0, "");
  p.seg(0x200, "WXYZ");
  struct R { uint8_t op; uint64_t a, b, c; const char* want; std::string err; };
  const std::string segOut = "zanb trap: data segment out of bounds";
  const R rows[] = {
      {Op_mem_copy, 0x102, 0x100, 6, "ababcdef", ""}, {Op_mem_copy, 0x100, 0x102, 6, "cdefghgh", ""},
      {Op_mem_copy, 0x100, 0x104, 0x100000002, "efcdefgh", ""},
      {Op_mem_copy, 0xFFFFFFF0, 0xFFFFFFF0, 0, "abcdefgh", ""},
      {Op_mem_copy, 131070, 0x100, 4, "", fault(131070, 4)},
      {Op_mem_copy, 131070, 131071, 4, "", fault(131071, 4)},
      {Op_mem_fill, 0x101, 0x1FF, 3, "a\xFF\xFF\xFF" "efgh", ""},
      {Op_mem_fill, 0x100, 0x41, 0x100000001, "Abcdefgh", ""}, {Op_mem_fill, 0xFFFFFFF0, 0x41, 0, "abcdefgh", ""},
      {Op_mem_fill, 131070, 0, 3, "", fault(131070, 3)}, {Op_mem_init, 0x101, 1, 3, "aXYZefgh", ""},
      {Op_mem_init, 0x100, 0, 4, "WXYZefgh", ""}, {Op_mem_init, 0x100, 2, 0x100000002, "YZcdefgh", ""},
      {Op_mem_init, 0x100, 99, 0, "abcdefgh", ""}, {Op_mem_init, 0x100, 2, 3, "", segOut},
      {Op_mem_init, 0x100, 0xFFFFFFFF, 1, "", segOut}, {Op_mem_init, 131070, 0, 4, "", fault(131070, 4)},
  };
  for (const R& r : rows) {
    Eval e = eval({kMark, r.a, r.b, r.c, 0x100}, {op(r.op, 1, 2, 3), op(Op_load, 0, 4, 0, kI64)}, p);
    EXPECT_EQ(outcome(e), r.err.empty() ? hex(le64(r.want)) : r.err)
        << opName(r.op) << " " << hex(r.a) << " " << hex(r.b) << " " << hex(r.c);
  }
}

}  // namespace
