// The system calls the machine answers itself: exit, console output,
// arguments and environment, clock, random bytes, the text helpers, the
// fd_write family, and the null-host defaults of 10..55.
#include <gtest/gtest.h>

#include <chrono>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;

constexpr uint64_t ALL = ~0ull;
const std::string kEE8(8, '\xEE');

// Arguments go to slots 10.., the result to slot 0 (preset to kMark).
Eval callSys(uint32_t num, const std::vector<uint64_t>& args, const Prog& p = {}, VmConfig cfg = {},
             uint32_t dumpAt = 0, uint32_t dumpLen = 0, const std::vector<Insn>& after = {}) {
  std::vector<Insn> body;
  for (size_t i = 0; i < args.size(); i++) body.push_back(konst(uint32_t(10 + i), args[i]));
  body.push_back(sys(num, 0, 10));
  body.insert(body.end(), after.begin(), after.end());
  return eval({kMark}, body, p, cfg, dumpAt, dumpLen);
}

TEST(SyscallWrite, LengthsAndStreams) {
  Prog p;
  p.seg(0, std::string("XY\0", 3));
  p.seg(0x100, std::string("hello\0", 6));
  p.seg(0x1000, std::string(5000, 'a') + '\0');
  p.seg(131070, "ab");  // runs into the end of memory unterminated
  struct R {
    uint64_t fd, addr, len;
    std::string out, err;
    uint64_t result;
  };
  const R rows[] = {
      {1, 0x100, 5, "hello", "", 5}, {2, 0x100, 3, "", "hel", 3}, {7, 0x100, 2, "he", "", 2},
      {0x100000002, 0x100, 1, "", "h", 1}, {1, 0x100, 0x100000003, "hel", "", 3},
      {1, 0x100, 0, "hello", "", 5}, {1, 0, 0, "", "", 0},
      {1, 0x1000, 0, std::string(4096, 'a'), "", 4096}, {1, 131070, 0, "ab", "", 2},
      {1, 131070, 10, "", "", 10}, {1, 0x30000, 4, "", "", 4},
  };
  for (const R& r : rows) {
    std::string what = hex(r.fd) + " " + hex(r.addr) + " " + hex(r.len);
    Eval e = callSys(1, {r.fd, r.addr, r.len}, p);
    EXPECT_EQ(e.rc, 0) << what << ": " << e.err;
    EXPECT_EQ(e.out, r.out) << what;
    EXPECT_EQ(e.errOut, r.err) << what;
    EXPECT_EQ(e.value, r.result) << what;
  }
}

// A bad range is no failure of write, but the fault stays: stores and other
// writes go on, and the next load traps with it even in bounds.
TEST(SyscallWrite, FaultSticksUntilTheNextLoad) {
  Prog p;
  p.seg(0x100, "hi");
  Eval e = callSys(1, {1, 131070, 10}, p, {}, 0, 0,
                   {konst(1, 0x100), op(Op_store8, 1, 1, 8), konst(10, 1), konst(11, 0x100),
                    konst(12, 2), sys(1, 0, 10), op(Op_load, 2, 1, 0, kI32), konst(3, 77)});
  EXPECT_EQ(e.rc, -1);
  EXPECT_EQ(e.out, "hi");
  EXPECT_EQ(e.err, fault(131070, 10));
}

// Bulk operations and system calls fail only on their own accesses; the
// stale fault is left for the load at the end.
TEST(SyscallWrite, StaleFaultFailsOnlyLoadsAndFdWrite) {
  Prog p;
  p.seg(0x100, "abcdefgh");
  Eval e = callSys(1, {1, 131070, 10}, p, {}, 0, 0,
                   {konst(1, 0x100), konst(2, 0x104), konst(3, 2), op(Op_mem_copy, 1, 2, 3),
                    op(Op_mem_fill, 2, 1, 3), konst(0, 2), op(Op_mem_init, 1, 4, 0),
                    op(Op_mem_grow, 4, 5), konst(10, 0x200), konst(11, 8), sys(5, 0, 10),
                    konst(12, 0x200), sys(106, 0, 10), konst(13, 0x200), sys(110, 0, 10),
                    sys(101, 0, 10), konst(11, 0x200), sys(108, 0, 10), konst(10, 0x100),
                    konst(11, 0x200), sys(103, 0, 10), op(Op_store, 1, 1, 0, kI64),
                    op(Op_load, 2, 1, 0, kI64)});
  EXPECT_EQ(e.err, fault(131070, 10));
}

