// The machine core: loading, starting, call and return, the step limit,
// lazy slot validation and every trap text.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;


// main (pc 0..7): slot 0 = 77, call function 1 with 20, 22 (and 99 behind
// them, which must not be copied), then exit with slot 0 + 7.
TEST(VmCall, ResultsReachTheCallersSlot) {
  struct R {
    const char* what;
    uint32_t params, slots;
    std::vector<Insn> body;
    int want;
  };
  const R rows[] = {
      {"ret slot", 2, 4, {op(Op_add, 2, 0, 1), op(Op_add, 2, 2, 3), op(Op_ret, 2)}, 49},
      {"falls off the end", 0, 1, {konst(0, 5)}, 7},
      {"ret none", 0, 1, {konst(0, 5), op(Op_ret, 0xFFFFFFFF), op(Op_ret, 0)}, 7},
      {"jmp far beyond the end", 0, 1, {konst(0, 5), op(Op_jmp, 1000), op(Op_ret, 0)}, 7},
      {"jmp to the end", 0, 1, {konst(0, 5), op(Op_jmp, 11), op(Op_ret, 0)}, 7},
      {"empty callee", 0, 0, {}, 7},
  };
  for (const R& r : rows) {
    Prog p;
    p.fn(10, {konst(4, 20), konst(5, 22), konst(6, 99), konst(0, 77), call(0, 1, 4), konst(1, 7),
              op(Op_add, 0, 0, 1), exitWith(0)});
    p.fn(r.slots, r.body, r.params);
    Result res = run(p);
    EXPECT_EQ(res.rc, r.want) << r.what << ": " << res.err;
  }
}

TEST(VmCall, RecursionGetsFreshFrames) {
  Prog p;
  p.fn(2, {konst(0, 5), call(1, 1, 0), exitWith(1)});
  uint32_t b = p.here();  // fact(n): n == 0 ? 1 : n * fact(n - 1)
  p.fn(4,
       {op(Op_jnz, b + 3, 0), konst(1, 1), op(Op_ret, 1), konst(1, 1), op(Op_sub, 2, 0, 1, kI64),
        call(3, 1, 2), op(Op_mul, 1, 0, 3, kI64), op(Op_ret, 1)},
       1);
  EXPECT_EQ(run(p).rc, 120);
}

TEST(VmCall, DeepRecursionUsesNoHostStack) {
  Prog p;
  p.fn(2, {konst(0, 200000), call(1, 1, 0), exitWith(1)});
  uint32_t b = p.here();  // depth(n): n == 0 ? 0 : depth(n - 1) + 1
  p.fn(4,
       {op(Op_jz, b + 5, 0), konst(1, 1), op(Op_sub, 2, 0, 1), call(3, 1, 2), op(Op_add, 0, 3, 1),
        op(Op_ret, 0)},
       1);
  EXPECT_EQ(run(p).rc, 200000);
}

// c + params is checked in full width: a callee claiming 2^32 - 1 params
// must not wrap the check and copy past the caller's frame.
TEST(VmCall, ParamCountDoesNotWrapTheFrameCheck) {
  Prog p;
  p.fn(4, {call(0, 1, 1)});
  p.fn(4, {}, 0xFFFFFFFF);
  Result r = run(p);
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.err, "zanb trap: call argument base out of frame");
}

