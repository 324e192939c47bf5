// System calls the machine answers itself (console output, arguments and environment, the text helpers, the
// fd_write family and its sticky fault), and host calls through a recording host: signed arguments, results
// in the slot, text across guest memory, call 24's block (plain dispatch: the script cases' host logs).
#include <gtest/gtest.h>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;

constexpr uint64_t ALL = ~0ull;

// One call and what it leaves: the result and the dumped bytes, or the trap; and what it printed.
struct SysRow {
  uint32_t num;
  std::vector<uint64_t> args;
  uint64_t result = 0;
  std::string mem = {}, err = {}, out = {}, errOut = {};  // empty err: no trap
};

void runSysRows(const std::vector<SysRow>& rows, const Prog& p, uint32_t dumpAt, uint32_t dumpLen,
                VmConfig cfg = {}, const std::vector<Insn>& after = {}) {
  for (const SysRow& r : rows) {
    std::string what = std::to_string(r.num);
    for (uint64_t a : r.args) what += " " + hex(a);
    Eval e = callSys(r.num, r.args, p, cfg, dumpAt, r.err.empty() ? dumpLen : 0, after);
    EXPECT_EQ(outcome(e), r.err.empty() ? hex(r.result) : r.err) << what;
    EXPECT_EQ(std::tie(e.mem, e.out, e.errOut), std::tie(r.mem, r.out, r.errOut)) << what;
  }
}

TEST(ZanbSyscall, WriteLengthsAndStreams) {
  Prog p;
  p.seg(0, std::string("XY\0", 3));
  p.seg(0x100, std::string("hello\0", 6));
  p.seg(0x1000, std::string(5000, 'a') + '\0');
  p.seg(131070, "ab");  // runs into the end of memory unterminated
  runSysRows({{1, {1, 0x100, 5}, 5, "", "", "hello"}, {1, {2, 0x100, 3}, 3, "", "", "", "hel"},
              {1, {7, 0x100, 2}, 2, "", "", "he"}, {1, {0x100000002, 0x100, 1}, 1, "", "", "", "h"},
              {1, {1, 0x100, 0x100000003}, 3, "", "", "hel"},
              // Length 0: up to the terminator, 4096 bytes at most; from address 0 nothing.
              {1, {1, 0x100, 0}, 5, "", "", "hello"}, {1, {1, 0, 0}, 0},
              {1, {1, 0x1000, 0}, 4096, "", "", std::string(4096, 'a')},
              // A bad range is no failure of write.
              {1, {1, 131070, 10}, 10}, {1, {1, 0x30000, 4}, 4}},
             p, 0, 0);
  // A scan that reaches the end of memory leaves its fault: the in-bounds load behind traps.
  runSysRows({{1, {1, 131070, 0}, 0, "", fault(131072, 1), "ab"}, {1, {1, 131072, 0}, 0, "", fault(131072, 1)}},
             p, 0, 0, {}, {op(Op_load, 5, 6, 0, kI32)});
}

// The fault of a bad write stays through stores, bulk operations, other system calls and
// writes; the next load or fd_write traps with it, in bounds or not.
TEST(ZanbSyscall, FaultSticksUntilTheNextLoadOrFdWrite) {
  Prog p;
  p.seg(0x100, "abcdefgh");
  p.seg(0x280, "ok");
  p.seg(0x300, u32s({0x100, 5}));
  const std::vector<Insn> others = {
      konst(1, 0x100), konst(2, 0x104), konst(3, 2), op(Op_mem_copy, 1, 2, 3),
      op(Op_mem_fill, 2, 1, 3), konst(0, 2), op(Op_mem_init, 1, 4, 0), op(Op_mem_grow, 4, 5),
      konst(10, 0x200), konst(11, 8), sys(5, 0, 10), konst(12, 0x200), sys(106, 0, 10),
      konst(13, 0x200), sys(110, 0, 10), sys(101, 0, 10), konst(11, 0x200), sys(108, 0, 10),
      konst(10, 0x100), konst(11, 0x200), sys(103, 0, 10), op(Op_store, 1, 1, 0, kI64),
      konst(10, 1), konst(11, 0x280), konst(12, 2), sys(1, 0, 10)};
  for (Insn last : {op(Op_load, 2, 1, 0, kI64), sys(100, 0, 10)}) {
    std::vector<Insn> after = others;
    after.insert(after.end(), {konst(11, 0x300), konst(12, 1), konst(13, 0x380), last});
    Eval e = callSys(1, {1, 131070, 10}, p, {}, 0, 0, after);
    EXPECT_EQ(e.err, fault(131070, 10));
    EXPECT_EQ(e.out, "ok");
  }
}