TEST(SyscallExit, StopsWithFramesOnTheStack) {
  struct R {
    uint32_t num;
    uint64_t code;
    int rc;
  };
  for (R r :
       {R{0, 3, 3}, R{114, 3, 3}, R{0, 0xABCD000000000005, 5}, R{0, 0, 0}, R{0, 0xFFFFFFFF, -1}}) {
    Prog p;
    p.seg(0x10, "x");
    std::vector<Insn> printX = {konst(1, 1), konst(2, 0x10), konst(3, 1), sys(1, 0, 1)};
    std::vector<Insn> f0 = {op(Op_call, 0, 1, 0)}, f1 = {op(Op_call, 0, 2, 0)};
    f0.insert(f0.end(), printX.begin(), printX.end());
    f1.insert(f1.end(), printX.begin(), printX.end());
    p.fn(4, f0);
    p.fn(4, f1);
    p.fn(1, {konst(0, r.code), sys(r.num, 0, 0), op(Op_trap, 0)});
    Result res = run(p);
    EXPECT_EQ(res.rc, r.rc) << r.num << " " << hex(r.code) << ": " << res.err;
    EXPECT_EQ(res.out, "") << r.num << " " << hex(r.code);
  }
}

// Count at 0x10, table at 0x20, text at 0x40, all over 0xEE bytes.
Prog listArea() {
  Prog p;
  p.seg(0x10, std::string(0x40, '\xEE'));
  return p;
}

TEST(SyscallArgs, ArgumentAndEnvironmentLists) {
  VmConfig cfg;
  cfg.args = {"prog", "ab", ""};
  cfg.env = {"A=1", "BB=22"};
  const std::string ee4(4, '\xEE'), table = u32s({0x40, 0x45, 0x48});
  const std::string text = std::string("prog\0ab\0\0", 9);
  struct R {
    const char* what;
    uint32_t num;
    std::vector<uint64_t> args;
    bool empty;  // run with empty args and env
    std::string want;  // the 0x40 bytes from 0x10
  };
  auto area = [&](std::string count, std::string tab, std::string txt) {
    count.resize(16, '\xEE');
    tab.resize(32, '\xEE');
    txt.resize(16, '\xEE');
    return count + tab + txt;
  };
  const std::string envText = std::string("A=1\0BB=22\0", 10);
  const R rows[] = {
      {"args", 3, {0x10, 0x20, 0x40}, false, area(u32s({3}), table, text)},
      {"args empty", 3, {0x10, 0x20, 0x40}, true, area(u32s({0}), "", "")},
      {"arg sizes", 102, {0x10, 0x14}, false, area(u32s({3, 9}), "", "")},
      {"arg strings", 103, {0x20, 0x40}, false, area("", table, text)},
      {"env", 7, {0x10, 0x40, 100}, false, area(u32s({2}), "", envText)},
      {"env exact fit", 7, {0x10, 0x40, 10}, false, area(u32s({2}), "", envText)},
      {"env one short", 7, {0x10, 0x40, 9}, false, area(u32s({1}), "", std::string("A=1\0", 4))},
      {"env none fits", 7, {0x10, 0x40, 3}, false, area(u32s({0}), "", "")},
      {"env empty", 7, {0x10, 0x40, 100}, true, area(u32s({0}), "", "")},
      {"env sizes", 104, {0x10, 0x14}, false, area(u32s({2, 10}), "", "")},
      {"env strings", 105, {0x20, 0x40}, false, area("", u32s({0x40, 0x44}), envText)},
  };
  for (const R& r : rows) {
    VmConfig c = r.empty ? VmConfig{} : cfg;
    Eval e = callSys(r.num, r.args, listArea(), c, 0x10, 0x40);
    EXPECT_EQ(e.rc, 0) << r.what << ": " << e.err;
    EXPECT_EQ(e.value, 0u) << r.what;
    EXPECT_EQ(e.mem, r.want) << r.what;
  }
  // Out of bounds pointers fail the call.
  struct F {
    uint32_t num;
    std::vector<uint64_t> args;
    std::string err;
  };
  const F fails[] = {
      {3, {0x10, 0x20, 131070}, fault(131070, 5)}, {3, {131070, 0x20, 0x40}, fault(131070, 4)},
      {3, {0x10, 131066, 0x40}, fault(131070, 4)}, {102, {0x10, 131069}, fault(131069, 4)},
      {103, {0x20, 131071}, fault(131071, 5)}, {104, {131072, 0x10}, fault(131072, 4)},
      {7, {0x10, 131070, 100}, fault(131070, 4)}, {7, {131070, 0x40, 100}, fault(131070, 4)},
  };
  for (const F& f : fails) {
    Eval e = callSys(f.num, f.args, listArea(), cfg);
    EXPECT_EQ(e.err, f.err) << f.num << " " << hex(f.args[0]) << " " << hex(f.args[1]);
  }
}