TEST(VmStart, EntryAndLoadFailures) {
  const char* lim = "zanb: initial memory exceeds the configured limit";
  const char* range = "zanb: entry function out of range";
  const uint64_t k4G = 0x100000000;
  struct Row {
    const char* what;
    bool noFuncs;
    uint32_t entry;
    uint64_t minPages, memLimit, segAt;
    int rc;
    const char* err;
  };
  const Row rows[] = {{"empty entry exits 0", false, 0, 0, k4G, 0, 0, ""},
                      {"no functions", true, 0, 0, k4G, 0, -1, "zanb: module has no functions"},
                      {"entry out of range", false, 1, 0, k4G, 0, -1, range},
                      {"entry max", false, 0xFFFFFFFF, 0, k4G, 0, -1, range},
                      {"limit below the initial memory", false, 0, 0, 131071, 0, -1, lim},
                      {"limit equal to it", false, 0, 0, 131072, 0, 0, ""},
                      {"limit below explicit pages", false, 0, 3, 196607, 0, -1, lim},
                      {"pages past the default limit", false, 0, 65537, k4G, 0, -1, lim},
                      {"pages * 65536 wrapping to 0", false, 0, 1ull << 48, k4G, 0, -1, lim},
                      {"segments ignore the limit", false, 0, 0, 131072, 200000, 0, ""}};
  for (const Row& r : rows) {
    Prog p;
    p.header.entry = r.entry;
    p.header.memMinPages = r.minPages;
    if (!r.noFuncs) p.fn(0, {});
    if (r.segAt) p.seg(r.segAt, "x");
    VmConfig cfg;
    cfg.memLimit = r.memLimit;
    Result res = run(p, cfg);
    EXPECT_EQ(res.rc, r.rc) << r.what;
    EXPECT_EQ(res.err, r.err) << r.what;
  }
  std::vector<uint8_t> junk(64, 0);
  std::string err;
  EXPECT_EQ(runModule(junk.data(), junk.size(), VmConfig{}, err), -1);
  EXPECT_EQ(err, "zanb: bad magic");
}

// The entry function's result is no exit code, and it gets no arguments
// whatever its params say.
TEST(VmStart, EntryFunction) {
  Prog p;
  p.fn(1, {konst(0, 5), op(Op_ret, 0)});
  EXPECT_EQ(run(p).rc, 0);
  Prog q;
  q.header.entry = 1;
  q.fn(1, {op(Op_trap, 0)});
  q.fn(2, {konst(1, 3), op(Op_add, 1, 1, 0), exitWith(1)}, 1);
  EXPECT_EQ(run(q).rc, 3);
}

TEST(VmStart, SecondRunGivesTheExitCode) {
  Prog p;
  p.fn(1, {konst(0, 3), exitWith(0)});
  std::vector<uint8_t> bytes = p.bytes();
  tov::zanb::Vm vm;
  std::string err;
  ASSERT_TRUE(vm.load(bytes.data(), bytes.size(), VmConfig{}, err)) << err;
  EXPECT_EQ(vm.run(err), 3);
  EXPECT_EQ(vm.run(err), 3);
}

TEST(VmStepLimit, CountsEveryInstructionOfTheRun) {
  struct Row {
    uint32_t limit, nops;
    bool traps;
  };
  for (Row r :
       {Row{5, 5, false}, Row{5, 6, true}, Row{0, 50, false}, Row{1, 1, false}, Row{1, 2, true}}) {
    SCOPED_TRACE(std::to_string(r.limit) + " / " + std::to_string(r.nops));
    Prog p;
    p.fn(1, std::vector<Insn>(r.nops, op(Op_nop)));
    VmConfig cfg;
    cfg.stepLimit = r.limit;
    Result res = run(p, cfg);
    EXPECT_EQ(res.rc, r.traps ? -1 : 0);
    EXPECT_EQ(res.err, r.traps ? "zanb trap: step limit reached" : "");
  }
  // call + two nops in the callee = 3; the fall-off return is no instruction.
  for (uint32_t limit : {2u, 3u}) {
    Prog p;
    p.fn(1, {call(0, 1, 0)});
    p.fn(1, {op(Op_nop), op(Op_nop)});
    VmConfig cfg;
    cfg.stepLimit = limit;
    EXPECT_EQ(run(p, cfg).rc, limit == 3 ? 0 : -1) << limit;
  }
  // The trapping instruction does not run: the 4th is the write.
  for (uint32_t limit : {3u, 4u}) {
    Prog p;
    p.seg(0x10, "x");
    p.fn(4, {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1)});
    VmConfig cfg;
    cfg.stepLimit = limit;
    Result res = run(p, cfg);
    EXPECT_EQ(res.out, limit == 4 ? "x" : "") << limit;
  }
}

