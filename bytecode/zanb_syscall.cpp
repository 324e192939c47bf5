// The numbered system calls the machine answers itself: exit, console
// output, arguments and environment, clocks, random bytes, three text
// helpers, and the WASI-shaped block from 100 up. Calls 10 to 55 belong to
// the host object; with no host they answer their defaults here.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>

#include "bytecode/zanb_vm_impl.h"

namespace tov::zanb {

uint32_t syscallNeed(uint32_t n) {
  static const uint8_t kNeed[115] = {
      1, 3, 3, 3, 0, 2, 0, 3, 0, 0,                    // 0-9
      6, 6, 6, 6, 6, 6, 6, 6, 6, 6,                    // 10-19
      0, 0, 6, 6, 30, 1, 2, 1, 1, 5,                   // 20-29
      2, 1, 1, 1, 1, 1, 0, 0, 5, 0,                    // 30-39
      3, 1, 3, 1, 1, 1, 3, 3, 1, 2,                    // 40-49
      2, 3, 1, 1, 2, 1, 0, 0, 0, 0,                    // 50-59
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                    // 60-69
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                    // 70-79
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                    // 80-89
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                    // 90-99
      4, 4, 2, 2, 2, 2, 3, 2, 2, 2,                    // 100-109
      4, 1, 0, 4, 1,                                   // 110-114
  };
  return n < 115 ? kNeed[n] : 0;
}

namespace {

// Two independent MT19937-64 generators, one for call 5 and one for 107,
// shared by every Vm of the process and seeded on first use.
std::mt19937_64& generator(int which) {
  static std::mt19937_64 gens[2];
  static std::once_flag once[2];
  std::call_once(once[which], [which] {
    std::random_device rd;
    gens[which].seed(uint32_t(rd()));
  });
  return gens[which];
}

uint64_t clockNs() {
  return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

inline uint32_t lo(Value v) { return uint32_t(v); }

}  // namespace

uint64_t Vm::Impl::textLength(uint64_t addr) {
  // Counted through memPtr, a byte at a time: a scan that runs into the end
  // of memory leaves its fault, and the next load traps on it.
  uint64_t len = 0;
  while (len < 4096) {
    const uint8_t* p = memPtr(addr + len, 1);
    if (!p || *p == 0) break;
    ++len;
  }
  return len;
}

void Vm::Impl::writeOut(int fd, const uint8_t* p, uint64_t n) {
  const auto& cb = fd == 2 ? config.onStderr : config.onStdout;
  if (cb) {
    cb(p, n);
  } else if (n) {
    std::fwrite(p, 1, n, fd == 2 ? stderr : stdout);
  }
}

void Vm::Impl::printRing() {
  uint32_t n = std::min<uint32_t>(ringCount, kRingSize);
  std::fprintf(stderr, "--- last %u instructions ---\n", n);
  uint32_t first = ringCount > kRingSize ? ringCount % kRingSize : 0;
  for (uint32_t k = 0; k < n; ++k) {
    const RingEntry& e = ring[(first + k) % kRingSize];
    std::fprintf(stderr, "  f%u pc=%u op=%u a=%u b=%u c=%u\n", e.func, e.pc, e.opInfo, e.a, e.b,
                 e.c);
  }
}

namespace {

// Helpers over one Impl for the calls below. Each store goes through memPtr
// and reports failure, which fails the call.
struct Guest {
  Vm::Impl& m;