TEST(SyscallClock, NanosecondsSinceTheEpoch) {
  auto now = [] {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch()).count());
  };
  uint64_t before = now();
  Eval e4 = callSys(4, {});
  Eval e106 = callSys(106, {ALL, ALL, 0x100}, {}, {}, 0x100, 8);
  uint64_t after = now();
  EXPECT_GE(e4.value, before);
  EXPECT_LE(e4.value, after);
  EXPECT_EQ(e106.value, 0u);
  EXPECT_GE(le64(e106.mem), before);
  EXPECT_LE(le64(e106.mem), after);
  EXPECT_EQ(callSys(106, {0, 0, 131065}).err, fault(131065, 8));
}

TEST(SyscallRandom, FillsExactlyTheRange) {
  Prog p;
  p.seg(0x100, std::string(40, '\xEE'));
  for (uint32_t num : {5u, 107u}) {
    Eval a = callSys(num, {0x100, 32}, p, {}, 0x100, 40),
         b = callSys(num, {0x100, 32}, p, {}, 0x100, 40);
    EXPECT_EQ(a.value, 0u);
    EXPECT_NE(a.mem.substr(0, 32), b.mem.substr(0, 32)) << num;
    EXPECT_NE(a.mem.substr(0, 32), std::string(32, '\0')) << num;
    EXPECT_EQ(a.mem.substr(32), kEE8) << num;
    Eval c = callSys(num, {0x100, 5}, p, {}, 0x100, 8);  // a short piece
    EXPECT_EQ(c.mem.substr(5), std::string(3, '\xEE')) << num;
    EXPECT_EQ(callSys(num, {0x100, 0}, p, {}, 0x100, 8).mem, kEE8) << num;
    EXPECT_EQ(callSys(num, {131072, 0}).err, "") << num;
    EXPECT_EQ(callSys(num, {131073, 0}).err, fault(131073, 0)) << num;
    EXPECT_EQ(callSys(num, {131070, 5}).err, fault(131070, 5)) << num;
  }
}

