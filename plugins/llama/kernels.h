// The number crunching of the llama runtime: matrix-vector and batched
// matrix products over weights stored as F32, F16, BF16, Q8_0, Q4_0 or the
// K-quant super-blocks (Q2_K..Q6_K), row dequantisation, and a small pool
// that spreads rows over all cores. The AVX2/FMA/F16C
// paths are chosen at run time from what the CPU reports; a portable path
// stands behind them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace llama {

// Tensor element types, in ggml numbering as the GGUF importer writes them.
enum DType : uint16_t {
  kF32 = 0, kF16 = 1, kQ4_0 = 2, kQ8_0 = 8, kQ2_K = 10, kQ3_K = 11, kQ4_K = 12, kQ5_K = 13, kQ6_K = 14, kBF16 = 30
};

bool dtypeSupported(uint16_t t);
// Elements per block: 1 for the float types, 32 for Q8_0/Q4_0, 256 for the
// K-quants; 0 for a type we don't run.
size_t blockElems(DType t);
// Bytes of one row of `cols` elements; 0 for an unsupported type or a
// quantised row that is not whole blocks.
size_t rowBytes(DType t, size_t cols);

// Half and bfloat16 conversions, exact for every value (round to nearest
// even on the way down).
float f16ToF32(uint16_t h);
uint16_t f32ToF16(float f);
float bf16ToF32(uint16_t h);

// y[r] = sum_c W[r][c] * x[c] for r in [r0, r1). W holds rows of `cols`
// elements of type t, one after another. The Q8_0 and Q4_0 paths may
// quantise x to 8 bits per 32-element block first (as the weights are),
// which is within the error those formats carry anyway; F32, F16 and BF16
// accumulate in f32 without rounding x.
void matvecRows(DType t, const void* W, size_t cols, const float* x, float* y, size_t r0, size_t r1);

// Attention over `count` cached rows, `stride` floats apart, of which the
// first n floats are read: scores[t] = scale * dot(q, keys[t]), and
// out = sum_t a[t] * vals[t].
void attnScores(const float* q, const float* keys, size_t stride, size_t count, size_t n, float scale, float* scores);
void attnMix(const float* a, const float* vals, size_t stride, size_t count, size_t n, float* out);

// Row `row` of W as f32 into out[0, cols).
void dequantRow(DType t, const void* W, size_t row, size_t cols, float* out);

// Which instruction paths are in use ("avx2+fma+f16c" or "portable").
const char* kernelPath();
// Forces the portable path (tests compare the two).
void forcePortable(bool on);

// A fixed set of worker threads; run() splits [0, n) into contiguous
// chunks, one per thread (the caller's thread takes one too), and returns
// when all are done; empty chunks are not handed out. A thread that is done
// takes a chunk nobody has started, so a worker that wakes late holds up
// nothing. One run at a time. Idle workers spin briefly, then sleep.
class ThreadPool {
 public:
  explicit ThreadPool(unsigned threads = 0);  // 0: all cores
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  unsigned size() const { return unsigned(workers_.size()) + 1; }
  void run(size_t n, const std::function<void(size_t begin, size_t end)>& fn);

 private:
  void work(unsigned index);

  std::vector<std::thread> workers_;
  std::mutex mu_;
  std::condition_variable wake_, done_;
  const std::function<void(size_t, size_t)>* job_ = nullptr;
  size_t n_ = 0;
  // Bits 63..16 count runs (bumped under mu_); bits 15..0 are the next
  // chunk of the current run to hand out.
  std::atomic<uint64_t> state_{0};
  std::atomic<unsigned> pending_{0};  // chunks of this run not yet finished
  bool stop_ = false;
};

// matvecRows over all rows, spread over the pool.
void matvec(ThreadPool& pool, DType t, const void* W, size_t rows, size_t cols, const float* x, float* y);

// Y[i * rows + r] = sum_c W[r][c] * X[i * cols + c] for the n rows of X,
// spread over the pool. Each block of weight rows is unpacked once (to
// 8-bit groups for AVX-512 VNNI, else to f32) and used for every row of X
// while it is in cache. The quantised types round X to 8 bits per block of
// 32 first, exactly as matvec does, so row i of Y matches matvec of row i
// of X up to the order of float additions.
void matmul(ThreadPool& pool, DType t, const void* W, size_t rows, size_t cols, const float* X, size_t n, float* Y);

}  // namespace llama
