// The llama runtime's kernels: half conversions on every half and on the
// rounding boundaries between them, and the thread pool's split of [0, n).
// The products themselves are checked end to end by tests/llama/reference.py.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "plugins/llama/kernels.h"

namespace {

using namespace llama;

// IEEE half value from its fields, independent of the code under test.
double halfValue(uint16_t h) {
  const int sign = h >> 15, exp = (h >> 10) & 31, mant = h & 1023;
  double v;
  if (exp == 31)
    v = mant ? std::numeric_limits<double>::quiet_NaN() : std::numeric_limits<double>::infinity();
  else if (exp == 0)
    v = std::ldexp(double(mant), -24);
  else
    v = std::ldexp(double(1024 + mant), exp - 25);
  return sign ? -v : v;
}

TEST(LlamaKernels, F16ToF32IsExactForEveryHalf) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const double want = halfValue(uint16_t(h));
    const float got = f16ToF32(uint16_t(h));
    if (std::isnan(want)) {
      ASSERT_TRUE(std::isnan(got)) << h;
      ASSERT_EQ(std::signbit(got), bool(h & 0x8000)) << h;
    } else {
      ASSERT_EQ(double(got), want) << h;
    }
  }
}

// Between each pair of neighbouring finite halves, the midpoint goes to the
// one with the even mantissa and the floats either side of it to the
// nearer; past the largest half (65504) the next step, 65536, stands for inf.
TEST(LlamaKernels, F32ToF16RoundsToNearestEven) {
  for (uint32_t h = 0; h < 0x7c00; ++h) {
    const double lo = halfValue(uint16_t(h));
    const double hi = h + 1 < 0x7c00 ? halfValue(uint16_t(h + 1)) : 65536.0;
    const float mid = float((lo + hi) / 2);  // 12 significant bits: exact in f32
    ASSERT_EQ(double(mid), (lo + hi) / 2);
    const uint16_t even = (h & 1) ? uint16_t(h + 1) : uint16_t(h);
    for (uint16_t sign : {uint16_t(0), uint16_t(0x8000)}) {
      const float s = sign ? -1.f : 1.f;
      ASSERT_EQ(f32ToF16(s * mid), sign | even) << h;
      ASSERT_EQ(f32ToF16(s * std::nextafter(mid, 0.f)), sign | h) << h;
      ASSERT_EQ(f32ToF16(s * std::nextafter(mid, 1e30f)), sign | (h + 1)) << h;
    }
  }
}

TEST(LlamaKernels, F32ToF16Cases) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::pair<float, uint16_t> cases[] = {
      {0.f, 0x0000}, {-0.f, 0x8000}, {1.f, 0x3c00}, {-2.f, 0xc000},
      {1.f + 0x1p-11f, 0x3c00},          // tie, to even
      {1.f + 3 * 0x1p-11f, 0x3c02},      // tie, to even (up)
      {65504.f, 0x7bff},                 // largest half
      {65519.f, 0x7bff},
      {65520.f, 0x7c00},                 // tie past the largest: inf
      {1e10f, 0x7c00}, {-1e10f, 0xfc00}, {inf, 0x7c00}, {-inf, 0xfc00},
      {0x1p-14f, 0x0400},                // smallest normal
      {0x1p-14f - 0x1p-25f, 0x0400},     // tie between 0x03ff and 0x0400
      {0x1p-24f, 0x0001},                // smallest subnormal
      {0x1p-25f, 0x0000},                // tie, to even (zero)
      {0x1p-25f * 1.0001f, 0x0001},
      {3 * 0x1p-25f, 0x0002},            // tie, to even
      {-5 * 0x1p-24f, 0x8005}, {1e-30f, 0x0000}, {-1e-30f, 0x8000},
      {std::numeric_limits<float>::denorm_min(), 0x0000},
  };
  for (auto [f, h] : cases) EXPECT_EQ(f32ToF16(f), h) << f;
  const uint16_t nan = f32ToF16(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(nan & 0x7c00, 0x7c00);
  EXPECT_NE(nan & 0x3ff, 0);
}

// ---------------------------------------------------------------------------
// Weights made here, with their values decoded here from the formats.

// ---------------------------------------------------------------------------
// ThreadPool.

// Runs [0, n) and checks every index was handed out exactly once, in at
// most size() non-empty contiguous chunks.
void expectCovers(ThreadPool& pool, size_t n) {
  std::vector<std::atomic<int>> hits(n);
  std::mutex mu;
  std::vector<std::pair<size_t, size_t>> chunks;
  pool.run(n, [&](size_t b, size_t e) {
    for (size_t i = b; i < e; ++i) hits[i].fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lk(mu);
    chunks.push_back({b, e});
  });
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(hits[i].load(), 1) << "n " << n << " index " << i;
  EXPECT_LE(chunks.size(), pool.size()) << n;
  std::sort(chunks.begin(), chunks.end());
  size_t next = 0;
  for (auto [b, e] : chunks) {
    EXPECT_EQ(b, next) << n;
    EXPECT_LT(b, e) << n;
    next = e;
  }
  EXPECT_EQ(next, n);
}

TEST(LlamaKernels, ThreadPoolCoversEveryIndexOnce) {
  struct Case {
    unsigned threads;
    size_t n;
  };
  const Case cases[] = {{1, 0}, {1, 5},  {3, 0},      {3, 1},     {3, 2}, {4, 3},
                        {2, 1}, {3, 7}, {2, 100000}, {4, 1000003}};
  for (const Case& c : cases) {
    ThreadPool pool(c.threads);
    EXPECT_EQ(pool.size(), c.threads);
    expectCovers(pool, c.n);
  }
  ThreadPool all;
  EXPECT_GE(all.size(), 1u);
  expectCovers(all, 12345);
}

}  // namespace