// main is [call f1] at pc 0, so the function under test starts at pc 1.
// Function 2 is empty with 3 params, function 3 empty with none.
struct TrapRow {
  const char* what;
  uint32_t slots;
  std::vector<Insn> body;
  std::string err;  // empty: runs to its end
};

void runTrapRows(const std::vector<TrapRow>& rows) {
  for (const TrapRow& r : rows) {
    SCOPED_TRACE(r.what);
    Prog p;
    for (uint64_t g = 0; g < 2; g++) p.globals.push_back(Global{{}, g + 40});
    p.seg(0, "hi");
    p.fn(1, {call(0, 1, 0)});
    p.fn(r.slots, r.body);
    p.fn(3, {}, 3);
    p.fn(0, {});
    Result res = run(p);
    EXPECT_EQ(res.err, r.err.empty() ? "" : "zanb trap: " + r.err);
    EXPECT_EQ(res.rc, r.err.empty() ? 0 : -1);
  }
}

TEST(VmTrap, TrapTexts) {
  runTrapRows({
      {"min", 3, {op(Op_nop), op(42)}, "unknown opcode 42 at pc 2"},
      {"max", 3, {op(43)}, "unknown opcode 43 at pc 1"},
      {"copysign, typed", 3, {op(44, 0, 0, 0, kF64)}, "unknown opcode 44 at pc 1"},
      {"72", 3, {op(72)}, "unknown opcode 72 at pc 1"},
      {"255", 3, {op(Op_nop), op(Op_nop), op(255)}, "unknown opcode 255 at pc 3"},
      {"explicit trap", 8, {op(Op_trap, 7)}, "explicit trap 7"},
      {"explicit trap 0", 1, {op(Op_trap, 0)}, "explicit trap 0"},
      {"calli", 3, {op(Op_calli, 0, 1, 2)}, "indirect calls are not implemented yet"},
      {"getg past the globals", 3, {op(Op_getg, 0, 2)}, "global index"},
      {"setg past the globals", 3, {op(Op_setg, 2, 0)}, "global index"},
      {"getg last global", 3, {op(Op_getg, 0, 1)}, ""},
      {"convert kind 26", 27, {op(Op_convert, 0, 1, 26)}, "convert kind"},
      {"call index", 3, {call(0, 4, 0)}, "call index"},
      {"call argument base", 4, {call(0, 2, 2)}, "call argument base out of frame"},
      {"call argument base at the edge", 4, {call(0, 2, 1)}, ""},
      {"syscall with no arguments at the last slot", 3, {sys(4, 0, 2)}, ""},
      {"syscall args out of frame", 3, {sys(1, 0, 1)}, "syscall args out of frame"},
      {"syscall args at the edge", 3, {sys(1, 0, 0)}, ""},
      {"syscall 24 needs 30", 31, {sys(24, 0, 2)}, "syscall args out of frame"},
      {"unknown syscall 9", 3, {sys(9, 0, 0)}, "unknown syscall 9"},
      {"unknown syscall 8", 3, {sys(8, 0, 0)}, "unknown syscall 8"},
      {"unknown syscall 56", 3, {sys(56, 0, 0)}, "unknown syscall 56"},
      {"unknown syscall 99", 3, {sys(99, 0, 0)}, "unknown syscall 99"},
      {"unknown syscall 116", 3, {sys(116, 0, 0)}, "unknown syscall 116"},
      {"unknown syscall max", 3, {sys(0xFFFFFFFF, 0, 0)}, "unknown syscall 4294967295"},
      {"load fault", 2, {konst(1, 131069), op(Op_load, 0, 1, 0, kI32)},
       fault(131069, 4).substr(11)},
  });
}

