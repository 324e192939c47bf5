// The llama runtime's kernels on both instruction paths against values
// decoded here from the formats, and the thread pool's split of [0, n).
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
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

// Every half converts exactly. Between each pair of neighbouring finite halves, the midpoint goes to
// the one with the even mantissa and the floats either side of it to the nearer; past the largest
// half (65504) the next step, 65536, stands for inf. Then overflow, underflow and NaN, bfloat16, row sizes.
TEST(LlamaKernels, ConversionsAndTypeTables) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const double want = halfValue(uint16_t(h));
    const float got = f16ToF32(uint16_t(h));
    if (std::isnan(want)) ASSERT_TRUE(std::isnan(got) && std::signbit(got) == bool(h & 0x8000)) << h;
    else ASSERT_EQ(double(got), want) << h;
  }
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
  const float inf = std::numeric_limits<float>::infinity();
  const std::pair<float, uint16_t> cases[] = {{65536.f, 0x7c00}, {1e10f, 0x7c00}, {-inf, 0xfc00}, {1e-30f, 0},
                                              {-1e-30f, 0x8000}, {std::numeric_limits<float>::denorm_min(), 0}};
  for (auto [f, h] : cases) EXPECT_EQ(f32ToF16(f), h) << f;
  const uint16_t nan = f32ToF16(std::numeric_limits<float>::quiet_NaN());
  EXPECT_TRUE((nan & 0x7c00) == 0x7c00 && (nan & 0x3ff) != 0) << nan;
  EXPECT_EQ(bf16ToF32(0xc049), -3.140625f);
  EXPECT_EQ(bf16ToF32(0x0001), 0x1p-133f);
  struct RowCase { DType t; size_t cols, bytes; };
  const RowCase rows[] = {{kF32, 96, 384},   {kF16, 96, 192},   {kBF16, 96, 192},  {kQ8_0, 96, 102}, {kQ4_0, 96, 54},
                          {kQ8_0, 40, 0},    {kQ4_0, 33, 0},    {DType(3), 64, 0}, {kQ2_K, 512, 168}, {kQ3_K, 256, 110},
                          {kQ4_K, 256, 144}, {kQ5_K, 256, 176}, {kQ6_K, 256, 210}, {kQ4_K, 288, 0},   {kQ6_K, 32, 0}};
  for (const RowCase& c : rows) EXPECT_EQ(rowBytes(c.t, c.cols), c.bytes) << c.t << " " << c.cols;
  for (uint16_t t = 0; t < 40; ++t)
    EXPECT_EQ(dtypeSupported(t), t == 0 || t == 1 || t == 2 || t == 8 || (t >= 10 && t <= 14) || t == 30) << t;
}

struct Weights {
  DType t;
  size_t rows, cols, rowBytes;
  std::vector<uint8_t> storage;
  size_t offset;  // misaligned on purpose
  std::vector<float> kvals;  // K-quants: from dequantRow (the numpy reference checks the layouts)
  const uint8_t* data() const { return storage.data() + offset; }

  double at(size_t r, size_t c) const {
    const uint8_t* row = data() + r * rowBytes;
    auto u16 = [](const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); };
    switch (t) {
      case kF32: return std::bit_cast<float>(u16(row + 4 * c) | uint32_t(u16(row + 4 * c + 2)) << 16);
      case kF16: return halfValue(u16(row + 2 * c));
      case kBF16: return double(std::bit_cast<float>(uint32_t(u16(row + 2 * c)) << 16));
      case kQ8_0: return halfValue(u16(row + c / 32 * 34)) * double(int8_t(row[c / 32 * 34 + 2 + c % 32]));
      case kQ4_0: {
        const uint8_t* blk = row + (c / 32) * 18;
        const size_t j = c % 32;
        return halfValue(u16(blk)) * double((j < 16 ? (blk[2 + j] & 15) : (blk[2 + j - 16] >> 4)) - 8);
      }
      default: return kvals[r * cols + c];
    }
  }
};

// A half with a random sign and mantissa and an exponent field in [lo, hi].
uint16_t randomHalf(std::mt19937& rng, int lo, int hi) {
  return uint16_t((rng() & 1) << 15 | (lo + rng() % (hi - lo + 1)) << 10 | (rng() & 1023));
}