// Over 0x40 bytes of 0xEE at 0x10: a count at 0x10, a table at 0x20, text at
// 0x40. Out of bounds pointers fail the call.
TEST(ZanbSyscall, ArgumentAndEnvironmentLists) {
  Prog p;
  p.seg(0x10, std::string(0x40, '\xEE'));
  VmConfig cfg;
  cfg.args = {"prog", "ab", ""};
  cfg.env = {"A=1", "BB=22"};
  auto area = [](std::string count, std::string table, std::string text) {
    count.resize(16, '\xEE');
    table.resize(32, '\xEE');
    text.resize(16, '\xEE');
    return count + table + text;
  };
  const std::string table = u32s({0x40, 0x45, 0x48}), text("prog\0ab\0\0", 9);
  const std::string envText("A=1\0BB=22\0", 10);
  runSysRows({{3, {0x10, 0x20, 0x40}, 0, area(u32s({3}), table, text)},
              {102, {0x10, 0x14}, 0, area(u32s({3, 9}), "", "")}, {103, {0x20, 0x40}, 0, area("", table, text)},
              {7, {0x10, 0x40, 10}, 0, area(u32s({2}), "", envText)},  // an exact fit
              {7, {0x10, 0x40, 9}, 0, area(u32s({1}), "", std::string("A=1\0", 4))},
              {7, {0x10, 0x40, 3}, 0, area(u32s({0}), "", "")},
              {104, {0x10, 0x14}, 0, area(u32s({2, 10}), "", "")},
              {105, {0x20, 0x40}, 0, area("", u32s({0x40, 0x44}), envText)},
              {3, {0x10, 0x20, 131070}, 0, "", fault(131070, 5)},
              {3, {131070, 0x20, 0x40}, 0, "", fault(131070, 4)},
              {3, {0x10, 131066, 0x40}, 0, "", fault(131070, 4)},
              {102, {0x10, 131069}, 0, "", fault(131069, 4)}, {103, {0x20, 131071}, 0, "", fault(131071, 5)},
              {104, {131072, 0x10}, 0, "", fault(131072, 4)}, {7, {0x10, 131070, 100}, 0, "", fault(131070, 4)},
              {7, {131070, 0x40, 100}, 0, "", fault(131070, 4)}},
             p, 0x10, 0x40, cfg);
  runSysRows({{3, {0x10, 0x20, 0x40}, 0, area(u32s({0}), "", "")},
              {7, {0x10, 0x40, 100}, 0, area(u32s({0}), "", "")}},
             p, 0x10, 0x40);
}