TEST(VmTrap, SlotValidationByOpcode) {
  auto slotErr = [](uint32_t pc, uint32_t o, uint32_t a, uint32_t b, uint32_t c, uint32_t n) {
    return "slot out of range: pc " + std::to_string(pc) + " op " + std::to_string(o) +
           " a=" + std::to_string(a) + " b=" + std::to_string(b) + " c=" + std::to_string(c) +
           " frameSlots=" + std::to_string(n);
  };
  runTrapRows({
      {"trap code counts as a slot", 7, {op(Op_trap, 7)}, slotErr(1, 71, 7, 0, 0, 7)},
      {"convert kind counts as a slot", 7, {op(Op_convert, 0, 1, 7)}, slotErr(1, 68, 0, 1, 7, 7)},
      {"nop in 0 slots", 0, {op(Op_nop)}, slotErr(1, 0, 0, 0, 0, 0)},
      {"first bad wins", 2, {op(Op_nop), op(Op_add, 5), op(Op_or, 6)}, slotErr(2, 7, 5, 0, 0, 2)},
      {"before anything runs", 9, {op(Op_trap, 3), op(Op_trap, 9)}, slotErr(2, 71, 9, 0, 0, 9)},
      {"jmp unchecked", 1, {op(Op_jmp, 500, 7, 7)}, ""},
      {"ret none in 0 slots", 0, {op(Op_ret, 0xFFFFFFFF, 3, 3)}, ""},
      {"ret a", 1, {op(Op_ret, 1)}, slotErr(1, 61, 1, 0, 0, 1)},
      {"ret top bit only", 1, {op(Op_ret, 0x80000000)}, slotErr(1, 61, 0x80000000, 0, 0, 1)},
      {"const checks a only", 1, {op(Op_const, 0, 99, 99)}, ""},
      {"const a", 1, {op(Op_const, 1)}, slotErr(1, 1, 1, 0, 0, 1)},
      {"getg checks a only", 1, {op(Op_getg, 0, 1, 9)}, ""},
      {"jz checks b only", 1, {op(Op_jz, 900, 0, 9)}, ""},
      {"jnz b", 1, {op(Op_jnz, 0, 1)}, slotErr(1, 58, 0, 1, 0, 1)},
      {"setg a", 1, {op(Op_setg, 1, 0)}, slotErr(1, 6, 1, 0, 0, 1)},
      {"load offset unchecked", 2, {op(Op_load, 0, 1, 70000, kI64)}, ""},
      {"load8_u b", 2, {op(Op_load8_u, 0, 2)}, slotErr(1, 47, 0, 2, 0, 2)},
      {"store offset unchecked", 2, {op(Op_store, 0, 1, 99999, kI32)}, ""},
      {"store16 a", 2, {op(Op_store16, 2, 0)}, slotErr(1, 54, 2, 0, 0, 2)},
      {"call index unchecked", 2, {call(0, 3, 1)}, ""},
      {"call c", 2, {call(0, 3, 2)}, slotErr(1, 59, 0, 3, 2, 2)},
      {"syscall number unchecked", 2, {sys(112, 1, 0)}, ""},
      {"syscall b", 2, {sys(112, 2, 0)}, slotErr(1, 70, 112, 2, 0, 2)},
      {"mem_init c", 3, {op(Op_mem_init, 0, 1, 3)}, slotErr(1, 67, 0, 1, 3, 3)},
      {"mov c", 4, {op(Op_mov, 0, 1, 4)}, slotErr(1, 2, 0, 1, 4, 4)},
      {"calli c", 4, {op(Op_calli, 0, 0, 9)}, slotErr(1, 60, 0, 0, 9, 4)},
      {"unknown opcode checked first", 4, {op(72, 0, 0, 4)}, slotErr(1, 72, 0, 0, 4, 4)},
  });
}

// Validation rejects a syscall base at or past the frame, so only a jump
// back into code checked for a larger frame could reach one: pc 2 jumps into
// function 1 (8 slots) while running in 3. Whatever the text, it must stop
// there as a trap rather than touch slot 5.
TEST(VmTrap, JumpIntoForeignCodeTraps) {
  Prog p;
  p.fn(1, {call(0, 2, 0)});
  p.fn(8, {sys(4, 0, 5)});
  p.fn(3, {op(Op_jmp, 1)});
  Result r = run(p);
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.err.rfind("zanb trap: ", 0), 0u) << r.err;
}