Weights makeWeights(DType t, size_t rows, size_t cols, uint32_t seed) {
  std::mt19937 rng(seed);
  Weights w{t, rows, cols, rowBytes(t, cols), {}, 1 + seed % 7, {}};
  w.storage.resize(w.offset + rows * w.rowBytes);
  uint8_t* p = w.storage.data() + w.offset;
  auto put16 = [](uint8_t* q, uint16_t v) { q[0] = uint8_t(v); q[1] = uint8_t(v >> 8); };
  auto put32 = [](uint8_t* q, float f) { std::memcpy(q, &f, 4); };
  std::uniform_real_distribution<float> uni(-1.f, 1.f);
  for (size_t r = 0; r < rows; ++r) {
    uint8_t* row = p + r * w.rowBytes;
    if (t == kF32) {
      for (size_t c = 0; c < cols; ++c) put32(row + 4 * c, uni(rng));
    } else if (t == kF16) {
      for (size_t c = 0; c < cols; ++c) put16(row + 2 * c, randomHalf(rng, 1, 16));
      for (size_t c = 0; c < cols; c += 37) put16(row + 2 * c, uint16_t(rng() & 0x83ff));  // some subnormals
    } else if (t == kBF16) {
      for (size_t c = 0; c < cols; ++c)
        put16(row + 2 * c, uint16_t((rng() & 1) << 15 | (118 + rng() % 10) << 7 | (rng() & 127)));
    } else {  // random bytes with finite f16 scales
      const size_t n = blockElems(t), bytes = rowBytes(t, n);
      for (size_t i = 0; i < w.rowBytes; ++i) row[i] = uint8_t(rng());
      for (size_t b = 0; b < cols / n; ++b) {
        uint8_t* blk = row + b * bytes;
        const size_t at = t == kQ2_K ? 80 : t == kQ3_K ? 108 : t == kQ6_K ? 208 : 0;
        put16(blk + at, randomHalf(rng, 6, 12));
        if (t == kQ2_K || t == kQ4_K || t == kQ5_K) put16(blk + at + 2, randomHalf(rng, 6, 12));
      }
      w.kvals.resize((r + 1) * cols);
      if (n == 256) dequantRow(t, p, r, cols, w.kvals.data() + r * cols);
    }
  }
  return w;
}

// x in [-1, 1] with an all-zero block and a block of tiny values.
std::vector<float> makeX(size_t cols, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> uni(-1.f, 1.f);
  std::vector<float> x(cols);
  for (float& v : x) v = uni(rng);
  if (cols >= 64) std::fill(x.begin() + 32, x.begin() + 64, 0.f);
  if (cols >= 96)
    for (size_t i = 64; i < 96; ++i) x[i] *= 1e-6f;
  return x;
}

// sum over row r of |w * x|, the scale of the errors allowed.
double magnitude(const Weights& w, const float* x, size_t r) {
  double mag = 0;
  for (size_t c = 0; c < w.cols; ++c) mag += std::fabs(w.at(r, c) * double(x[c]));
  return mag;
}

// y[r0, r1) within tol * sum|w*x| of the double-precision product.
void expectClose(const Weights& w, const std::vector<float>& x, const std::vector<float>& y, double tol, size_t r0,
                 size_t r1, const std::string& what) {
  for (size_t r = r0; r < r1; ++r) {
    double ref = 0;
    for (size_t c = 0; c < w.cols; ++c) ref += w.at(r, c) * double(x[c]);
    EXPECT_LE(std::fabs(double(y[r]) - ref), tol * magnitude(w, x.data(), r) + 1e-30) << what << " row " << r;
  }
}

struct TypeCase { DType t; const char* name; double tol; };  // tol relative to sum|w*x|
// Quantised types round x to 8 bits per block: up to max|x|/254 per element.
const TypeCase kTypes[] = {
    {kF32, "F32", 1e-5},  {kF16, "F16", 1e-5},  {kBF16, "BF16", 1e-5}, {kQ8_0, "Q8_0", 1e-2}, {kQ4_0, "Q4_0", 1e-2},
    {kQ2_K, "Q2_K", 1e-2}, {kQ3_K, "Q3_K", 1e-2}, {kQ4_K, "Q4_K", 1e-2}, {kQ5_K, "Q5_K", 1e-2}, {kQ6_K, "Q6_K", 1e-2},
};
std::vector<size_t> colsFor(DType t) {
  if (blockElems(t) == 256) return {256, 512, 4096};
  std::vector<size_t> cols = {32, 64, 96, 4096 + 32};
  if (t != kQ8_0 && t != kQ4_0) cols.insert(cols.end(), {1, 13, 45, 4096 + 32 + 5});
  return cols;
}