  bool put32(uint64_t addr, uint32_t v) {
    uint8_t* p = m.memPtr(addr, 4);
    if (p) std::memcpy(p, &v, 4);
    return p != nullptr;
  }
  bool put64(uint64_t addr, uint64_t v) {
    uint8_t* p = m.memPtr(addr, 8);
    if (p) std::memcpy(p, &v, 8);
    return p != nullptr;
  }
  // A word read without touching `fault`; 0 when out of bounds.
  uint32_t peek32(uint64_t addr) {
    uint64_t size = m.memory.size();
    if (addr > size || size - addr < 4) return 0;
    uint32_t v;
    std::memcpy(&v, m.memory.data() + addr, 4);
    return v;
  }
  // Zero-terminated string, read without memPtr: empty when the address is
  // outside memory, cut at the end of memory.
  std::string str(uint64_t addr) {
    uint64_t size = m.memory.size();
    if (size == 0 || addr >= size) return {};
    const char* p = reinterpret_cast<const char*>(m.memory.data() + addr);
    return std::string(p, strnlen(p, size - addr));
  }
  // Strings packed with terminators at `area`, their addresses in `table`
  // (calls 3 and 103).
  bool putStrings(const std::vector<std::string>& v, uint64_t table, uint64_t area) {
    uint64_t pos = area;
    for (size_t i = 0; i < v.size(); ++i) {
      uint8_t* p = m.memPtr(pos, v[i].size() + 1);
      if (!p) return false;
      std::memcpy(p, v[i].data(), v[i].size());
      p[v[i].size()] = 0;
      if (!put32(table + 4 * i, uint32_t(pos))) return false;
      pos += v[i].size() + 1;
    }
    return true;
  }
  bool putSizes(const std::vector<std::string>& v, uint64_t countAt, uint64_t bytesAt) {
    uint64_t bytes = 0;
    for (const std::string& s : v) bytes += s.size() + 1;
    return put32(countAt, uint32_t(v.size())) && put32(bytesAt, uint32_t(bytes));
  }
  // The checks fmt, strcopy and the host text calls share: room for at least
  // `cap` bytes at `dst`, and a capacity of at least 2.
  bool roomFor(uint64_t dst, uint64_t cap) {
    uint64_t size = m.memory.size();
    return cap >= 2 && dst < size && size - dst >= cap;
  }
  uint64_t putText(uint64_t dst, uint64_t cap, std::string s) {
    if (s.size() > cap - 1) s.resize(cap - 1);
    std::memcpy(m.memory.data() + dst, s.data(), s.size());
    m.memory.data()[dst + s.size()] = 0;
    return s.size();
  }
};

// 29: fixed-point text of a signed 32-bit value with 0 to 3 decimals.
std::string formatFixed(int32_t value, uint32_t decimals, const std::string& suffix) {
  int64_t mag = value < 0 ? -int64_t(value) : int64_t(value);
  std::string digits = std::to_string(mag);
  if (decimals) {
    size_t d = std::min<uint32_t>(decimals, 3);
    if (digits.size() <= d) digits.insert(0, d + 1 - digits.size(), '0');
    digits.insert(digits.size() - d, 1, '.');
  }
  if (value < 0) digits.insert(0, 1, '-');
  return digits + suffix;
}

// 26: ASCII case-insensitive search; -1 when absent.
int64_t findNoCase(const std::string& hay, const std::string& needle) {
  if (needle.empty()) return 0;
  if (needle.size() > hay.size()) return -1;
  auto low = [](unsigned char ch) { return ch >= 'A' && ch <= 'Z' ? ch + 32 : ch; };
  for (size_t i = 0; i + needle.size() <= hay.size(); ++i) {
    size_t k = 0;
    while (k < needle.size() && low(hay[i + k]) == low(needle[k])) ++k;
    if (k == needle.size()) return int64_t(i);
  }
  return -1;
}

}  // namespace

Value Vm::Impl::syscall(uint32_t number, Value* args, bool& ok) {
  // Calls read their arguments from the frame; numbers whose `need` is
  // smaller than what they read see 0 past the frame's end.
  auto A = [&](uint32_t k) -> Value { return k < argsAvail ? args[k] : 0; };
  if (callTrace)
    std::fprintf(stderr, "[syscall %u] a0=%u a1=%u a2=%u a3=%u\n", number, lo(A(0)), lo(A(1)),
                 lo(A(2)), lo(A(3)));
  Guest g{*this};
  auto fail = [&]() -> Value {
    ok = false;
    return 0;
  };

  switch (number) {
    case 0:
    case 114:
      exitCode = int32_t(lo(A(0)));
      exited = true;
      ok = false;
      return 0;

    case 1: {
      uint64_t fd = lo(A(0)), addr = lo(A(1)), len = lo(A(2));
      if (len == 0 && addr != 0) len = textLength(addr);
      // A bad range is no failure of the call; the fault waits for the next load.
      if (const uint8_t* p = memPtr(addr, len)) writeOut(fd == 2 ? 2 : 1, p, len);
      return len;
    }

    case 2: case 6: case 111: case 112: case 115:
      return 0;

    case 3:
      if (!g.putStrings(config.args, lo(A(1)), lo(A(2)))) return fail();
      if (!g.put32(lo(A(0)), uint32_t(config.args.size()))) return fail();
      return 0;

    case 4:
      return clockNs();

    case 5:
    case 107: {
      uint64_t addr = lo(A(0)), len = lo(A(1));
      uint8_t* p = memPtr(addr, len);
      if (!p) return fail();
      std::mt19937_64& gen = generator(number == 5 ? 0 : 1);
      for (uint64_t k = 0; k < len; k += 8) {
        uint64_t r = gen();
        std::memcpy(p + k, &r, std::min<uint64_t>(8, len - k));  // little-endian host
      }
      return 0;
    }

    case 7: {
      uint64_t area = lo(A(1)), cap = lo(A(2)), used = 0;
      uint32_t count = 0;
      for (const std::string& s : config.env) {
        if (used + s.size() + 1 > cap) break;
        uint8_t* p = memPtr(area + used, s.size() + 1);
        if (!p) return fail();
        std::memcpy(p, s.data(), s.size());
        p[s.size()] = 0;
        used += s.size() + 1;
        ++count;
      }
      if (!g.put32(lo(A(0)), count)) return fail();
      return 0;
    }

    case 26: {
      if (memory.size() == 0 || lo(A(1)) >= memory.size()) return 0;
      return Value(findNoCase(g.str(lo(A(0))), g.str(lo(A(1)))));
    }

    case 29: {
      uint64_t dst = lo(A(0)), cap = lo(A(1));
      if (!g.roomFor(dst, cap)) return 0;
      std::string suffix = lo(A(4)) ? g.str(lo(A(4))) : std::string();
      return g.putText(dst, cap, formatFixed(int32_t(lo(A(2))), lo(A(3)), suffix));
    }

    case 40: {
      uint64_t dst = lo(A(0)), cap = lo(A(1));
      if (!g.roomFor(dst, cap)) return 0;
      return g.putText(dst, cap, g.str(lo(A(2))));
    }

    case 100: {
      uint64_t fd = lo(A(0)), iovs = lo(A(1)), n = lo(A(2)), outAt = lo(A(3));
      if (ringOn) printRing();
      if (callTrace) {
        std::fprintf(stderr, "[fd_write fd=%u iovs=%u n=%u]", unsigned(fd), unsigned(iovs),
                     unsigned(n));
        for (uint64_t k = 0; k < n && k < 4; ++k) {
          uint32_t ptr = g.peek32(iovs + 8 * k), len = g.peek32(iovs + 8 * k + 4);
          std::fprintf(stderr, " iov[%u]=ptr%u len%u '", unsigned(k), ptr, len);
          for (uint64_t b = 0; b < len && b < 16; ++b) {
            uint64_t at = uint64_t(ptr) + b;
            std::fputc(at < memory.size() ? int(memory.data()[at]) : '?', stderr);
          }
          std::fputc('\'', stderr);
        }
        std::fputc('\n', stderr);
      }
      uint64_t total = 0;
      for (uint64_t k = 0; k < n; ++k) {
        const uint8_t* w = memPtr(iovs + 8 * k, 4);
        uint32_t ptr = 0, len = 0;
        if (w) std::memcpy(&ptr, w, 4);
        w = memPtr(iovs + 8 * k + 4, 4);
        if (w) std::memcpy(&len, w, 4);
        if (!fault.empty()) return fail();  // this read's, or one left from earlier
        if (len) {
          if (const uint8_t* p = memPtr(ptr, len)) writeOut(fd == 2 ? 2 : 1, p, len);
        }
        total += len;
      }
      if (!g.put32(outAt, uint32_t(total))) return fail();
      return 0;
    }

    case 101:
    case 113:
      if (!g.put32(lo(A(3)), 0)) return fail();
      return 0;
    case 102:
      if (!g.putSizes(config.args, lo(A(0)), lo(A(1)))) return fail();
      return 0;
    case 103:
      if (!g.putStrings(config.args, lo(A(0)), lo(A(1)))) return fail();
      return 0;
    case 104:
      if (!g.putSizes(config.env, lo(A(0)), lo(A(1)))) return fail();
      return 0;
    case 105:
      if (!g.putStrings(config.env, lo(A(0)), lo(A(1)))) return fail();
      return 0;
    case 106:
      if (!g.put64(lo(A(2)), clockNs())) return fail();
      return 0;
    case 108: {
      uint8_t* p = memPtr(lo(A(1)), 24);
      if (!p) return fail();
      std::memset(p, 0, 24);
      p[0] = 2;
      return 0;
    }
    case 109:
      return 8;
    case 110:
      if (!g.put64(lo(A(3)), 0)) return fail();
      return 0;

    default:
      break;
  }

  if (number >= 10 && number <= 55) return hostCall(number, args);

  fault = "unknown syscall " + std::to_string(number);
  return fail();
}

// ---- host calls 10 to 55 ---------------------------------------------------

namespace {

// What a host gave back, as the slot receives it.
inline Value asU32(uint32_t v) { return v; }
inline Value asSigned(int v) { return Value(int64_t(v)); }

// The default of a host call when there is no host.
Value hostDefault(uint32_t number) {
  switch (number) {
    case 31: return 4;
    case 36: return 2;
    case 53: return 2;
    default: return 0;
  }
}

}  // namespace

Value Vm::Impl::hostCall(uint32_t number, Value* args) {
  UiHost* h = config.host;
  if (!h) return hostDefault(number);
  auto A = [&](uint32_t k) -> uint32_t { return k < argsAvail ? uint32_t(args[k]) : 0; };
  auto I = [&](uint32_t k) -> int { return int32_t(A(k)); };
  Guest g{*this};
  // A string by address and length; out of bounds gives "" and leaves the fault set.
  auto ranged = [&](uint64_t addr, uint64_t len) -> std::string {
    const uint8_t* p = memPtr(addr, len);
    return p ? std::string(reinterpret_cast<const char*>(p), len) : std::string();
  };
  auto S = [&](uint32_t k) { return g.str(A(k)); };
  // 38, 42, 51: the text the host gives, cut to fit, with its terminator.
  auto textOut = [&](uint32_t dstArg, auto&& get) -> Value {
    uint64_t dst = A(dstArg), cap = A(dstArg + 1);
    if (!g.roomFor(dst, cap)) return 0;
    return g.putText(dst, cap, get());
  };
  // 46, 47: the whole text and its terminator, or nothing.
  auto wholeOut = [&](uint32_t dstArg, bool emptyWrites, auto&& get) -> Value {
    uint64_t dst = A(dstArg), cap = A(dstArg + 1);
    if (!g.roomFor(dst, cap)) return 0;
    std::string s = get();
    if ((s.empty() && !emptyWrites) || s.size() + 1 > cap) return 0;
    g.putText(dst, cap, s);
    return 1;
  };
  GuestMem mem{memory.data(), memory.size()};

  switch (number) {
    case 10:
      return h->winOpen(ranged(A(0), A(1)), I(2), I(3), I(4));
    case 11: return h->winPump();
    case 12: h->present(); return 0;
    case 13: h->clear(A(0)); return 0;
    case 14: h->fillRect(I(0), I(1), I(2), I(3), A(4)); return 0;
    case 15: h->line(I(0), I(1), I(2), I(3), A(4), I(5)); return 0;
    case 16: h->circle(I(0), I(1), I(2), A(3)); return 0;
    case 17: {
      uint64_t addr = A(2), len = A(3);
      if (len == 0 && addr != 0) len = textLength(addr);
      h->text(I(0), I(1), ranged(addr, len), A(4), I(5));
      return 0;
    }
    case 18: {
      int x = 0, y = 0;
      return asSigned(h->pollEvent(x, y));
    }
    case 19: h->sleepMs(I(0)); return 0;
    case 20: return asSigned(h->eventX());
    case 21: return asSigned(h->eventY());
    case 22: h->uiOpen(S(0), I(1), I(2)); return 0;
    case 23: h->uiCmd(A(0), A(1), A(2), A(3), A(4), mem, I(5)); return 0;
    case 24: {
      // 30 words exchanged through a block 256 bytes below the top of memory.
      uint64_t size = memory.size(), a0 = A(0);
      if (size < 256) return 0;
      uint64_t block = size - 256;
      if (size < a0 + 30 || block < a0 + 30) return 0;
      for (uint32_t k = 0; k < 30; ++k) g.put32(block + 4 * k, A(k));
      h->uiPresent(mem, uint32_t(block));
      for (uint32_t k = 0; k < 30 && k < argsAvail; ++k) args[k] = g.peek32(block + 4 * k);
      return A(0);
    }
    case 25: return asU32(h->uiResultWord(A(0)));
    case 27: h->uiTheme(A(0)); return 0;
    case 28: return asU32(h->uiToken(A(0)));
    case 30: return asU32(h->fetchStart(S(0), S(1)));
    case 31: {
      int r = h->fetchState(I(0));
      if (std::getenv("ZAN_VM_DEBUG")) {
        static uint64_t calls = 0;
        if (calls++ % 40 == 0) std::fprintf(stderr, "[vm] fetchstate(%u) = %d\n", A(0), r);
      }
      return asU32(r);
    }
    case 32: return asU32(h->fetchGot(I(0)));
    case 33: return asU32(h->fetchTotal(I(0)));
    case 34: return h->fetchCancel(I(0));
    case 35: return asU32(h->storeLoad(S(0)));
    case 36: return asU32(h->storeState(I(0)));
    case 37: return asU32(h->storeCount(I(0)));
    case 38: return textOut(3, [&] { return h->storeText(I(0), I(1), A(2)); });
    case 39: return asU32(h->storeNum(I(0), I(1), A(2)));
    case 41: return asU32(h->installStart(S(0)));
    case 42: return textOut(1, [&] { return h->installOutput(I(0)); });
    case 43: return h->appInstall(S(0));
    case 44: return h->appOpen(S(0));
    case 45: return h->appInstalled(S(0));
    case 46: return wholeOut(1, false, [&] { return h->fetchFile(I(0)); });
    case 47: return wholeOut(1, true, [&] { return h->storeReport(I(0)); });
    case 48: return asU32(h->fetchThreads(I(0)));
    case 49: return asU32(h->textWidth(S(0), A(1)));
    case 50: return h->dataWrite(S(0), S(1));
    case 51: return textOut(1, [&] {
      std::string v;
      h->dataRead(S(0), &v);
      return v;
    });
    case 52: return asU32(h->imageLoad(S(0)));
    case 53: return asU32(h->imageState(I(0)));
    case 54: return asU32(h->imageId(I(0), A(1) != 0));
    case 55: return asU32(h->scrollOffset(I(0)));
    default: return 0;  // 26, 29 and 40 never reach here
  }
}

}  // namespace tov::zanb
