// Weight bytes per second of the llama runtime's matrix-vector products,
// side by side with a plain streaming read of memory in the same run.
//
// The reference is a 1 GiB buffer summed with AVX2 (64-bit adds), on one
// thread and on all. Each product case cycles through enough copies of its
// matrix to make at least 512 MiB per pass, so the weights come from
// memory, not cache, as in decoding; "model" is one token's products of a
// Q8_0 llama with dim 1024, 16 layers, ff 2816 and 32000 words (about
// 250 MB of weights). Each figure is the best of `reps` timed passes after
// one untimed pass. Streaming passes alternate with each case's passes on
// the same threads, and each ratio divides by the streaming figure timed
// beside it (strm1/prod1: one thread; strmN/prodN: all threads), since a
// shared host's memory bandwidth drifts from one second to the next.
//
// The "in cache" rows multiply one small matrix over and over: they show
// how fast the kernels themselves are, the headroom above memory speed.
//
// Usage: llama_matvec_bench [reps] [--portable] [--only NAME-PART]   (default 5 reps)
#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <utility>
#include <string>
#include <vector>

#include "plugins/llama/kernels.h"

namespace {

using Clock = std::chrono::steady_clock;
using llama::DType;

struct Buffer {
  uint8_t* p = nullptr;
  size_t n = 0;
  explicit Buffer(size_t bytes) : n(bytes) {
    const size_t align = 2u << 20;
    p = static_cast<uint8_t*>(std::aligned_alloc(align, (bytes + align - 1) / align * align));
    if (!p) {
      std::fprintf(stderr, "llama_matvec_bench: out of memory for %zu bytes\n", bytes);
      std::exit(1);
    }
  }
  ~Buffer() { std::free(p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
};

__attribute__((target("avx2"))) uint64_t sumAvx2(const uint8_t* p, size_t n) {
  __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
  const __m256i* v = reinterpret_cast<const __m256i*>(p);
  for (size_t i = 0; i + 4 <= n / 32; i += 4) {
    a0 = _mm256_add_epi64(a0, _mm256_load_si256(v + i));
    a1 = _mm256_add_epi64(a1, _mm256_load_si256(v + i + 1));
    a2 = _mm256_add_epi64(a2, _mm256_load_si256(v + i + 2));
    a3 = _mm256_add_epi64(a3, _mm256_load_si256(v + i + 3));
  }
  const __m256i s = _mm256_add_epi64(_mm256_add_epi64(a0, a1), _mm256_add_epi64(a2, a3));
  alignas(32) uint64_t lanes[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), s);
  return lanes[0] + lanes[1] + lanes[2] + lanes[3];
}

uint64_t sumPortable(const uint8_t* p, size_t n) {
  uint64_t a[4] = {0, 0, 0, 0};
  for (size_t i = 0; i + 32 <= n; i += 32)
    for (int k = 0; k < 4; ++k) {
      uint64_t v;
      std::memcpy(&v, p + i + 8 * k, 8);
      a[k] += v;
    }
  return a[0] + a[1] + a[2] + a[3];
}

bool haveAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

std::atomic<uint64_t> gSink{0};

// One streaming read of `buf` on the pool's threads, in 1 MiB pieces.
void streamPass(llama::ThreadPool& pool, const Buffer& buf) {
  static const bool avx2 = haveAvx2();
  const size_t piece = 1u << 20;
  pool.run(buf.n / piece, [&](size_t b, size_t e) {
    const uint8_t* p = buf.p + b * piece;
    const size_t n = (e - b) * piece;
    gSink.fetch_add(avx2 ? sumAvx2(p, n) : sumPortable(p, n), std::memory_order_relaxed);
  });
}

double seconds(const std::function<void()>& fn) {
  const auto s = Clock::now();
  fn();
  return std::chrono::duration<double>(Clock::now() - s).count();
}

// Best GB/s of a streaming pass and of `pass` (moving `bytes`), timed in
// alternation so both see the same machine: memory bandwidth on a shared
// host drifts from one second to the next.
std::pair<double, double> sideBySide(llama::ThreadPool& pool, const Buffer& stream, const std::function<void()>& pass,
                                     size_t bytes, int reps) {
  streamPass(pool, stream);
  pass();
  double ts = 1e30, tp = 1e30;
  for (int i = 0; i < reps; ++i) {
    ts = std::min(ts, seconds([&] { streamPass(pool, stream); }));
    tp = std::min(tp, seconds(pass));
  }
  return {double(stream.n) / ts / 1e9, double(bytes) / tp / 1e9};
}

// Fills one matrix of type t with plausible values (finite, no subnormals).
void fillMatrix(DType t, uint8_t* p, size_t rows, size_t cols, std::mt19937& rng) {
  const size_t rb = llama::rowBytes(t, cols);
  std::uniform_real_distribution<float> uni(-1.f, 1.f);
  for (size_t r = 0; r < rows; ++r) {
    uint8_t* row = p + r * rb;
    for (size_t c = 0; c < cols; ++c) {
      const float v = uni(rng);
      switch (t) {
        case llama::kF32: std::memcpy(row + 4 * c, &v, 4); break;
        case llama::kF16: {
          const uint16_t h = llama::f32ToF16(v);
          std::memcpy(row + 2 * c, &h, 2);
          break;
        }
        case llama::kBF16: {
          uint32_t u;
          std::memcpy(&u, &v, 4);
          const uint16_t h = uint16_t(u >> 16);
          std::memcpy(row + 2 * c, &h, 2);
          break;
        }
        case llama::kQ8_0:
          if (c % 32 == 0) {
            const uint16_t d = llama::f32ToF16(0.01f);
            std::memcpy(row + c / 32 * 34, &d, 2);
          }
          row[c / 32 * 34 + 2 + c % 32] = uint8_t(int8_t(v * 127));
          break;
        case llama::kQ4_0:
          if (c % 32 == 0) {
            const uint16_t d = llama::f32ToF16(0.01f);
            std::memcpy(row + c / 32 * 18, &d, 2);
          }
          if (c % 32 < 16) row[c / 32 * 18 + 2 + c % 32] = uint8_t(rng());
          break;
      }
    }
  }
}

struct Shape {
  size_t rows, cols;
};

// A set of matrices laid one after another (each 64-aligned) and the
// products of one pass over them.
struct Workload {
  std::string name;
  DType t;
  std::vector<Shape> shapes;
  std::vector<size_t> offsets;
  size_t bytes = 0;
  size_t times = 1;  // passes over the set per timed pass