template <typename Body>
void onEachPath(Body body) {
  forcePortable(false);
  const std::string native = kernelPath();
  if (native != "portable") body(native);
  forcePortable(true);
  EXPECT_STREQ(kernelPath(), "portable");
  body(std::string("portable"));
  forcePortable(false);
}

// Both paths against the reference, and each other: they quantise x alike, so only the order of additions
// differs (1e-5). matmul gives what matvec gives per token; on the portable path it works from dequantRow.
TEST(LlamaKernels, MatvecAndMatmulMatchTheReference) {
  std::map<std::string, std::vector<float>> fast;
  onEachPath([&](const std::string& path) {
    ThreadPool pool(3);
    for (const TypeCase& tc : kTypes)
      for (size_t cols : colsFor(tc.t)) {
        const size_t rows = 11, n = 7;  // a whole group of 8 rows and a part of one
        const Weights w = makeWeights(tc.t, rows, cols, uint32_t(cols + tc.t));
        std::vector<float> X;
        for (size_t i = 0; i < n; ++i) {
          const std::vector<float> x = makeX(cols, uint32_t(cols + i));
          X.insert(X.end(), x.begin(), x.end());
        }
        const std::vector<float> x(X.begin(), X.begin() + long(cols));
        const std::string key = std::string(tc.name) + " cols " + std::to_string(cols), what = path + " " + key;
        std::vector<float> y(rows, -7.f), part(rows, -7.f), Y(n * rows, -7.f);
        matvec(pool, tc.t, w.data(), rows, cols, x.data(), y.data());
        expectClose(w, x, y, tc.tol, 0, rows, what);
        if (path != "portable") fast[key] = y;
        for (size_t r = 0; path == "portable" && fast.count(key) && r < rows; ++r)
          EXPECT_LE(std::fabs(double(fast[key][r]) - y[r]), 1e-5 * magnitude(w, x.data(), r)) << key << " " << r;
        matvecRows(tc.t, w.data(), cols, x.data(), part.data(), 2, 5);
        expectClose(w, x, part, tc.tol, 2, 5, what + " rows 2..5");
        for (size_t r = 0; r < rows; ++r) EXPECT_TRUE((r >= 2 && r < 5) || part[r] == -7.f) << what << " " << r;
        matmul(pool, tc.t, w.data(), rows, cols, X.data(), n, Y.data());
        for (size_t i = 0; i < n; ++i) {
          matvec(pool, tc.t, w.data(), rows, cols, &X[i * cols], y.data());
          for (size_t r = 0; r < rows; ++r)
            EXPECT_LE(std::fabs(double(Y[i * rows + r]) - y[r]), 1e-5 * magnitude(w, &X[i * cols], r) + 1e-30)
                << what << " token " << i << " row " << r;
        }
      }
  });
}

// Every index of [0, n) once, in at most size() non-empty contiguous chunks.
void expectCovers(ThreadPool& pool, size_t n) {
  std::mutex mu;
  std::vector<std::pair<size_t, size_t>> chunks;
  pool.run(n, [&](size_t b, size_t e) {
    std::lock_guard<std::mutex> lk(mu);
    chunks.push_back({b, e});
  });
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
  struct Case { unsigned threads; size_t n; };
  const Case cases[] = {{1, 0}, {1, 5}, {3, 0}, {3, 1}, {3, 2}, {4, 3}, {2, 1}, {3, 7}, {2, 100000}, {4, 1000003}};
  for (const Case& c : cases) {
    ThreadPool pool(c.threads);
    EXPECT_EQ(pool.size(), c.threads);
    expectCovers(pool, c.n);
  }
  ThreadPool all, idle(4), pool(3);  // idle: destroyed without a run
  EXPECT_GE(all.size(), 1u);
  expectCovers(all, 12345);
  for (size_t i = 0; i < 300; ++i) expectCovers(pool, (i * 7919) % 1000);
}

}  // namespace