TEST(VmTrap, ValidationIsLazy) {
  Prog p;
  p.seg(0x10, "AB");
  p.fn(4, {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1), konst(0, 5), exitWith(0)});
  p.fn(0, {op(Op_nop)});  // broken, never called
  EXPECT_EQ(run(p).rc, 5);

  // Now main calls a broken function that would print "B" first.
  Prog q;
  q.seg(0x10, "AB");
  q.fn(4, {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1), call(0, 1, 0)});
  q.fn(9, {konst(1, 1), konst(2, 0x11), konst(3, 1), sys(1, 0, 1), op(Op_trap, 9)});
  Result r = run(q);
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.out, "A");
  EXPECT_EQ(r.err, "zanb trap: slot out of range: pc 9 op 71 a=9 b=0 c=0 frameSlots=9");
}

// Counted loops: add, compare, branch back. Slot 0 is the counter, 4 the
// step, 2 the bound; pc 0..10 load the slots, pc 11..13 stop a runaway loop
// after 1000 rounds, pc 14..16 are the step under test.
TEST(VmLoop, AddCompareBranch) {
  struct R {
    uint32_t addType;
    uint8_t cmp;
    uint32_t cmpType;
    uint8_t br;
    uint64_t start, step, bound, want;
  };
  const uint64_t half = 0x3FE0000000000000, two = 0x4000000000000000;
  const R rows[] = {
      {kI32, Op_lt_s, kI32, Op_jnz, 0, 1, 5, 5}, {kI64, Op_gt_s, kI64, Op_jnz, 9, ~0ull, 2, 2},
      {kI32, Op_eq, kI32, Op_jz, 0xFFFFFFFE, 1, 2, 2},
      {kI32, Op_lt_s, kI32, Op_jnz, 0xFFFFFFFF00000000, 1, 3, 3},
      {kI64, Op_lt_u, kI64, Op_jnz, 0, 0x100000000, 0x300000000, 0x300000000},
      {kI32, Op_ne, kI32, Op_jnz, 0, 3, 9, 9}, {kF64, Op_lt_s, kF64, Op_jnz, 0, half, two, two},
      {kI64, Op_lt_s, kI32, Op_jnz, 0xFFFFFFFF, 1, 2, 0x100000002},  // i32 view: -1, 0, 1, 2
      {kF32, Op_lt_u, kF32, Op_jnz, 0, 0x3F000000, 0x40000000, 0x40000000},
      {kI64, Op_ge_u, kI64, Op_jz, 0, 0x100000000, 0x300000000, 0x300000000},
      {kI64, Op_eq, kI64, Op_jz, 0xFFFFFFFE, 1, 0x100000001, 0x100000001},
  };
  for (const R& r : rows) {
    Eval e =
        eval({r.start, 0, r.bound, 0, r.step, 0, 0, 0, 1, 0, 1000},
             {op(Op_add, 7, 7, 8, kI64), op(Op_gt_u, 9, 7, 10, kI64), op(Op_jnz, 17, 9),  // guard
              op(Op_add, 0, 0, 4, r.addType), op(r.cmp, 3, 0, 2, r.cmpType), op(r.br, 11, 3)});
    EXPECT_EQ(hex(e.value), hex(r.want))
        << opName(r.cmp) << "." << typeName(r.cmpType) << " from " << hex(r.start) << e.err;
  }
}