// strfind (26: haystack, needle), fmt (29: dest, cap, value, decimals, suffix) and strcopy (40: dest, cap,
// source), writing over '#' bytes at 0x400. A string outside memory reads as "" and sets no fault: the load
// behind each call must not trap.
TEST(ZanbSyscall, StrfindFmtAndStrcopy) {
  Prog p;
  p.seg(0, "ZZ");  // a suffix address of 0 means none, not this text
  p.seg(0x100, std::string("hello world\0", 12));
  p.seg(0x200, std::string("WORLD\0\0xyz\0hello world and more\0HELLO\0o\0", 40));
  p.seg(0x400, std::string(16, '#'));
  p.seg(0x500, std::string(" kB\0%\0hello\0", 12));
  p.seg(131064, std::string(8, '#'));
  const uint64_t world = 0x200, empty = 0x206, xyz = 0x207, longer = 0x20B, hello = 0x220,
                 o = 0x226, kB = 0x500, pct = 0x504, hi = 0x506, nowhere = 0x30000;
  const std::string none(16, '#');
  auto z = [&](const char* s) { return (std::string(s, std::strlen(s) + 1) + none).substr(0, 16); };
  auto neg = [](int32_t v) { return uint64_t(uint32_t(v)); };
  runSysRows({{26, {0x100, world}, 6, none}, {26, {0x100, empty}, 0, none},
              {26, {0x100, xyz}, ALL, none}, {26, {0x100, longer}, ALL, none},
              {26, {0x100, hello}, 0, none}, {26, {0x100, o}, 4, none}, {26, {0x106, o}, 1, none},
              {26, {0xFFFFFFFF00000100, world}, 6, none}, {26, {nowhere, o}, ALL, none},
              {26, {nowhere, empty}, 0, none}, {26, {0x100, nowhere}, 0, none},
              {26, {0x100, 131072}, 0, none}, {29, {0x400, 32, 1234, 2, 0}, 5, z("12.34")},
              {29, {0x400, 32, 5, 2, 0}, 4, z("0.05")}, {29, {0x400, 32, 12, 2, 0}, 4, z("0.12")},
              {29, {0x400, 32, neg(-5), 0, 0}, 2, z("-5")},
              {29, {0x400, 32, neg(INT32_MIN), 0, 0}, 11, z("-2147483648")},
              {29, {0x400, 32, 12345, 7, 0}, 6, z("12.345")},
              {29, {0x400, 32, 5, 7, 0}, 5, z("0.005")}, {29, {0x400, 32, 0, 0, 0}, 1, z("0")},
              {29, {0x400, 32, neg(-5), 2, 0}, 5, z("-0.05")}, {29, {0x400, 32, 100, 1, 0}, 4, z("10.0")},
              {29, {0x400, 32, 1234, 2, kB}, 8, z("12.34 kB")}, {29, {0x400, 3, 42, 0, pct}, 2, z("42")},
              {29, {0x400, 32, 5, 2, nowhere}, 4, z("0.05")}, {29, {0x400, 2, 12345, 0, 0}, 1, z("1")},
              {29, {0x400, 32, 0xFFFFFFFF00000005, 0, 0}, 1, z("5")},
              {29, {0x400, 1, 5, 0, 0}, 0, none}, {29, {0x400, 0, 5, 0, 0}, 0, none},
              {29, {131069, 3, 12345, 0, 0}, 2, none}, {29, {131070, 3, 12345, 0, 0}, 0, none},
              {29, {nowhere, 32, 5, 0, 0}, 0, none}, {40, {0x400, 32, hi}, 5, z("hello")},
              {40, {0x400, 3, hi}, 2, z("he")}, {40, {0x400, 1, hi}, 0, none},
              {40, {0x400, 32, nowhere}, 0, z("")}, {40, {131069, 3, hi}, 2, none},
              {40, {131070, 3, hi}, 0, none}},
             p, 0x400, 16, {}, {op(Op_load, 5, 6, 0, kI32)});
}

// iovec arrays at 0x300.. over "hello" at 0x100 and "abc" at 0x200; the total goes to 0x380, over 0xEE bytes.
TEST(ZanbSyscall, FdWriteIovecsAndTotal) {
  Prog p;
  p.seg(0x100, "hello");
  p.seg(0x200, "abc");
  p.seg(0x300, u32s({0x100, 5, 0x200, 3}));
  p.seg(0x320, u32s({0x100, 5, 0x200, 0, 0x200, 3}));
  p.seg(0x340, u32s({0x100, 5, 131070, 16}));
  p.seg(0x360, u32s({131070, 16, 0x200, 3}));
  p.seg(0x380, std::string(8, '\xEE'));
  auto total = [](uint32_t n) { return u32s({n, 0xEEEEEEEE}); };
  runSysRows({{100, {1, 0x300, 2, 0x380}, 0, total(8), "", "helloabc"},
              {100, {2, 0x300, 2, 0x380}, 0, total(8), "", "", "helloabc"},
              {100, {1, 0x300, 0, 0x380}, 0, total(0)},
              {100, {1, 0x320, 3, 0x380}, 0, total(8), "", "helloabc"},
              {100, {1, 0x340, 2, 0x380}, 0, total(21), "", "hello"},  // out of bounds, counted
              {100, {1, 0x360, 2, 0x380}, 0, "", fault(131070, 16)},   // and its fault fails
              {100, {1, 0x300, 1, 131070}, 0, "", fault(131070, 4), "hello"},
              {100, {1, 131068, 1, 0x380}, 0, "", fault(131072, 4)}},  // the array runs off
             p, 0x380, 8);
}

