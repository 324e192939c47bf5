// Host calls through a recording host: signed arguments, results in the slot, text
// across guest memory, call 24's block. Plain dispatch: the script cases' host logs.
#include <gtest/gtest.h>

#include "tests/bytecode/zanb_harness.h"

namespace {
using namespace zanbtest;

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
  for (const HostRow& r : rows) {
    RecordingHost host;
    host.reply = r.reply;
    VmConfig cfg;
    cfg.host = &host;
    Prog p;
    p.seg(0x100, std::string("hello\0lo\0", 9));
    p.seg(kDst, std::string(8, 'M'));
    Eval e = callSys(r.num, r.args, p, cfg, kDst, 8);
    std::string what = "call " + std::to_string(r.num) + " " + r.log;
    EXPECT_EQ(outcome(e), hex(r.result)) << what;
    EXPECT_EQ(host.log, r.log) << what;
    EXPECT_EQ(e.mem, r.mem) << what;
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