TEST(VmLoop, WholePrograms) {
  Prog fib;  // fib(20) by double recursion
  fib.fn(2, {konst(0, 20), call(1, 1, 0), exitWith(1)});
  const uint32_t b = fib.here();
  fib.fn(6,
         {konst(1, 2), op(Op_lt_s, 2, 0, 1), op(Op_jz, b + 4, 2), op(Op_ret, 0), konst(1, 1),
          op(Op_sub, 2, 0, 1), call(3, 1, 2), konst(1, 2), op(Op_sub, 2, 0, 1), call(4, 1, 2),
          op(Op_add, 5, 3, 4), op(Op_ret, 5)},
         1);
  EXPECT_EQ(run(fib).rc, 6765);

  Prog sieve;  // primes below 1000, flags at 0x1000
  sieve.fn(10, {konst(1, 2), konst(2, 1000), konst(8, 1), konst(7, 0),
                op(Op_ge_u, 3, 1, 2), op(Op_jnz, 17, 3),                 // 4: outer, i < N
                op(Op_load8_u, 4, 1, 0x1000), op(Op_jnz, 15, 4),         // composite: next
                op(Op_add, 7, 7, 8), op(Op_mul, 5, 1, 1),                // count, j = i * i
                op(Op_lt_u, 3, 5, 2), op(Op_jz, 15, 3),                  // 10: inner, j < N
                op(Op_store8, 5, 8, 0x1000), op(Op_add, 5, 5, 1), op(Op_jmp, 10),
                op(Op_add, 1, 1, 8), op(Op_jmp, 4),                      // 15: next i
                exitWith(7)});
  EXPECT_EQ(run(sieve).rc, 168);
}

TEST(VmLoop, StepLimitCountsEachInstructionOfTheLoop) {
  // 2 setup + 5 rounds of add, lt_s, jnz + exit = 18 instructions.
  for (uint32_t limit = 1; limit <= 19; limit++) {
    Prog p;
    p.fn(8, {konst(2, 5), konst(4, 1), op(Op_add, 1, 1, 4), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 2, 3),
             exitWith(1)});
    VmConfig cfg;
    cfg.stepLimit = limit;
    Result r = run(p, cfg);
    EXPECT_EQ(r.rc, limit < 18 ? -1 : 5) << limit;
    EXPECT_EQ(r.err, limit < 18 ? "zanb trap: step limit reached" : "") << limit;
  }
}

// The function under test (pc 3..) is followed by code that traps if it is
// ever run in that frame; main exits 7 once the call returns.
TEST(VmLoop, FunctionEndStopsCompareAndBranch) {
  struct R {
    const char* what;
    std::vector<Insn> f1, f2;
  };
  const R rows[] = {
      {"ends with an add",
       {konst(1, 1), konst(2, 5), op(Op_add, 0, 1, 2)},
       {op(Op_lt_s, 3, 1, 2), op(Op_jnz, 8, 3), op(Op_trap, 1)}},
      {"ends with a compare",
       {konst(1, 1), konst(2, 5), op(Op_lt_s, 3, 1, 2)},
       {op(Op_jnz, 7, 3), op(Op_trap, 1)}},
      {"branch far beyond",
       {konst(1, 1), konst(2, 5), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 1000, 3), op(Op_trap, 2)}, {}},
      {"branch to the end",
       {konst(1, 1), konst(2, 5), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 8, 3), op(Op_trap, 2)},
       {op(Op_trap, 1)}},
      {"add then branch beyond",
       {konst(1, 1), konst(2, 5), op(Op_add, 1, 1, 1), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 500, 3)},
       {op(Op_trap, 1)}},
  };
  for (const R& r : rows) {
    Prog p;
    p.fn(4, {call(0, 1, 0), konst(1, 7), exitWith(1)});
    p.fn(4, r.f1);
    p.fn(4, r.f2.empty() ? std::vector<Insn>{op(Op_trap, 1)} : r.f2);
    Result res = run(p);
    EXPECT_EQ(res.rc, 7) << r.what;
    EXPECT_EQ(res.err, "") << r.what;
  }
}

// Diagnostic switches come from the environment and print to the process's
// standard error, so these tests set the variables and capture fd 2.
struct EnvVars {
  std::vector<std::string> names;
  EnvVars(std::initializer_list<std::pair<const char*, const char*>> vars) {
    for (auto& [n, v] : vars) {
      setenv(n, v, 1);
      names.push_back(n);
    }
  }
  ~EnvVars() {
    for (auto& n : names) unsetenv(n.c_str());
  }
};

Result runTraced(const Prog& p, std::initializer_list<std::pair<const char*, const char*>> vars,
                 std::string& trace) {
  EnvVars env(vars);
  testing::internal::CaptureStderr();
  Result r = run(p);
  trace = testing::internal::GetCapturedStderr();
  return r;
}

