// The machine core: loading, starting, call and return, the step limit,
// lazy slot validation and every trap text.
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

// Every instruction run counts, the callee's too, and a compare and its
// branch count as two; the return at a function's end is none. The
// instruction past the limit does not run: `write` prints only at 4.
TEST(ZanbVm, StepLimitCountsEveryInstruction) {
  Prog nops, callee, loop, write;
  nops.fn(1, std::vector<Insn>(5, op(Op_nop)));
  callee.fn(1, {call(0, 1, 0)});
  callee.fn(1, {op(Op_nop), op(Op_nop)});
  // 2 setup + 5 rounds of add, lt_s, jnz + exit = 18 instructions.
  loop.fn(8, {konst(2, 5), konst(4, 1), op(Op_add, 1, 1, 4), op(Op_lt_s, 3, 1, 2),
              op(Op_jnz, 2, 3), exitWith(1)});
  write.seg(0x10, "x");
  write.fn(4, {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1)});
  struct R { const Prog& p; uint32_t limit; int rc; };
  const R rows[] = {{nops, 5, 0},    {nops, 4, -1},  {nops, 0, 0},    {callee, 3, 0},
                    {callee, 2, -1}, {loop, 18, 5},  {loop, 17, -1},  {write, 4, 0},
                    {write, 3, -1}};
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

}  // namespace