// ---- host calls ----

constexpr uint64_t kMemSize = 131072;
constexpr uint32_t kDst = 0x2000;  // text destinations; 8 bytes are dumped from here

// Logs "name(args)"; numbers come back as `num`, texts as `reply`.
struct RecordingHost : UiHost {
  std::string log, reply = "hello";
  int num = -5;
  template <class... T>
  void rec(const char* name, const T&... args) {
    std::string s;
    int n = 0;
    ((s += n++ ? "," : "", s += str(args)), ...);
    log += (log.empty() ? "" : " ") + std::string(name) + "(" + s + ")";
  }
  static std::string str(const std::string& v) { return v; }
  static std::string str(long long v) { return std::to_string(v); }
  bool winOpen(const std::string& t, int w, int h, int f) override { return rec("winOpen", t, w, h, f), true; }
  bool winPump() override { return rec("winPump"), false; }
  void present() override { rec("present"); }
  void clear(uint32_t c) override { rec("clear", c); }
  void fillRect(int x, int y, int w, int h, uint32_t c) override { rec("fillRect", x, y, w, h, c); }
  void line(int a, int b, int c, int d, uint32_t k, int w) override { rec("line", a, b, c, d, k, w); }
  void circle(int x, int y, int r, uint32_t c) override { rec("circle", x, y, r, c); }
  void text(int x, int y, const std::string& s, uint32_t c, int k) override { rec("text", x, y, s, c, k); }
  int pollEvent(int&, int&) override { return rec("pollEvent"), num; }
  int eventX() const override { return num; }
  void sleepMs(int ms) override { rec("sleepMs", ms); }
  void uiCmd(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, GuestMem m, int f) override {
    rec("uiCmd", a, b, c, d, e, (long long)m.size, f);
  }
  uint32_t uiPresent(GuestMem m, uint32_t block) override {
    uint32_t* w = reinterpret_cast<uint32_t*>(m.base + block);
    rec("uiPresent", block, w[0], w[1], w[29]);
    w[0] = 9;
    w[3] = 77;
    return 0;
  }
  uint32_t uiResultWord(uint32_t) const override { return uint32_t(num); }
  int fetchStart(const std::string& u, const std::string& p) override { return rec("fetchStart", u, p), num; }
  int fetchState(int) const override { return num; }
  bool fetchCancel(int job) override { return rec("fetchCancel", job), true; }
  std::string fetchFile(int) const override { return reply; }
  std::string storeReport(int) const override { return reply; }
  std::string storeText(int a, int b, uint32_t c) const override {
    return const_cast<RecordingHost*>(this)->rec("storeText", a, b, c), reply;
  }
  std::string installOutput(int) const override { return reply; }
  bool dataRead(const std::string& k, std::string*) override { return rec("dataRead", k), false; }
  int imageId(int id, bool round) override { return rec("imageId", id, round), num; }
};

struct HostRow {
  uint32_t num;
  std::vector<uint64_t> args;
  std::string log;
  uint64_t result;
  std::string mem = std::string(8, 'M');  // the 8 bytes at kDst afterwards
  std::string reply = "hello";
};