TEST(VmTrace, ProgramCounterTrace) {
  Prog p;
  p.fn(1, {call(0, 1, 0)});
  p.fn(8, {konst(2, 2), konst(4, 1), op(Op_add, 1, 1, 4), op(Op_lt_s, 3, 1, 2), op(Op_jnz, 3, 3)});
  std::string trace;
  Result r = runTraced(p, {{"ZAN_ZANB_PCTRACE", "1"}}, trace);
  EXPECT_EQ(r.rc, 0) << r.err;
  const std::string loop =
      "f1 pc=3 op=7 a=1 b=1 c=4\nf1 pc=4 op=34 a=3 b=1 c=2\nf1 pc=5 op=58 a=3 b=3 c=0\n";
  EXPECT_EQ(trace,
            "f0 pc=0 op=59 a=0 b=1 c=0\nf1 pc=1 op=1 a=2 b=2 c=0\nf1 pc=2 op=1 a=4 b=1 c=0\n" +
                loop + loop);
}

TEST(VmTrace, CallAndSyscallTrace) {
  Prog p;
  p.seg(0x100, "hello");
  p.seg(0x300, u32s({0x100, 5, 131070, 4}));
  p.seg(131070, "AB");
  p.fn(6, {konst(5, 11), call(0, 1, 5)});
  p.fn(8,
       {konst(3, 0xFFFFFFFF00000007), sys(109, 0, 2), konst(2, 1), konst(3, 0x300), konst(4, 2),
        konst(5, 0x380), sys(100, 0, 2)},
       1);
  std::string trace;
  Result r = runTraced(p, {{"ZAN_ZANB_TRACE", "1"}}, trace);
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(r.out, "hello");
  EXPECT_EQ(trace,
            "[call f1 argc=1 base=5 a0=11 a1=0 a2=0]\n"
            "[syscall 109] a0=0 a1=7 a2=0 a3=0\n"
            "[syscall 100] a0=1 a1=768 a2=2 a3=896\n"
            "[fd_write fd=1 iovs=768 n=2] iov[0]=ptr256 len5 'hello' iov[1]=ptr131070 len4 'AB?"
            "?'\n");
}

// fd_write with no iovecs prints the ring: every instruction so far,
// the fd_write itself included, with the whole opInfo word.
TEST(VmTrace, InstructionRing) {
  Prog p;
  p.fn(1, {konst(0, 5), call(0, 1, 0)});
  p.fn(16, {konst(10, 1), konst(11, 0x300), konst(13, 0x380), sys(100, 0, 10), sys(100, 0, 10)});
  const std::string setup =
      "  f0 pc=0 op=257 a=0 b=5 c=0\n  f0 pc=1 op=59 a=0 b=1 c=0\n  f1 pc=2 op=257 a=10 b=1 c=0\n"
      "  f1 pc=3 op=257 a=11 b=768 c=0\n  f1 pc=4 op=257 a=13 b=896 c=0\n";
  const std::string fd1 = "  f1 pc=5 op=70 a=100 b=0 c=10\n",
                    fd2 = "  f1 pc=6 op=70 a=100 b=0 c=10\n";
  std::string trace;
  EXPECT_EQ(runTraced(p, {{"ZAN_ZANB_RING", ""}}, trace).rc, 0);
  EXPECT_EQ(trace, "--- last 6 instructions ---\n" + setup + fd1 + "--- last 7 instructions ---\n" +
                       setup + fd1 + fd2);
  runTraced(p, {{"ZAN_ZANB_RING", "0"}, {"ZAN_ZANB_RING_LO", "1"}, {"ZAN_ZANB_RING_HI", "5"}},
            trace);
  EXPECT_EQ(trace, "--- last 5 instructions ---\n" + setup.substr(setup.find("  f0 pc=1")) + fd1 +
                       "--- last 5 instructions ---\n" + setup.substr(setup.find("  f0 pc=1")) +
                       fd1);
  runTraced(p, {{"ZAN_ZANB_RING", "1"}, {"ZAN_ZANB_RING_FUNC", "0"}}, trace);
  EXPECT_EQ(trace, "--- last 2 instructions ---\n" + setup.substr(0, setup.find("  f1")) +
                       "--- last 2 instructions ---\n" + setup.substr(0, setup.find("  f1")));
}