  void layout() {
    offsets.clear();
    bytes = 0;
    for (const Shape& s : shapes) {
      offsets.push_back(bytes);
      bytes += (s.rows * llama::rowBytes(t, s.cols) + 63) / 64 * 64;
    }
  }
};

Workload square(const char* name, DType t, size_t rows, size_t cols) {
  Workload w{name, t, {}, {}, 0, 1};
  const size_t one = rows * llama::rowBytes(t, cols);
  const size_t copies = std::max<size_t>(1, ((512u << 20) + one - 1) / one);
  w.shapes.assign(copies, Shape{rows, cols});
  w.layout();
  return w;
}

// One small matrix, multiplied `times` times per pass: it stays in cache,
// so this measures the kernel's own speed rather than memory's.
Workload cached(const char* name, DType t, size_t rows, size_t cols, size_t times) {
  Workload w{name, t, {Shape{rows, cols}}, {}, 0, times};
  w.layout();
  return w;
}

Workload model() {
  const size_t dim = 1024, ff = 2816, layers = 16, vocab = 32000;
  Workload w{"model Q8_0 (one token)", llama::kQ8_0, {}, {}, 0, 1};
  for (size_t l = 0; l < layers; ++l) {
    for (int i = 0; i < 4; ++i) w.shapes.push_back({dim, dim});  // q, k, v, o
    w.shapes.push_back({ff, dim});                                 // gate
    w.shapes.push_back({ff, dim});                                 // up
    w.shapes.push_back({dim, ff});                                 // down
  }
  w.shapes.push_back({vocab, dim});  // output
  w.layout();
  return w;
}

void runWorkload(const Workload& w, llama::ThreadPool& one, llama::ThreadPool& all, const Buffer& stream, int reps) {
  Buffer buf(w.bytes);
  std::mt19937 rng(7);
  // Distinct shapes get their own values; repeats of a shape are copies.
  for (size_t i = 0; i < w.shapes.size(); ++i) {
    const Shape& s = w.shapes[i];
    size_t same = i;
    for (size_t j = 0; j < i; ++j)
      if (w.shapes[j].rows == s.rows && w.shapes[j].cols == s.cols) {
        same = j;
        break;
      }
    const size_t n = s.rows * llama::rowBytes(w.t, s.cols);
    if (same == i)
      fillMatrix(w.t, buf.p + w.offsets[i], s.rows, s.cols, rng);
    else
      std::memcpy(buf.p + w.offsets[i], buf.p + w.offsets[same], n);
  }
  size_t maxCols = 0, maxRows = 0, weightBytes = 0;
  for (const Shape& s : w.shapes) {
    maxCols = std::max(maxCols, s.cols);
    maxRows = std::max(maxRows, s.rows);
    weightBytes += s.rows * llama::rowBytes(w.t, s.cols);
  }
  weightBytes *= w.times;
  std::vector<float> x(maxCols), y(maxRows);
  std::uniform_real_distribution<float> uni(-1.f, 1.f);
  for (float& v : x) v = uni(rng);

  auto pass = [&](llama::ThreadPool& pool) {
    for (size_t k = 0; k < w.times; ++k)
      for (size_t i = 0; i < w.shapes.size(); ++i)
        llama::matvec(pool, w.t, buf.p + w.offsets[i], w.shapes[i].rows, w.shapes[i].cols, x.data(), y.data());
  };
  const auto [s1, g1] = sideBySide(one, stream, [&] { pass(one); }, weightBytes, reps);
  const auto [sAll, gAll] = sideBySide(all, stream, [&] { pass(all); }, weightBytes, reps);
  std::printf("%-26s %8.1f %6.2f %6.2f %5.2f %6.2f %6.2f %5.2f\n", w.name.c_str(), double(weightBytes) / 1e6, s1, g1,
              g1 / s1, sAll, gAll, gAll / sAll);
}

}  // namespace

int main(int argc, char** argv) {
  int reps = 5;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--portable") == 0)
      llama::forcePortable(true);
    else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc)
      only = argv[++i];
    else
      reps = std::max(1, std::atoi(argv[i]));
  }
  llama::ThreadPool one(1), all(0);
  std::printf("kernel path: %s; all threads: %u; best of %d passes\n", llama::kernelPath(), all.size(), reps);

  Buffer stream(size_t(1) << 30);
  for (size_t i = 0; i < stream.n; i += 8) {
    const uint64_t v = i * 0x9e3779b97f4a7c15ull;
    std::memcpy(stream.p + i, &v, 8);
  }
  std::printf("GB/s: weight bytes of the products, and of a streaming read of 1 GiB timed in alternation with them\n");
  std::printf("%-26s %8s %6s %6s %5s %6s %6s %5s\n", "case", "MB/pass", "strm1", "prod1", "ratio", "strmN", "prodN",
              "ratio");

  const Workload cases[] = {
      square("Q8_0 4096x4096", llama::kQ8_0, 4096, 4096), square("Q4_0 4096x4096", llama::kQ4_0, 4096, 4096),
      square("F16 4096x4096", llama::kF16, 4096, 4096),   square("BF16 4096x4096", llama::kBF16, 4096, 4096),
      square("F32 4096x4096", llama::kF32, 4096, 4096),   square("Q8_0 1024x1024", llama::kQ8_0, 1024, 1024),
      square("Q8_0 2816x1024", llama::kQ8_0, 2816, 1024), square("Q8_0 1024x2816", llama::kQ8_0, 1024, 2816),
      square("Q8_0 32000x1024", llama::kQ8_0, 32000, 1024), model(),
      cached("Q8_0 in cache 256x1024", llama::kQ8_0, 256, 1024, 2000),
      cached("Q4_0 in cache 256x1024", llama::kQ4_0, 256, 1024, 2000),
      cached("F16 in cache 128x1024", llama::kF16, 128, 1024, 2000),
      cached("F32 in cache 64x1024", llama::kF32, 64, 1024, 2000),
  };
  for (const Workload& w : cases)
    if (only.empty() || w.name.find(only) != std::string::npos) runWorkload(w, one, all, stream, reps);
  std::printf("(sink %llu)\n", (unsigned long long)(gSink.load() & 1));
  return 0;
}