TEST(SyscallText, Strfind) {
  Prog p;
  p.seg(0x100, std::string("hello world\0", 12));
  p.seg(0x200, std::string("WORLD\0\0xyz\0hello world and more\0HELLO\0o\0", 40));
  const uint64_t world = 0x200, empty = 0x206, xyz = 0x207, longer = 0x20B, hello = 0x220,
                 o = 0x226;
  struct R {
    uint64_t hay, needle, want;
  };
  const R rows[] = {
      {0x100, world, 6}, {0x100, empty, 0}, {0x100, xyz, ALL}, {0x100, longer, ALL},
      {0x100, hello, 0}, {0x100, o, 4}, {0x106, o, 1}, {0xFFFFFFFF00000100, world, 6},
      {0x30000, o, ALL}, {0x30000, empty, 0}, {0x100, 0x30000, 0}, {0x100, 131072, 0},
  };
  for (const R& r : rows) {
    // A failed string read sets no fault: the load after it must not trap.
    Eval e = callSys(26, {r.hay, r.needle}, p, {}, 0, 0, {op(Op_load, 5, 6, 0, kI32)});
    EXPECT_EQ(e.err, "") << hex(r.hay) << " " << hex(r.needle);
    EXPECT_EQ(hex(e.value), hex(r.want)) << hex(r.hay) << " " << hex(r.needle);
  }
}

// fmt and strcopy write over '#' bytes at the destination.
TEST(SyscallText, FmtAndStrcopy) {
  Prog p;
  p.seg(0, "ZZ");  // a suffix address of 0 means none, not this text
  p.seg(0x400, std::string(16, '#'));
  p.seg(0x500, std::string(" kB\0%\0hello\0", 12));
  p.seg(131064, std::string(8, '#'));
  const uint64_t kB = 0x500, pct = 0x504, hello = 0x506;
  struct R {
    uint32_t num;
    uint64_t dest, cap, value, decimals, suffix;
    std::string text;  // as written, terminator included; empty: nothing written
    uint64_t result;
  };
  auto neg = [](int32_t v) { return uint64_t(uint32_t(v)); };
  const R rows[] = {
      {29, 0x400, 32, 1234, 2, 0, std::string("12.34\0", 6), 5},
      {29, 0x400, 32, 5, 2, 0, std::string("0.05\0", 5), 4},
      {29, 0x400, 32, neg(-5), 0, 0, std::string("-5\0", 3), 2},
      {29, 0x400, 3, 12345, 0, 0, std::string("12\0", 3), 2},
      {29, 0x400, 32, neg(INT32_MIN), 0, 0, std::string("-2147483648\0", 12), 11},
      {29, 0x400, 32, 12345, 7, 0, std::string("12.345\0", 7), 6},
      {29, 0x400, 32, 5, 7, 0, std::string("0.005\0", 6), 5},
      {29, 0x400, 32, 0, 0, 0, std::string("0\0", 2), 1},
      {29, 0x400, 32, neg(-5), 2, 0, std::string("-0.05\0", 6), 5},
      {29, 0x400, 32, 12, 1, 0, std::string("1.2\0", 4), 3},
      {29, 0x400, 32, 100, 1, 0, std::string("10.0\0", 5), 4},
      {29, 0x400, 32, 1234, 2, kB, std::string("12.34 kB\0", 9), 8},
      {29, 0x400, 3, 42, 0, pct, std::string("42\0", 3), 2},
      {29, 0x400, 32, 5, 2, 0x30000, std::string("0.05\0", 5), 4},
      {29, 0x400, 2, 12345, 0, 0, std::string("1\0", 2), 1},
      {29, 0x400, 32, 0xFFFFFFFF00000005, 0, 0, std::string("5\0", 2), 1},
      {29, 0x400, 1, 5, 0, 0, "", 0}, {29, 0x400, 0, 5, 0, 0, "", 0},
      {29, 131069, 3, 12345, 0, 0, std::string("12\0", 3), 2}, {29, 131070, 3, 12345, 0, 0, "", 0},
      {29, 0x30000, 32, 5, 0, 0, "", 0}, {40, 0x400, 32, hello, 0, 0, std::string("hello\0", 6), 5},
      {40, 0x400, 3, hello, 0, 0, std::string("he\0", 3), 2}, {40, 0x400, 1, hello, 0, 0, "", 0},
      {40, 0x400, 32, 0x30000, 0, 0, std::string("\0", 1), 0},
      {40, 131069, 3, hello, 0, 0, std::string("he\0", 3), 2}, {40, 131070, 3, hello, 0, 0, "", 0},
  };
  for (const R& r : rows) {
    std::string what = std::to_string(r.num) + " dest " + std::to_string(r.dest) + " cap " +
                       std::to_string(r.cap) + " value " + hex(r.value) + " decimals " +
                       std::to_string(r.decimals);
    uint32_t len = r.dest >= 131072 ? 0 : uint32_t(std::min<uint64_t>(16, 131072 - r.dest));
    std::vector<uint64_t> args =
        r.num == 29 ? std::vector<uint64_t>{r.dest, r.cap, r.value, r.decimals, r.suffix}
                    : std::vector<uint64_t>{r.dest, r.cap, r.value};
    Eval e = callSys(r.num, args, p, {}, uint32_t(r.dest), len);
    EXPECT_EQ(e.rc, 0) << what << ": " << e.err;
    EXPECT_EQ(e.value, r.result) << what;
    std::string want = r.text + std::string(len > r.text.size() ? len - r.text.size() : 0, '#');
    EXPECT_EQ(e.mem, want) << what;
  }
}