TEST(VmTrace, RingKeepsTheLast4096) {
  // 2 setup + 3 per round; 1500 rounds, then fd_write: 4503 entries.
  Prog p;
  p.fn(16, {konst(2, 1500), konst(4, 1), op(Op_add, 1, 1, 4), op(Op_lt_u, 3, 1, 2),
            op(Op_jnz, 2, 3), sys(100, 0, 10)});
  std::vector<std::string> all = {"  f0 pc=0 op=257 a=2 b=1500 c=0\n",
                                  "  f0 pc=1 op=257 a=4 b=1 c=0\n"};
  for (int i = 0; i < 1500; i++) {
    all.push_back("  f0 pc=2 op=7 a=1 b=1 c=4\n");
    all.push_back("  f0 pc=3 op=35 a=3 b=1 c=2\n");
    all.push_back("  f0 pc=4 op=58 a=2 b=3 c=0\n");
  }
  all.push_back("  f0 pc=5 op=70 a=100 b=0 c=10\n");
  std::string want = "--- last 4096 instructions ---\n";
  for (size_t i = all.size() - 4096; i < all.size(); i++) want += all[i];
  std::string trace;
  EXPECT_EQ(runTraced(p, {{"ZAN_ZANB_RING", "1"}}, trace).rc, 0);
  EXPECT_TRUE(trace == want) << "first line: " << trace.substr(0, trace.find('\n')) << ", "
                             << trace.size() << " bytes, want " << want.size();
}

TEST(VmMemory, InitialSizeAndDataSegments) {
  Prog p;
  EXPECT_EQ(eval({}, {op(Op_mem_size, 0)}, p).value, 2u);
  p.header.memMinPages = 3;
  EXPECT_EQ(eval({}, {op(Op_mem_size, 0)}, p).value, 3u);

  // A segment past the end grows memory to exactly its end; later segments
  // overwrite earlier ones.
  Prog g;
  g.header.memMinPages = 1;
  g.seg(69996, "abcd");
  g.seg(69998, "Z");
  Eval e = eval({69996},
                {op(Op_mem_size, 2), op(Op_load, 0, 0, 0, kI32), konst(3, 0x100),
                 op(Op_store, 3, 2, 0, kI64)},
                g, {}, 0x100, 8);
  EXPECT_EQ(e.value, 0x645A6261u);  // "abZd"
  EXPECT_EQ(le64(e.mem), 1u);      // 70000 bytes round down to one page
  e = eval({69997}, {op(Op_load, 0, 0, 0, kI32)}, g);
  EXPECT_EQ(e.err, fault(69997, 4, 70000));

  Prog big;  // beyond the default two pages
  big.seg(200000, "xy");
  e = eval({199999}, {op(Op_load16_u, 0, 0, 1), op(Op_mem_size, 1), op(Op_add, 0, 0, 1, kI64)},
           big);
  EXPECT_EQ(e.value, 0x7978u + 3u);
}

// memOff + length past 2^64 cannot be placed; the load must fail cleanly
// rather than copy the segment to a wrapped address.
TEST(VmMemory, SegmentEndWrapping) {
  Prog p;
  p.seg(~0ull, "ab");
  p.fn(0, {});
  Result r = run(p);
  EXPECT_EQ(r.rc, -1);
  EXPECT_NE(r.err, "");
}

TEST(VmMemory, Globals) {
  Prog p;
  p.globals = {Global{{9, 9, 9, 9, 9, 9, 9, 9}, 0x1122334455667788ull}, Global{{}, 7}};
  EXPECT_EQ(eval({}, {op(Op_getg, 0, 0)}, p).value, 0x1122334455667788ull);
  EXPECT_EQ(eval({0, 0xFFFFFFFF00000ABCull}, {op(Op_setg, 1, 1), op(Op_getg, 0, 1)}, p).value,
            0xFFFFFFFF00000ABCull);
}

}  // namespace