TEST(ZanbHostCall, OperationsArgumentsAndResults) {
  const uint64_t neg5 = uint64_t(int64_t(-5)), neg5u32 = 0xFFFFFFFBu;
  const std::vector<HostRow> rows = {
      {10, {0x100, 5, 32, 24, 7}, "winOpen(hello,32,24,7)", 1}, {10, {0x100, 2, ~0ull, 0, 0}, "winOpen(he,-1,0,0)", 1},
      {11, {}, "winPump()", 0}, {14, {uint64_t(-3), 2, 3, 4, 0xFF}, "fillRect(-3,2,3,4,255)", 0},
      {16, {10, 11, ~0ull, 7}, "circle(10,11,-1,7)", 0},
      // Length 0: zero-terminated; from address 0 the empty text.
      {17, {1, 2, 0x100, 0, 9, 3}, "text(1,2,hello,9,3)", 0}, {17, {1, 2, 0x100, 3, 9, 0}, "text(1,2,hel,9,0)", 0},
      {17, {1, 2, 0, 0, 9, 1}, "text(1,2,,9,1)", 0},
      // Signed results reach the slot sign-extended for 18, 20, 21 only.
      {18, {}, "pollEvent()", neg5}, {20, {}, "", neg5}, {25, {0}, "", neg5u32}, {31, {3}, "", neg5u32},
      {19, {uint64_t(-3)}, "sleepMs(-3)", 0}, {23, {1, 2, 3, 4, 5, 6}, "uiCmd(1,2,3,4,5,131072,6)", 0},
      {30, {0x100, 0x106}, "fetchStart(hello,lo)", neg5u32}, {34, {4}, "fetchCancel(4)", 1},
      {54, {3, 0x100000000}, "imageId(3,0)", neg5u32}, {54, {3, 2}, "imageId(3,1)", neg5u32},
      // Text out of the host: room checks before the call, cut to capacity - 1.
      {38, {1, 2, 3, kDst, 1}, "", 0}, {38, {1, 2, 3, kMemSize, 8}, "", 0}, {38, {1, 2, 3, kMemSize - 7, 8}, "", 0},
      {38, {1, 2, 3, kDst, 3}, "storeText(1,2,3)", 2, std::string("he\0MMMMM", 8)},
      {42, {0, kDst, 8}, "", 5, std::string("hello\0MM", 8)},
      {51, {0x100, kDst, 8}, "dataRead(hello)", 0, std::string("\0MMMMMMM", 8), ""},
      // 46: the whole text and its terminator or nothing; empty writes nothing.
      {46, {0, kDst, 5}, "", 0}, {46, {0, kDst, 6}, "", 1, std::string("hello\0MM", 8)},
      {46, {0, kDst, 6}, "", 0, std::string(8, 'M'), ""},
      // 47 writes an empty text as its terminator alone.
      {47, {0, kDst, 2}, "", 1, std::string("\0MMMMMMM", 8), ""}, {47, {0, kDst, 1}, "", 0, std::string(8, 'M'), ""},
  };
  Prog p;
  p.seg(0x100, std::string("hello\0lo\0", 9));
  p.seg(kDst, std::string(8, 'M'));
  for (const HostRow& r : rows) {
    RecordingHost host;
    host.reply = r.reply;
    VmConfig cfg;
    cfg.host = &host;
    Eval e = callSys(r.num, r.args, p, cfg, kDst, 8);
    std::string what = "call " + std::to_string(r.num) + " " + r.log;
    EXPECT_EQ(outcome(e), hex(r.result)) << what;
    EXPECT_EQ(std::tie(host.log, e.mem), std::tie(r.log, r.mem)) << what;
  }
}

TEST(ZanbHostCall, TitleOutOfBoundsAndPresentBlock) {
  RecordingHost title, host;
  VmConfig cfg;
  cfg.host = &title;  // a title beyond memory is empty and leaves the fault
  Eval e = callSys(10, {kMemSize - 2, 4}, {}, cfg, 0, 0, {op(Op_load, 1, 0, 0, kI32)});
  EXPECT_EQ(title.log, "winOpen(,0,0,0)");
  EXPECT_EQ(e.err, fault(kMemSize - 2, 4));

  cfg.host = &host;
  std::vector<Insn> body;
  // The frame has 32 slots: a0 to a29 in slots 2 to 31.
  for (uint32_t i = 0; i < 30; i++) body.push_back(konst(2 + i, i == 29 ? 0x100000029 : 100 + i));
  body.push_back(sys(24, 0, 2));
  body.push_back(op(Op_add, 0, 0, 5, kI64));  // new a0 + new a3
  e = eval({kMark}, body, {}, cfg);
  const uint64_t block = kMemSize - 256;
  EXPECT_EQ(host.log, "uiPresent(" + std::to_string(block) + ",100,101,41)");
  EXPECT_EQ(e.value, 9u + 77u);
  e = eval({kMark}, {konst(2, block - 29), sys(24, 0, 2)}, {}, cfg);  // a0 + 30 beyond the block
  EXPECT_EQ(host.log, "uiPresent(" + std::to_string(block) + ",100,101,41)");
  EXPECT_EQ(e.value, 0u);
}

}  // namespace