// iovecs at 0x300, the total at 0x380 over 0xEE bytes.
TEST(SyscallFdWrite, IovecsAndTotal) {
  struct R {
    const char* what;
    uint64_t fd;
    std::vector<uint32_t> iov;  // address, length pairs
    uint64_t total;
    std::string out, errOut, err;
    uint64_t totalAt = 0x380;
  };
  const R rows[] = {
      {"two", 1, {0x100, 5, 0x200, 3}, 8, "helloabc", "", ""},
      {"stderr", 2, {0x100, 5, 0x200, 3}, 8, "", "helloabc", ""}, {"none", 1, {}, 0, "", "", ""},
      {"empty middle", 1, {0x100, 5, 0x200, 0, 0x200, 3}, 8, "helloabc", "", ""},
      {"last out of bounds still counts", 1, {0x100, 5, 131070, 16}, 21, "hello", "", ""},
      {"earlier fault fails", 1, {131070, 16, 0x200, 3}, 0, "", "", fault(131070, 16)},
      {"total out of bounds", 1, {0x100, 5}, 0, "hello", "", fault(131070, 4), 131070},
  };
  for (const R& r : rows) {
    Prog p;
    p.seg(0x100, "hello");
    p.seg(0x200, "abc");
    std::string iov;
    for (uint32_t w : r.iov) iov += u32s({w});
    p.seg(0x300, iov.empty() ? std::string("\x01", 1) : iov);
    p.seg(0x380, kEE8);
    Eval e = callSys(100, {r.fd, 0x300, r.iov.size() / 2, r.totalAt}, p, {}, 0x380, 8);
    EXPECT_EQ(e.err, r.err) << r.what;
    EXPECT_EQ(e.out, r.out) << r.what;
    EXPECT_EQ(e.errOut, r.errOut) << r.what;
    if (r.err.empty()) {
      EXPECT_EQ(e.value, 0u) << r.what;
      EXPECT_EQ(e.mem, u32s({uint32_t(r.total)}) + std::string(4, '\xEE')) << r.what;
    }
  }
  // The iovec array itself running off the end: its length word is lost.
  EXPECT_EQ(callSys(100, {1, 131068, 1, 0x380}).err, fault(131072, 4));
  // A fault left by an earlier write fails fd_write before it prints.
  Prog p;
  p.seg(0x100, "hello");
  p.seg(0x300, u32s({0x100, 5}));
  Eval e =
      callSys(1, {1, 131070, 10}, p, {}, 0, 0,
              {konst(10, 1), konst(11, 0x300), konst(12, 1), konst(13, 0x380), sys(100, 0, 10)});
  EXPECT_EQ(e.err, fault(131070, 10));
  EXPECT_EQ(e.out, "");
}

TEST(SyscallMisc, StubsAndNoOps) {
  Prog p;
  p.seg(0x380, std::string(32, '\xEE'));
  struct R {
    uint32_t num;
    std::vector<uint64_t> args;
    uint64_t result;
    std::string mem;  // 32 bytes from 0x380
  };
  const std::string ee = std::string(32, '\xEE');
  auto over = [&](std::string s) { return s + ee.substr(s.size()); };
  const R rows[] = {
      {101, {ALL, ALL, ALL, 0x380}, 0, over(std::string(4, '\0'))},
      {113, {ALL, ALL, ALL, 0x380}, 0, over(std::string(4, '\0'))},
      {108, {ALL, 0x380}, 0, over(std::string("\x02", 1) + std::string(23, '\0'))},
      {109, {ALL, ALL}, 8, ee}, {110, {ALL, ALL, ALL, 0x380}, 0, over(std::string(8, '\0'))},
      {2, {0x380, 0x380, 0x380}, 0, ee}, {6, {}, 0, ee}, {111, {0x380}, 0, ee}, {112, {}, 0, ee},
      {115, {}, 0, ee},
  };
  for (const R& r : rows) {
    Eval e = callSys(r.num, r.args, p, {}, 0x380, 32);
    EXPECT_EQ(e.rc, 0) << r.num << ": " << e.err;
    EXPECT_EQ(e.value, r.result) << r.num;
    EXPECT_EQ(e.mem, r.mem) << r.num;
    EXPECT_EQ(e.out + e.errOut, "") << r.num;
  }
  EXPECT_EQ(callSys(101, {0, 0, 0, 131070}).err, fault(131070, 4));
  EXPECT_EQ(callSys(113, {0, 0, 0, 131069}).err, fault(131069, 4));
  EXPECT_EQ(callSys(108, {0, 131060}).err, fault(131060, 24));
  EXPECT_EQ(callSys(110, {0, 0, 0, 131066}).err, fault(131066, 8));
}

// The argument count the run loop demands of each number: with the
// arguments ending at the frame's last slot the call is made, one further
// traps. Arguments are all zero, so every call is harmless.
TEST(SyscallFrame, ArgumentCounts) {
  auto need = [](uint32_t n) -> uint32_t {
    if (n == 0 || n == 25 || n == 41 || n == 48 || n == 55 || n == 111 || n == 114) return 1;
    if ((n >= 1 && n <= 3) || n == 7 || n == 40 || n == 42 || n == 46 || n == 47 || n == 51 ||
        n == 106)
      return 3;
    if (n == 5 || n == 26 || n == 30 || n == 49 || n == 50 || n == 54 || (n >= 102 && n <= 105) ||
        (n >= 107 && n <= 109))
      return 2;
    if ((n >= 10 && n <= 19) || n == 22 || n == 23) return 6;
    if (n == 24) return 30;
    if (n == 27 || n == 28 || (n >= 31 && n <= 35) || (n >= 43 && n <= 45) || n == 52 || n == 53)
      return 1;
    if (n == 29 || n == 38) return 5;
    if (n == 100 || n == 101 || n == 110 || n == 113) return 4;
    return 0;
  };
  for (uint32_t n = 0; n <= 120; n++) {
    uint32_t k = need(n);
    Prog fits;
    fits.fn(40, {sys(n, 0, k ? 40 - k : 39)});
    Result r = run(fits);
    EXPECT_NE(r.err, "zanb trap: syscall args out of frame") << n;
    if (k >= 2) {  // with one argument the base itself would be past the frame
      Prog over;
      over.fn(40, {sys(n, 0, 41 - k)});
      EXPECT_EQ(run(over).err, "zanb trap: syscall args out of frame") << n;
    }
  }
}

// With no host every host call answers its default; arguments all zero.
TEST(SyscallHost, NullHostDefaults) {
  for (uint32_t num = 10; num <= 55; num++) {
    if (num == 26 || num == 29 || num == 40) continue;
    Eval e = eval({kMark}, {sys(num, 0, 1)});
    uint64_t want = num == 31 ? 4 : (num == 36 || num == 53) ? 2 : 0;
    EXPECT_EQ(e.rc, 0) << num << ": " << e.err;
    EXPECT_EQ(e.value, want) << num;
  }
}

}  // namespace
